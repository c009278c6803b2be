#!/usr/bin/env python3
"""Checks the reference that was built in a folder: whether all that programs can call is in it,
whether links lead somewhere, and whether the manual pages are sound. The last line sums up: "N passed, N failed".

reference_check.py BUILD-FOLDER
"""

import collections
import html.parser
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import urllib.parse
import xml.etree.ElementTree

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv[1]).resolve()
XML = BUILD / "docs" / "reference" / "xml-man"
HTML = BUILD / "html"
MAN = BUILD / "man" / "man3"


def text_of(element):
    """The text of an element, each run of blanks as one."""
    return " ".join("".join(element.itertext()).split())


def described(element):
    return text_of(element.find("briefdescription")) + text_of(element.find("detaileddescription"))


Operation = collections.namedtuple("Operation", "scope name parameters text")


def compounds():
    files = sorted(file for kind in ("class", "struct", "namespace") for file in XML.glob(f"{kind}*.xml"))
    found = [xml.etree.ElementTree.parse(file).getroot()[0] for file in files]
    return [compound for compound in found if compound.get("prot") != "private"]


# What the names of symbols call types of the C++ library by, on every architecture.
STANDARD_TYPES = (
    (r"std::basic_string_view<char, std::char_traits<char> ?>", "std::string_view"),
    (r"std::vector<unsigned char, std::allocator<unsigned char> ?>", "std::vector<unsigned char>"),
    (r"std::chrono::duration<long(?: long)?, std::ratio<1l+, 1000l+> ?>", "std::chrono::milliseconds"),
    (r"std::chrono::time_point<std::chrono::_V2::system_clock, [^()]*?1000000000l+> ?> ?>",
     "std::chrono::system_clock::time_point"),
    (r"(?<=void\*, |char\*, |dValue\(|wValue\()unsigned (int|long)\b", "std::size_t"))

# What only the templates in the headers call, and sqlsync of sqlprepared, by its class's name.
INTERNAL = {"sql": {"errorOf", "extendedCodeOf", "joined", "migrateSteps", "reasonOf", "reportFailure"},
            "sql::Blob": {"readPieces", "writePieces"},
            "sql::CommitGuard": {"CommitGuard", "hook", "of", "~CommitGuard"},
            "sql::FunctionCall": {"argumentAt", "isRead"},
            "sql::GroupCommit::Write": {"Write", "~Write", "end"},
            "sql::PreparedTable": {"deleteByKey", "hasKey", "readByKey", "selectWith"},
            "sql::PreparedTable::Bulk": {"Bulk", "~Bulk", "add", "addRest", "finish", "stop"},
            "sql::PreparedTable::RecordBulk": {"RecordBulk", "~RecordBulk", "add"},
            "sql::TableStatements::Bulk": {"addRest", "finish", "stop"},
            "sql::MappedCursor": {"MappedCursor", "operator=", "readNext", "~MappedCursor"},
            "sql::MappedTable": {"MappedTable", "addObject", "addOrUpdateObject", "countRows", "findByKey",
                                 "firstRow", "hasKey", "loadColumn", "loadRows", "removeByKey",
                                 "selectRows", "updateObject", "~MappedTable"},
            "sql::MappedTable::ObjectBulk": {"ObjectBulk", "add", "~ObjectBulk"},
            "sql::RecordCursor": {"nextOwn"},
            "sql::Statement": {"bindArgument", "positionOf", "readOne", "readRow", "runWith"},
            "sql::TransactionScope": {"TransactionScope", "~TransactionScope"}}


def plain_type(text):
    """A type as both doxygen and the names of symbols have it, without any blank."""
    text = re.sub(r"\b(sql|Database)::", "", text).replace("long long", "integer")
    return re.sub(r"^const ([\w:]+(?:<.*>)?)(.*)$", r"\1 const\2", text.strip()).replace(" ", "")


def gather_operations():
    found = []
    for compound in compounds():
        scope = compound.findtext("compoundname")
        for member in compound.iter("memberdef"):
            if member.get("prot") == "public" and member.get("kind") == "function":
                parameters = [plain_type(text_of(parameter.find("type")))
                              for parameter in member.iterfind("param")]
                found.append(Operation(scope, member.findtext("name"), ",".join(parameters),
                                       described(member)))
    return found


def exported():
    """What the libraries export, as recorded for their binary interfaces: names and parameters."""
    recorded = "".join(file.read_text("utf-8") for file in ROOT.glob("components/sql/*/*.abi"))
    for pattern, name in STANDARD_TYPES:
        recorded = re.sub(pattern, name, recorded)
    found = set()
    for full, parameters in re.findall(r"^SQL[A-Z]+_\S+ (.*?)\((.*)\)", recorded, re.MULTILINE):
        scope, _, operation = full.rpartition("::")
        parameters = re.sub(r"std::string\b(?!_view)", "string", parameters)
        if operation not in INTERNAL.get(scope, ()):
            found.add((scope, operation, ",".join(map(plain_type, parameters.split(", ")))))
    return found


class OperationTest(unittest.TestCase):
    operations = gather_operations()

    def test_everything_exported_is_described(self):
        known = {operation[:3] for operation in self.operations if operation.text}
        self.assertEqual(sorted(exported() - known), [])

    def test_every_operation_says_something(self):
        self.assertEqual([operation[:3] for operation in self.operations
                          if not re.match(r"\w", operation.text)], [])

    def test_every_class_begins_with_code(self):
        for compound in compounds():
            if compound.get("kind") != "struct" and compound.findtext("compoundname") != "trace":
                code = [part for para in compound.find("detaileddescription") for part in para
                        if part.tag == "verbatim"]
                self.assertEqual(len(code), 1, compound.findtext("compoundname"))


class Page(html.parser.HTMLParser):
    """The names that a page can be entered by, and the places that it leads to."""

    def __init__(self, file):
        super().__init__()
        self.names = set()
        self.targets = set()
        self.feed(file.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attributes):
        values = dict(attributes)
        self.names |= {values[key] for key in ("id", "name") if values.get(key)}
        self.targets |= {values[key] for key in ("href", "src", "data") if values.get(key)}


class HtmlTest(unittest.TestCase):
    pages = {file.name: Page(file) for file in sorted(HTML.glob("*.html"))}

    def test_links_lead_somewhere(self):
        for name, page in self.pages.items():
            for target in page.targets:
                if not re.match(r"https?:|mailto:|javascript:", target):
                    with self.subTest(name, target=target):
                        self.assert_leads_somewhere(name, target)

    def assert_leads_somewhere(self, name, target):
        file, _, anchor = urllib.parse.unquote(target).partition("#")
        file = file or name
        self.assertTrue((HTML / file).exists())
        if anchor and file in self.pages:
            self.assertIn(anchor, self.pages[file].names)

    def test_has_all_pages_of_the_guide(self):
        files = [*ROOT.glob("*.md"), *ROOT.glob("docs/*.md")]
        pages = {"guide_" + file.stem.lower().replace("-", "_") + ".html" for file in files}
        self.assertEqual({name for name in self.pages if name.startswith("guide_")}, pages)

    def test_lists_the_limits_first(self):
        text = (HTML / "pages.html").read_text(encoding="utf-8")
        self.assertEqual(re.findall(r'href="((?:guide_|sqlwrapper)\w*\.html)', text)[0],
                         "guide_limits.html")

    def test_does_not_show_marks_that_were_not_understood(self):
        for file in sorted(HTML.glob("*.html")):
            text = re.sub(r"<(script|pre)\b.*?</\1>", "", file.read_text(encoding="utf-8"), flags=re.S)
            text = re.sub(r'<div class="line">.*', "", text) # of code
            with self.subTest(file.name):
                marks = re.findall(r"ilinebr|%%|&lt;/?t[dtr]\b|\{#\w+\}|\]\([^)]", text)
                self.assertEqual(marks, [])


class ManualTest(unittest.TestCase):
    pages = sorted(page for page in MAN.iterdir() if not page.is_symlink())

    def test_has_a_page_for_every_class_and_function(self):
        wanted = {"sqlwrapper.3", "sqlwrapper-functions.3", "sqlwrapper-trace.3",
                  "sqlprepared.3", "sqlprepared-functions.3", "sqlsync.3", "sqlsync-functions.3"}
        for compound in compounds():
            name = compound.findtext("compoundname")
            if compound.get("kind") in ("class", "struct"):
                wanted.add(f"{name}.3")
            else:
                wanted |= {f"{name}::{operation.name}.3" for operation in OperationTest.operations
                           if operation.scope == name}
        self.assertEqual({page.name for page in MAN.iterdir()}, wanted)
        self.assertEqual([page.name for page in MAN.iterdir() if not page.exists()], [])

    def test_can_be_read_at_eighty_columns(self):
        for page in self.pages:
            shown = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", page], check=False,
                                   capture_output=True, encoding="utf-8",
                                   env={**os.environ, "MANWIDTH": "80", "LC_ALL": "C.UTF-8",
                                        "MAN_KEEP_FORMATTING": "", "PAGER": "cat"})
            with self.subTest(page.name):
                self.assertEqual((shown.returncode, shown.stderr), (0, ""))
                lines = re.sub(r".\x08|\x1b\[[0-9;]*m", "", shown.stdout).splitlines()
                self.assertGreater(len(lines), 20)
                self.assertEqual([line for line in lines if len(line) > 80], [])

    def test_pass_the_strictest_reader(self):
        found = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", *self.pages], check=False,
                               capture_output=True, encoding="utf-8").stdout
        # The pages have no date: they are the same whenever they are built.
        self.assertEqual([line for line in found.splitlines() if "missing date" not in line], [])


class FilesTest(unittest.TestCase):
    def test_installs_the_manual_pages(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(["cmake", "--install", BUILD / "docs" / "reference", "--prefix", folder],
                           check=True, stdout=subprocess.DEVNULL)
            pages = pathlib.Path(folder) / "share" / "man" / "man3"
            self.assertEqual(sorted(os.listdir(pages)), sorted(os.listdir(MAN)))

    def test_mentions_no_folder_of_the_build(self):
        folders = rf"{re.escape(str(ROOT))}/(build|components|docs|examples|platform)\b".encode()
        for file in [*HTML.rglob("*"), *MAN.iterdir()]:
            if file.is_file():
                with self.subTest(file.name):
                    self.assertNotRegex(file.read_bytes(), folders)


if __name__ == "__main__":
    result = unittest.main(argv=sys.argv[:1], exit=False, verbosity=2).result
    failed = len({test.id().split(" ")[0] for test, _ in result.failures + result.errors})
    print(f"{len(OperationTest.operations)} operations are described")
    print(f"{result.testsRun - failed} passed, {failed} failed")
    sys.exit(failed != 0)
