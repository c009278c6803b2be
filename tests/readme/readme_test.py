"""Builds and runs the program of README.md with the project file that stands there beside it.

CXX is the compiler; for another machine's programs TOOLCHAIN is the toolchain file and EMULATOR the
command that runs them, both else empty.
"""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
EMULATOR = os.environ["EMULATOR"].split()
README = (ROOT / "README.md").read_text(encoding="utf-8")

# The snippet that sets the trace level, made a program that exits with the level.
LEVEL_TARGET = """
add_executable(level level.cpp)
target_link_libraries(level PRIVATE platform::trace)
"""
LEVEL_PROGRAM = """%s
int main()
{
    %s
    return trace::level();
}
"""


def blocks(language):
    return re.findall(rf"^```{language}\n(.*?)^```$", README, re.MULTILINE | re.DOTALL)


class ReadmeProgram(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls._folder = tempfile.TemporaryDirectory()
        folder = pathlib.Path(cls._folder.name)
        (folder / "sqlwrapper").symlink_to(ROOT)
        program, level = blocks("cpp")
        (folder / "CMakeLists.txt").write_text(blocks("cmake")[0] + LEVEL_TARGET, encoding="utf-8")
        (folder / "shop.cpp").write_text(program, encoding="utf-8")
        include, statement = level.split("\n", 1)
        (folder / "level.cpp").write_text(LEVEL_PROGRAM % (include, statement), encoding="utf-8")
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

    def run_program(self, folder):
        return subprocess.run([*EMULATOR, self.build / "shop"], cwd=folder, capture_output=True,
                              text=True, check=False)

    def test_prints_what_the_readme_says(self):
        with tempfile.TemporaryDirectory() as folder:
            done = self.run_program(folder)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, blocks("text")[0], ""))

    def test_keeps_its_rows_for_the_next_run(self):
        with tempfile.TemporaryDirectory() as folder:
            self.run_program(folder)
            done = self.run_program(folder)
        self.assertEqual(done.stdout, blocks("text")[0] + "2|Captain's tea|2.5\n")

    def test_fails_where_no_database_can_be_made(self):
        with tempfile.TemporaryDirectory() as folder:
            os.mkdir(os.path.join(folder, "products.db"))
            done = self.run_program(folder)
        self.assertEqual((done.returncode, done.stdout), (1, ""))

    def test_level_is_set_as_shown(self):
        done = subprocess.run([*EMULATOR, self.build / "level"], check=False)
        self.assertEqual(done.returncode, 3)

    def test_is_about_twenty_lines_long(self):
        self.assertLessEqual(len(blocks("cpp")[0].splitlines()), 25)


if __name__ == "__main__":
    unittest.main()
