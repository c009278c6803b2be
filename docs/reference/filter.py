"""Prints a page of the guide as doxygen takes it: with names for itself and its headings, and with
links that lead to the pages of the reference. A link into the tree, which is not beside the reference,
becomes its text.

filter.py FILE
"""

import os
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]


def page_name(path):
    """What a page is referred to by: docs/limits.md as guide_limits."""
    return "guide_" + path.stem.lower().replace("-", "_")


def slug(heading):
    """What a heading is linked by in Markdown."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")


def heading_name(page, anchor):
    return f"{page}_{anchor}".replace("-", "_")


def heading(path, line, known):
    """A heading with its name, numbered where it comes again; doxygen takes no code in such a one."""
    marks, text = line.replace("`", "").split(" ", 1)
    name = page_name(path) if marks == "#" else heading_name(page_name(path), slug(text))
    known.append(name)
    again = f"_{known.count(name) - 1}" if known.count(name) > 1 else ""
    return f"{marks} {text} {{#{name}{again}}}"


def link(path, text, target):
    if target.startswith(("http://", "https://")):
        return f"[{text}]({target})"
    file, _, anchor = target.partition("#")
    place = pathlib.Path(os.path.normpath(path.parent / file)) if file else path
    if place.suffix != ".md":
        return text
    name = page_name(place)
    return f"[{text}](@ref {heading_name(name, anchor) if anchor else name})"


def code(match):
    """Code as doxygen takes it, whatever quotes and conversions are in it."""
    return "``" + re.sub(r"%(?=\w)", "%%", match[1].replace('"', "&quot;")) + "``"


def prose(path, lines, known):
    """What stands outside of blocks; a link may go from one line to the next."""
    lines = [heading(path, line, known) if re.match(r"#+ ", line) else re.sub(r"`([^`]+)`", code, line)
             for line in lines]
    return re.sub(r"(?<!!)\[((?:[^\]`]|`[^`]*`)*)\]\(([^)\s]+)\)",
                  lambda match: link(path, " ".join(match[1].split()), match[2]),
                  "\n".join(lines)).split("\n") if lines else []


def guide_page(path):
    lines, text, known, in_block = [], [], [], False
    for line in (ROOT / path).read_text(encoding="utf-8").splitlines():
        is_fence = line.lstrip().startswith("```")
        if is_fence or in_block:
            lines += [*prose(path, text, known), line]
            text = []
        else:
            text.append(line)
        in_block = in_block != is_fence
    return lines + prose(path, text, known)


def main():
    path = pathlib.Path(sys.argv[1]).resolve().relative_to(ROOT)
    print("\n".join(guide_page(path)))


if __name__ == "__main__":
    main()
