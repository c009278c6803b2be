"""Runs the programs of docs/cookbook.md, as programs.py says. SQLITE is the SQLite that they are
built with: sqlite3 or sqlcipher. STRACE is the program that shows what another asks of the system.
"""

import contextlib
import os
import pathlib
import re
import resource
import shlex
import signal
import sqlite3
import subprocess
import tempfile
import time
import unittest

import documents
from programs import EMULATOR, PROGRAMS, Test, comparable, steps_of

PREPARED = os.environ["PREPARED"] == "1" # whether there is sqlprepared
SYNC = (PROGRAMS / "collect").exists() # what links sqlsync
ENCRYPTS = os.environ["SQLITE"] == "sqlcipher"

NO_ENCRYPTION = "this SQLite does not encrypt"
UNOPENED = "cannot open the database"
UNREADABLE = "cannot read the database, or make the table"
# What SQLite says, where the program tells.
NOT_OPENED = f"{UNOPENED}: unable to open database file"
NO_DATABASE = "file is not a database"
# What the programs that take a file say of a folder, and of a file that is no database.
BAD_FILES = {
    "backup": (UNOPENED, "cannot write the database"),
    "care": (NOT_OPENED, f"cannot apply the settings: cache_size = -512: {NO_DATABASE}"),
    "catalogue": (UNOPENED, UNREADABLE),
    "cleanup": (NOT_OPENED, f"cannot make the table: statement 1: {NO_DATABASE}"),
    "config": (NOT_OPENED, f"cannot change the settings: {NO_DATABASE}"),
    "encryption": (UNOPENED, "not with this key, or no database" if ENCRYPTS else NO_ENCRYPTION),
    "events": (UNOPENED, UNREADABLE),
    "files": (NOT_OPENED, f"cannot make the table: statement 1: {NO_DATABASE}"),
    "import": (NOT_OPENED, f"{UNREADABLE}: {NO_DATABASE}"),
    "logger": (NOT_OPENED, f"cannot make the table: statement 1: {NO_DATABASE}"),
    "meter": (NOT_OPENED, f"cannot make the table: statement 1: {NO_DATABASE}"),
    "migrate": (NOT_OPENED, f"cannot upgrade the file: {NO_DATABASE}"),
    "nearest": (NOT_OPENED, f"cannot make the table: statement 1: {NO_DATABASE}"),
    "noexceptions": (UNOPENED, UNREADABLE),
    "pages": (UNOPENED, UNREADABLE),
    "queue": (NOT_OPENED, f"cannot fill the queue: {NO_DATABASE}"),
    "scan": (NOT_OPENED, f"{UNREADABLE}: {NO_DATABASE}"),
    "settings": ("cannot open a.db", "cannot open a.db"),
    "sharing": ("cannot prepare the database", "cannot prepare the database"),
    "snapshot": (NOT_OPENED, f"cannot back up: FOLDER/a.db: {NO_DATABASE}"),
    "transaction": (UNOPENED, UNREADABLE),
    "upgrade": ("a.db: cannot be opened", "a.db: cannot be read"),
}
# What is only built where there is sqlprepared.
OF_STATEMENTS = {"care", "cleanup", "config", "files", "import", "logger", "meter", "migrate", "nearest",
                 "queue", "scan", "snapshot"}
if not PREPARED:
    BAD_FILES = {name: errors for name, errors in BAD_FILES.items() if name not in OF_STATEMENTS}
KEY = "secret\n"
USAGES = {"encryption": "DATABASE <KEY", "files": "DATABASE <FILE >COPY",
          "import": "DATABASE <LINES", "logger": "DATABASE <READINGS",
          "meter": "DATABASE <READINGS", "nearest": "DATABASE <POSITIONS",
          "noexceptions": "DATABASE <LINES", "scan": "DATABASE [ROWS]",
          "snapshot": "DATABASE [restore]"}


def words_of(session):
    return {word for command, _ in session for word in command.split()}


class SessionTest(Test):
    """The sessions in the document, as a shell runs them."""

    NAMES = {source.stem for source in (documents.ROOT / "examples" / "cookbook").glob("*.cpp")
             if (PROGRAMS / source.stem).exists()}
    SESSIONS = [session for session in map(steps_of, documents.blocks("docs/cookbook.md", "console"))
                if (PREPARED or not words_of(session) & OF_STATEMENTS)
                and (SYNC or "collect" not in words_of(session))]

    def setUp(self):
        super().setUp()
        programs = tempfile.TemporaryDirectory()
        self.addCleanup(programs.cleanup)
        for name in self.NAMES:
            script = pathlib.Path(programs.name) / name
            command = shlex.join([*EMULATOR, str(PROGRAMS / name)])
            script.write_text(f'#!/bin/sh\nexec {command} "$@"\n', encoding="utf-8")
            script.chmod(0o755)
        self.environment = {**os.environ, "PATH": f"{programs.name}:{os.environ['PATH']}"}

    def test_programs_print_what_is_shown(self):
        for session in self.SESSIONS:
            with tempfile.TemporaryDirectory() as folder:
                for command, output in session:
                    if "| encryption " in command and not ENCRYPTS:
                        output = f"encryption: {NO_ENCRYPTION}\n"
                    done = subprocess.run(["sh", "-c", command], cwd=folder, env=self.environment,
                                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                          encoding="utf-8", check=False)
                    with self.subTest(command):
                        self.assertEqual(comparable(done.stdout), comparable(output))

    def test_every_program_has_a_session(self):
        self.assertEqual(self.NAMES - set().union(*map(words_of, self.SESSIONS)), set())


class BadFileTest(Test):
    def test_wrong_use_is_told(self):
        for name in BAD_FILES:
            usage = f"usage: {name} {USAGES.get(name, 'DATABASE')}\n"
            for files in ((), ("a.db", "b.db")):
                with self.subTest(name, files=files):
                    self.assert_ends(self.start(name, *files), 2, "", usage, KEY)
        for key in ("", "\n"):
            self.assert_ends(self.start("encryption", "a.db"), 2, "",
                             "usage: encryption DATABASE <KEY\n", key)
        self.assertEqual(self.files(), [])

    def test_folder_in_place_of_the_file_is_told(self):
        (self.folder / "a.db").mkdir()
        for name, (error, _) in BAD_FILES.items():
            with self.subTest(name):
                self.assert_fails(error, name, "a.db", given=KEY)

    def test_file_that_is_no_database_is_told_and_left_alone(self):
        content = b"This is no database.\n" * 100
        self.write("a.db", content)
        for name, (_, error) in BAD_FILES.items():
            with self.subTest(name):
                self.assert_fails(error.replace("FOLDER", str(self.folder)), name, "a.db", given=KEY)
        self.assertEqual((self.files(), self.bytes()), (["a.db"], content))


class RecipesTest(Test):
    def test_settings_are_stored_once(self):
        for starts in ("1", "2", "3"):
            self.run_program("settings", "a.db")
            self.assertEqual(self.query("select * from setting order by id"),
                             [(1, "owner", "O'Neill"), (2, "starts", starts)])

    def test_settings_in_a_locked_file_are_told(self):
        self.run_program("settings", "a.db")
        with contextlib.closing(sqlite3.connect(self.folder / "a.db")) as other:
            other.execute("begin exclusive")
            self.assert_fails("cannot open a.db", "settings", "a.db")

    def test_setting_that_is_refused_is_told(self):
        self.make("create table setting (id integer primary key, name text unique, value text);"
                  "create trigger refuse before insert on setting begin"
                  " select raise(abort, 'no'); end")
        self.assert_fails("cannot write a.db", "settings", "a.db",
                          output="owner: nobody, starts so far: 0\n")

    def test_products_are_added_once(self):
        self.run_program("catalogue", "a.db")
        self.assert_fails("cannot add the products: perhaps they are there already",
                          "catalogue", "a.db")
        self.assertEqual(self.query("select * from product order by id"),
                         [(1, "Captain's tea", 250, 0.125, 1), (2, "Tea pot", 1999, 0.9, 0)])

    def test_events_older_than_thirty_days_are_deleted(self):
        new_year = 1262304000
        kept = new_year - 30 * 86400
        self.make("create table event (id integer primary key, happened integer, text text);"
                  f"insert into event values (1, {kept - 1}, 'old'), (2, {kept}, 'kept')")
        self.run_program("events", "a.db")
        self.assertEqual(self.query("select happened, text from event order by id"),
                         [(kept, "kept"), (new_year - 3600, "door opened"),
                          (new_year, "door shut")])

    def test_events_are_shown_in_the_local_zone(self):
        self.assert_prints("31-12-2009 18:00:00, Thu  door opened\n"
                           "31-12-2009 19:00:00, Thu  door shut (3600 s later)\n"
                           "2 kept, the last one at 2009-12-31 19:00 -0500\n",
                           "events", "a.db", env={**os.environ, "TZ": "EST5"})

    def test_readings_add_up(self):
        for count in (1000, 2000):
            self.assert_prints(f"{count} readings\n{count} readings after a batch that failed\n",
                               "transaction", "a.db")
        self.assertEqual(self.query("select min(id), max(id), sum(celsius) from reading"),
                         [(1, 2000, 44500.0)])

    def test_full_disk_leaves_the_readings_of_before(self):
        self.run_program("transaction", "a.db")
        size = len(self.bytes())
        # A file at its limit is like a full disk, for programs that ignore the signal.
        self.assert_fails(
            "cannot add the readings", "transaction", "a.db", restore_signals=False,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)))
        self.assertEqual(self.query("select count(*) from reading"), [(1000,)])

    def test_no_addition_of_two_processes_is_lost(self):
        for _ in range(3):
            self.assert_prints("id = 1|total = 40|doubled = 80\n", "sharing", "a.db")
        self.assertEqual(self.query("select * from counter"), [(1, 40, 80)])

    def test_process_that_cannot_add_is_told(self):
        self.make("create table counter (id integer primary key, total integer, doubled integer);"
                  "create trigger refuse before update of total on counter when new.total = 30"
                  " begin select raise(abort, 'no'); end")
        self.assert_fails("a process could not add", "sharing", "a.db")
        self.assertEqual(self.query("select * from counter"), [(1, 29, 58)])

    def test_pages_follow_one_another(self):
        rows = sorted((number * 37 % 101, number) for number in range(1, 1001))
        rows = [f"{key}|{cents}" for cents, key in rows if cents >= 90]
        pages = [rows[start : start + 50] for start in range(0, len(rows), 50)]
        expected = "".join(f"page {number}: {len(page)} rows, {page[0]} to {page[-1]}\n"
                           for number, page in enumerate(pages, 1))
        for _ in range(2):
            self.assert_prints(expected, "pages", "a.db")

    def test_page_is_read_by_index_without_sorting(self):
        self.run_program("pages", "a.db")
        plan = self.query("explain query plan select * from product where cents >= 95 and "
                          "(cents > 95 or id > 180) order by cents, id limit 50")
        self.assertEqual([re.sub(r"COVERING | TABLE", "", row[3]) for row in plan],
                         ["SEARCH product USING INDEX by_cents (cents>?)"])

    def test_lines_are_stored_as_they_are(self):
        lines = ["one", "it's", "", "Ünïcödé"]
        self.assert_prints("4 lines\n", "noexceptions", "a.db", given="\n".join(lines))
        self.assertEqual(self.query("select line from line order by id"),
                         [(line,) for line in lines])

    def test_patients_are_stored_for_who_has_the_key_or_not_at_all(self):
        if not ENCRYPTS:
            self.assert_fails(NO_ENCRYPTION, "encryption", "a.db", given=KEY)
            self.assertEqual(self.bytes(), b"")
            return
        self.assert_prints("1 rows, encrypted\n", "encryption", "a.db", given="it's\n")
        self.assert_fails(BAD_FILES["encryption"][1], "encryption", "a.db", given="other\n")
        self.assert_prints("2 rows, encrypted\n", "encryption", "a.db", given="it's\n")
        for plain in (b"SQLite", b"patient", b"John Doe"):
            self.assertNotIn(plain, self.bytes())


class SyncTest(Test):
    """What links sqlsync."""

    def record(self, device, value):
        self.assert_prints("", "collect", "record", device + ".db", device, value)

    def sent(self, device):
        done = subprocess.run([*EMULATOR, PROGRAMS / "collect", "send", device + ".db", device],
                              cwd=self.folder, stdout=subprocess.PIPE, check=True)
        return done.stdout

    def take(self, sets):
        done = subprocess.run([*EMULATOR, PROGRAMS / "collect", "take", "centre.db"], cwd=self.folder,
                              input=sets, capture_output=True, check=False)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def rows(self):
        return self.query("select * from reading", "centre.db")

    def test_readings_of_all_devices_arrive_once(self):
        self.record("one", "21.5")
        self.record("two", "7")
        self.record("one", "22")
        for device in ("one", "two", "one"):
            status, answer, _ = self.take(self.sent(device))
            self.assertEqual(status, 0)
            self.assertRegex(answer, rf"^-?\d+ {2 if device == 'one' else 1}\n$")
        self.assertEqual(self.rows(), [("one", 1, 21.5), ("one", 2, 22.0), ("two", 1, 7.0)])

    def test_what_is_cut_off_or_damaged_changes_nothing(self):
        self.record("one", "21.5")
        sets = self.sent("one")
        self.assertEqual(self.take(sets[:-1])[0], 1)
        damaged = sets[:-1] + bytes([sets[-1] ^ 1])
        status, answer, told = self.take(damaged)
        self.assertEqual((status, answer), (1, ""))
        self.assertIn("collect: cannot apply a change set: the change set's checksum is wrong\n", told)
        self.assertEqual(self.rows(), [])
        self.assertEqual(self.take(sets)[0], 0)
        self.assertEqual(self.rows(), [("one", 1, 21.5)])

    def test_wrong_use_and_bad_files_are_told(self):
        usage = ("usage: collect record DATABASE DEVICE VALUE | send DATABASE DEVICE | take CENTRE"
                 " | acknowledge DATABASE DEVICE\n")
        for given in ((), ("take",), ("send", "a.db"), ("record", "a.db", "one")):
            self.assert_ends(self.start("collect", *given), 2, "", usage)
        self.write("a.db", b"This is no database.\n" * 100)
        self.assert_fails(f"cannot make the table: statement 1: {NO_DATABASE}", "collect", "send", "a.db", "one")


class PreparedTest(Test):
    """Those of sqlprepared but for the logger."""

    def test_settings_are_changed_together_or_not_at_all(self):
        rows = [("address", "192.168.0.2"), ("changes", "1"), ("gateway", "192.168.0.1")]
        self.run_program("config", "a.db")
        self.assertEqual(self.query("select * from setting order by name"), rows)
        self.make("update setting set value = '' where name = 'address';"
                  "create trigger refuse before update on setting when new.name = 'changes' begin"
                  " select raise(abort, 'no'); end")
        self.assert_fails("cannot write: no", "config", "a.db",
                          output="address , gateway 192.168.0.1, changes: 1\n")
        self.assertEqual(self.query("select * from setting order by name"),
                         [("address", ""), *rows[1:]])

    def test_no_change_of_several_programs_is_lost(self):
        programs = [self.start("config", "a.db") for _ in range(4)]
        for program in programs:
            _, errors = program.communicate()
            self.assertEqual((program.returncode, errors), (0, ""))
        self.assertEqual(self.query("select value from setting where name = 'changes'"), [("4",)])

    def test_program_that_writes_is_waited_for(self):
        self.make("create table other (n integer)")
        with contextlib.closing(sqlite3.connect(self.folder / "a.db")) as other:
            other.execute("begin immediate")
            program = self.start("config", "a.db")
            time.sleep(0.3)
            self.assertIsNone(program.poll())
            other.rollback()
            self.assert_ends(program, 0, "address none, gateway none, changes: 0\n")

    def test_import_that_fails_at_its_end_adds_nothing(self):
        lines = "".join(f"product {number},{number}\n" for number in range(1000))
        self.assert_fails("cannot import: record 1001: column cents is no number",
                          "import", "a.db", given=f"{lines}no price\n")
        self.assertEqual(self.query("select * from product"), [])
        self.assert_prints("1000 products\n", "import", "a.db", given=lines)
        self.assertEqual(self.query("select * from product order by id"),
                         [(number + 1, f"product {number}", number) for number in range(1000)])

    def test_import_that_is_stopped_adds_nothing(self):
        lines = "tea,250\n" * 1000
        program = self.start("import", "a.db")
        program.stdin.write(lines)
        program.stdin.flush()
        while "a.db-journal" not in self.files() and program.poll() is None:
            time.sleep(0.01)
        program.send_signal(signal.SIGINT)
        self.assert_ends(program, 1, "", "import: cannot import: stopped by its progress\n", lines)
        self.assertEqual(self.query("select * from product"), [])

    def test_import_whose_lines_cannot_be_read_adds_nothing(self):
        folder = os.open(self.folder, os.O_RDONLY)
        self.addCleanup(os.close, folder)
        self.assert_ends(self.start("import", "a.db", stdin=folder), 1, "",
                         "import: cannot read the lines\n")
        self.assertEqual(self.query("select * from product"), [])

    def test_old_readings_are_deleted(self):
        self.make("create table reading (sensor text, at integer, value real);"
                  "insert into reading values ('hall', 1, 20), ('hall', strftime('%s', 'now') - 60, 21)")
        self.assert_prints("1 readings deleted\n", "cleanup", "a.db")
        self.assertEqual(self.query("select value from reading"), [(21,)])

    def test_cleanup_is_stopped_by_signals_while_it_waits(self):
        self.make("create table reading (sensor text, at integer, value real);"
                  "insert into reading values ('hall', 1, 20)")
        for number in (signal.SIGINT, signal.SIGTERM):
            with contextlib.closing(sqlite3.connect(self.folder / "a.db", isolation_level=None)) as other:
                other.execute("begin immediate")
                program = self.start("cleanup", "a.db")
                self.wait_until_signals_are_caught(program)
                program.send_signal(number)
                self.assert_ends(program, 0, "stopped, nothing deleted\n")
            self.assertEqual(self.query("select value from reading"), [(20,)])

    @staticmethod
    def wait_until_signals_are_caught(program):
        """As the system tells it of the program, or of the emulator, which catches them from its start."""
        caught = 0
        while not caught >> signal.SIGTERM - 1 & 1:
            status = pathlib.Path(f"/proc/{program.pid}/status").read_text(encoding="utf-8")
            caught = int(re.search(r"^SigCgt:\s(\w+)$", status, re.MULTILINE)[1], 16)
            time.sleep(0.01)

    def test_snapshot_goes_back_to_what_was(self):
        self.make("create table t (a); insert into t values ('tea')")
        for mode in ("delete", "wal"):
            self.query(f"pragma journal_mode = {mode}")
            self.assert_prints("2 pages backed up\n", "snapshot", "a.db")
            self.query("delete from t")
            self.assert_prints("2 pages restored\n", "snapshot", "a.db", "restore")
            self.assertEqual(self.query("select * from t"), [("tea",)])
        self.assertEqual(self.query("select * from t", "a.db.bak"), [("tea",)])
        self.assertEqual(self.files(), ["a.db", "a.db.bak"])

    def test_snapshot_is_not_restored_from_what_is_none(self):
        self.make("create table t (a)")
        before = self.bytes("a.db")
        self.assert_fails("cannot restore: a.db.bak: unable to open database file", "snapshot", "a.db", "restore")
        self.write("a.db.bak", b"This is no database.\n" * 100)
        self.assert_fails(f"cannot restore: a.db.bak: {NO_DATABASE}", "snapshot", "a.db", "restore")
        self.assertEqual(self.bytes("a.db"), before)

    FIRST = ("create table customer (id integer primary key, name text);"
             "create table visit (id integer primary key, customer references customer, day text);"
             "insert into customer values (1, 'Doe'), (2, null);"
             "insert into visit values (1, 1, '31.12.2009'), (2, 1, null), (3, 2, '01.02.2010');"
             "pragma user_version = 1;")

    def test_files_of_each_version_become_the_latest(self):
        second = "update visit set day = '2009-12-31' where id = 1; pragma user_version = 2;"
        self.assert_prints("version 3\n", "migrate", "new.db")
        for number, script in enumerate((self.FIRST, self.FIRST + second)):
            file = f"{number}.db"
            self.make(script, file)
            for _ in range(2):
                self.assert_prints("version 3\n", "migrate", file)
            self.assertEqual(self.query("select * from customer", file), [(1, "Doe"), (2, "")])
            self.assertEqual(self.query("select day from visit where id = 1", file), [("2009-12-31",)])
            self.assertEqual(self.query("select sql from sqlite_master", file),
                             self.query("select sql from sqlite_master", "new.db"))

    def test_file_that_cannot_be_migrated_is_left_alone(self):
        for number, (script, error) in enumerate((
                ("pragma user_version = 4", "the file has version 4, the program those up to 3"),
                ("create table named (id)", "version 3: statement 1: table named already exists"),
                ("insert into visit values (4, 9, null)", "row 4 of visit refers to none of customer"))):
            file = f"{number}.db"
            self.make(self.FIRST + script, file)
            before = self.bytes(file)
            self.assert_fails(f"cannot upgrade the file: {error}", "migrate", file)
            self.assertEqual(self.bytes(file), before)
        self.assertEqual(self.files(), ["0.db", "1.db", "2.db"])

    def test_files_are_stored_and_fetched(self):
        contents = ["", "a line\n", "0123456789abcde\n" * 20000]
        for content in contents:
            self.write("input", content)
            with open(self.folder / "input", encoding="utf-8") as file:
                self.assert_ends(self.start("files", "a.db", stdin=file), 0, content)
        self.assertEqual(self.query("select typeof(content), length(content) from file"),
                         [("blob", len(content)) for content in contents])
        self.assert_fails("the input is no file", "files", "a.db")

    def test_jobs_are_taken_once_by_whomever(self):
        jobs = [f"thing {number}" for number in range(50)]
        self.make("create table queue (id integer primary key, job text);"
                  + "".join(f"insert into queue (job) values ('{job}');" for job in jobs))
        programs = [self.start("queue", "a.db") for _ in range(2)]
        done = []
        for program in programs:
            output, errors = program.communicate()
            self.assertEqual((program.returncode, errors), (0, ""))
            done += output.splitlines()
        jobs += 2 * [f"job {number}" for number in range(1, 6)]
        self.assertEqual(sorted(done), sorted(f"{job} done" for job in jobs))
        self.assertEqual(self.query("select * from queue"), [])

    def test_places_are_sorted_by_a_function_of_the_program(self):
        self.assert_prints("mill 56 km\nharbour 161 km\nharbour 4054 km\nmill 4223 km\n",
                           "nearest", "a.db", given="52.5 8.3\n90 0\n")
        self.make("update place set north = 'far' where name = 'mill'")
        self.assert_fails("cannot find places: argument 3 of distance is no number", "nearest", "a.db",
                          given="52.5 8.3\n")

    def test_line_that_is_no_position_is_told_and_left_out(self):
        self.assert_ends(self.start("nearest", "a.db"), 0, "station 0 km\nmill 162 km\n",
                         "nearest: left out what is no position: here\n"
                         "nearest: left out what is no position: 7\n", "here\n7\n50.94 6.96\n")

    def test_file_that_is_cared_for_has_its_settings(self):
        for start in (1, 2):
            self.assert_prints(f"start {start}\n", "care", "a.db")
        self.assertEqual(self.query("pragma journal_mode"), [("wal",)])
        self.assertEqual(self.files(), ["a.db"])

    def test_damage_is_told_and_the_file_left_alone(self):
        self.make("create table t (a); insert into t values (null); pragma writable_schema = on;"
                  " update sqlite_master set sql = 'create table t (a not null)'")
        self.assert_fails("NULL value in t.a", "care", "a.db")
        self.assertEqual(self.query("select name from sqlite_master"), [("t",)])

    def test_every_row_is_on_one_page(self):
        for rows, pages in ((1, 1), (1000, 1), (1001, 2)):
            self.assert_prints(f"{rows} rows in {pages} pages, up to {min(15 + rows / 10, 25):.1f}"
                               " degrees\n", "scan", f"{rows}.db", str(rows))
        self.make("delete from reading where id % 3 = 0; update reading set celsius = 30.5"
                  " where id = 1001", "1001.db")
        self.assert_prints("668 rows in 1 pages, up to 30.5 degrees\n", "scan", "1001.db")


class LoggerTest(Test):
    ROWS = "select sensor, at, value from reading order by sensor, at"

    def readings(self, count):
        """One a minute."""
        return "".join(f"2010-01-0{1 + n // 1440}T{n // 60 % 24:02}:{n % 60:02} hall {n / 4}\n"
                       for n in range(count))

    def test_readings_are_stored_and_summed_up(self):
        given = ("2010-01-01T01:00:00+01:00 hall 21.5\n2010-01-01 cellar -1\n"
                 "2009-12-31T23:59:59.9Z it's 1e3\n")
        self.assert_prints("cellar: 1 from -1.0 to -1.0, the latest of 2010-01-01T00:00:00Z\n"
                           "hall: 1 from 21.5 to 21.5, the latest of 2010-01-01T00:00:00Z\n"
                           "it's: 1 from 1000.0 to 1000.0, the latest of 2009-12-31T23:59:59Z\n",
                           "logger", "a.db", given=given)
        self.assertEqual(self.query(self.ROWS),
                         [("cellar", 1262304000, -1.0), ("hall", 1262304000, 21.5),
                          ("it's", 1262303999, 1000.0)])

    def test_what_is_no_reading_or_there_already_is_told_and_left_out(self):
        for line in ("boo", "2010-01-01T00:00:00Z hall", "2010-02-30 hall 1", ""):
            self.assert_ends(self.start("logger", "a.db"), 0, "",
                             f"logger: left out what is no reading: {line}\n", f"{line}\n")
        self.assert_ends(self.start("logger", "a.db"), 0,
                         "hall: 1 from 1.0 to 1.0, the latest of 1970-01-01T00:00:00Z\n",
                         "logger: left out hall of 1970-01-01T00:00:00Z: "
                         "UNIQUE constraint failed: reading.sensor, reading.at\n",
                         "1970-01-01 hall 1\n1970-01-01 hall 2\n")

    def test_batch_that_does_not_fit_onto_the_disk_is_gone_as_a_whole(self):
        self.run_program("logger", "a.db", given=self.readings(1000))
        before = self.query(self.ROWS)
        size = len(self.bytes())
        later = self.readings(4000).replace("2010", "2011")
        # A file at its limit is like a full disk, for programs that ignore the signal.
        limits = {"restore_signals": False, "preexec_fn":
                  lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))}
        self.assert_fails("cannot commit: disk I/O error", "logger", "a.db", given=later, **limits)
        self.assertEqual(self.query(self.ROWS), before)

    def test_writer_is_waited_for_and_told_if_it_stays(self):
        self.run_program("logger", "a.db")
        with contextlib.closing(sqlite3.connect(self.folder / "a.db")) as other:
            other.execute("begin immediate")
            start = time.monotonic()
            self.assert_fails("cannot begin: database is locked", "logger", "a.db",
                              given="1970-01-01 hall 1\n")
            self.assertGreaterEqual(time.monotonic() - start, 2)


class MeterTest(Test):
    def test_readings_are_committed_when_the_group_is_full_or_at_the_end(self):
        program = self.start("meter", "a.db")
        program.stdin.write("20.5\n" * 99)
        program.stdin.flush()
        program.stdin.write("20.5\n" * 51)
        program.stdin.flush()
        while self.query("select count(*) from sqlite_master") == [(0,)] \
                or self.query("select count(*) from reading") == [(0,)]:
            time.sleep(0.01)
        self.assertEqual(self.query("select count(*) from reading"), [(100,)])
        self.assert_ends(program, 0, "150 stored, 0 lost\n", "", "")
        self.assertEqual(self.query("select count(*) from reading"), [(150,)])

    def test_readings_that_do_not_fit_onto_the_disk_are_counted(self):
        self.run_program("meter", "a.db", given="1\n" * 1000)
        size = len(self.bytes())
        limits = {"restore_signals": False, "preexec_fn":
                  lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))}
        program = self.start("meter", "a.db", **limits)
        output, errors = program.communicate("2\n" * 2000)
        self.assertEqual(program.returncode, 0)
        self.assertIn("meter: cannot store a reading: disk I/O error\n", errors)
        stored = self.query("select count(*) from reading")[0][0]
        lost = re.fullmatch(r"(\d+) stored, (\d+) lost\n", output)
        self.assertEqual(int(lost[1]), stored)
        refused = errors.count("cannot store")
        self.assertEqual(stored + int(lost[2]) + refused, 3000)


class UpgradeTest(Test):
    FIRST = ("create table product (id integer primary key, name text not null);"
             "insert into product values (1, 'tea'), (2, 'pot'); pragma user_version = 1;")
    SECOND = ("alter table product add column cents integer not null default 0;"
              "update product set cents = id * 100; pragma user_version = 2;")
    ROWS = "id = 1|name = tea|cents = 100\nid = 2|name = pot|cents = 200\n" # of the second
    LATEST = [("table", "product"), ("index", "product_by_name")]

    @contextlib.contextmanager
    def writer(self):
        """A connection that is about to write."""
        with contextlib.closing(sqlite3.connect(self.folder / "a.db")) as connection:
            connection.isolation_level = None
            connection.execute("begin immediate")
            yield connection

    def test_new_file_gets_the_latest_version(self):
        self.assert_prints("version 3, was 0\n", "upgrade", "a.db")
        self.assertEqual(self.query("select type, name from sqlite_master"), self.LATEST)
        self.assertEqual(self.query("pragma user_version"), [(3,)])

    def test_first_version_keeps_its_rows(self):
        self.make(self.FIRST)
        rows = "id = 1|name = tea|cents = 0\nid = 2|name = pot|cents = 0\n"
        self.assert_prints("version 3, was 1\n" + rows, "upgrade", "a.db")
        self.assert_prints("version 3, was 3\n" + rows, "upgrade", "a.db")
        self.assertEqual(self.query("select type, name from sqlite_master"), self.LATEST)

    def test_second_version_keeps_its_rows(self):
        self.make(self.FIRST + self.SECOND)
        self.assert_prints("version 3, was 2\n" + self.ROWS, "upgrade", "a.db")

    def test_newer_version_or_step_that_fails_leaves_the_file_alone(self):
        for number, (script, error) in enumerate((
                ("pragma user_version = 4", "made by a newer release"),
                ("create table product_by_name (id integer)", "cannot be upgraded"))):
            file = f"{number}.db"
            self.make(self.FIRST + script, file)
            before = self.bytes(file)
            self.assert_fails(f"{file}: {error}", "upgrade", file)
            self.assertEqual(self.bytes(file), before)
        self.assertEqual(self.files(), ["0.db", "1.db"])

    def test_programs_that_start_at_once_run_each_step_once(self):
        for number in range(10 if EMULATOR else 60):
            programs = [self.start("upgrade", f"{number}.db") for _ in range(3)]
            results = [(*program.communicate(), program.returncode) for program in programs]
            self.assertEqual(sorted(results), [("version 3, was 0\n", "", 0),
                                               *2 * [("version 3, was 3\n", "", 0)]])

    def test_steps_of_another_program_are_waited_for_and_not_run_again(self):
        with self.writer() as other:
            program = self.start("upgrade", "a.db")
            time.sleep(0.5)
            for statement in (self.FIRST + self.SECOND).split(";"):
                other.execute(statement)
            other.execute("commit")
            self.assert_ends(program, 0, "version 3, was 2\n" + self.ROWS)

    def test_file_that_stays_locked_is_told_after_the_timeout(self):
        with self.writer():
            start = time.monotonic()
            self.assert_fails("a.db: cannot be upgraded", "upgrade", "a.db")
            self.assertGreaterEqual(time.monotonic() - start, 2)


class BackupTest(Test):
    OUTPUT = "{0} products backed up\n0 products left by mistake\n{0} products restored\n"
    ROWS = [(1, "tea"), (2, "pot"), (3, "towel")]

    def test_backup_and_original_are_alike(self):
        self.assert_prints(self.OUTPUT.format(3), "backup", "a.db")
        for file in ("a.db", "a.db.bak"):
            self.assertEqual(self.query("select * from product order by id", file), self.ROWS)
        self.assertEqual(self.files(), ["a.db", "a.db.bak"])

    def test_later_backup_replaces_the_one_of_before(self):
        self.run_program("backup", "a.db")
        self.assert_prints(self.OUTPUT.format(6), "backup", "a.db")
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
        self.assert_fails("cannot back up", "backup", "a.db")
        self.assertEqual(self.bytes("a.db.bak"), before)
        self.assertEqual(self.query("select count(*) from product"), [(6,)])


class TracedTest(Test):
    def test_backup_is_on_the_disk_before_it_gets_its_name_and_so_is_the_name_then(self):
        (self.folder / "shop").mkdir()
        for file, folder in (("a.db", self.folder.name), ("shop/b.db", "shop")):
            with self.subTest(file):
                trace = [os.environ["STRACE"], "-y", "-o", "calls", "-e", "trace=/sync|rename"]
                self.run_program("backup", file, before=trace)
                calls = self.bytes("calls").decode()
                around, = re.findall(r"^(.*)\nrename.*\n(.*)$", calls, re.MULTILINE)
                self.assertEqual([re.sub(r"\d+<.*/(.*)>\) +", r"<\1>) ", call) for call in around],
                                 [f"fsync(<{os.path.basename(file)}.new>) = 0", f"fsync(<{folder}>) = 0"])

    def test_rows_that_cannot_be_counted_are_told(self):
        trace = [os.environ["STRACE"], "-o", "calls", "-e", "trace=pread64,rename"]
        self.run_program("backup", "a.db", before=trace)
        before, _ = self.bytes("calls").decode().split("rename(")
        inject = f"inject=pread64:error=EIO:when={before.count('pread64(') + 1}+"
        self.assert_fails("cannot back up", "backup", "b.db", before=[*trace, "-e", inject])
        self.assertEqual(self.query("select count(*) from product", "b.db.bak"), [(3,)])


class MemoryTest(Test):
    def test_program_without_exceptions_ends_when_memory_does(self):
        limit = 96 << 20
        self.run_program("noexceptions", "a.db", given="kept\n")
        self.assert_fails("out of memory", "noexceptions", "a.db", status=3,
                          given="dropped\n" + "x" * (40 << 20),
                          preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit)))
        self.assertEqual(self.query("select line from line"), [("kept",)])


if __name__ == "__main__":
    unittest.main()
