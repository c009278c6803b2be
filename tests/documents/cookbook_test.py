"""Runs the programs of docs/cookbook.md, each test in a folder of its own.

PROGRAMS is the folder with the programs, EMULATOR the command that runs those of another machine,
else empty, and SQLITE the SQLite that they are built with: sqlite3 or sqlcipher.
"""

import contextlib
import os
import pathlib
import re
import resource
import shlex
import sqlite3
import subprocess
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
PROGRAMS = pathlib.Path(os.environ["PROGRAMS"])
EMULATOR = os.environ["EMULATOR"].split()
ENCRYPTS = os.environ["SQLITE"] == "sqlcipher"
DOCUMENT = (ROOT / "docs" / "cookbook.md").read_text(encoding="utf-8")
SESSIONS = re.findall(r"^```console\n(.*?)^```$", DOCUMENT, re.MULTILINE | re.DOTALL)

NO_ENCRYPTION = "encryption: this SQLite does not encrypt\n"
UNREADABLE = "cannot read the database, or make the table"
# What the programs that take a file say of a folder, and of a file that is no database.
BAD_FILES = {
    "backup": ("cannot open the database", "cannot write the database"),
    "catalogue": ("cannot open the database", UNREADABLE),
    "encryption": ("cannot open the database",
                   "not with this key, or no database" if ENCRYPTS
                   else "this SQLite does not encrypt"),
    "events": ("cannot open the database", UNREADABLE),
    "noexceptions": ("cannot open the database", UNREADABLE),
    "pages": ("cannot open the database", UNREADABLE),
    "settings": ("cannot open a.db", "cannot open a.db"),
    "sharing": ("cannot prepare the database", "cannot prepare the database"),
    "transaction": ("cannot open the database", UNREADABLE),
    "upgrade": ("a.db: cannot be opened", "a.db: cannot be read"),
}
# What they read from standard input.
INPUTS = {"encryption": "secret\n"}
USAGES = {"encryption": "DATABASE <KEY", "noexceptions": "DATABASE <LINES"}


class Test(unittest.TestCase):
    maxDiff = 10000

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_program(self, name, *arguments, **options):
        options = {"input": INPUTS.get(name, ""), **options}
        return subprocess.run([*EMULATOR, PROGRAMS / name, *arguments], cwd=self.folder,
                              capture_output=True, encoding="utf-8", check=False, **options)

    def assert_result(self, result, status, output, errors):
        self.assertEqual((result.stderr, result.returncode, result.stdout),
                         (errors, status, output))

    def assert_success(self, output, *command, **options):
        self.assert_result(self.run_program(*command, **options), 0, output, "")

    def assert_failure(self, error, name, *arguments, **options):
        """The program fails with one line, before it has printed anything."""
        result = self.run_program(name, *arguments, **options)
        self.assert_result(result, 1, "", f"{name}: {error}\n")

    def query(self, statement, file="a.db"):
        with contextlib.closing(sqlite3.connect(self.folder / file)) as connection:
            return connection.execute(statement).fetchall()

    def make(self, script, file="a.db"):
        with contextlib.closing(sqlite3.connect(self.folder / file)) as connection:
            connection.executescript(script)

    def bytes(self, file="a.db"):
        return (self.folder / file).read_bytes()

    def files(self):
        return sorted(os.listdir(self.folder))


def steps_of(session):
    """The commands of a session with what each prints."""
    return [(step.partition("\n")[0], step.partition("\n")[2])
            for step in re.split(r"^\$ ", session, flags=re.MULTILINE)[1:]]


def comparable(text):
    """Without blanks at the ends of lines, and with the numbers of source lines as pages have them."""
    return re.sub(r"(\.cpp:)\d+", r"\1NNN", re.sub(r" +$", "", text, flags=re.MULTILINE))


class SessionTest(Test):
    """The sessions in the document, as a shell runs them."""

    def setUp(self):
        super().setUp()
        programs = tempfile.TemporaryDirectory()
        self.addCleanup(programs.cleanup)
        for name in self.names():
            script = pathlib.Path(programs.name) / name
            command = shlex.join([*EMULATOR, str(PROGRAMS / name)])
            script.write_text(f'#!/bin/sh\nexec {command} "$@"\n', encoding="utf-8")
            script.chmod(0o755)
        self.environment = {**os.environ, "PATH": f"{programs.name}:{os.environ['PATH']}"}

    def names(self):
        sources = (ROOT / "examples" / "cookbook").glob("*.cpp")
        return {source.stem for source in sources}

    def run_in_shell(self, command):
        done = subprocess.run(["sh", "-c", command], cwd=self.folder, env=self.environment,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
                              check=False)
        return comparable(done.stdout)

    def test_programs_print_what_is_shown(self):
        for session in SESSIONS:
            with tempfile.TemporaryDirectory() as folder:
                self.folder = folder
                for command, output in steps_of(session):
                    if "| encryption " in command and not ENCRYPTS:
                        output = NO_ENCRYPTION
                    with self.subTest(command):
                        self.assertEqual(self.run_in_shell(command), comparable(output))

    def test_every_program_has_a_session(self):
        words = {word for session in SESSIONS for command, _ in steps_of(session)
                 for word in command.split()}
        self.assertEqual(self.names() - words, set())


class WrongUseTest(Test):
    def test_missing_file_name_is_told(self):
        for name in BAD_FILES:
            with self.subTest(name):
                usage = f"usage: {name} {USAGES.get(name, 'DATABASE')}\n"
                self.assert_result(self.run_program(name), 2, "", usage)
                self.assert_result(self.run_program(name, "a.db", "b.db"), 2, "", usage)
        self.assertEqual(self.files(), [])

    def test_missing_key_is_told(self):
        for text in ("", "\n"):
            self.assert_result(self.run_program("encryption", "a.db", input=text), 2, "",
                               "usage: encryption DATABASE <KEY\n")


class BadFileTest(Test):
    def test_folder_in_place_of_the_file_is_told(self):
        (self.folder / "a.db").mkdir()
        for name, (error, _) in BAD_FILES.items():
            with self.subTest(name):
                self.assert_failure(error, name, "a.db")

    def test_file_that_is_no_database_is_told_and_left_alone(self):
        content = "This is no database.\n" * 100
        (self.folder / "a.db").write_text(content, encoding="utf-8")
        for name, (_, error) in BAD_FILES.items():
            with self.subTest(name):
                self.assert_failure(error, name, "a.db")
        self.assertEqual(self.bytes(), content.encode())
        self.assertEqual(self.files(), ["a.db"])


class SettingsTest(Test):
    def test_settings_are_stored_once(self):
        for starts in ("1", "2", "3"):
            self.run_program("settings", "a.db")
            self.assertEqual(self.query("select * from setting order by id"),
                             [(1, "owner", "O'Neill"), (2, "starts", starts)])

    def test_locked_file_is_told(self):
        self.run_program("settings", "a.db")
        with contextlib.closing(sqlite3.connect(self.folder / "a.db")) as other:
            other.execute("begin exclusive")
            self.assert_failure("cannot open a.db", "settings", "a.db")

    def test_setting_that_is_refused_is_told(self):
        self.make("create table setting (id integer primary key, name text unique, value text);"
                  "create trigger refuse before insert on setting begin"
                  " select raise(abort, 'no'); end")
        self.assert_result(self.run_program("settings", "a.db"), 1,
                           "owner: nobody, starts so far: 0\n", "settings: cannot write a.db\n")


class CatalogueTest(Test):
    def test_products_are_added_once(self):
        self.run_program("catalogue", "a.db")
        self.assert_failure("cannot add the products: perhaps they are there already",
                            "catalogue", "a.db")
        self.assertEqual(self.query("select * from product order by id"),
                         [(1, "Captain's tea", 250, 0.125, 1), (2, "Tea pot", 1999, 0.9, 0)])


class EventsTest(Test):
    def test_events_older_than_thirty_days_are_deleted(self):
        new_year = 1262304000
        kept = new_year - 30 * 86400
        self.make("create table event (id integer primary key, happened integer, text text);"
                  f"insert into event values (1, {kept - 1}, 'old'), (2, {kept}, 'kept')")
        self.run_program("events", "a.db")
        self.assertEqual(self.query("select happened, text from event order by id"),
                         [(kept, "kept"), (new_year - 3600, "door opened"),
                          (new_year, "door shut")])

    def test_times_are_shown_in_the_local_zone(self):
        result = self.run_program("events", "a.db", env={**os.environ, "TZ": "EST5"})
        self.assert_result(result, 0, "31-12-2009 18:00:00, Thu  door opened\n"
                           "31-12-2009 19:00:00, Thu  door shut (3600 s later)\n"
                           "2 kept, the last one at 2009-12-31 19:00 -0500\n", "")


class UpgradeTest(Test):
    FIRST = ("create table product (id integer primary key, name text not null);"
             "insert into product values (1, 'tea'), (2, 'pot'); pragma user_version = 1;")
    SECOND = ("alter table product add column cents integer not null default 0;"
              "update product set cents = id * 100; pragma user_version = 2;")
    ROWS = "id = 1|name = tea|cents = 100\nid = 2|name = pot|cents = 200\n" # of the second
    LATEST = [("table", "product"), ("index", "product_by_name")]

    def start(self, *command):
        return subprocess.Popen([*EMULATOR, PROGRAMS / command[0], *command[1:]], cwd=self.folder,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8")

    @staticmethod
    def result_of(program):
        output, _ = program.communicate()
        return program.returncode, output

    @contextlib.contextmanager
    def writer(self):
        """A connection that is about to write."""
        with contextlib.closing(sqlite3.connect(self.folder / "a.db")) as connection:
            connection.isolation_level = None
            connection.execute("begin immediate")
            yield connection

    def test_new_file_gets_the_latest_version(self):
        self.assert_success("version 3, was 0\n", "upgrade", "a.db")
        self.assertEqual(self.query("select type, name from sqlite_master"), self.LATEST)
        self.assertEqual(self.query("pragma user_version"), [(3,)])

    def test_first_version_keeps_its_rows(self):
        self.make(self.FIRST)
        rows = "id = 1|name = tea|cents = 0\nid = 2|name = pot|cents = 0\n"
        self.assert_success("version 3, was 1\n" + rows, "upgrade", "a.db")
        self.assert_success("version 3, was 3\n" + rows, "upgrade", "a.db")
        self.assertEqual(self.query("select type, name from sqlite_master"), self.LATEST)

    def test_second_version_keeps_its_rows(self):
        self.make(self.FIRST + self.SECOND)
        self.assert_success("version 3, was 2\n" + self.ROWS, "upgrade", "a.db")

    def test_newer_version_is_refused_and_left_alone(self):
        self.make(self.FIRST + "pragma user_version = 4")
        before = self.bytes()
        self.assert_failure("a.db: made by a newer release", "upgrade", "a.db")
        self.assertEqual(self.bytes(), before)

    def test_step_that_fails_undoes_the_steps_before(self):
        self.make(self.FIRST + "create table product_by_name (id integer)")
        before = self.bytes()
        self.assert_failure("a.db: cannot be upgraded", "upgrade", "a.db")
        self.assertEqual(self.bytes(), before)
        self.assertEqual(self.files(), ["a.db"])


    def test_programs_that_start_at_once_run_each_step_once(self):
        for number in range(10 if EMULATOR else 60):
            programs = [self.start("upgrade", f"{number}.db") for _ in range(3)]
            self.assertEqual(sorted(map(self.result_of, programs)),
                             [(0, "version 3, was 0\n"), *2 * [(0, "version 3, was 3\n")]])

    def test_steps_of_another_program_are_waited_for_and_not_run_again(self):
        with self.writer() as other:
            program = self.start("upgrade", "a.db")
            time.sleep(0.5)
            for statement in (self.FIRST + self.SECOND).split(";"):
                other.execute(statement)
            other.execute("commit")
            self.assertEqual(self.result_of(program), (0, "version 3, was 2\n" + self.ROWS))

    def test_file_that_stays_locked_is_told_after_the_timeout(self):
        with self.writer():
            start = time.monotonic()
            self.assert_failure("a.db: cannot be upgraded", "upgrade", "a.db")
            self.assertGreaterEqual(time.monotonic() - start, 2)


class TransactionTest(Test):
    def test_readings_add_up(self):
        for count in (1000, 2000):
            self.assert_success(f"{count} readings\n"
                                f"{count} readings after a batch that failed\n",
                                "transaction", "a.db")
        self.assertEqual(self.query("select min(id), max(id), sum(celsius) from reading"),
                         [(1, 2000, 44500.0)])

    def test_full_disk_leaves_the_readings_of_before(self):
        self.run_program("transaction", "a.db")
        size = (self.folder / "a.db").stat().st_size
        # A file at its limit is like a full disk, for programs that ignore the signal.
        self.assert_failure(
            "cannot add the readings", "transaction", "a.db", restore_signals=False,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)))
        self.assertEqual(self.query("select count(*) from reading"), [(1000,)])


class BackupTest(Test):
    OUTPUT = "{0} products backed up\n0 products left by mistake\n{0} products restored\n"
    ROWS = [(1, "tea"), (2, "pot"), (3, "towel")]

    def test_backup_and_original_are_alike(self):
        self.assert_success(self.OUTPUT.format(3), "backup", "a.db")
        for file in ("a.db", "a.db.bak"):
            self.assertEqual(self.query("select * from product order by id", file), self.ROWS)
        self.assertEqual(self.files(), ["a.db", "a.db.bak"])

    def test_later_backup_replaces_the_one_of_before(self):
        self.run_program("backup", "a.db")
        self.assert_success(self.OUTPUT.format(6), "backup", "a.db")
        self.assertEqual(self.query("select count(*) from product", "a.db.bak"), [(6,)])

    def test_unfinished_backup_of_before_is_replaced(self):
        self.make("create table product (id integer primary key, name text);"
                  "insert into product values (9, 'old')", "a.db.new")
        self.run_program("backup", "a.db")
        self.assertEqual(self.query("select * from product order by id", "a.db.bak"), self.ROWS)

    def test_backup_that_fails_leaves_all_rows_and_the_backup_of_before(self):
        self.run_program("backup", "a.db")
        before = self.bytes("a.db.bak")
        (self.folder / "a.db.new").mkdir()
        self.assert_failure("cannot back up", "backup", "a.db")
        self.assertEqual(self.bytes("a.db.bak"), before)
        self.assertEqual(self.query("select count(*) from product"), [(6,)])


class SyncTest(Test):
    def test_backup_is_on_the_disk_before_it_gets_its_name_and_so_is_the_name_then(self):
        (self.folder / "shop").mkdir()
        for file, folder in (("a.db", self.folder.name), ("shop/b.db", "shop")):
            with self.subTest(file):
                subprocess.run([os.environ["STRACE"], "-y", "-o", "calls", "-e", "trace=/sync|rename",
                                PROGRAMS / "backup", file], cwd=self.folder,
                               stdout=subprocess.DEVNULL, check=True)
                calls = (self.folder / "calls").read_text(encoding="utf-8")
                around = re.findall(r"^(.*)\nrename.*\n(.*)$", calls, re.MULTILINE)
                self.assertEqual([re.findall(r"^(\w+)\(.*/(.*)>\) += 0$", call) for call in around[0]],
                                 [[("fsync", os.path.basename(file) + ".new")], [("fsync", folder)]])


class SharingTest(Test):
    def test_no_addition_is_lost(self):
        for _ in range(3):
            self.assert_success("id = 1|total = 40|doubled = 80\n", "sharing", "a.db")
        self.assertEqual(self.query("select * from counter"), [(1, 40, 80)])

    def test_process_that_cannot_add_is_told(self):
        self.make("create table counter (id integer primary key, total integer, doubled integer);"
                  "create trigger refuse before update of total on counter when new.total = 30"
                  " begin select raise(abort, 'no'); end")
        self.assert_failure("a process could not add", "sharing", "a.db")
        self.assertEqual(self.query("select * from counter"), [(1, 29, 58)])


class PagesTest(Test):
    def expected(self):
        rows = sorted((number * 37 % 101, number) for number in range(1, 1001))
        rows = [row for row in rows if row[0] >= 90]
        lines = []
        for number, start in enumerate(range(0, len(rows), 50), 1):
            page = rows[start : start + 50]
            (first, first_key), (last, last_key) = page[0], page[-1]
            lines.append(f"page {number}: {len(page)} rows, "
                         f"{first_key}|{first} to {last_key}|{last}\n")
        return "".join(lines)

    def test_pages_follow_one_another(self):
        for _ in range(2):
            self.assert_success(self.expected(), "pages", "a.db")

    def test_page_is_read_by_index_without_sorting(self):
        self.run_program("pages", "a.db")
        plan = self.query("explain query plan select * from product where cents >= 95 and "
                          "(cents > 95 or id > 180) order by cents, id limit 50")
        self.assertEqual([re.sub(r"COVERING | TABLE", "", row[3]) for row in plan],
                         ["SEARCH product USING INDEX by_cents (cents>?)"])


class EncryptionTest(Test):
    def test_plain_text_is_never_stored(self):
        result = self.run_program("encryption", "a.db")
        if ENCRYPTS:
            self.assert_result(result, 0, "1 rows, encrypted\n", "")
            self.assertGreater(len(self.bytes()), 0)
            self.assertNotIn(b"SQLite", self.bytes())
            self.assertNotIn(b"patient", self.bytes())
            self.assertNotIn(b"John Doe", self.bytes())
        else:
            self.assert_result(result, 1, "", NO_ENCRYPTION)
            self.assertEqual(self.bytes(), b"")

    def test_key_decides(self):
        if ENCRYPTS:
            for key, output, error in (
                ("it's", "1 rows, encrypted\n", ""),
                ("other", "", "encryption: not with this key, or no database\n"),
                ("it's", "2 rows, encrypted\n", ""),
            ):
                result = self.run_program("encryption", "a.db", input=key + "\n")
                self.assertEqual((result.stdout, result.stderr), (output, error))
        else:
            self.run_program("encryption", "a.db")
            self.assert_result(self.run_program("encryption", "a.db"), 1, "", NO_ENCRYPTION)


class NoExceptionsTest(Test):
    def test_lines_are_stored_as_they_are(self):
        lines = ["one", "it's", "", "Ünïcödé"]
        self.assert_success("4 lines\n", "noexceptions", "a.db", input="\n".join(lines))
        self.assertEqual(self.query("select line from line order by id"),
                         [(line,) for line in lines])


class MemoryTest(Test):
    def test_program_without_exceptions_ends_when_memory_does(self):
        limit = 96 << 20
        self.run_program("noexceptions", "a.db", input="kept\n")
        result = self.run_program(
            "noexceptions", "a.db", input="dropped\n" + "x" * (40 << 20),
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit)))
        self.assert_result(result, 3, "", "noexceptions: out of memory\n")
        self.assertEqual(self.query("select line from line"), [("kept",)])


if __name__ == "__main__":
    unittest.main()
