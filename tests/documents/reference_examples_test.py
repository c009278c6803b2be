"""Runs the programs that the pages of the reference begin with: they print what their comments say.

PROGRAMS is the folder with the programs, EMULATOR the command that runs those of another machine,
else empty.
"""

import os
import pathlib
import re
import subprocess
import tempfile
import textwrap
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = pathlib.Path(os.environ["PROGRAMS"])
EMULATOR = os.environ["EMULATOR"].split()
SOURCES = sorted((ROOT / "examples" / "reference").glob("*.cpp"))
HEADERS = sorted(ROOT.glob("components/*/*/include/*.h"))


class ExampleTest(unittest.TestCase):
    def test_programs_print_what_their_comments_say(self):
        for source in SOURCES:
            with self.subTest(source.name), tempfile.TemporaryDirectory() as folder:
                said = re.findall(r"// -> (.*)", source.read_text(encoding="utf-8"))
                done = subprocess.run([*EMULATOR, PROGRAMS / source.stem], cwd=folder, check=False,
                                      capture_output=True, encoding="utf-8",
                                      env={**os.environ, "TZ": "UTC", "LC_ALL": "C"})
                self.assertGreater(len(said), 0)
                self.assertEqual((done.returncode, done.stdout.splitlines(), done.stderr),
                                 (0, said, ""))
                self.assertEqual(os.listdir(folder), [])

    def test_every_example_is_shown_by_a_header(self):
        shown = [name for header in HEADERS for name in
                 re.findall(r"/// @snippet (\S+)", header.read_text(encoding="utf-8"))]
        self.assertEqual(sorted([*shown, "field.cpp"]), [source.name for source in SOURCES])

    def test_columns_in_the_header_are_those_of_the_example(self):
        header = (ROOT / "components/sql/sqlwrapper/include/SqlField.h").read_text(encoding="utf-8")
        block = re.search(r"closes:\n///\n((?:///     .*\n)+)", header)[1]
        code = textwrap.dedent(block.replace("///", ""))
        self.assertIn(code, (ROOT / "examples/reference/field.cpp").read_text(encoding="utf-8"))


if __name__ == "__main__":
    unittest.main()
