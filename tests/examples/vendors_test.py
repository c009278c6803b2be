"""Runs the example program vendors on the public registry of address blocks, as programs.py says.

REGISTRY is the folder with oui.csv, mam.csv and oui36.csv. What the program prints and stores is
compared with what Python's own modules csv and sqlite3 read.
"""

import contextlib
import csv
import functools
import io
import os
import pathlib
import pty
import re
import resource
import shutil
import sqlite3
import subprocess
import tempfile
import threading
import time
import unittest

import programs

SOURCE = pathlib.Path(__file__).resolve().parents[2] / "examples" / "vendors" / "main.cpp"
OUI, MAM, OUI36 = (os.path.join(os.environ["REGISTRY"], name)
                   for name in ("oui.csv", "mam.csv", "oui36.csv"))

HEADER = "Registry,Assignment,Organization Name,Organization Address\r\n"
FEW = HEADER + "MA-L,00D0EF,Maker,Street\r\n"
BLANKS = " \t\n\v\f\r"
SCHEMA = (
    "CREATE TABLE block (id INTEGER PRIMARY KEY NOT NULL, registry TEXT NOT NULL, "
    "assignment TEXT NOT NULL, name TEXT NOT NULL, address TEXT NOT NULL)"
)
NO_DATABASE = "This is no database.\n" * 100
NOT_READABLE = "cannot be read: no database, damaged, or locked"
NOT_WRITABLE = "cannot be written: disk full, read-only, damaged, or locked"
NO_DIGITS = " instead of 6, 7 or 9 hexadecimal digits"
NOT_OURS = "is not a database made by vendors"


def records(file):
    """The records of a registry's file, without the header."""
    with open(file, newline="", encoding="utf-8") as stream:
        return list(csv.reader(stream, strict=True))[1:]


def expected_rows(*files):
    """The rows that the files make in a database: the last record of a block counts."""
    rows = {}
    for file in files:
        for registry, assignment, name, address in records(file):
            key = int("1" + assignment, 16)
            texts = (text.strip(BLANKS) for text in (registry, assignment, name, address))
            rows[key] = (key, *texts)
    return [rows[key] for key in sorted(rows)]


def limited_file_size(size):
    return lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))


def lines_of(rows):
    """What the program prints of blocks: in the order of names and digits."""
    found = sorted((row[3], row[2]) for row in rows)
    return "".join(f"{digits}  {name}\n" for name, digits in found)


@functools.cache
def whole_registry():
    """A database of all three files, and its rows."""
    folder = tempfile.TemporaryDirectory()
    unittest.addModuleCleanup(folder.cleanup)
    database = os.path.join(folder.name, "all.db")
    for file in (OUI, MAM, OUI36):
        command = [*programs.EMULATOR, programs.PROGRAMS / "vendors", "import", file, database]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
    return database, expected_rows(OUI, MAM, OUI36)


class Test(programs.Test):
    def start(self, *arguments, **options):
        return super().start("vendors", *arguments, **options)

    def assert_failure(self, error, *arguments, **options):
        """The program fails with one line."""
        self.assert_ends(self.start(*arguments, **options), 1, "", f"vendors: {error}\n")

    def assert_wrong_use(self, error, *arguments):
        self.assert_ends(self.start(*arguments), 2, "", f"vendors: {error} (--help tells more)\n")

    def assert_imports(self, file, database, count, rows):
        """The program imports so many records, and the database then has these rows."""
        status, output, errors = self.run_program("import", file, database)
        self.assertEqual((errors, status), ("", 0))
        summary = rf"{count} rows in \d+\.\d\d s, {len(rows)} blocks in {re.escape(database)}\n"
        self.assertRegex(output, rf"\A{summary}\Z")
        self.assertEqual(self.rows(database), rows)

    @contextlib.contextmanager
    def pipe(self, content):
        os.mkfifo(self.folder / "pipe")
        writer = threading.Thread(target=self.write, args=("pipe", content), daemon=True)
        writer.start()
        yield "pipe"
        writer.join()

    def rows(self, database):
        return self.query("select * from block order by id", database)

    def assert_schema(self, database):
        self.assertEqual(self.query("select type, name, sql from sqlite_master", database),
                         [("table", "block", SCHEMA)])
        self.assertEqual(self.query("pragma user_version", database), [(1,)])

    def import_lines(self, database, *lines):
        """Imports a few records."""
        file = self.write("lines.csv", HEADER + "".join(line + "\r\n" for line in lines))
        status, _, errors = self.run_program("import", file, database)
        self.assertEqual((errors, status), ("", 0))
        self.assert_schema(database)
        os.remove(self.folder / file)


class WithRegistry(Test):
    """Tests on a database of all three files, for reading only."""

    def setUp(self):
        super().setUp()
        self.database, self.all = whole_registry()

    def copy_database(self):
        shutil.copy(self.database, self.folder / "copy.db")
        return "copy.db"


class ImportTest(Test):
    def test_every_record_of_a_file_is_stored(self):
        for file in (OUI, MAM, OUI36):
            with self.subTest(file):
                self.assert_imports(file, os.path.basename(file) + ".db", len(records(file)),
                                    expected_rows(file))

    def test_files_share_a_database_and_importing_again_changes_nothing(self):
        files = (OUI, MAM, OUI36)
        for number, file in enumerate([*files, OUI], 1):
            self.assert_imports(file, "all.db", len(records(file)), expected_rows(*files[:number]))

    def test_last_record_of_a_block_counts_in_a_file_and_of_several(self):
        self.import_lines("a.db", "MA-L,002272,Old,1", "MA-L,002272,Newer,2", "MA-L,00D0EF,Stays,3")
        self.assertEqual(self.rows("a.db"), [(0x1002272, "MA-L", "002272", "Newer", "2"),
                                             (0x100D0EF, "MA-L", "00D0EF", "Stays", "3")])
        self.import_lines("a.db", "MA-L,002272,Newest,4", "MA-M,741AE09,Added,5")
        self.assertEqual(self.rows("a.db"), [(0x1002272, "MA-L", "002272", "Newest", "4"),
                                             (0x100D0EF, "MA-L", "00D0EF", "Stays", "3"),
                                             (0x1741AE09, "MA-M", "741AE09", "Added", "5")])

    def test_blocks_of_all_sizes_are_kept_apart(self):
        self.import_lines("a.db", "MA-L,000000,Large,", "MA-M,0000000,Medium,",
                          "MA-S,000000000,Small,")
        self.assertEqual([row[2:4] for row in self.rows("a.db")],
                         [("000000", "Large"), ("0000000", "Medium"), ("000000000", "Small")])

    def test_texts_are_stored_as_they_are_but_for_blanks_at_their_ends(self):
        texts = ["O'Brien", 'a "word"', "a,b", "two\r\nlines", "%_\\", "Ünïcödé Ж", "a  b", ""]
        content = io.StringIO()
        csv.writer(content).writerows(
            [" MA-L ", f"00000{number}", f"\t {text} \r\n", f" {text}\t"]
            for number, text in enumerate(texts))
        self.write("texts.csv", HEADER + content.getvalue())
        self.assert_imports("texts.csv", "a.db", len(texts),
                            [(0x1000000 + number, "MA-L", f"00000{number}", text, text)
                             for number, text in enumerate(texts)])

    def test_line_ends_and_empty_lines_do_not_matter(self):
        self.write("ends.csv", "\n\n" + HEADER + "MA-L,00000a,Small letters,\n\r\n"
                   "MA-L,00000B,No line end,")
        self.assert_imports("ends.csv", "a.db", 2,
                            [(0x100000A, "MA-L", "00000A", "Small letters", ""),
                             (0x100000B, "MA-L", "00000B", "No line end", "")])

    def test_file_without_records_makes_an_empty_database(self):
        self.assert_imports(self.write("header.csv", HEADER), "a.db", 0, [])

    def test_empty_file_becomes_a_database(self):
        self.write("a.db", "")
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.assertEqual(len(self.rows("a.db")), 1)

    def test_name_that_means_something_else_to_sqlite_is_a_file(self):
        self.import_lines(":memory:", "MA-L,002272,Maker,Street")
        self.assertEqual(self.files(), [":memory:"])

    def test_pipe_is_read_like_a_file(self):
        with self.pipe(pathlib.Path(MAM).read_bytes()) as pipe:
            self.assert_imports(pipe, "a.db", len(records(MAM)), expected_rows(MAM))


class MalformedFileTest(Test):
    GOOD = "MA-L,002272,New maker,Street\r\n"

    # What follows the header and a good line, or is all of the file; the line reported, the text.
    FLAWS = {
        "columns missing": ("MA-L,00D0EF,Maker\r\n", 3, "3 columns instead of 4"),
        "columns too many": ("MA-L,00D0EF,Maker,Street,1\r\n", 3, "5 columns instead of 4"),
        "blanks only": ("  \r\n", 3, "1 columns instead of 4"),
        "after empty lines": ("\r\n\r\nMA-L\r\n", 5, "1 columns instead of 4"),
        "after three lines": ('MA-L,00D0EF,"a\r\nb\nc",\r\nMA-L\r\n', 6, "1 columns instead of 4"),
        "in three lines": ('MA-L,00D0EF,"a\r\nb\nc"\r\nMA-L,\r\n', 3, "3 columns instead of 4"),
        "in the last line": (GOOD + "MA-L", 4, "1 columns instead of 4"),
        "no digits": ("MA-L,,Maker,\r\n", 3, "''" + NO_DIGITS),
        "five digits": ("MA-L,00D0E,Maker,\r\n", 3, "'00D0E'" + NO_DIGITS),
        "eight digits": ("MA-L,00D0EF00,Maker,\r\n", 3, "'00D0EF00'" + NO_DIGITS),
        "no hexadecimal digit": ("MA-L,00D0EG,Maker,\r\n", 3, "'00D0EG'" + NO_DIGITS),
        "separators": ("MA-L,00:D0:EF,Maker,\r\n", 3, "'00:D0:EF'" + NO_DIGITS),
        "blank before digits": ("MA-L, 00D0EF,Maker,\r\n", 3, "' 00D0EF'" + NO_DIGITS),
        "quote within a field": ('MA-L,00D0EF,Ma"ker,\r\n', 3, "misplaced quote"),
        "text behind a quote": ('MA-L,00D0EF,"Maker"s,\r\n', 3, "misplaced quote"),
        "quote on a later line": ('MA-L,00D0EF,"a\r\nb"c,\r\n', 3, "misplaced quote"),
        "quote without an end": ('MA-L,00D0EF,"Maker,\r\n' + GOOD, 3, "quote without an end"),
        "zero byte": ("MA-L,00D0EF,Ma\0ker,\r\n", 3, "a zero byte"),
    }
    HEADERS = {
        "columns of another file": ("Name,Street\r\n", 1, "unknown header"),
        "no header": (GOOD, 1, "unknown header"),
        "byte order mark": ("\ufeff" + HEADER, 1, "unknown header"),
        "behind empty lines": ("\r\n\r\nName\r\n", 3, "unknown header"),
        "empty file": ("", 1, "no header"),
        "empty lines": ("\r\n\r\n", 1, "no header"),
        "quote in the header": ('"Registry', 1, "quote without an end"),
    }

    def test_malformed_file_leaves_the_database_as_it_was_or_missing(self):
        self.import_lines("a.db", "MA-L,002272,Old maker,Street")
        old = self.bytes("a.db")
        for case, (content, line, text) in {**self.FLAWS, **self.HEADERS}.items():
            start = HEADER + self.GOOD if case in self.FLAWS else ""
            self.write("bad.csv", start + content)
            for database in ("a.db", "new.db"):
                with self.subTest(case, database=database):
                    self.assert_failure(f"bad.csv:{line}: {text}", "import", "bad.csv", database)
                    self.assertEqual(self.bytes("a.db"), old)
                    self.assertEqual(self.files(), ["a.db", "bad.csv"])

    def test_malformed_line_behind_the_whole_registry_rolls_all_of_it_back(self):
        self.run_program("import", MAM, "a.db")
        content = pathlib.Path(OUI).read_bytes()
        self.write("long.csv", content + b"MA-L,00D0EF\r\n")
        line = content.count(b"\n") + 1
        for database in ("a.db", "new.db"):
            self.assert_failure(f"long.csv:{line}: 2 columns instead of 4",
                                "import", "long.csv", database)
        self.assertEqual(self.rows("a.db"), expected_rows(MAM))
        self.assertEqual(self.files(), ["a.db", "long.csv"])

    def test_file_that_cannot_be_read_is_refused(self):
        (self.folder / "folder").mkdir()
        for file, error in {"missing.csv": "No such file or directory",
                            "folder": "Is a directory"}.items():
            with self.subTest(file):
                self.assert_failure(f"{file}: {error}", "import", file, "a.db")
                self.assertEqual(self.files(), ["folder"])


class DatabaseFileTest(Test):
    """Files that are no database, or not the program's, or that cannot be written."""

    ADDRESS = "00:22:72:00:00:00"

    def setUp(self):
        super().setUp()
        self.write("few.csv", FEW)

    def commands(self, database):
        """All commands that need a database, and last the one that makes it."""
        return (("lookup", database, self.ADDRESS), ("search", database, "Maker"),
                ("rename", database, "002272", "Name"), ("remove", database, "002272"),
                ("backup", database, "other.db"), ("info", database),
                ("import", "few.csv", database))

    def assert_refused(self, file, error, commands):
        """These commands fail and leave the file and the folder as they are."""
        before = self.files()
        content = self.bytes(file) if (self.folder / file).is_file() else None
        for command in commands:
            with self.subTest(command):
                self.assert_failure(f"{file}: {error}", *command)
                self.assertEqual(self.files(), before)
                if content is not None:
                    self.assertEqual(self.bytes(file), content)

    def test_missing_database_is_reported_and_not_made(self):
        for file in ("missing.db", "missing/a.db"):
            self.assert_refused(file, "does not exist", self.commands(file)[:-1])

    def test_file_that_is_no_database_is_refused_and_stays(self):
        self.write("text", NO_DATABASE)
        self.assert_refused("text", NOT_READABLE, self.commands("text"))
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.assert_refused("text", NOT_READABLE, [("backup", "a.db", "text")])

    def test_folder_is_refused(self):
        (self.folder / "folder").mkdir()
        self.assert_refused("folder", "cannot be opened", self.commands("folder"))

    def test_database_of_another_application_is_refused_and_stays(self):
        for number, statements in enumerate((
                "create table song (title text)",
                "create table song (title text); pragma user_version = 1",
                f"{SCHEMA}; pragma user_version = 2", SCHEMA, "pragma user_version = 7")):
            self.make(statements, f"{number}.db")
            with self.subTest(statements):
                self.assert_refused(f"{number}.db", NOT_OURS, self.commands(f"{number}.db"))

    def test_empty_file_is_read_as_no_database_of_the_program(self):
        self.write("empty.db", "")
        self.assert_refused("empty.db", NOT_OURS, self.commands("empty.db")[:-1])

    def test_table_without_the_columns_is_reported(self):
        self.make("create table block (title text); pragma user_version = 1", "a.db")
        content = self.bytes("a.db")
        self.assert_refused("a.db", NOT_READABLE, self.commands("a.db")[:4])
        self.assert_failure(f"few.csv:2: a.db: {NOT_WRITABLE}", "import", "few.csv", "a.db")
        self.assertEqual(self.bytes("a.db"), content)

    def test_folder_that_does_not_exist_or_takes_no_files_is_reported(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        for file in ("missing/new.db", "/proc/new.db"):
            self.assert_refused(file, "cannot be created",
                                [("import", "few.csv", file), ("backup", "a.db", file)])

    def test_empty_file_names_are_wrong_use(self):
        for command in self.commands(""):
            with self.subTest(command):
                self.assert_wrong_use("DATABASE: empty file name", *command)
        self.assert_wrong_use("OTHER: empty file name", "backup", "a.db", "")
        self.assert_wrong_use("FILE.csv: empty file name", "import", "", "a.db")


class ReadOnlyTest(Test):
    """The program runs without root's right to pass over permissions."""

    def setUp(self):
        super().setUp()
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.write("few.csv", FEW)
        self.content = self.bytes("a.db")

    def start(self, *arguments, **options):
        drop = ("setpriv", "--bounding-set=-dac_override", "--") if os.geteuid() == 0 else ()
        return super().start(*arguments, before=drop, **options)

    def assert_only_reading_works(self, file):
        error = f"{file}: {NOT_WRITABLE}"
        self.assert_prints("002272  Maker\n", "search", file, "Maker")
        # Of a file SQLite says so with the first write, an old one when the transaction begins.
        status, output, errors = self.run_program("import", "few.csv", file)
        self.assertIn(errors, (f"vendors: few.csv:2: {error}\n", f"vendors: {error}\n"))
        self.assertEqual((status, output), (1, ""))
        self.assert_failure(error, "rename", file, "002272", "Name")
        self.assert_failure(error, "remove", file, "002272")
        self.assert_failure(error, "backup", "a.db", file)
        self.assertEqual(self.bytes(file), self.content)

    def test_file_for_reading_only(self):
        self.write("fixed.db", self.content)
        os.chmod(self.folder / "fixed.db", 0o444)
        self.assert_only_reading_works("fixed.db")

    def test_folder_for_reading_only(self):
        fixed = self.folder / "fixed"
        fixed.mkdir()
        self.write("fixed/b.db", self.content)
        os.chmod(fixed, 0o555)
        self.assert_only_reading_works("fixed/b.db")
        for command in (("import", "few.csv"), ("backup", "a.db")):
            self.assert_failure("fixed/new.db: cannot be created", *command, "fixed/new.db")
        self.assertEqual(os.listdir(fixed), ["b.db"])


class FullDiskTest(Test):
    """Files that cannot grow: on a disk that is full where one can be mounted, and by a limit."""

    KILO = 1024

    def setUp(self):
        super().setUp()
        self.disk = self.folder / "disk"
        self.disk.mkdir()

    def run_with_room(self, size, old, command, mounts):
        """The result, and the files and rows on the disk then; None where none may be mounted."""
        mount = ["mount", "-t", "tmpfs", "-o", f"size={size}", "vendors", self.disk]
        if mounts and subprocess.run(mount, capture_output=True, check=False).returncode != 0:
            return None
        try:
            if old:
                shutil.copy(self.folder / old, self.disk / "a.db")
            limit = {} if mounts else {"preexec_fn": limited_file_size(size)}
            return self.run_program(*command, **limit), self.state()
        finally:
            for file in self.disk.iterdir():
                file.unlink()
            if mounts:
                subprocess.run(["umount", self.disk], check=True)

    def state(self):
        files = sorted(os.listdir(self.disk))
        return files, self.rows("disk/a.db") if "a.db" in files else None

    def assert_nothing_changes(self, old, command, error):
        """Runs the program with growing room until it succeeds. `old` is the database before."""
        expected = (["a.db"], self.rows(old)) if old else ([], None)
        for mounts in (True, False):
            failures = 0
            size = len(self.bytes(old)) if old else 0
            room = 12 * self.KILO
            while (done := self.run_with_room(size + room, old, command, mounts)) is not None:
                (status, output, errors), state = done
                with self.subTest(mounts=mounts, room=room):
                    if status == 0:
                        self.assertNotEqual(state, expected)
                        break
                    failures += 1
                    self.assertEqual((status, output), (1, ""))
                    self.assertRegex(errors, rf"\Avendors: {error}\n\Z")
                    self.assertEqual(state, expected)
                room *= 3
            self.assertTrue(mounts or failures > 0)

    def test_import_into_a_new_database_and_of_more_blocks(self):
        self.run_program("import", MAM, "old.db")
        error = rf"{re.escape(OUI)}:\d+: disk/a\.db: {NOT_WRITABLE}"
        for old in (None, "old.db"):
            self.assert_nothing_changes(old, ("import", OUI, "disk/a.db"), error)

    def test_backup_to_a_new_database_and_over_an_older_one(self):
        self.run_program("import", OUI, "source.db")
        self.run_program("import", MAM, "old.db")
        error = rf"disk/a\.db: {NOT_WRITABLE}"
        for old in (None, "old.db"):
            self.assert_nothing_changes(old, ("backup", "source.db", "disk/a.db"), error)

    def test_backup_over_an_older_one_that_cannot_be_dropped_adds_nothing_to_it(self):
        # The limit is too low for dropping the table, but not for a row at the table's beginning.
        self.run_program("import", OUI, "old.db")
        self.make("delete from block where assignment = '000000'; vacuum", "old.db")
        self.import_lines("source.db", "MA-L,000000,Maker,Street")
        rows = self.rows("old.db")
        self.assert_failure(f"old.db: {NOT_WRITABLE}", "backup", "source.db", "old.db",
                            preexec_fn=limited_file_size(32 * self.KILO))
        self.assertEqual(self.rows("old.db"), rows)

    def test_changes_to_one_block(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        content = self.bytes("a.db")
        for command in (("rename", "a.db", "002272", "Name"), ("remove", "a.db", "002272")):
            with self.subTest(command):
                self.assert_failure(f"a.db: {NOT_WRITABLE}", *command,
                                    preexec_fn=limited_file_size(1))
                self.assertEqual(self.bytes("a.db"), content)

    def test_failure_of_the_commit_names_the_last_line(self):
        # Two pages of the file do not fit, each as large as SQLite makes them by itself.
        pages = 8 * self.KILO
        self.write("few.csv", FEW + "MA-L,002272,Maker,\r\n\r\n")
        self.assert_failure(f"few.csv:4: a.db: {NOT_WRITABLE}", "import", "few.csv", "a.db",
                            preexec_fn=limited_file_size(pages - 1))
        self.assertEqual(self.files(), ["disk", "few.csv"])

    def test_standard_output_that_cannot_be_written(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        with open("/dev/full", "w", encoding="utf-8") as full:
            self.assert_ends(self.start("info", "a.db", stdout=full), 1, None,
                             "vendors: standard output cannot be written\n")


class OtherProgramsTest(Test):
    """Other programs at work on the database, and one that was cut off."""

    # More than SQLite keeps in memory before it writes to the file.
    LONG = HEADER + "".join(f"MA-L,{block:06X},Maker,{'Street' * 170}\r\n" for block in range(3000))

    def test_locked_database_is_reported_after_five_seconds(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.write("few.csv", FEW)
        connection = sqlite3.connect(self.folder / "a.db", isolation_level=None)
        self.addCleanup(connection.close)
        connection.execute("begin immediate")
        start = time.monotonic()
        self.assert_failure(f"a.db: {NOT_WRITABLE}", "import", "few.csv", "a.db")
        self.assertGreaterEqual(time.monotonic() - start, 5)
        connection.execute("rollback")
        connection.execute("begin exclusive")
        self.assert_failure(f"a.db: {NOT_READABLE}", "search", "a.db", "Maker")

    def cut_off_import(self, database):
        """Ends the program amid an import, once it has written part of it to the file."""
        os.mkfifo(self.folder / "pipe")
        with self.start("import", "pipe", database) as program:
            with open(self.folder / "pipe", "wb") as pipe:
                pipe.write(self.LONG.encode())
                pipe.flush()
                program.kill()
                program.wait()
        self.assertIn(database + "-journal", self.files())

    def test_import_that_was_cut_off_leaves_the_old_blocks(self):
        self.run_program("import", MAM, "a.db")
        content = self.bytes("a.db")
        self.cut_off_import("a.db")
        self.assertNotEqual(self.bytes("a.db"), content)
        self.assert_prints(lines_of(expected_rows(MAM)), "search", "a.db", "")
        self.assertEqual(self.bytes("a.db"), content)
        self.assertEqual(self.files(), ["a.db", "pipe"])

    def test_import_that_was_cut_off_can_be_repeated(self):
        self.cut_off_import("a.db")
        self.write("long.csv", self.LONG)
        self.assert_imports("long.csv", "a.db", 3000, expected_rows(self.folder / "long.csv"))


class LookupTest(WithRegistry):
    NOTATIONS = [
        lambda digits, part=part, separator=separator, letters=letters:
            letters(separator.join(re.findall(part, digits)))
        for letters in (str.upper, str.lower)
        for separator, part in ((":", ".."), ("-", ".."), (".", "...."), ("", "."))
    ]

    @staticmethod
    def expected_line(address, digits, blocks):
        for size in (9, 7, 6):
            if digits[:size] in blocks:
                return f"{address}  {digits[:size]}  {blocks[digits[:size]]}\n"
        return f"{address}  unknown\n"

    def test_first_and_last_address_of_every_block_in_all_notations_by_turns(self):
        blocks = {row[2]: row[3] for row in self.all}
        for filler in "0F":
            addresses = [(self.NOTATIONS[number % 8](digits), digits) for number, digits
                         in enumerate(row[2].ljust(12, filler) for row in self.all)]
            for start in range(0, len(addresses), 3000):
                batch = addresses[start : start + 3000]
                self.assert_prints(
                    "".join(self.expected_line(*address, blocks) for address in batch),
                    "lookup", self.database, *(address for address, _ in batch))

    def test_smallest_block_counts(self):
        self.import_lines("a.db", "MA-L,70B3D5,Large,", "MA-M,70B3D50,Medium,",
                          "MA-S,70B3D5012,Small,")
        self.assert_prints("70B3D5012FFF  70B3D5012  Small\n"
                            "70B3D5013000  70B3D50  Medium\n"
                            "70B3D5112FFF  70B3D5  Large\n",
                            "lookup", "a.db", "70B3D5012FFF", "70B3D5013000", "70B3D5112FFF")

    def test_unknown_address_is_printed_as_such_and_told_by_the_status(self):
        self.import_lines("a.db", "MA-L,002272,Maker,")
        self.assert_ends(self.start("lookup", "a.db", "00:22:73:00:00:00", "00:22:72:00:00:00"), 3,
                         "00:22:73:00:00:00  unknown\n00:22:72:00:00:00  002272  Maker\n")

    def test_name_is_printed_on_one_line_without_control_characters(self):
        self.import_lines("a.db", 'MA-L,002272,"two\r\nlines\x1b[31m\x7f",')
        address = "00:22:72:00:00:00"
        self.assert_prints(f"{address}  002272  two  lines [31m \n", "lookup", "a.db", address)

    def test_text_that_is_no_address_is_wrong_use(self):
        for text in (
            "", "x", "002272", "00227201020", "0022720102030", "00227201020G", "0022720102 3",
            "00:22:72:01:02", "00:22:72:01:02:03:04", "0:22:72:01:02:03", "00:22:72:01:02:3",
            "00:22-72:01:02:03", "00:22:7201:02:03", ":00:22:72:01:02:03", "00:22:72:01:02:03:",
            "00::22:72:01:02:03", "0022.7201", "00.22.72.01.02.03", "0022.72010203",
            "0022.7201.020.3", "0022:7201:0203",
            "00 22 72 01 02 03", "00:22:72:01:02:0é", "0x0022720102",
        ):  # fmt: skip
            with self.subTest(text):
                self.assert_wrong_use(f"ADDRESS: '{text}' is no network address",
                                      "lookup", self.database, "00:22:72:01:02:03", text)


class SearchTest(WithRegistry):
    CAPITALS = {ord(letter): letter.lower() for letter in "ABCDEFGHIJKLMNOPQRSTUVWXYZ"}

    def assert_finds(self, database, rows, texts):
        """Each text finds the names that contain it, letters from A to Z like small ones."""
        names = [(row[3].translate(self.CAPITALS), row) for row in rows]
        for text in texts:
            with self.subTest(text):
                small = text.translate(self.CAPITALS)
                found = lines_of(row for name, row in names if small in name)
                self.assert_ends(self.start("search", database, text),
                                   0 if found else 3, found, "")

    def test_texts_are_found_in_the_registry(self):
        self.assert_finds(self.database, self.all, (
            "'", "INT'L", "int'l", "XI'AN", '"', 'JSC "', ",", ", inc", "&", "(", "info", "Private",
            " ", "  ", "ñ", "Ş", "ООО", "（", "\u00a0", "[", "a", "Tecnologia", "*", "?", "",
            "%", "_", "\\",
        ))  # fmt: skip

    def test_signs_with_a_meaning_for_patterns_find_only_themselves(self):
        names = ("100%", "100 percent", "a_b", "axb", "a\\b", "a\\%b", "\\_", "'%'", "O'Brien",
                 "''", "%%")
        lines = (f'MA-L,0000{number:02X},"{name}",' for number, name in enumerate(names))
        self.import_lines("a.db", *lines)
        rows = self.rows("a.db")
        self.assert_finds("a.db", rows, (
            "%", "0%", "%0", "_", "a_", "a_b", "\\", "\\%", "\\_", "\\\\", "'", "''", "'%'", "%%",
            "%_", "' or '' = '", "'; drop table block; --", "' escape '",
        ))  # fmt: skip
        self.assertEqual(self.rows("a.db"), rows)

    def test_letters_beyond_ascii_are_told_apart(self):
        self.import_lines("a.db", "MA-L,000000,Ünal,", "MA-L,000001,ünal,")
        self.assert_prints("000000  Ünal\n", "search", "a.db", "ÜNAL")

    def test_text_may_be_called_like_a_command_or_an_option(self):
        self.import_lines("a.db", "MA-L,000000,info --help [a],")
        for text in (["info"], ["[a]"], ["--", "--help"]):
            self.assert_prints("000000  info --help [a]\n", "search", "a.db", *text)

    def test_text_too_long_for_a_pattern_is_a_failure(self):
        self.assert_failure(f"{self.database}: {NOT_READABLE}",
                            "search", self.database, "x" * 60000)


class ChangeTest(WithRegistry):
    BLOCKS = {
        "002272": ("00:22:72", "00-22-72", "0022.72", "002272"),
        "741AE09": ("74:1A:E0:9", "74-1a-e0-9", "741A.E09", "741ae09"),
        "70B3D5F2F": ("70:B3:D5:F2:F", "70-b3-d5-f2-f", "70b3.d5f2.f", "70B3D5F2F"),
    }

    def test_rename_changes_the_name_alone(self):
        database = self.copy_database()
        expected = {row[2]: row for row in self.all}
        for digits, notations in self.BLOCKS.items():
            for number, notation in enumerate(notations):
                name = f"O'Brien & \"sons\", 100%, Ünal {number}"
                self.assert_prints(f"{digits}  {name}\n", "rename", database, notation, name)
                expected[digits] = (*expected[digits][:3], name, expected[digits][4])
                self.assertEqual(self.rows(database), list(expected.values()))

    def test_import_takes_a_new_name_back(self):
        database = self.copy_database()
        self.run_program("rename", database, "002272", "Name")
        self.run_program("import", OUI, database)
        self.assertEqual(self.rows(database), self.all)

    def test_remove_takes_one_block(self):
        for number in range(4):
            database = self.copy_database()
            expected = {row[2]: row for row in self.all}
            for digits, notations in self.BLOCKS.items():
                output = f"{digits}  {expected.pop(digits)[3]}\n"
                self.assert_prints(output, "remove", database, notations[number])
                self.assertEqual(self.rows(database), list(expected.values()))

    def test_unknown_block_is_reported(self):
        database = self.copy_database()
        for block in ("FFFFFF", "FFFFFFF", "FFFFFFFFF", "0022720", "002272000"):
            for command in (("rename", database, block, "Name"), ("remove", database, block)):
                with self.subTest(command):
                    self.assert_ends(self.start(*command), 3, "",
                                       f"vendors: {database}: no block {block}\n")
        self.assertEqual(self.rows(database), self.all)

    def test_text_that_is_no_block_is_wrong_use(self):
        for text in ("", "00227", "00227200", "0022720000", "00:22:72:00:00:00", "00227G",
                     "00:2272", "00.22.72"):
            for command in (("rename", "a.db", text, "Name"), ("remove", "a.db", text)):
                with self.subTest(command):
                    self.assert_wrong_use(f"BLOCK: '{text}' is no block of addresses", *command)


class BackupAndInfoTest(WithRegistry):
    def assert_copied(self, database, other, rows):
        self.assert_prints(f"{len(rows)} blocks copied to {other}\n", "backup", database, other)
        self.assertEqual(self.rows(other), rows)
        self.assert_schema(other)

    def test_new_database_gets_all_blocks(self):
        self.assert_copied(self.database, "new.db", self.all)

    def test_older_backup_is_replaced(self):
        self.import_lines("old.db", "MA-L,FFFFFF,Only in the older one,", "MA-L,002272,Old name,")
        self.assert_copied(self.database, "old.db", self.all)

    def test_empty_database_is_copied(self):
        self.import_lines("empty.db")
        self.import_lines("old.db", "MA-L,FFFFFF,Only in the older one,")
        self.assert_copied("empty.db", "new.db", [])
        self.assert_copied("empty.db", "old.db", [])

    def test_database_is_not_copied_to_itself(self):
        self.import_lines("a.db", "MA-L,002272,Maker,")
        os.symlink("a.db", self.folder / "symlink.db")
        os.link(self.folder / "a.db", self.folder / "link.db")
        content = self.bytes("a.db")
        for other in ("a.db", "./a.db", "symlink.db", "link.db"):
            with self.subTest(other):
                self.assert_failure(f"{other}: the same file as a.db", "backup", "a.db", other)
        self.assertEqual(self.bytes("a.db"), content)

    def test_database_of_another_application_is_not_replaced(self):
        self.make("create table song (title text)", "songs.db")
        content = self.bytes("songs.db")
        self.assert_failure(f"songs.db: {NOT_OURS}", "backup", self.database, "songs.db")
        self.assertEqual(self.bytes("songs.db"), content)

    def test_rows_user_version_and_columns_are_printed(self):
        self.assert_prints(f"rows: {len(self.all)}\n"
                            "user version: 1\n"
                            "columns:\n"
                            "  1. id INTEGER PRIMARY KEY NOT NULL\n"
                            "  2. registry TEXT NOT NULL\n"
                            "  3. assignment TEXT NOT NULL\n"
                            "  4. name TEXT NOT NULL\n"
                            "  5. address TEXT NOT NULL\n",
                            "info", self.database)


class CommandLineTest(Test):
    COMMANDS = {
        "import": ("Put a registry's file into a database", "FILE.csv DATABASE"),
        "lookup": ("Print which makers addresses belong to", "DATABASE ADDRESS..."),
        "search": ("Print the blocks of makers whose name contains a text", "DATABASE TEXT"),
        "rename": ("Give the maker that has a block another name", "DATABASE BLOCK NAME"),
        "remove": ("Remove a block", "DATABASE BLOCK"),
        "backup": ("Copy all blocks to another database", "DATABASE OTHER"),
        "info": ("Describe a database", "DATABASE"),
    }
    ARGUMENTS = {
        "FILE.csv": "The file, as the registry publishes it",
        "DATABASE": "The database",
        "ADDRESS...": "Addresses",
        "TEXT": "The text",
        "BLOCK": "The block",
        "NAME": "The new name",
        "OTHER": "The other database",
    }
    # The paragraphs of the source: what all have in common, and what each command does.
    NOTES, *DETAILS = re.findall(r'R"\((.*?)\)"', SOURCE.read_text(encoding="utf-8"), re.DOTALL)

    def test_help_of_every_command(self):
        for (command, (description, arguments)), details in zip(self.COMMANDS.items(), self.DETAILS,
                                                                strict=True):
            positionals = "".join(
                f"  {argument.replace('...', ' ...') + ' REQUIRED':<28}{self.ARGUMENTS[argument]}\n"
                for argument in arguments.split())
            for option in ("--help", "-h"):
                with self.subTest(command, option=option):
                    self.assert_prints(
                        f"{description}\n"
                        f"Usage: vendors {command} [OPTIONS] {arguments}\n\n"
                        f"Positionals:\n{positionals}\n"
                        "Options:\n"
                        "  -h,--help                   Print this help message and exit\n\n\n"
                        f"{details}\n{self.NOTES}\n", command, option)

    def test_help_of_the_program(self):
        commands = "".join(f"  {command:<28}{description}\n"
                           for command, (description, _) in self.COMMANDS.items())
        self.assert_prints(
            "Which maker does a network address belong to?\n"
            "Usage: vendors [OPTIONS] SUBCOMMAND\n\n"
            "Options:\n"
            "  -h,--help                   Print this help message and exit\n"
            "  --trace LEVEL:INT in [0 - 9]\n"
            "                              Show the database library's diagnostics\n\n"
            f"Subcommands:\n{commands}\n{self.NOTES}\n", "--help")

    def test_wrong_use_is_reported(self):
        for error, arguments in {
            "A subcommand is required": (),
            "The following argument was not expected: 2": ("info", "a.db", "2"),
            "The following argument was not expected: --frob": ("info", "a.db", "--frob"),
            "DATABASE is required": ("import", "few.csv"),
            "ADDRESS is required": ("lookup", "a.db"),
            "TEXT is required": ("search", "a.db"),
            "NAME is required": ("rename", "a.db", "002272"),
            "BLOCK is required": ("remove", "a.db"),
            "OTHER is required": ("backup", "a.db"),
            "--trace: Value -1 not in range 0 to 9": ("--trace", "-1", "info", "a.db"),
            "--trace: Value 10 not in range 0 to 9": ("--trace", "10", "info", "a.db"),
            "--trace: Value x not in range 0 to 9": ("--trace", "x", "info", "a.db"),
            "--trace: 1 required LEVEL:INT in [0 - 9] missing": ("info", "a.db", "--trace"),
        }.items():
            with self.subTest(arguments):
                self.assert_wrong_use(error, *arguments)
        self.assertEqual(self.files(), [])


class TraceTest(Test):
    OPENING = "[DEBUG1] SqlDatabase.cpp:NNN (open) - Opening database '{}'"
    CHECKING = [
        "[DEBUG2] SqlCommon.cpp:NNN (queryNumber) - stmt='PRAGMA user_version;'",
        "[DEBUG2] SqlCommon.cpp:NNN (queryNumber) - SQLite returned number=1",
        "[DEBUG2] SqlCommon.cpp:NNN (queryNumber) - stmt='select count(*) from sqlite_master where type = 'table' and name = 'block''",
        "[DEBUG2] SqlCommon.cpp:NNN (queryNumber) - SQLite returned number=1",
        "[DEBUG2] SqlTable.cpp:NNN (exists) - Table 'block' exists",
    ]
    QUERY = "[DEBUG2] SqlRecordSet.cpp:NNN (query) - stmt='{}'"
    SEARCH = QUERY.format("select * from block where name like '%O''B\\%%' escape '\\' order by name, assignment")
    ROW = "[DEBUG3] SqlRecordSet.cpp:NNN (on_next_record) - id = 16786034|registry = MA-L|assignment = 002272|name = O'B%|address = Street"
    READ = ("[DEBUG{}] SqlStatement.cpp:NNN (readRecord) - {}select `id`, `registry`, `assignment`, `name`, "
            "`address` from `block` where `id` = {}")
    ERRORS = [
        "[ERROR] SqlCommon.cpp:NNN (queryNumber) - The SQL query 'PRAGMA user_version;' failed",
        "[ERROR] SqlCommon.cpp:NNN (queryNumber) -    the query returned 26=SQLITE_NOTADB instead of SQLITE_ROW: "
        "file is not a database",
    ]

    def traced(self, *arguments):
        """The program's lines on standard error."""
        lines = programs.comparable(self.run_program(*arguments)[2]).splitlines()
        return [line.removeprefix("vendors: ") for line in lines]

    def test_level_says_what_is_shown(self):
        self.import_lines("a.db", "MA-L,002272,O'B%,Street")
        opening = self.OPENING.format(self.folder / "a.db")
        for level, lines in {
            "0": [], "2": [], "3": [], "6": [],
            "7": [opening],
            "8": [opening, *self.CHECKING, self.SEARCH],
            "9": [opening, *self.CHECKING, self.SEARCH, self.ROW],
        }.items():  # fmt: skip
            for arguments in (("--trace", level, "search", "a.db", "O'B%"),
                              ("search", "--trace", level, "a.db", "O'B%"),
                              ("search", "a.db", "O'B%", f"--trace={level}")):
                with self.subTest(arguments):
                    self.assertEqual(self.traced(*arguments), lines)

    def test_each_address_is_asked_for_from_its_smallest_block_on(self):
        self.import_lines("a.db", "MA-L,002272,Maker,", "MA-M,741AE09,Maker,")
        keys = {"002272010203": (0x1002272010, 0x10022720, 0x1002272),
                "741AE0901020": (0x1741AE0901, 0x1741AE09),
                "FFFFFFFFFFFF": (0x1FFFFFFFFF, 0x1FFFFFFF, 0x1FFFFFF)}
        lines = []
        for blocks in keys.values():
            lines.append("[DEBUG2] SqlTransaction.cpp:NNN (begin) - stmt='begin deferred'")
            for block in blocks:
                lines += [self.READ.format(2, "stmt='", "?'"), self.READ.format(3, "", block)]
            lines.append("[DEBUG2] SqlTransaction.cpp:NNN (~TransactionScope) - stmt='rollback'")
        self.assertEqual(self.traced("lookup", "a.db", *keys, "--trace", "9"),
                         [self.OPENING.format(self.folder / "a.db"), *self.CHECKING, *lines])

    def test_errors_are_shown_from_level_3_on(self):
        self.write("text", NO_DATABASE)
        message = f"text: {NOT_READABLE}"
        self.assertEqual(self.traced("info", "text"), [message])
        self.assertEqual(self.traced("info", "text", "--trace", "2"), [message])
        self.assertEqual(self.traced("info", "text", "--trace", "3"), [*self.ERRORS, message])


class ProgressTest(Test):
    WIPED = "\r" + " " * 57 + "\r"

    def assert_shows(self, status, text, *arguments):
        """The program, whose standard error is a terminal, shows that text there."""
        terminal, standard_error = pty.openpty()
        shown = []

        def read():
            with contextlib.suppress(OSError):  # the program has ended
                while data := os.read(terminal, 4096):
                    shown.append(data)

        reader = threading.Thread(target=read)
        reader.start()
        result, _, _ = self.run_program(*arguments, stderr=standard_error)
        os.close(standard_error)
        reader.join()
        os.close(terminal)
        self.assertEqual((result, b"".join(shown).decode()), (status, text))

    def bars(self, percentages):
        return "".join(f"\r[{'#' * (p // 2):<50}] {p}%" for p in percentages) + self.WIPED

    def test_terminal_shows_the_progress(self):
        self.assert_shows(0, self.bars(range(101)), "import", OUI, "a.db")

    def test_bar_is_wiped_before_a_failure_is_told(self):
        content = self.write("bad.csv", FEW + "MA-L\r\n")
        percent = 100 * len(FEW) // len(FEW + "MA-L\r\n")
        self.assert_shows(
            1, self.bars([percent]) + "vendors: bad.csv:3: 1 columns instead of 4\r\n",
            "import", content, "a.db")

    def test_no_bar_among_diagnostics(self):
        self.assert_shows(0, "", "import", self.write("few.csv", FEW), "a.db", "--trace", "3")

    def test_no_bar_for_a_pipe(self):
        with self.pipe(pathlib.Path(MAM).read_bytes()) as pipe:
            self.assert_shows(0, "", "import", pipe, "a.db")


if __name__ == "__main__":
    unittest.main()
