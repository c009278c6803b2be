"""The project's documents, and what stands in them."""

import pathlib
import re
import textwrap

ROOT = pathlib.Path(__file__).resolve().parents[2]
FILES = sorted(path.relative_to(ROOT).as_posix() for path in
               [*ROOT.glob("*.md"), *ROOT.glob("*/*.md"), *ROOT.glob("*/*/*.md")]
               if path.relative_to(ROOT).parts[0] != "build")


def text(file):
    return (ROOT / file).read_text(encoding="utf-8")


def blocks(file, language=r"\w*"):
    """The contents of the fenced blocks of a language, by default of all."""
    found = re.findall(rf"^( *)```{language}\n(.*?)^ *```$", text(file), re.MULTILINE | re.DOTALL)
    return [textwrap.dedent(content) for _, content in found]


def prose(file):
    """A document without its blocks."""
    return re.sub(r"^ *```.*?^ *```$", "", text(file), flags=re.MULTILINE | re.DOTALL)


def is_part_of(block, source):
    """Whether the lines stand together in a source, perhaps indented."""
    return any("\n" + textwrap.indent(block, " " * depth) in "\n" + source for depth in (0, 4, 8))


def header_examples(library):
    """The code in the comments above the classes of a library's public headers, above their
    namespace, and above what programs specialize."""
    headers = "".join(path.read_text(encoding="utf-8")
                      for path in sorted(ROOT.glob(f"components/*/{library}/include/*.h")))
    found = re.findall(r"((?:^///.*\n)*)^(?:template <.*> )?(namespace|class|struct) "
                       r"(?:\[\[nodiscard\]\] )?(\w+) *([:{;])", headers, re.MULTILINE)
    code = [(name, "".join(re.findall(r"^///     (.*\n)", comment, re.MULTILINE)),
             kind == "class" and end != ";") for comment, kind, name, end in found]
    return {name: text for name, text, needs_code in code if text or needs_code}


def examples():
    """The sources of the example programs."""
    return {path.relative_to(ROOT).as_posix(): path.read_text(encoding="utf-8")
            for path in sorted(ROOT.glob("examples/**/*.cpp"))}
