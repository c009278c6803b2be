"""Writes manual pages out of what doxygen gathered as XML: an overview of each library, a page for
each class and one for the rest of what each library has in a namespace, to which the name of every
function leads.

man.py XML-FOLDER MAN-FOLDER VERSION
"""

import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree

PROJECT = "sqlwrapper"
# The pages of namespaces are called after the libraries: others may have such namespaces too.
NAMESPACES = {"sql": "functions", "trace": "trace"}
ESCAPES = {"\\": "\\e", "-": "\\-", "'": "\\(aq", "`": "\\(ga", "^": "\\(ha", "~": "\\(ti"}


def escaped(text):
    return "".join(ESCAPES.get(character, character) for character in text)


def lines_of(text):
    """Lines, escaped already, that none is taken for a macro of."""
    return ["\\&" + line if line.startswith(".") else line for line in text]


def unfilled(lines):
    """Lines, escaped already, that stay as they are."""
    return [".PP", ".nf", *lines_of(lines), ".fi"]


def started(lines):
    """Lines without the macro for a distance from what is before them."""
    return lines[1:] if lines[0] == ".PP" else lines


def indented(lines):
    return [".RS 4", *lines, ".RE"]


def section(title, lines):
    return [f'.SH "{escaped(title.upper())}"', *started(lines)]


def wrapped(text, **options):
    """A text, escaped already, in lines. The blanks that a message starts with are kept."""
    text = re.sub(r"\s*\n\s*", " ", text)
    text = re.sub(r'(?<=")  +', lambda blanks: "\\ " * len(blanks[0]), text)
    return textwrap.wrap(re.sub(r"(?<=\S)  +", " ", text).strip(), 78, break_long_words=False,
                         break_on_hyphens=False, **options)


def plain(element):
    """The text of an element; blanks may be elements of their own."""
    text = " " if element.tag == "sp" else element.text or ""
    return text + "".join(plain(child) + (child.tail or "") for child in element)


def styled(element):
    """The text of an element, escaped, with code in bold letters."""
    text = escaped(element.text or "")
    text += "".join(styled(child) + escaped(child.tail or "") for child in element)
    return f"\\fB{text}\\fP" if element.tag == "computeroutput" else text


def verbatim(element):
    text = textwrap.dedent(element.text).strip("\n")
    return indented(unfilled(escaped(text).splitlines()))


def items(element):
    return [line for item in element for line in [".IP * 2", *started(paragraph(item[0]))]]


BLOCKS = {"verbatim": verbatim, "itemizedlist": items}


def paragraph(element):
    """A paragraph, and the lists and the code within it."""
    lines, text = [], escaped(element.text or "")
    for child in [*element, None]:
        if child is not None and child.tag not in BLOCKS:
            text += styled(child) + escaped(child.tail or "")
            continue
        filled = wrapped(text)
        lines += [".PP", *lines_of(filled)] if filled else []
        if child is not None:
            lines += BLOCKS[child.tag](child)
            text = escaped(child.tail or "")
    return lines


def described(element):
    """All that is said about a class, a member or a page."""
    lines = []
    for child in [*element.find("briefdescription"), *element.find("detaileddescription")]:
        if child.tag == "para":
            lines += paragraph(child)
        elif child.tag == "sect1":
            parts = [line for para in child.iterfind("para") for line in paragraph(para)]
            lines += section(child.findtext("title"), parts)
    return lines


def summary(element):
    """What is said first, up to a full stop or a colon, as the line with the name has it."""
    text = plain(element.find("briefdescription")) + plain(element.find("detaileddescription"))
    first = re.match(r".*?(?=[.:](\s|$))", " ".join(text.split()))[0]
    return escaped(first[0].lower() + first[1:])


def template_parameter(parameter):
    words = [plain(parameter.find(part)) for part in ("type", "declname")
             if parameter.find(part) is not None]
    value = parameter.find("defval")
    return " ".join(words) + (f" = {plain(value)}" if value is not None else "")


def declaration(member):
    """A member as a header declares it."""
    name = member.findtext("name")
    if member.get("kind") == "enum":
        values = [f"{value.findtext('name')} {value.findtext('initializer') or ''}".strip()
                  for value in member.iterfind("enumvalue")]
        kind = "enum class" if member.get("strong") == "yes" else "enum"
        return f"{kind} {name} {{ {', '.join(values)} }};"
    words = [*(["explicit"] if member.get("explicit") == "yes" else []),
             *(["static"] if member.get("static") == "yes" and member.get("kind") == "function"
               else []),
             *(["typedef"] if member.get("kind") == "typedef" else []),
             plain(member.find("type")), name]
    text = " ".join(words) + (member.findtext("argsstring") or "")
    value = member.findtext("initializer") or ""
    if member.find("templateparamlist") is not None:
        parameters = ", ".join(template_parameter(parameter)
                               for parameter in member.find("templateparamlist"))
        text = f"template <{parameters}> {text}"
        value = "" # not the same for all types: the comment says it
    text = re.sub(r"(?<=\w)=(?=\w)", " = ", text)
    text = re.sub(r" ([*&]+) ?(?=\w|=|\)|\.)", r"\1 ", text).replace("& )", "&)").replace("* )", "*)")
    text = re.sub(r"< (.*?) >", r"<\1>", text).replace(")=", ") = ")
    return " ".join(f"{text} {value}".split()) + ";"


def place(element):
    return pathlib.PurePath(element.find("location").get("file"))


def library(element):
    """The library of a header, by its folder; what a platform lends belongs to the first."""
    parts = place(element).parts
    return parts[2] if parts[0] == "components" else PROJECT


def members(compound):
    """What programs can use, in the order of the source. Doxygen takes the members of a private union
    for public ones."""
    found = [member for member in compound.iter("memberdef")
             if member.get("prot") == "public" and member.get("kind") != "friend"
             and not member.findtext("name").startswith("_")]
    return sorted(found, key=lambda member: (place(member), int(member.find("location").get("line"))))


def enumerators(member):
    lines = []
    for value in member.iterfind("enumvalue"):
        name = f"\\fB{value.findtext('name')}\\fP:"
        lines += [".IP * 2", name, *started(described(value))]
    return lines


def operations(found):
    """What is said about members, each text once and after all that it is about."""
    texts = []
    for member in found:
        text = described(member) + enumerators(member)
        if not texts or texts[-1][1] != text:
            texts.append(([], text))
        texts[-1][0].append(declaration(member))
    lines = []
    for declarations, text in texts:
        bold = [f"\\fB{escaped(part)}\\fP" for line in declarations
                for part in textwrap.wrap(line, 72, subsequent_indent="    ")]
        lines += [*unfilled(bold), *indented(started(text))]
    return lines


def synopsis(headers):
    return section("Synopsis", unfilled([f"\\fB#include <{header}>\\fP" for header in headers]))


def inherited(compound):
    scope = compound.findtext("compoundname").rpartition("::")[0]
    bases = [f"\\fB{escaped(f'{scope}::{base.text}')}\\fP(3)"
             for base in compound.iterfind("basecompoundref")]
    return [".PP", "Besides, it has the members of " + ", ".join(bases) + "."] if bases else []


class Manual:
    def __init__(self, folder, version):
        self.folder = folder
        self.version = version
        self.pages = {} # by name: what writes it, with what

    def gather(self, compound):
        kind, name = compound.get("kind"), compound.findtext("compoundname")
        if kind == "page":
            self.pages[name] = (self.write_overview, compound)
        elif kind == "namespace":
            for own in sorted({library(member) for member in members(compound)}):
                self.pages[f"{own}-{NAMESPACES[name]}"] = (self.write_namespace, compound, own)
        elif compound.get("prot") == "public":
            self.pages[name] = (self.write_class, compound)

    def write_all(self):
        for name, (write, *about) in self.pages.items():
            write(name, *about)

    def write(self, name, names, about, lines):
        others = sorted(page for page in self.pages if page != name)
        see = ", ".join(f"\\fB{escaped(page)}\\fP(3)" for page in others)
        # Without a date: the pages are the same whenever they are built.
        release = f'"{PROJECT} {self.version}" "Library Functions Manual"'
        head = [f'.TH "{escaped(name)}" 3 "" {release}', ".ad l", ".nh"]
        title = [", ".join(escaped(name) for name in names) + " \\- " + about]
        page = head + section("Name", title) + lines + section("See also", [see])
        (self.folder / f"{name}.3").write_text("\n".join(page) + "\n", encoding="utf-8")

    def write_overview(self, name, compound):
        about = compound.findtext("title").partition(": ")[2]
        self.write(name, [name], escaped(about), section("Description", described(compound)))

    def write_class(self, name, compound):
        said = [*operations(members(compound)), *inherited(compound)]
        self.write(name, [name], summary(compound),
                   synopsis([place(compound).name])
                   + section("Description", described(compound))
                   + (section("Members", said) if said else []))

    def write_namespace(self, name, compound, own):
        found = [member for member in members(compound) if library(member) == own]
        functions = dict.fromkeys(f"{compound.findtext('compoundname')}::{member.findtext('name')}"
                                  for member in found if member.get("kind") == "function")
        about = "functions and types of namespace " + compound.findtext("compoundname")
        description = section("Description", described(compound)) if library(compound) == own else []
        self.write(name, [name, *functions], about,
                   synopsis(sorted({place(member).name for member in found}))
                   + description + section("Members", operations(found)))
        for function in functions:
            (self.folder / f"{function}.3").symlink_to(f"{name}.3")


def main():
    source, folder, version = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3]
    index = xml.etree.ElementTree.parse(source / "index.xml").getroot()
    for old in folder.glob("*.3"):
        old.unlink()
    folder.mkdir(parents=True, exist_ok=True)
    manual = Manual(folder, version)
    for entry in index:
        if entry.get("kind") in ("class", "struct", "namespace", "page"):
            file = source / f"{entry.get('refid')}.xml"
            manual.gather(xml.etree.ElementTree.parse(file).getroot()[0])
    manual.write_all()


if __name__ == "__main__":
    main()
