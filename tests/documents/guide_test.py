"""Runs what docs/start.md, docs/tour.md, docs/prepared.md, docs/sync.md, docs/choosing.md, docs/integration.md and
docs/faq.md show, the programs as programs.py says. CXX is the compiler, which stands in for g++.
"""

import os
import pathlib
import re
import shlex
import shutil
import subprocess
import tarfile
import tempfile
import unittest

import documents
from documents import ROOT
from programs import Test, comparable, steps_of

GUIDE = ROOT / "examples" / "guide"
MARK = "--- next command"


def printed_by_tour(page):
    """What a page shows that its tour prints, below the headings of the tasks."""
    parts = re.split(r"^## (.*)\n", documents.text(page), flags=re.MULTILINE)[1:]
    shown = ""
    for heading, section in zip(parts[::2], parts[1::2]):
        output = "".join(re.findall(r"^```text\n(.*?)^```$", section, re.M | re.S))
        shown += f"-- {heading}\n{output}" if output else ""
    return comparable(shown)


class TourTest(Test):
    def tour(self):
        """Its exit status and what it prints, standard error included."""
        status, output, _ = self.run_program("tour", "a.db", stderr=subprocess.STDOUT)
        return status, comparable(output)

    def test_prints_what_is_shown(self):
        self.assertEqual(self.tour(), (0, printed_by_tour("docs/tour.md")))

    def test_can_be_taken_again_and_leaves_an_empty_table(self):
        for version in ("version 1, was 0\n", "version 1, was 1\n"):
            status, output = self.tour()
            self.assertIn(version, output)
            self.assertEqual(status, 0, output)
            self.assertEqual(self.query("select name from sqlite_master"),
                             [("product",), ("sqlite_autoindex_product_1",), ("by_cents",)])
            self.assertEqual(self.query("select count(*) from product"), [(0,)])

    def test_wrong_use_and_a_file_that_is_no_database_are_told(self):
        self.assert_ends(self.start("tour"), 2, "", "usage: tour DATABASE\n")
        self.write("a.db", "This is no database.\n" * 100)
        self.assert_fails("cannot open the database", "tour", "a.db")

    def test_task_that_fails_ends_the_tour(self):
        self.make("create table product (id integer primary key)")
        status, output = self.tour()
        self.assertEqual((status, output.splitlines()[-2:]),
                         (1, ["-- Add rows", "tour: this task failed"]))


class SyncTest(Test):
    """The program of docs/sync.md."""

    def test_tour_prints_what_is_shown(self):
        self.assert_prints(printed_by_tour("docs/sync.md"), "sync", "a.db", "centre.db")
        rows = [(1, "hall", 21.5), (2, "yard", 7.25), (3, "hall", 3.5), (4, "hall", 4.5),
                (5, "hall", 5.5), (6, "hall", 6.5)]
        self.assertEqual(self.query("select * from reading"), [*rows, (7, "hall", 7.5)])
        self.assertEqual(self.query("select * from reading", "centre.db"), rows)
        self.assertEqual(self.query("select count(*) from sqlsync_outbox"), [(1,)])

    def test_tour_tells_wrong_use_and_a_file_that_is_no_database(self):
        self.assert_ends(self.start("sync", "a.db"), 2, "", "usage: sync DEVICE CENTRE\n")
        self.write("a.db", "This is no database.\n" * 100)
        self.assert_fails("cannot open the databases", "sync", "a.db", "centre.db")


class PreparedTest(Test):
    """The programs of docs/prepared.md, and the calls that docs/choosing.md has side by side."""

    def test_tour_prints_what_is_shown_and_can_be_taken_again(self):
        for _ in range(2):
            self.assert_prints(printed_by_tour("docs/prepared.md"), "prepared", "a.db")
            self.assertEqual(self.query("select * from product"), [
                (1, "Captain's tea", 200, 0.125), (2, "Tea pot", 1949, None), (3, "Mug", 389, None)])
            self.assertEqual(self.query("select name from sqlite_master where type = 'table' order by 1"),
                             [("article",), ("picture",), ("product",)])

    def test_tour_tells_wrong_use_and_a_file_that_is_no_database(self):
        self.assert_ends(self.start("prepared"), 2, "", "usage: prepared DATABASE\n")
        self.write("a.db", "This is no database.\n" * 100)
        self.assert_fails("cannot open the database", "prepared", "a.db")

    def test_first_program_tells_each_reason(self):
        self.assert_ends(self.start("readings"), 2, "", "usage: readings SENSOR VALUE\n")
        self.make("create table reading (id integer)", "readings.db")
        self.assert_fails("cannot add the reading: table reading has no column named sensor",
                          "readings", "hall", "1")
        self.write("readings.db", "This is no database.\n" * 100)
        self.assert_fails("cannot make the table: statement 1: file is not a database",
                          "readings", "hall", "1")
        os.remove(self.folder / "readings.db")
        (self.folder / "readings.db").mkdir()
        self.assert_fails("cannot open readings.db: unable to open database file",
                          "readings", "hall", "1")

    def test_first_program_takes_any_text_for_a_sensor(self):
        for sensor in ("it's", "'); drop table reading; --", "?", ""):
            self.assert_prints("1: 20.0\n", "readings", sensor, "20")
            self.assertEqual(self.query("select sensor, value from reading", "readings.db"),
                             [(sensor, 20.0)])
            os.remove(self.folder / "readings.db")

    def test_calls_find_the_same_by_texts_and_by_statements(self):
        status, output, errors = self.run_program("calls")
        texts, statements = output.splitlines()
        self.assertEqual((status, errors, texts), (0, "", statements))
        self.assertEqual(texts, "1|Captain's tea|Captain's tea|not there|3|0|2|")

    def test_calls_side_by_side_stand_in_their_program(self):
        source = "".join((GUIDE / "calls.cpp").read_text(encoding="utf-8").split())
        texts, statements = source.split("boolbyStatements")
        section = documents.text("docs/choosing.md").split("\n## ")[2]
        rows = re.findall(r"^\| (.*`) \| (.*`.*) \|$", section, re.MULTILINE)
        self.assertEqual(len(rows), len(re.findall(r"^\| ", section, re.MULTILINE)) - 1)
        for row in rows:
            for side, part in zip(row, (texts, statements)):
                for code in re.findall(r"`([^`]*)`", side):
                    with self.subTest(code):
                        self.assertIn("".join(code.split()), part)


class QuestionsTest(Test):
    def test_settings_hold_and_keys_are_not_used_again(self):
        for room in (1, 2):
            self.assert_prints(f"room {room}\nhall|20\nhall|21\nhall|9223372036854775807\n"
                               "stray reading: refused\n", "questions", "a.db")
        self.assertEqual(self.query("select count(*) from reading"), [(0,)])
        self.assertEqual(self.query("select seq from sqlite_sequence"), [(6,)])

    def test_setting_that_sqlite_does_not_take_is_told(self):
        self.assert_fails("failed", "questions", ":memory:")

    def test_rows_that_are_refused_are_taken_back(self):
        self.make("create table reading"
                  " (id integer primary key, room, value unique check (value < 99))")
        self.assert_fails("failed", "questions", "a.db", output="room 1\n")
        self.assertEqual(self.query("select count(*) from reading"), [(0,)])

    def test_missing_file_name_is_told(self):
        self.assert_ends(self.start("questions"), 2, "", "usage: questions DATABASE\n")


class DeviceTest(Test):
    def test_reports_go_to_the_devices_own(self):
        place = "components/sql/sqlwrapper/src/"
        status, output, _ = self.run_program("device", stderr=subprocess.STDOUT)
        self.assertEqual((status, comparable(output)), (0, (
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
        (cls.home / "notes.cpp").write_text(cls.program_of("docs/start.md"), encoding="utf-8")
        cls.steps = cls.steps_of_the_document("docs/start.md")
        cls.printed = cls.run_steps(cls.steps)

    @staticmethod
    def program_of(page):
        return next(block for block in documents.blocks(page, "cpp") if "main(" in block)

    @staticmethod
    def steps_of_the_document(page):
        """The commands of a page in their order, each with what it prints, or None."""
        steps = []
        for language, block in re.findall(r"^```(sh|console)\n(.*?)^```$", documents.text(page),
                                          re.M | re.S):
            if language == "sh":
                steps += [(line, None) for line in block.splitlines() if "apt-get" not in line]
            else:
                steps += steps_of(block)
        return steps

    @classmethod
    def run_steps(cls, steps):
        """What each command prints, in one shell."""
        script = "".join(f"echo '{MARK}'\n{command}\n" for command, _ in steps)
        return cls.run_in_shell(script).stdout.split(f"{MARK}\n")[1:]

    def assert_printed(self, steps, printed):
        self.assertEqual(len(printed), len(steps), printed)
        for (command, shown), text in zip(steps, printed):
            if shown is not None:
                with self.subTest(command):
                    self.assertEqual(comparable(text), comparable(shown), printed)

    @classmethod
    def run_in_shell(cls, script):
        environment = {**os.environ, "HOME": str(cls.home),
                       "PATH": f"{cls.home}/bin:{os.environ['PATH']}"}
        return subprocess.run(["sh", "-c", script], cwd=cls.home, env=environment,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                              check=False)

    def test_session_prints_what_is_shown(self):
        self.assert_printed(self.steps, self.printed)

    @unittest.skipIf(os.environ["PREPARED"] != "1", "this SQLite is too old for sqlprepared")
    def test_session_of_prepared_statements_prints_what_is_shown(self):
        folder = self.home / "readings"
        folder.mkdir()
        program = self.program_of("docs/prepared.md")
        project, = documents.blocks("docs/prepared.md", "cmake")
        (folder / "readings.cpp").write_text(program, encoding="utf-8")
        (folder / "CMakeLists.txt").write_text(project, encoding="utf-8")
        self.assertEqual(program, (GUIDE / "readings.cpp").read_text(encoding="utf-8"))
        exports = [step for step in self.steps if step[0].startswith("export ")]
        steps = [*exports, ("cd readings", None), *self.steps_of_the_document("docs/prepared.md")]
        self.assert_printed(steps, self.run_steps(steps))

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
