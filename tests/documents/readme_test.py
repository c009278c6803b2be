"""Builds and runs what the documents and the public headers show in C++: the program of README.md with
the project file that stands there beside it, and the fragments, each as a function's body. What an
example program contains is built with that.

CXX is the compiler; for another machine's programs TOOLCHAIN is the toolchain file and EMULATOR the
command that runs them, both else empty.
"""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import documents

EMULATOR = os.environ["EMULATOR"].split()
WITH_PREPARED = unittest.skipUnless(os.environ["PREPARED"] == "1", "SQLite is too old for the program")

# The fragments, made a program that runs each on a table of its own and exits with what they leave
# as the trace level, after a line for each that failed.
FRAGMENTS_TARGET = """
add_executable(fragments fragments.cpp)
target_link_libraries(fragments PRIVATE sqlwrapper::sqlwrapper platform::trace)
foreach(library sqlwrapper sqlprepared sqlsync)
    if(TARGET sqlwrapper::${library})
        add_executable(${library}_headers ${library}.cpp)
        set_target_properties(${library}_headers PROPERTIES CXX_STANDARD_REQUIRED ON CXX_EXTENSIONS OFF)
        target_link_libraries(${library}_headers PRIVATE sqlwrapper::${library} platform::trace)
    endif()
endforeach()
set_target_properties(sqlwrapper_headers PROPERTIES CXX_STANDARD 11)
"""
INCLUDES = """
#include "SqlDatabase.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"
#include "TraceLevel.h"
#include <cstdio>
"""
COLUMNS = """
static const sql::Field columns[] = {sql::Field("id", sql::type_int, sql::flag_primary_key),
                                     sql::Field("name", sql::type_text, sql::flag_none),
                                     %s sql::Field()};
"""
PRICE = 'sql::Field("price", sql::type_float, sql::flag_none),'
FUNCTION = """
static bool fragment%d(sql::Table& table, const sql::string& text, const sql::string& key)
{
    (void)table, (void)text, (void)key;
    {
%s
    }
    return true;
}
"""
CALL = """
    {
        sql::Database database;
        if (!database.open(":memory:", sql::Database::access_create, false, 0))
            return 100;
        sql::Table table(database.getHandle(), "product", columns);
        if (!table.create() || !fragment%d(table, "it's", "it's secret"))
            std::printf("%s\\n");
    }
"""


# The libraries with the standard includes of their examples; sqlprepared where SQLite is recent enough.
LIBRARIES = {"sqlwrapper": ""}
if os.environ["PREPARED"] == "1":
    LIBRARIES["sqlprepared"] = ('#include "SqlBackup.h"\n#include "SqlBlob.h"\n#include "SqlGroupCommit.h"\n'
                                '#include "SqlFunction.h"\n#include "SqlMigration.h"\n'
                                '#include "SqlPreparedTable.h"\n#include "SqlSettings.h"\n'
                                '#include "SqlStopFlag.h"\n#include "SqlTypedTable.h"\n'
                                "#include <thread>\n")

if os.environ["SYNC"] == "1":
    LIBRARIES["sqlsync"] = ('#include "SqlChangeReader.h"\n#include "SqlInbox.h"\n#include "SqlOutbox.h"\n'
                            '#include "SqlRecorder.h"\n#include "SqlStatement.h"\n')

# The examples of the headers, made a program that runs the one it is told; those that do not stand in
# a function are checked by one that does.
HEADER_EXAMPLE = """
static int example%s(sql::Database& database, sql::Table& products, const sql::Record& tea)
{
    (void)database, (void)products, (void)tea;
    {
%s
%s
    }
    return 0;
}
"""
OUTSIDE = {"Binder": """
struct Money {
    sql::integer cents;
};
%s
"""}
USES = {"Binder": """
    sql::Statement same(database, "select ?");
    const auto money = same.one<Money>(Money{250});
    return money && money->cents == 250 ? 0 : 1;
"""}
# What stands before some: a change set, and the database at the other end.
SENT = """
    sql::ChangeSet sent;
    {
        sql::Recorder recorder(database, {"product"});
        sql::RecordedTransaction transaction(recorder);
        products.addRecord(tea);
        if (!transaction.commit() || !sql::Outbox(database, "device-17").next(sent))
            return 100;
    }
    const std::string_view header = sent.header();
    const std::string_view bytes = sent.bytes();
"""
READ = "    const sql::Envelope envelope = *sql::readEnvelope(header);\n"
CENTRE = """
    sql::Database centre;
    if (!centre.open(":memory:", sql::Database::access_create, false, 0)
        || !sql::Table(centre.getHandle(), "product", columns).create())
        return 100;
"""
GIVEN = {"Envelope": SENT, "ChangeReader": SENT + READ, "Inbox": SENT + CENTRE}
HEADERS_MAIN = """
#include <syslog.h>
int main(int, char** argv)
{
    openlog("headers", LOG_PERROR, LOG_USER);
    trace::setLevel(trace::trace_errors);
    sql::Database database;
    if (!database.open(":memory:", sql::Database::access_create, false, 0))
        return 100;
    sql::Table products(database.getHandle(), "product", columns);
    sql::Record rum(*products.fields());
    rum.setString("name", "rum");
    rum.setDouble("price", 2.5);
    if (!products.create() || !products.addRecord(rum))
        return 100;
    const sql::string name = argv[1];
%s    return 101;
}
"""


# What the examples print of the row that is there, or of a database in memory; what else they print,
# their comments say.
ROWS = {"RecordSet": ["1|rum|null"], "Settings": ["journal_mode is memory, not wal"], "Table": ["1|rum|2.5"]}
# What is reported of an example that fails.
REPORTS = {"Error": ["SQL statement 'insert into product (id) values (?)' failed: ",
                     "  rc=1555=SQLITE_CONSTRAINT_PRIMARYKEY: UNIQUE constraint failed: product.id"],
           "MappedCursor": ["SQL statement 'select name from nowhere' failed: ",
                            "  rc=1=SQLITE_ERROR: no such table: nowhere"],
           "Settings": ["SQL statement 'pragma main.journal_mode = wal' failed: ",
                        "  rc=1=SQLITE_ERROR: journal_mode is memory, not wal"],
           "StopFlag": ["SQL statement 'select * from product' failed: ",
                        "  rc=9=SQLITE_INTERRUPT: interrupted"]}


def headers_program(library):
    examples = documents.header_examples(library)
    outside = "".join(OUTSIDE[name] % code for name, code in examples.items() if name in OUTSIDE)
    functions = "".join(HEADER_EXAMPLE % (name, GIVEN.get(name, ""), USES.get(name, code))
                        for name, code in examples.items())
    calls = "".join(f'    if (name == "{name}")\n        return example{name}(database, products, rum);\n'
                    for name in examples)
    return INCLUDES + LIBRARIES[library] + COLUMNS % PRICE + outside + functions + HEADERS_MAIN % calls


def fragments():
    """The blocks that neither are a program nor stand in one: their documents and texts."""
    sources = documents.examples().values()
    return [(file, block) for file in documents.FILES for block in documents.blocks(file, "cpp")
            if "int main(" not in block
            and not any(documents.is_part_of(block, source) for source in sources)]


def fragments_program():
    includes, functions, calls = INCLUDES, COLUMNS % "", ""
    for number, (file, block) in enumerate(fragments()):
        includes += "".join(re.findall(r"^#include.*\n", block, re.MULTILINE))
        body = re.sub(r"^#include.*\n", "", block, flags=re.MULTILINE)
        # A device's folders are not here.
        functions += FUNCTION % (number, re.sub(r'"/var/lib/.*/([^/]*)"', r'"\1"', body))
        calls += CALL % (number, f"{file}, fragment {number}")
    return f"{includes}{functions}\nint main()\n{{{calls}\n    return trace::level();\n}}\n"


class ReadmeProgram(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls._folder = tempfile.TemporaryDirectory()
        folder = pathlib.Path(cls._folder.name)
        (folder / "sqlwrapper").symlink_to(documents.ROOT)
        project = documents.blocks("README.md", "cmake")[0] + FRAGMENTS_TARGET
        if os.environ["PREPARED"] != "1":
            project = re.sub(r".*\(shop .*\n", "", project)
        (folder / "CMakeLists.txt").write_text(project, encoding="utf-8")
        (folder / "shop.cpp").write_text(documents.blocks("README.md", "cpp")[0], encoding="utf-8")
        (folder / "fragments.cpp").write_text(fragments_program(), encoding="utf-8")
        for library in LIBRARIES:
            (folder / f"{library}.cpp").write_text(headers_program(library), encoding="utf-8")
        cls.build = folder / "build"
        compiler = ["-DCMAKE_CXX_COMPILER=" + os.environ["CXX"],
                    "-DCMAKE_TOOLCHAIN_FILE=" + os.environ["TOOLCHAIN"]]
        for command in (["cmake", "-S", folder, "-B", cls.build, "-G", "Ninja", *compiler],
                        ["cmake", "--build", cls.build]):
            done = subprocess.run(command, capture_output=True, text=True, check=False)
            if done.returncode != 0:
                raise AssertionError(done.stdout + done.stderr)

    @classmethod
    def tearDownClass(cls):
        cls._folder.cleanup()

    def run_program(self, folder, name="shop", *arguments):
        return subprocess.run([*EMULATOR, self.build / name, *arguments], cwd=folder,
                              env={**os.environ, "TZ": "UTC"}, capture_output=True, text=True,
                              check=False)

    def output(self):
        return documents.blocks("README.md", "text")[0]

    @WITH_PREPARED
    def test_prints_what_the_readme_says(self):
        with tempfile.TemporaryDirectory() as folder:
            done = self.run_program(folder)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, self.output(), ""))

    @WITH_PREPARED
    def test_keeps_its_rows_for_the_next_run(self):
        with tempfile.TemporaryDirectory() as folder:
            self.run_program(folder)
            done = self.run_program(folder)
        reason = "UNIQUE constraint failed: product.name"
        self.assertEqual(done.stdout, f"Captain's tea: {reason}\nTea pot: {reason}\n{self.output()}")
        self.assertIn(f"`Tea pot: {reason}`", (documents.ROOT / "README.md").read_text(encoding="utf-8"))

    @WITH_PREPARED
    def test_fails_where_no_database_can_be_made(self):
        with tempfile.TemporaryDirectory() as folder:
            os.mkdir(os.path.join(folder, "products.db"))
            done = self.run_program(folder)
        self.assertEqual((done.returncode, done.stdout), (1, ""))

    def test_fragments_work_and_the_level_is_set_as_shown(self):
        with tempfile.TemporaryDirectory() as folder:
            done = self.run_program(folder, "fragments")
        self.assertEqual((done.stdout, done.stderr, done.returncode), ("", "", 3))

    def test_examples_of_the_headers_print_what_is_expected(self):
        for library in LIBRARIES:
            for name, code in documents.header_examples(library).items():
                with self.subTest(name), tempfile.TemporaryDirectory() as folder:
                    done = self.run_program(folder, f"{library}_headers", name)
                    said = re.findall(r"(?:printf|puts)\([^;]*\); *// (.*)", code) + ROWS.get(name, [])
                    told = [line.partition(" - ")[2] for line in done.stderr.splitlines()]
                    self.assertEqual((done.returncode, done.stdout.splitlines(), told),
                                     (0, said, REPORTS.get(name, [])))

    def test_examples_of_the_headers_are_short(self):
        for library in LIBRARIES:
            for name, code in documents.header_examples(library).items():
                if name not in OUTSIDE:
                    self.assertIn(len(code.splitlines()), range(5, 9), f"{name}\n{code}")

    def test_every_program_is_that_of_the_readme_or_an_example(self):
        sources = documents.examples().values()
        programs = [block for file in documents.FILES for block in documents.blocks(file, "cpp")
                    if "int main(" in block
                    and not any(documents.is_part_of(block, source) for source in sources)]
        self.assertEqual(programs, documents.blocks("README.md", "cpp")[:1])


if __name__ == "__main__":
    unittest.main()
