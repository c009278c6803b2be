"""Runs what docs/start.md, docs/tour.md, docs/integration.md and docs/faq.md show.

PROGRAMS is the folder with the programs of examples/guide, and EMULATOR the command that runs those
of another machine, else empty. CXX is the compiler, which stands in for g++.
"""

import contextlib
import os
import pathlib
import re
import shlex
import shutil
import sqlite3
import subprocess
import tarfile
import tempfile
import unittest

import documents

ROOT = pathlib.Path(__file__).resolve().parents[2]
GUIDE = ROOT / "examples" / "guide"
MARK = "--- next command"


def comparable(text):
    """Without blanks at the ends of lines, and with the numbers of source lines as pages have them."""
    return re.sub(r"(\.cpp:)\d+", r"\1NNN", re.sub(r" +$", "", text, flags=re.MULTILINE))


class Test(unittest.TestCase):
    maxDiff = 10000

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)


    def run_program(self, name, *arguments):
        """Its exit status and what it prints, standard error included."""
        program = [*os.environ["EMULATOR"].split(), os.path.join(os.environ["PROGRAMS"], name)]
        # A program may define what the stand-ins do, in their place.
        options = os.environ.get("ASAN_OPTIONS", "") + ":detect_odr_violation=0"
        done = subprocess.run([*program, *arguments], cwd=self.folder,
                              env={**os.environ, "TZ": "UTC", "ASAN_OPTIONS": options},
                              stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, encoding="utf-8", check=False)
        return done.returncode, comparable(done.stdout)

    def make(self, script):
        with contextlib.closing(sqlite3.connect(self.folder / "a.db")) as connection:
            connection.executescript(script)

    def query(self, statement):
        with contextlib.closing(sqlite3.connect(self.folder / "a.db")) as connection:
            return connection.execute(statement).fetchall()


class TourTest(Test):
    def run_tour(self, *arguments):
        return self.run_program("tour", *arguments)

    def test_prints_what_is_shown(self):
        parts = re.split(r"^## (.*)\n", documents.text("docs/tour.md"), flags=re.MULTILINE)[1:]
        shown = ""
        for heading, section in zip(parts[::2], parts[1::2]):
            output = "".join(re.findall(r"^```text\n(.*?)^```$", section, re.M | re.S))
            shown += f"-- {heading}\n{output}" if output else ""
        self.assertEqual(self.run_tour("a.db"), (0, comparable(shown)))

    def test_can_be_taken_again(self):
        self.run_tour("a.db")
        status, output = self.run_tour("a.db")
        self.assertEqual(status, 0)
        self.assertIn("version 1, was 1\n", output)

    def test_leaves_an_empty_table(self):
        self.run_tour("a.db")
        self.assertEqual(self.query("select name from sqlite_master"),
                         [("product",), ("sqlite_autoindex_product_1",), ("by_cents",)])
        self.assertEqual(self.query("select count(*) from product"), [(0,)])

    def test_missing_file_name_is_told(self):
        self.assertEqual(self.run_tour(), (2, "usage: tour DATABASE\n"))

    def test_file_that_is_no_database_is_told(self):
        (self.folder / "a.db").write_text("This is no database.\n" * 100, encoding="utf-8")
        self.assertEqual(self.run_tour("a.db"), (1, "tour: cannot open the database\n"))

    def test_task_that_fails_ends_the_tour(self):
        self.make("create table product (id integer primary key)")
        status, output = self.run_tour("a.db")
        self.assertEqual((status, output.splitlines()[-2:]),
                         (1, ["-- Add rows", "tour: this task failed"]))


class QuestionsTest(Test):
    OUTPUT = "hall|20\nhall|21\nhall|9223372036854775807\nstray reading: refused\n"

    def test_settings_hold_and_keys_are_not_used_again(self):
        for room in (1, 2):
            self.assertEqual(self.run_program("questions", "a.db"),
                             (0, f"room {room}\n{self.OUTPUT}"))
        self.assertEqual(self.query("select count(*) from reading"), [(0,)])
        self.assertEqual(self.query("select seq from sqlite_sequence"), [(6,)])

    def test_setting_that_sqlite_does_not_take_is_told(self):
        self.assertEqual(self.run_program("questions", ":memory:"), (1, "questions: failed\n"))

    def test_rows_that_are_refused_are_taken_back(self):
        self.make("create table reading (id integer primary key, room, value unique check (value < 99))")
        self.assertEqual(self.run_program("questions", "a.db"), (1, "room 1\nquestions: failed\n"))
        self.assertEqual(self.query("select count(*) from reading"), [(0,)])

    def test_missing_file_name_is_told(self):
        self.assertEqual(self.run_program("questions"), (2, "usage: questions DATABASE\n"))


class DeviceTest(Test):
    def test_reports_go_to_the_devices_own(self):
        place = "components/sql/sqlwrapper/src/"
        self.assertEqual(self.run_program("device"), (0, (
            f"{place}SqlTable.cpp:NNN: '_db' in bool sql::Table::exists()\n"
            "not there\n"
            "device: [ERROR] SqlFieldSet.cpp:NNN (getKeyIdName) - Failed to get name of PRIMARY KEY column\n"
            f"{place}SqlFieldSet.cpp:NNN: 'false' in sql::string sql::FieldSet::getKeyIdName() const\n"
            f"{place}SqlRecordSet.cpp:NNN: '_db' in bool sql::RecordSet::query(const string&)\n"
            "not opened\n")))


class InstalledTest(Test):
    """The session of docs/start.md in a shell, and projects that use what is installed there."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.home = pathlib.Path(folder.name)
        (cls.home / "sqlwrapper").symlink_to(ROOT)
        (cls.home / "bin").mkdir()
        compiler = cls.home / "bin" / "g++"
        compiler.write_text(f'#!/bin/sh\nexec {shlex.quote(os.environ["CXX"])} "$@"\n', "utf-8")
        compiler.chmod(0o755)
        program = [block for block in documents.blocks("docs/start.md", "cpp") if "main(" in block]
        (cls.home / "notes.cpp").write_text(program[0], encoding="utf-8")
        steps = cls.steps()
        cls.commands = [command for command, _ in steps]
        cls.shown = [output for _, output in steps]
        script = "".join(f"echo '{MARK}'\n{command}\n" for command in cls.commands)
        cls.printed = cls.run_in_shell(script).stdout.split(f"{MARK}\n")[1:]

    @staticmethod
    def steps():
        """The commands of docs/start.md in their order, each with what it prints, or None."""
        steps = []
        for language, block in re.findall(r"^```(sh|console)\n(.*?)^```$",
                                          documents.text("docs/start.md"), re.M | re.S):
            if language == "sh":
                steps += [(line, None) for line in block.splitlines() if "apt-get" not in line]
            else:
                steps += [(step.partition("\n")[0], step.partition("\n")[2])
                          for step in re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]]
        return steps

    @classmethod
    def run_in_shell(cls, script):
        environment = {**os.environ, "HOME": str(cls.home),
                       "PATH": f"{cls.home}/bin:{os.environ['PATH']}"}
        return subprocess.run(["sh", "-c", script], cwd=cls.home, env=environment,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                              check=False)

    def test_session_prints_what_is_shown(self):
        self.assertEqual(len(self.printed), len(self.commands), self.printed)
        for command, shown, printed in zip(self.commands, self.shown, self.printed):
            if shown is not None:
                with self.subTest(command):
                    self.assertEqual(comparable(printed), comparable(shown), self.printed)

    def test_program_is_the_one_of_the_examples(self):
        self.assertEqual((self.home / "notes.cpp").read_text(encoding="utf-8"),
                         (GUIDE / "notes.cpp").read_text(encoding="utf-8"))

    def test_makefile_builds_the_program(self):
        blocks = documents.blocks("docs/integration.md", "text")
        quoted, = [block for block in blocks if "LDLIBS" in block]
        self.assertIn(quoted, (GUIDE / "Makefile").read_text(encoding="utf-8"))
        done = self.run_in_shell(
            'mkdir made && cd made && cp ../notes.cpp . || exit 9\n'
            f'cp {shlex.quote(str(GUIDE / "Makefile"))} .\n'
            'export PKG_CONFIG_PATH="$HOME/sqlwrapper-1.0/lib/pkgconfig"\n'
            'make CXX=g++ >make.log 2>&1 || { cat make.log; exit 9; }\n'
            'LD_LIBRARY_PATH="$HOME/sqlwrapper-1.0/lib" ./notes tea\n'
            'make clean >make.log && ls\n')
        self.assertEqual((done.returncode, done.stdout),
                         (0, "1|tea\nMakefile\nmake.log\nnotes.cpp\nnotes.db\n"))

    def configure(self, name, part, *options):
        """The project of docs/integration.md, with the part that finds the library in one way."""
        blocks = documents.blocks("docs/integration.md", "cmake")
        project = blocks[0]
        found, = [block for block in blocks if part in block]
        if found != project:
            project = project.replace("add_subdirectory(sqlwrapper)\n", found)
        folder = self.home / name
        folder.mkdir()
        (folder / "sqlwrapper").symlink_to(ROOT)
        (folder / "CMakeLists.txt").write_text(project, encoding="utf-8")
        shutil.copy(GUIDE / "notes.cpp", folder / "shop.cpp")
        with tarfile.open(folder / "sqlwrapper-1.0.0.tar.gz", "w:gz") as archive:
            for part_of_tree in ("CMakeLists.txt", "cmake", "components", "platform"):
                archive.add(ROOT / part_of_tree, "sqlwrapper-1.0.0/" + part_of_tree)
        done = self.run_in_shell(f"cd {name} && cmake {' '.join(options)} -S . -B build 2>&1")
        self.assertEqual(done.returncode, 0, done.stdout)

    def test_project_with_the_sources_beside_it_is_configured(self):
        self.configure("beside", "add_subdirectory")

    def test_project_with_an_archive_is_configured(self):
        self.configure("archive", "FetchContent")

    def test_project_finds_what_is_installed(self):
        self.configure("installed", "find_package", f"-D CMAKE_PREFIX_PATH={self.home}/sqlwrapper-1.0")
        done = self.run_in_shell(
            "cd installed && cmake --build build >build.log || { cat build.log; exit 9; }\n"
            'LD_LIBRARY_PATH="$HOME/sqlwrapper-1.0/lib" ./build/shop tea\n')
        self.assertEqual((done.returncode, done.stdout), (0, "1|tea\n"))


if __name__ == "__main__":
    unittest.main()
