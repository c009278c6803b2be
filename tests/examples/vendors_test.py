"""Runs the example program vendors on the public registry of address blocks.

VENDORS is the program, REGISTRY the folder with oui.csv, mam.csv and oui36.csv, SQLITE_VERSION the
version of the program's SQLite. What the program prints and stores is compared with what Python's own
modules csv and sqlite3 read.
"""

import csv
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
import unittest

PROGRAM = os.path.abspath(os.environ["VENDORS"])
REGISTRY = pathlib.Path(os.environ["REGISTRY"])
SQLITE = tuple(int(part) for part in os.environ["SQLITE_VERSION"].split("."))
OUI = str(REGISTRY / "oui.csv")
MAM = str(REGISTRY / "mam.csv")
OUI36 = str(REGISTRY / "oui36.csv")

HEADER = "Registry,Assignment,Organization Name,Organization Address\r\n"
BLANKS = " \t\n\v\f\r"
SCHEMA = (
    "CREATE TABLE block (id INTEGER PRIMARY KEY NOT NULL, registry TEXT NOT NULL, "
    "assignment TEXT NOT NULL, name TEXT NOT NULL, address TEXT NOT NULL)"
)
NOT_READABLE = "cannot be read: no database, damaged, or locked"
NOT_WRITABLE = "cannot be written: disk full, read-only, damaged, or locked"
NO_DIGITS = " instead of 6, 7 or 9 hexadecimal digits"
NOT_OURS = "is not a database made by vendors"


def records(file):
    """The records of a registry's file, without the header."""
    with open(file, newline="", encoding="utf-8") as stream:
        return list(csv.reader(stream, strict=True))[1:]


def line_count(file):
    return pathlib.Path(file).read_bytes().count(b"\n")


def expected_rows(*files):
    """The rows that the files make in a database: the last record of a block counts."""
    rows = {}
    for file in files:
        for registry, assignment, name, address in records(file):
            key = int("1" + assignment, 16)
            texts = (text.strip(BLANKS) for text in (registry, assignment, name, address))
            rows[key] = (key, *texts)
    return [rows[key] for key in sorted(rows)]


def stored_rows(database):
    connection = sqlite3.connect(database)
    try:
        return connection.execute("select * from block order by id").fetchall()
    finally:
        connection.close()


def query(database, statement):
    connection = sqlite3.connect(database)
    try:
        result = connection.execute(statement).fetchall()
        connection.commit()
        return result
    finally:
        connection.close()


def limited_file_size(size):
    return lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))


def lines_of(rows):
    return "".join(f"{row[2]}  {row[3]}\n" for row in rows)


class Test(unittest.TestCase):
    """A test with a folder of its own, in which the program runs."""

    maxDiff = 10000

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_program(self, *arguments, **options):
        options = {"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options}
        return subprocess.run(
            [PROGRAM, *arguments], cwd=self.folder, encoding="utf-8", check=False, **options
        )

    def assert_result(self, result, status, output, errors):
        actual = (result.stderr, result.returncode, result.stdout)
        self.assertEqual(actual, (errors, status, output))

    def assert_success(self, output, *arguments):
        self.assert_result(self.run_program(*arguments), 0, output, "")

    def assert_failure(self, error, *arguments, **options):
        """The program fails with one line."""
        self.assert_result(self.run_program(*arguments, **options), 1, "", f"vendors: {error}\n")

    def assert_wrong_use(self, error, *arguments):
        errors = f"vendors: {error} (--help tells more)\n"
        self.assert_result(self.run_program(*arguments), 2, "", errors)

    def assert_imported(self, result, rows, blocks, database):
        self.assertEqual((result.stderr, result.returncode), ("", 0))
        summary = rf"{rows} rows in \d+\.\d\d s, {blocks} blocks in {re.escape(database)}\n"
        self.assertRegex(result.stdout, rf"\A{summary}\Z")

    def write(self, name, content):
        content = content if isinstance(content, bytes) else content.encode("utf-8")
        (self.folder / name).write_bytes(content)
        return name

    def path(self, name):
        return str(self.folder / name)

    def files(self):
        return sorted(os.listdir(self.folder))

    def import_lines(self, database, *lines):
        """Imports a few records."""
        file = self.write("few.csv", HEADER + "".join(line + "\r\n" for line in lines))
        result = self.run_program("import", file, database)
        self.assertEqual((result.stderr, result.returncode), ("", 0))
        os.remove(self.folder / file)


class WithRegistry(Test):
    """Tests on a database of all three files, for reading only."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.database = os.path.join(folder.name, "all.db")
        for file in (OUI, MAM, OUI36):
            subprocess.run(
                [PROGRAM, "import", file, cls.database], check=True, stdout=subprocess.DEVNULL
            )
        cls.rows = expected_rows(OUI, MAM, OUI36)

    def copy_database(self):
        shutil.copy(self.database, self.folder / "copy.db")
        return "copy.db"


class ImportTest(Test):
    def test_every_record_of_a_file_is_stored(self):
        for file in (OUI, MAM, OUI36):
            with self.subTest(file):
                database = os.path.basename(file) + ".db"
                rows = expected_rows(file)
                result = self.run_program("import", file, database)
                self.assert_imported(result, len(records(file)), len(rows), database)
                self.assertEqual(stored_rows(self.path(database)), rows)

    def test_files_share_a_database(self):
        for count in (1, 2, 3):
            files = (OUI, MAM, OUI36)[:count]
            rows = expected_rows(*files)
            result = self.run_program("import", files[-1], "all.db")
            self.assert_imported(result, len(records(files[-1])), len(rows), "all.db")
        self.assertEqual(stored_rows(self.path("all.db")), rows)

    def test_schema_and_user_version_are_set(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.assertEqual(
            query(self.path("a.db"), "select type, name, sql from sqlite_master"),
            [("table", "block", SCHEMA)],
        )
        self.assertEqual(query(self.path("a.db"), "pragma user_version"), [(1,)])

    def test_importing_again_changes_nothing(self):
        self.run_program("import", OUI, "a.db")
        rows = expected_rows(OUI)
        result = self.run_program("import", OUI, "a.db")
        self.assert_imported(result, len(records(OUI)), len(rows), "a.db")
        self.assertEqual(stored_rows(self.path("a.db")), rows)

    def test_importing_again_updates(self):
        self.import_lines("a.db", "MA-L,002272,Old,Old street", "MA-L,00D0EF,Stays,Here")
        self.import_lines("a.db", "MA-L,002272,New,New street", "MA-M,741AE09,Added,There")
        self.assertEqual(
            stored_rows(self.path("a.db")),
            [
                (0x1002272, "MA-L", "002272", "New", "New street"),
                (0x100D0EF, "MA-L", "00D0EF", "Stays", "Here"),
                (0x1741AE09, "MA-M", "741AE09", "Added", "There"),
            ],
        )

    def test_the_last_record_of_a_block_counts(self):
        self.import_lines("a.db", "MA-L,080030,One,1", "MA-L,080030,Two,2", "MA-L,080030,Three,3")
        self.assertEqual(
            stored_rows(self.path("a.db")), [(0x1080030, "MA-L", "080030", "Three", "3")]
        )

    def test_blocks_of_all_sizes_are_kept_apart(self):
        lines = ("MA-L,000000,Large,", "MA-M,0000000,Medium,", "MA-S,000000000,Small,")
        self.import_lines("a.db", *lines)
        names = [row[2:4] for row in stored_rows(self.path("a.db"))]
        self.assertEqual(
            names, [("000000", "Large"), ("0000000", "Medium"), ("000000000", "Small")]
        )

    def test_texts_are_stored_as_they_are_but_for_blanks_at_their_ends(self):
        texts = ["O'Brien", 'a "word"', "a,b", "two\r\nlines", "%_\\", "Ünïcödé Ж", "a  b", ""]
        content = io.StringIO()
        writer = csv.writer(content, lineterminator="\r\n")
        for number, text in enumerate(texts):
            writer.writerow([" MA-L ", f"00000{number}", f"\t {text} \r\n", f" {text}\t"])
        self.write("texts.csv", HEADER + content.getvalue())
        result = self.run_program("import", "texts.csv", "a.db")
        self.assert_imported(result, len(texts), len(texts), "a.db")
        self.assertEqual(
            [row[1:] for row in stored_rows(self.path("a.db"))],
            [("MA-L", f"00000{number}", text, text) for number, text in enumerate(texts)],
        )

    def test_line_ends_and_empty_lines_do_not_matter(self):
        content = "\n\n" + HEADER + "MA-L,00000a,Small letters,\n\r\nMA-L,00000B,No line end,"
        self.write("ends.csv", content)
        result = self.run_program("import", "ends.csv", "a.db")
        self.assert_imported(result, 2, 2, "a.db")
        self.assertEqual(
            [row[2:4] for row in stored_rows(self.path("a.db"))],
            [("00000A", "Small letters"), ("00000B", "No line end")],
        )

    def test_file_without_records_makes_an_empty_database(self):
        self.write("header.csv", HEADER)
        self.assert_imported(self.run_program("import", "header.csv", "a.db"), 0, 0, "a.db")
        self.assertEqual(stored_rows(self.path("a.db")), [])

    def test_empty_file_becomes_a_database(self):
        self.write("a.db", "")
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.assertEqual(len(stored_rows(self.path("a.db"))), 1)

    def test_name_that_means_something_else_to_sqlite_is_a_file(self):
        self.import_lines(":memory:", "MA-L,002272,Maker,Street")
        self.assertEqual(self.files(), [":memory:"])

    def test_pipe_is_read_like_a_file(self):
        os.mkfifo(self.folder / "pipe")
        content = pathlib.Path(MAM).read_bytes()
        writer = threading.Thread(target=lambda: self.write("pipe", content))
        writer.start()
        result = self.run_program("import", "pipe", "a.db")
        writer.join()
        self.assert_imported(result, len(records(MAM)), len(expected_rows(MAM)), "a.db")
        self.assertEqual(stored_rows(self.path("a.db")), expected_rows(MAM))


class MalformedFileTest(Test):
    GOOD = "MA-L,002272,New maker,Street\r\n"

    # What follows the header and a good line, the line that is reported, and the text.
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

    def test_malformed_line_leaves_a_missing_database_missing(self):
        for flaw, (content, line, text) in self.FLAWS.items():
            with self.subTest(flaw):
                file = self.write("bad.csv", HEADER + self.GOOD + content)
                self.assert_failure(f"bad.csv:{line}: {text}", "import", file, "a.db")
                self.assertEqual(self.files(), ["bad.csv"])

    def test_malformed_line_leaves_the_old_database_as_it_was(self):
        self.import_lines("a.db", "MA-L,002272,Old maker,Street")
        old = (self.folder / "a.db").read_bytes()
        for flaw, (content, line, text) in self.FLAWS.items():
            with self.subTest(flaw):
                file = self.write("bad.csv", HEADER + self.GOOD + content)
                self.assert_failure(f"bad.csv:{line}: {text}", "import", file, "a.db")
                self.assertEqual((self.folder / "a.db").read_bytes(), old)
                self.assertEqual(self.files(), ["a.db", "bad.csv"])

    def test_malformed_line_behind_the_whole_registry_rolls_all_of_it_back(self):
        self.run_program("import", MAM, "a.db")
        self.write("long.csv", pathlib.Path(OUI).read_bytes() + b"MA-L,00D0EF\r\n")
        line = line_count(OUI) + 1
        error = f"long.csv:{line}: 2 columns instead of 4"
        self.assert_failure(error, "import", "long.csv", "a.db")
        self.assertEqual(stored_rows(self.path("a.db")), expected_rows(MAM))
        self.assert_failure(error, "import", "long.csv", "new.db")
        self.assertEqual(self.files(), ["a.db", "long.csv"])

    def test_wrong_header_is_refused(self):
        headers = {
            "columns of another file": ("Name,Street\r\n", 1, "unknown header"),
            "no header": (self.GOOD, 1, "unknown header"),
            "byte order mark": ("\ufeff" + HEADER, 1, "unknown header"),
            "behind empty lines": ("\r\n\r\nName\r\n", 3, "unknown header"),
            "empty file": ("", 1, "no header"),
            "empty lines": ("\r\n\r\n", 1, "no header"),
            "quote": ('"Registry', 1, "quote without an end"),
        }
        for case, (content, line, text) in headers.items():
            with self.subTest(case):
                file = self.write("bad.csv", content)
                self.assert_failure(f"bad.csv:{line}: {text}", "import", file, "a.db")
                self.assertEqual(self.files(), ["bad.csv"])

    def test_file_that_cannot_be_read_is_refused(self):
        (self.folder / "folder").mkdir()
        for file, error in (
            ("missing.csv", "missing.csv: No such file or directory"),
            ("folder", "folder: Is a directory"),
        ):
            with self.subTest(file):
                self.assert_failure(error, "import", file, "a.db")
                self.assertEqual(self.files(), ["folder"])


class DatabaseFileTest(Test):
    """Files that are no database, or not the program's, or that cannot be written."""

    ADDRESS = "00:22:72:00:00:00"

    def commands(self, database):
        """All commands that need a database, which is an existing one for all but import."""
        return (
            ("lookup", database, self.ADDRESS),
            ("search", database, "Maker"),
            ("rename", database, "002272", "Name"),
            ("remove", database, "002272"),
            ("backup", database, "other.db"),
            ("info", database),
        )

    def few(self):
        return self.write("few.csv", HEADER + "MA-L,002272,Maker,Street\r\n")

    def test_missing_database_is_reported_and_not_made(self):
        for database in ("missing.db", "missing/a.db"):
            for command in self.commands(database):
                with self.subTest(command):
                    self.assert_failure(f"{database}: does not exist", *command)
                    self.assertEqual(self.files(), [])

    def test_file_that_is_no_database_is_refused_and_stays(self):
        self.few()
        content = "This is no database.\n" * 100
        self.write("text", content)
        for command in (*self.commands("text"), ("import", "few.csv", "text")):
            with self.subTest(command):
                self.assert_failure(f"text: {NOT_READABLE}", *command)
                self.assertEqual((self.folder / "text").read_text(), content)
                self.assertEqual(self.files(), ["few.csv", "text"])

    def test_backup_to_a_file_that_is_no_database_is_refused(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.write("text", "This is no database.\n" * 100)
        self.assert_failure(f"text: {NOT_READABLE}", "backup", "a.db", "text")

    def test_folder_is_refused(self):
        self.few()
        (self.folder / "folder").mkdir()
        for command in (*self.commands("folder"), ("import", "few.csv", "folder")):
            with self.subTest(command):
                self.assert_failure("folder: cannot be opened", *command)

    def test_database_of_another_application_is_refused_and_stays(self):
        self.few()
        for case, statements in {
            "other tables": "create table song (title text)",
            "other tables, same version": "create table song (title text); pragma user_version = 1",
            "same table, other version": f"{SCHEMA}; pragma user_version = 2",
            "same table, no version": SCHEMA,
            "no table, but a version": "pragma user_version = 7",
        }.items():
            connection = sqlite3.connect(self.folder / "other.db")
            connection.executescript(statements)
            connection.close()
            content = (self.folder / "other.db").read_bytes()
            for command in (*self.commands("other.db")[:4], ("import", "few.csv", "other.db")):
                with self.subTest(case, command=command):
                    self.assert_failure(f"other.db: {NOT_OURS}", *command)
                    self.assertEqual((self.folder / "other.db").read_bytes(), content)
            os.remove(self.folder / "other.db")

    def test_empty_file_is_read_as_no_database_of_the_program(self):
        self.write("empty.db", "")
        for command in self.commands("empty.db"):
            with self.subTest(command):
                self.assert_failure(f"empty.db: {NOT_OURS}", *command)

    def test_table_without_the_columns_is_reported(self):
        self.few()
        connection = sqlite3.connect(self.folder / "a.db")
        connection.executescript("create table block (title text); pragma user_version = 1")
        connection.close()
        content = (self.folder / "a.db").read_bytes()
        for command, error in (
            (("lookup", "a.db", self.ADDRESS), f"a.db: {NOT_READABLE}"),
            (("search", "a.db", "Maker"), f"a.db: {NOT_READABLE}"),
            (("rename", "a.db", "002272", "Name"), f"a.db: {NOT_READABLE}"),
            (("remove", "a.db", "002272"), f"a.db: {NOT_READABLE}"),
            (("import", "few.csv", "a.db"), f"few.csv:2: a.db: {NOT_WRITABLE}"),
        ):
            with self.subTest(command):
                self.assert_failure(error, *command)
                self.assertEqual((self.folder / "a.db").read_bytes(), content)

    def test_folder_that_does_not_exist_or_takes_no_files_is_reported(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.few()
        for database in ("missing/new.db", "/proc/new.db"):
            for command in (("import", "few.csv", database), ("backup", "a.db", database)):
                with self.subTest(command):
                    self.assert_failure(f"{database}: cannot be created", *command)

    def test_empty_file_names_are_wrong_use(self):
        self.few()
        for command in (*self.commands(""), ("import", "few.csv", "")):
            with self.subTest(command):
                self.assert_wrong_use("DATABASE: empty file name", *command)
        self.assert_wrong_use("OTHER: empty file name", "backup", "a.db", "")
        self.assert_wrong_use("FILE.csv: empty file name", "import", "", "a.db")


class ReadOnlyTest(Test):
    """The program runs without root's right to pass over permissions."""

    def setUp(self):
        super().setUp()
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.write("few.csv", HEADER + "MA-L,00D0EF,Maker,Street\r\n")
        self.content = (self.folder / "a.db").read_bytes()

    def run_program(self, *arguments, **options):
        if os.geteuid() != 0:
            return super().run_program(*arguments, **options)
        return subprocess.run(
            ["setpriv", "--bounding-set=-dac_override", "--", PROGRAM, *arguments],
            cwd=self.folder, capture_output=True, encoding="utf-8", check=False,
        )

    def assert_only_reading_works(self, file, line):
        error = f"{file}: {NOT_WRITABLE}"
        self.assert_success("002272  Maker\n", "search", file, "Maker")
        self.assert_failure(f"few.csv:{line}: {error}", "import", "few.csv", file)
        self.assert_failure(error, "rename", file, "002272", "Name")
        self.assert_failure(error, "remove", file, "002272")
        self.assert_failure(error, "backup", "a.db", file)
        self.assertEqual((self.folder / file).read_bytes(), self.content)

    def test_file_for_reading_only(self):
        shutil.copy(self.folder / "a.db", self.folder / "fixed.db")
        os.chmod(self.folder / "fixed.db", 0o444)
        self.assert_only_reading_works("fixed.db", 2)

    def test_folder_for_reading_only(self):
        fixed = self.folder / "fixed"
        fixed.mkdir()
        shutil.copy(self.folder / "a.db", fixed / "b.db")
        os.chmod(fixed, 0o555)
        self.assert_only_reading_works("fixed/b.db", 2)
        self.assert_failure("fixed/new.db: cannot be created", "import", "few.csv", "fixed/new.db")
        self.assert_failure("fixed/new.db: cannot be created", "backup", "a.db", "fixed/new.db")
        self.assertEqual(os.listdir(fixed), ["b.db"])


class FullDiskTest(Test):
    """Files that cannot grow: on a disk that is full where one can be mounted, and by a limit."""

    KILO = 1024

    def setUp(self):
        super().setUp()
        self.disk = self.folder / "disk"
        self.disk.mkdir()

    def run_on_mounted_disk(self, size, prepare, command):
        """Runs the program on a disk of that size; None where that may not be mounted."""
        mount = ["mount", "-t", "tmpfs", "-o", f"size={size}", "vendors", self.disk]
        if subprocess.run(mount, capture_output=True, check=False).returncode != 0:
            return None
        try:
            prepare()
            result = self.run_program(*command)
            return result, self.state()
        finally:
            subprocess.run(["umount", self.disk], check=True)

    def run_with_limit(self, size, prepare, command):
        prepare()
        result = self.run_program(*command, preexec_fn=limited_file_size(size))
        state = self.state()
        for file in os.listdir(self.disk):
            os.remove(self.disk / file)
        return result, state

    def state(self):
        """The files on the disk, and the rows in the database there."""
        files = sorted(os.listdir(self.disk))
        return files, stored_rows(self.disk / "a.db") if "a.db" in files else None

    def assert_nothing_changes(self, old, command, error):
        """Runs the program with growing room until it succeeds. `old` is the database before."""
        content = (self.folder / old).read_bytes() if old else b""
        expected = (["a.db"], stored_rows(self.folder / old)) if old else ([], None)

        def prepare():
            if old:
                (self.disk / "a.db").write_bytes(content)

        for run in (self.run_on_mounted_disk, self.run_with_limit):
            failures = 0
            room = 12 * self.KILO
            while (done := run(len(content) + room, prepare, command)) is not None:
                result, state = done
                with self.subTest(run=run.__name__, room=room):
                    if result.returncode == 0:
                        self.assertNotEqual(state, expected)
                        break
                    failures += 1
                    self.assertEqual((result.returncode, result.stdout), (1, ""))
                    self.assertRegex(result.stderr, rf"\Avendors: {error}\n\Z")
                    self.assertEqual(state, expected)
                room += 530 * self.KILO
            self.assertTrue(failures > 0 or run == self.run_on_mounted_disk)

    def test_import_into_a_new_database(self):
        error = rf"{re.escape(OUI)}:\d+: disk/a\.db: {NOT_WRITABLE}"
        self.assert_nothing_changes(None, ("import", OUI, "disk/a.db"), error)

    def test_import_of_more_blocks(self):
        self.run_program("import", MAM, "old.db")
        error = rf"{re.escape(OUI)}:\d+: disk/a\.db: {NOT_WRITABLE}"
        self.assert_nothing_changes("old.db", ("import", OUI, "disk/a.db"), error)

    def test_backup_to_a_new_database(self):
        self.run_program("import", OUI, "source.db")
        error = rf"disk/a\.db: {NOT_WRITABLE}"
        self.assert_nothing_changes(None, ("backup", "source.db", "disk/a.db"), error)

    def test_backup_over_an_older_one(self):
        self.run_program("import", OUI, "source.db")
        self.run_program("import", MAM, "old.db")
        error = rf"disk/a\.db: {NOT_WRITABLE}"
        self.assert_nothing_changes("old.db", ("backup", "source.db", "disk/a.db"), error)

    def test_backup_over_an_older_one_that_cannot_be_dropped_adds_nothing_to_it(self):
        # The limit is too low for dropping the table, but not for a row at the table's beginning.
        self.run_program("import", OUI, "old.db")
        query(self.path("old.db"), "delete from block where assignment = '000000'")
        query(self.path("old.db"), "vacuum")
        self.import_lines("source.db", "MA-L,000000,Maker,Street")
        rows = stored_rows(self.path("old.db"))
        self.assert_failure(
            f"old.db: {NOT_WRITABLE}", "backup", "source.db", "old.db",
            preexec_fn=limited_file_size(32 * self.KILO),
        )
        self.assertEqual(stored_rows(self.path("old.db")), rows)

    def test_changes_to_one_block(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        content = (self.folder / "a.db").read_bytes()
        for command in (("rename", "a.db", "002272", "Name"), ("remove", "a.db", "002272")):
            with self.subTest(command):
                self.assert_failure(
                    f"a.db: {NOT_WRITABLE}", *command, preexec_fn=limited_file_size(1)
                )
                self.assertEqual((self.folder / "a.db").read_bytes(), content)

    def test_failure_of_the_commit_names_the_last_line(self):
        # Two pages of the file do not fit, each as large as SQLite makes them by itself.
        pages = (8 if SQLITE >= (3, 12) else 2) * self.KILO
        self.write("few.csv", HEADER + "MA-L,002272,Maker,Street\r\nMA-L,00D0EF,Maker,\r\n\r\n")
        self.assert_failure(
            f"few.csv:4: a.db: {NOT_WRITABLE}", "import", "few.csv", "a.db",
            preexec_fn=limited_file_size(pages - 1),
        )
        self.assertEqual(self.files(), ["disk", "few.csv"])

    def test_standard_output_that_cannot_be_written(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        with open("/dev/full", "w", encoding="utf-8") as full:
            result = self.run_program("info", "a.db", stdout=full)
        self.assertEqual(
            (result.returncode, result.stderr), (1, "vendors: standard output cannot be written\n")
        )


class OtherProgramsTest(Test):
    """Other programs at work on the database, and one that was cut off."""

    # More than SQLite keeps in memory before it writes to the file.
    LONG = HEADER + "".join(f"MA-L,{block:06X},Maker,{'Street' * 170}\r\n" for block in range(3000))

    def test_locked_database_is_reported(self):
        self.import_lines("a.db", "MA-L,002272,Maker,Street")
        self.write("few.csv", HEADER + "MA-L,00D0EF,Maker,\r\n")
        connection = sqlite3.connect(self.folder / "a.db", isolation_level=None)
        self.addCleanup(connection.close)
        connection.execute("begin immediate")
        self.assert_failure(f"few.csv:2: a.db: {NOT_WRITABLE}", "import", "few.csv", "a.db")
        connection.execute("rollback")
        connection.execute("begin exclusive")
        self.assert_failure(f"a.db: {NOT_READABLE}", "search", "a.db", "Maker")

    def cut_off_import(self, database):
        """Ends the program amid an import, once it has written part of it to the file."""
        os.mkfifo(self.folder / "pipe")
        with subprocess.Popen([PROGRAM, "import", "pipe", database], cwd=self.folder) as program:
            with open(self.folder / "pipe", "wb") as pipe:
                pipe.write(self.LONG.encode())
                pipe.flush()
                program.kill()
                program.wait()
        self.assertIn(database + "-journal", self.files())

    def test_import_that_was_cut_off_leaves_the_old_blocks(self):
        self.run_program("import", MAM, "a.db")
        content = (self.folder / "a.db").read_bytes()
        self.cut_off_import("a.db")
        self.assertNotEqual((self.folder / "a.db").read_bytes(), content)
        rows = expected_rows(MAM)
        output = lines_of(sorted(rows, key=lambda row: (row[3], row[2])))
        self.assert_success(output, "search", "a.db", "")
        self.assertEqual((self.folder / "a.db").read_bytes(), content)
        self.assertEqual(self.files(), ["a.db", "pipe"])

    def test_import_that_was_cut_off_can_be_repeated(self):
        self.cut_off_import("a.db")
        file = self.write("long.csv", self.LONG)
        rows = expected_rows(self.path(file))
        result = self.run_program("import", file, "a.db")
        self.assert_imported(result, 3000, 3000, "a.db")
        self.assertEqual(stored_rows(self.path("a.db")), rows)


class LookupTest(WithRegistry):
    NOTATIONS = (
        lambda digits: ":".join(re.findall("..", digits)),
        lambda digits: "-".join(re.findall("..", digits)),
        lambda digits: ".".join(re.findall("....", digits)),
        lambda digits: digits,
        lambda digits: ":".join(re.findall("..", digits)).lower(),
        lambda digits: "-".join(re.findall("..", digits)).lower(),
        lambda digits: ".".join(re.findall("....", digits)).lower(),
        lambda digits: digits.lower(),
    )

    def expected_line(self, address, digits, blocks):
        for size in (9, 7, 6):
            if digits[:size] in blocks:
                return f"{address}  {digits[:size]}  {blocks[digits[:size]]}\n"
        return f"{address}  unknown\n"

    def assert_found(self, digits_of_addresses):
        """Looks addresses up, in batches and in all notations by turns."""
        blocks = {row[2]: row[3] for row in self.rows}
        addresses = [
            (self.NOTATIONS[number % len(self.NOTATIONS)](digits), digits)
            for number, digits in enumerate(digits_of_addresses)
        ]
        for start in range(0, len(addresses), 3000):
            batch = addresses[start : start + 3000]
            expected = "".join(self.expected_line(*address, blocks) for address in batch)
            arguments = (address for address, _ in batch)
            self.assert_success(expected, "lookup", self.database, *arguments)

    def test_first_address_of_every_block(self):
        self.assert_found([row[2].ljust(12, "0") for row in self.rows])

    def test_last_address_of_every_block(self):
        self.assert_found([row[2].ljust(12, "F") for row in self.rows])

    def test_every_notation(self):
        name = {row[2]: row[3] for row in self.rows}["70B3D5F2F"]
        for notation in self.NOTATIONS:
            address = notation("70B3D5F2FABC")
            with self.subTest(address):
                output = f"{address}  70B3D5F2F  {name}\n"
                self.assert_success(output, "lookup", self.database, address)

    def test_smallest_block_counts(self):
        lines = ("MA-L,70B3D5,Large,", "MA-M,70B3D50,Medium,", "MA-S,70B3D5012,Small,")
        self.import_lines("a.db", *lines)
        self.assert_success(
            "70B3D5012FFF  70B3D5012  Small\n"
            "70B3D5013000  70B3D50  Medium\n"
            "70B3D5112FFF  70B3D5  Large\n",
            "lookup", "a.db", "70B3D5012FFF", "70B3D5013000", "70B3D5112FFF",
        )

    def test_unknown_address_is_printed_as_such_and_told_by_the_status(self):
        self.import_lines("a.db", "MA-L,002272,Maker,")
        result = self.run_program("lookup", "a.db", "00:22:73:00:00:00", "00:22:72:00:00:00")
        output = "00:22:73:00:00:00  unknown\n00:22:72:00:00:00  002272  Maker\n"
        self.assert_result(result, 3, output, "")

    def test_name_is_printed_on_one_line_without_control_characters(self):
        self.import_lines("a.db", 'MA-L,002272,"two\r\nlines\x1b[31m\x7f",')
        address = "00:22:72:00:00:00"
        self.assert_success(f"{address}  002272  two  lines [31m \n", "lookup", "a.db", address)

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
                error = f"ADDRESS: '{text}' is no network address"
                valid = "00:22:72:01:02:03"
                self.assert_wrong_use(error, "lookup", self.database, valid, text)


class SearchTest(WithRegistry):
    CAPITALS = {ord(letter): letter.lower() for letter in "ABCDEFGHIJKLMNOPQRSTUVWXYZ"}

    def expected_output(self, text, rows):
        """Names that contain the text, letters from A to Z being the same as small ones."""
        text = text.translate(self.CAPITALS)
        found = [row for row in rows if text in row[3].translate(self.CAPITALS)]
        return lines_of(sorted(found, key=lambda row: (row[3], row[2])))

    def test_texts_are_found_in_the_registry(self):
        for text in (
            "'", "INT'L", "int'l", "XI'AN", '"', 'JSC "', ",", ", inc", "&", "(", "info", "Private",
            " ", "  ", "ñ", "Ş", "ООО", "（", "\u00a0", "[", "a", "Tecnologia", "*", "?", "",
        ):  # fmt: skip
            with self.subTest(text):
                expected = self.expected_output(text, self.rows)
                status = 0 if expected else 3
                result = self.run_program("search", self.database, text)
                self.assert_result(result, status, expected, "")

    def test_signs_with_a_meaning_for_patterns_find_only_themselves(self):
        names = (
            "100%", "100 percent", "a_b", "axb", "a\\b", "a\\%b", "\\_", "'%'", "O'Brien",
            "''", "%%",
        )  # fmt: skip
        lines = (f'MA-L,0000{number:02X},"{name}",' for number, name in enumerate(names))
        self.import_lines("a.db", *lines)
        rows = stored_rows(self.path("a.db"))
        for text in (
            "%", "0%", "%0", "_", "a_", "a_b", "\\", "\\%", "\\_", "\\\\", "'", "''", "'%'", "%%",
            "%_", "' or '' = '", "'; drop table block; --", "' escape '",
        ):  # fmt: skip
            with self.subTest(text):
                expected = self.expected_output(text, rows)
                result = self.run_program("search", "a.db", text)
                self.assert_result(result, 0 if expected else 3, expected, "")
        self.assertEqual(stored_rows(self.path("a.db")), rows)

    def test_signs_with_a_meaning_for_patterns_are_not_in_the_registry(self):
        for text in ("%", "_", "\\"):
            with self.subTest(text):
                self.assertEqual([row for row in self.rows if text in row[3]], [])
                self.assert_result(self.run_program("search", self.database, text), 3, "", "")

    def test_letters_beyond_ascii_are_told_apart(self):
        self.import_lines("a.db", "MA-L,000000,Ünal,", "MA-L,000001,ünal,")
        self.assert_success("000000  Ünal\n", "search", "a.db", "ÜNAL")

    def test_text_may_be_called_like_a_command_or_an_option(self):
        self.import_lines("a.db", "MA-L,000000,info --help [a],")
        for text in ("info", "[a]"):
            self.assert_success("000000  info --help [a]\n", "search", "a.db", text)
        self.assert_success("000000  info --help [a]\n", "search", "a.db", "--", "--help")

    def test_text_too_long_for_a_pattern_is_a_failure(self):
        self.assert_failure(
            f"{self.database}: {NOT_READABLE}", "search", self.database, "x" * 60000
        )


class ChangeTest(WithRegistry):
    BLOCKS = {
        "002272": ("00:22:72", "00-22-72", "0022.72", "002272"),
        "741AE09": ("74:1A:E0:9", "74-1a-e0-9", "741A.E09", "741ae09"),
        "70B3D5F2F": ("70:B3:D5:F2:F", "70-b3-d5-f2-f", "70b3.d5f2.f", "70B3D5F2F"),
    }

    def test_rename_changes_the_name_alone(self):
        database = self.copy_database()
        for digits, notations in self.BLOCKS.items():
            for number, notation in enumerate(notations):
                name = f"O'Brien & \"sons\", 100%, Ünal {number}"
                self.assert_success(f"{digits}  {name}\n", "rename", database, notation, name)
                expected = [
                    (*row[:3], name, row[4]) if row[2] == digits else row
                    for row in stored_rows(self.path(database))
                ]
                self.assertEqual(stored_rows(self.path(database)), expected)
        changed = [row[2] for row in set(stored_rows(self.path(database))) - set(self.rows)]
        self.assertEqual(sorted(changed), sorted(self.BLOCKS))

    def test_import_takes_a_new_name_back(self):
        database = self.copy_database()
        self.run_program("rename", database, "002272", "Name")
        self.run_program("import", OUI, database)
        self.assertEqual(stored_rows(self.path(database)), self.rows)

    def test_remove_takes_one_block(self):
        for number in range(4):
            database = self.copy_database()
            rows = self.rows
            for digits, notations in self.BLOCKS.items():
                (row,) = (row for row in rows if row[2] == digits)
                output = f"{digits}  {row[3]}\n"
                self.assert_success(output, "remove", database, notations[number])
                rows = [row for row in rows if row[2] != digits]
                self.assertEqual(stored_rows(self.path(database)), rows)

    def test_unknown_block_is_reported(self):
        database = self.copy_database()
        for block in ("FFFFFF", "FFFFFFF", "FFFFFFFFF", "0022720", "002272000"):
            for command in (("rename", database, block, "Name"), ("remove", database, block)):
                with self.subTest(command):
                    error = f"vendors: {database}: no block {block}\n"
                    self.assert_result(self.run_program(*command), 3, "", error)
        self.assertEqual(stored_rows(self.path(database)), self.rows)

    def test_text_that_is_no_block_is_wrong_use(self):
        for text in (
            "", "00227", "00227200", "0022720000", "00:22:72:00:00:00", "00227G", "00:2272",
            "00.22.72",
        ):  # fmt: skip
            for command in (("rename", "a.db", text, "Name"), ("remove", "a.db", text)):
                with self.subTest(command):
                    self.assert_wrong_use(f"BLOCK: '{text}' is no block of addresses", *command)


class BackupTest(WithRegistry):
    def assert_copied(self, database, other, rows):
        self.assert_success(f"{len(rows)} blocks copied to {other}\n", "backup", database, other)
        self.assertEqual(stored_rows(self.path(other)), rows)
        self.assertEqual(
            query(self.path(other), "select type, name, sql from sqlite_master"),
            [("table", "block", SCHEMA)],
        )
        self.assertEqual(query(self.path(other), "pragma user_version"), [(1,)])

    def test_new_database_gets_all_blocks(self):
        self.assert_copied(self.database, "new.db", self.rows)

    def test_older_backup_is_replaced(self):
        self.import_lines("old.db", "MA-L,FFFFFF,Only in the older one,", "MA-L,002272,Old name,")
        self.assert_copied(self.database, "old.db", self.rows)

    def test_empty_database_is_copied(self):
        self.import_lines("empty.db")
        self.import_lines("old.db", "MA-L,FFFFFF,Only in the older one,")
        self.assert_copied("empty.db", "new.db", [])
        self.assert_copied("empty.db", "old.db", [])

    def test_database_is_not_copied_to_itself(self):
        self.import_lines("a.db", "MA-L,002272,Maker,")
        os.symlink("a.db", self.folder / "symlink.db")
        os.link(self.folder / "a.db", self.folder / "link.db")
        content = (self.folder / "a.db").read_bytes()
        for other in ("a.db", "./a.db", "symlink.db", "link.db"):
            with self.subTest(other):
                self.assert_failure(f"{other}: the same file as a.db", "backup", "a.db", other)
        self.assertEqual((self.folder / "a.db").read_bytes(), content)

    def test_database_of_another_application_is_not_replaced(self):
        query(self.path("songs.db"), "create table song (title text)")
        content = (self.folder / "songs.db").read_bytes()
        self.assert_failure(f"songs.db: {NOT_OURS}", "backup", self.database, "songs.db")
        self.assertEqual((self.folder / "songs.db").read_bytes(), content)


class InfoTest(WithRegistry):
    def test_rows_user_version_and_columns_are_printed(self):
        self.assert_success(
            f"rows: {len(self.rows)}\n"
            "user version: 1\n"
            "columns:\n"
            "  1. id INTEGER PRIMARY KEY NOT NULL\n"
            "  2. registry TEXT NOT NULL\n"
            "  3. assignment TEXT NOT NULL\n"
            "  4. name TEXT NOT NULL\n"
            "  5. address TEXT NOT NULL\n",
            "info", self.database,
        )


class CommandLineTest(Test):
    NOTES = """
Addresses are written 00:22:72:0a:0b:0c, 00-22-72-0A-0B-0C, 0022.720a.0b0c or
0022720A0B0C; blocks likewise, with 6, 7 or 9 digits.

Every command takes --trace LEVEL, which shows the diagnostics of the database
library on standard error: errors from 3, and more at 7, 8 and 9.

Exit status: 0 success; 1 failure, told in one line on standard error; 2 wrong
use; 3 the database has no such address, name or block.
"""

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

    DETAILS = {
        "import": """\
All of its records are put there, or none. A block that the database has already
is updated; of several records for one block, the last one counts. A database
that is missing is made.

Prints the number of records, the time they took and the number of blocks that
the database has then. On a terminal, a bar shows the progress meanwhile.
""",
        "lookup": """\
Prints a line for every address: the address, the smallest block that it is in
and the maker's name, or the address and "unknown".
""",
        "search": """\
Prints a line for every block, with block and name, in the order of the names.
Capitals and small letters from A to Z are the same; all other characters stand
for themselves. Put -- in front of a text that begins with a hyphen.
""",
        "rename": """\
The name lasts until the block is imported again. Prints the block with its new
name.
""",
        "remove": """\
Prints the block and the name that it had.
""",
        "backup": """\
They replace what the other database has; one that is missing is made. A failure
leaves it as it was. Prints the number of blocks.
""",
        "info": """\
Prints the number of rows, the user version and the columns.
""",
    }

    def expected_help(self, command):
        description, arguments = self.COMMANDS[command]
        positionals = "".join(
            f"  {argument.replace('...', ' ...') + ' REQUIRED':<28}{self.ARGUMENTS[argument]}\n"
            for argument in arguments.split()
        )
        return (
            f"{description}\n"
            f"Usage: vendors {command} [OPTIONS] {arguments}\n\n"
            f"Positionals:\n{positionals}\n"
            "Options:\n  -h,--help                   Print this help message and exit\n\n\n"
            f"{self.DETAILS[command]}{self.NOTES}"
        )

    def test_help_of_every_command(self):
        for command in self.COMMANDS:
            with self.subTest(command):
                for option in ("--help", "-h"):
                    self.assert_success(self.expected_help(command), command, option)

    def test_help_of_the_program(self):
        commands = "".join(
            f"  {command:<28}{description}\n" for command, (description, _) in self.COMMANDS.items()
        )
        expected = (
            "Which maker does a network address belong to?\n"
            "Usage: vendors [OPTIONS] SUBCOMMAND\n\n"
            "Options:\n"
            "  -h,--help                   Print this help message and exit\n"
            "  --trace LEVEL:INT in [0 - 9]\n"
            "                              Show the database library's diagnostics\n\n"
            f"Subcommands:\n{commands}\n{self.NOTES}"
        )
        self.assert_success(expected, "--help")

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
    OPENING = "[DEBUG1] SqlDatabase.cpp (open) - Opening database '{}'"
    READING = (
        "[DEBUG2] SqlCommon.cpp (queryNumber) - stmt='PRAGMA user_version;'",
        "[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=1",
        "[DEBUG2] SqlCommon.cpp (queryNumber) - stmt='select count(*) from sqlite_master where type = 'table' and name = 'block''",
        "[DEBUG2] SqlCommon.cpp (queryNumber) - SQLite returned number=1",
        "[DEBUG2] SqlTable.cpp (exists) - Table 'block' exists",
        "[DEBUG2] SqlRecordSet.cpp (query) - stmt='select * from block where name like '%O''B\\%%' escape '\\' order by name, assignment'",
    )
    ROW = "[DEBUG3] SqlRecordSet.cpp (on_next_record) - id = 16786034|registry = MA-L|assignment = 002272|name = O'B%|address = Street"
    NO_DATABASE = (
        "file is not a database" if SQLITE >= (3, 40)
        else "file is encrypted or is not a database"  # as of 3.7.7.1 and 3.15.2
    )
    ERRORS = (
        "[ERROR] SqlCommon.cpp (queryNumber) - The SQL query 'PRAGMA user_version;' failed",
        "[ERROR] SqlCommon.cpp (queryNumber) -    the query returned 26=SQLITE_NOTADB instead of SQLITE_ROW: " + NO_DATABASE,
    )

    def traced(self, *arguments):
        """Runs the program and returns its lines on standard error, without their line numbers."""
        result = self.run_program(*arguments)
        text = re.sub(r"^(vendors: \[\w+\] \w+\.cpp):\d+ ", r"\1 ", result.stderr, flags=re.M)
        return text.removesuffix("\n").split("\n")

    def test_level_says_what_is_shown(self):
        self.import_lines("a.db", "MA-L,002272,O'B%,Street")
        opening = self.OPENING.format(self.path("a.db"))
        for level, lines in {
            "0": (), "2": (), "3": (), "6": (),
            "7": (opening,),
            "8": (opening, *self.READING),
            "9": (opening, *self.READING, self.ROW),
        }.items():  # fmt: skip
            for arguments in (
                ("--trace", level, "search", "a.db", "O'B%"),
                ("search", "--trace", level, "a.db", "O'B%"),
                ("search", "a.db", "O'B%", f"--trace={level}"),
            ):
                with self.subTest(arguments):
                    expected = [f"vendors: {line}" for line in lines] or [""]
                    self.assertEqual(self.traced(*arguments), expected)

    def test_errors_are_shown_from_level_3_on(self):
        self.write("text", "This is no database.\n" * 100)
        message = f"vendors: text: {NOT_READABLE}"
        errors = [f"vendors: {line}" for line in self.ERRORS]
        self.assertEqual(self.traced("info", "text"), [message])
        self.assertEqual(self.traced("info", "text", "--trace", "2"), [message])
        self.assertEqual(self.traced("info", "text", "--trace", "3"), [*errors, message])


class ProgressTest(Test):
    WIPED = "\r" + " " * 57 + "\r"

    def run_on_terminal(self, *arguments):
        """Runs the program with a terminal for standard error. Returns the status and its text."""
        terminal, standard_error = pty.openpty()
        shown = []

        def read():
            try:
                while data := os.read(terminal, 4096):
                    shown.append(data)
            except OSError:
                pass  # the program has ended

        reader = threading.Thread(target=read)
        reader.start()
        result = self.run_program(*arguments, stderr=standard_error)
        os.close(standard_error)
        reader.join()
        os.close(terminal)
        return result.returncode, b"".join(shown).decode()

    def bars(self, percentages):
        return "".join(f"\r[{'#' * (p // 2):<50}] {p}%" for p in percentages)

    def test_terminal_shows_the_progress(self):
        shown = self.bars(range(101)) + self.WIPED
        self.assertEqual(self.run_on_terminal("import", OUI, "a.db"), (0, shown))

    def test_bar_is_wiped_before_a_failure_is_told(self):
        good = "MA-L,002272,Maker,Street\r\n"
        self.write("bad.csv", HEADER + good + "MA-L\r\n")
        percent = 100 * len(HEADER + good) // len(HEADER + good + "MA-L\r\n")
        shown = self.bars([percent]) + self.WIPED + "vendors: bad.csv:3: 1 columns instead of 4\r\n"
        self.assertEqual(self.run_on_terminal("import", "bad.csv", "a.db"), (1, shown))

    def test_no_bar_without_a_terminal(self):
        result = self.run_program("import", OUI, "a.db")
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_no_bar_among_diagnostics(self):
        self.write("few.csv", HEADER + "MA-L,002272,Maker,Street\r\n")
        self.assertEqual(
            self.run_on_terminal("import", "few.csv", "a.db", "--trace", "3"), (0, "")
        )

    def test_no_bar_for_a_pipe(self):
        os.mkfifo(self.folder / "pipe")
        content = pathlib.Path(MAM).read_bytes()
        writer = threading.Thread(target=lambda: self.write("pipe", content))
        writer.start()
        self.assertEqual(self.run_on_terminal("import", "pipe", "a.db"), (0, ""))
        writer.join()


if __name__ == "__main__":
    unittest.main()
