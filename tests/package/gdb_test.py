"""Lets gdb show the library's objects in a program that stops where it has one of each.

CXX is the compiler, GDB the debugger, BUILD the folder of the build, and LIBRARY, TRACE and
FRAMEWORK are the libraries built there. DEBUG has the compiler's options for debug information.
"""

import os
import pathlib
import re
import struct
import subprocess
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
COMPONENT = HERE.parents[1] / "components" / "sql" / "sqlwrapper"
LIBRARIES = [pathlib.Path(os.environ[name]) for name in ("LIBRARY", "TRACE", "FRAMEWORK")]
SCRIPT = COMPONENT / "gdb" / "sqlwrapper-gdb.py"
DEBUG = os.environ["DEBUG"].split()
NOISE = "0x" + "a5" * struct.calcsize("P")

WORDS = "columns = {word text, n integer}"

VALUES = {
    "all.values.null": "null",
    "all.values.integer": "-42",
    "all.values.notInteger": '"7 or 8"',
    "all.values.text": "\"Captain's \\\"tea\\\"\"",
    "all.values.empty": '""',
    "all.values.foreign": r'"café \377\001\\"',
    "all.values.zeroByte": r'"a\000b"',
    "all.values.large": "\"begin \", '.' <repeats 194 times>...",
    "all.values.real": "2.50000000",
    "all.values.infinite": "inf",
    "all.values.notReal": '"1_000"',
    "all.values.yes": "true",
    "all.values.no": "false",
    "all.values.perhaps": '"2"',
    "all.values.time": "1262300399 (2009-12-31 22:59:59 UTC)",
    "all.values.untyped": '"7"',
    "-elements 3 -- all.values.text": '"Cap"...',
}
TIMES = {
    "all.second": "1262300399 (2009-12-31 22:59:59 UTC)",
    "all.early": "-1 (1969-12-31 23:59:59 UTC)",
    "all.distant": "1152921504606846976",
}
COLUMNS = {
    "all.columns.product": "{id integer PRIMARY KEY NOT NULL, name text UNIQUE, price float, "
                           "sold bool, since time}",
    "all.columns.word": "{word text, n integer}",
    "all.columns.none": "no columns",
    "all.columns.key": "id integer PRIMARY KEY NOT NULL",
    "all.columns.ending": "ending field",
    "all.columns.untyped": "size undefined type 9 NOT NULL",
}
RECORDS = {
    "all.records.tea": '{id = 1, name = "tea", price = null, sold = true, since = null}',
    "all.records.nulls": "{id = null, name = null, price = null, sold = null, since = null}",
    "all.records.word": '{word = "so", n = null}',
    "all.records.empty": "no cells",
    "all.records.changed": "{word = 2, n = null, [2] = null, [3] = null, [4] = null}",
    "-elements 2 -- all.records.tea": '{id = 1, name = "te"......}',
}
RECORD_SETS = {
    "all.recordSets.unused": "sql::RecordSet of 0 rows, no result",
    "all.recordSets.two": 'sql::RecordSet of 2 rows = {{word = "so", n = 1}, {word = null, n = 2}}',
    "all.recordSets.none": "sql::RecordSet of 0 rows",
    "all.recordSets.failed": 'sql::RecordSet of 1 row, rc=1=SQLITE_ERROR = {{word = "so", n = 3}}',
    "-pretty -- all.recordSets.two": """sql::RecordSet of 2 rows = {{
    word = "so",
    n = 1
  }, {
    word = null,
    n = 2
  }}""",
}
TABLES = {
    "all.tables.unused": "sql::Table product = {handle = 0x0, columns = no columns, "
                         "records = sql::RecordSet of 0 rows, no result}",
    "all.tables.one": f"sql::Table one = {{handle = 0x?, {WORDS}, "
                      'records = sql::RecordSet of 1 row = {{word = "so", n = 1}}}',
    "-elements 4 -- all.tables.many":
        f"sql::Table many = {{handle = 0x?, {WORDS}, records = sql::RecordSet of 1000 rows = "
        '{{word = "so", n = 1}, {word = "so", n = 2}, {word = "so", n = 3}, '
        '{word = "so", n = 4}...}}',
    "all.tables.many":
        f"sql::Table many = {{handle = 0x?, {WORDS}, records = sql::RecordSet of 1000 rows = {{"
        + ", ".join(f'{{word = "so", n = {n}}}' for n in range(1, 201)) + "...}}",
}
DATABASES = {
    "all.databases.unused": "sql::Database, closed",
    "all.databases.open": "sql::Database, open, handle = 0x?",
    "all.databases.refused": "sql::Database, not open, rc=14=SQLITE_CANTOPEN, handle = 0x?",
}
UNBUILT = {
    "all.zeros.value": "<error: not a text>",
    "all.zeros.field": "<error: not a text>",
    "all.zeros.fieldSet": "no columns",
    "all.zeros.record": "no cells",
    "all.zeros.recordSet": "sql::RecordSet of 0 rows",
    "all.zeros.table": "<error: not a text>",
    "all.zeros.database": "sql::Database, closed",
    "all.noise.value": "<error: not a value>",
    "all.noise.field": f"<error: Cannot access memory at address {NOISE}>",
    "all.noise.fieldSet": "<error: not a vector>",
    "all.noise.record": "<error: not a vector>",
    "all.noise.recordSet": "<error: not a vector>",
    "all.noise.table": f"<error: Cannot access memory at address {NOISE}>",
    "all.noise.database": f"sql::Database, not open, rc=-1515870811, handle = {NOISE}",
}
EVERYTHING = {**VALUES, **TIMES, **COLUMNS, **RECORDS, **RECORD_SETS, **TABLES, **DATABASES,
              **UNBUILT}


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}\n{done.stdout}{done.stderr}")
    return done


class GdbTestCase:
    """One program, one library and one way to load the printers; a mixin, so that each shows."""

    maxDiff = None
    options = ["-O0"]

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.program = cls.folder / "inspected"
        run(os.environ["CXX"], "-std=c++17", *DEBUG, *cls.options, f"-I{COMPONENT}/include",
            HERE / "InspectedByGdb.cpp", *LIBRARIES, "-o", cls.program)
        cls.shown = cls.show()

    @classmethod
    def library_folders(cls):
        return [library.parent for library in LIBRARIES]

    @classmethod
    def loading(cls):
        return [f"add-auto-load-safe-path {cls.library_folders()[0]}"]

    @classmethod
    def reaching(cls):
        path = ":".join(map(str, cls.library_folders()))
        # Where containers forbid the former, gdb would say so.
        return ["set disable-randomization off", f"set environment LD_LIBRARY_PATH {path}",
                "break inspect", "run", "up"]

    @classmethod
    def gdb(cls, *commands):
        script = cls.folder / "commands"
        script.write_text("\n".join(commands), "utf-8")
        environment = {"PATH": os.environ["PATH"], "HOME": str(cls.folder), "LC_ALL": "C.UTF-8"}
        return run(os.environ["GDB"], "-nx", "-batch", "-x", script, cls.program,
                   env=environment, stdin=subprocess.DEVNULL)

    @classmethod
    def show(cls):
        """The text of each expression."""
        lines = [line for what in EVERYTHING for line in (f"echo >>>{what}\\n", f"print {what}")]
        done = cls.gdb(*cls.loading(), *cls.reaching(), *lines)
        if done.stderr != "":
            raise AssertionError(done.stderr)
        parts = re.split(r"^>>>(.*)\n\$\d+ = ", done.stdout, flags=re.MULTILINE)[1:]
        handle = re.compile(rf"handle = 0x(?!0\b|{NOISE[2:]})[0-9a-f]+")
        return {what: handle.sub("handle = 0x?", text.rstrip("\n"))
                for what, text in zip(parts[::2], parts[1::2])}

    def assert_shown(self, expected):
        self.assertEqual({what: self.shown.get(what) for what in expected}, expected)

    def test_shows_values(self):
        self.assert_shown(VALUES)

    def test_shows_times(self):
        self.assert_shown(TIMES)

    def test_shows_columns(self):
        self.assert_shown(COLUMNS)

    def test_shows_records(self):
        self.assert_shown(RECORDS)

    def test_shows_record_sets(self):
        self.assert_shown(RECORD_SETS)

    def test_shows_tables(self):
        self.assert_shown(TABLES)

    def test_shows_databases(self):
        self.assert_shown(DATABASES)

    def test_shows_what_is_wrong_with_objects_not_built(self):
        self.assert_shown(UNBUILT)


class BuildTreeTest(GdbTestCase, unittest.TestCase):
    """The script lies beside the library that was built."""


class OptimisedProgramTest(GdbTestCase, unittest.TestCase):
    options = ["-O2"]


class SourcedScriptTest(GdbTestCase, unittest.TestCase):
    """Nothing is loaded by itself, neither this library's printers nor the C++ library's."""

    @classmethod
    def loading(cls):
        return ["set auto-load python-scripts off", f"source {SCRIPT}"]


class MovedInstallationTest(GdbTestCase, unittest.TestCase):
    """An installed library without symbols, in another folder than it was installed to."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        prefix = pathlib.Path(folder.name) / "prefix"
        for component in ("runtime", "development"):
            run("cmake", "--install", os.environ["BUILD"], "--strip", "--prefix", prefix,
                "--component", component)
        cls.prefix = prefix.rename(prefix.with_name("moved"))
        super().setUpClass()

    @classmethod
    def library_folders(cls):
        installed = next(cls.prefix.glob("**/libsqlwrapper.so.1")).parent
        return [installed] + super().library_folders()[1:]


class CoreFileTest(GdbTestCase, unittest.TestCase):
    """The program is gone, and what it had in memory is in a file."""

    @classmethod
    def reaching(cls):
        core = cls.folder / "core"
        cls.gdb(*cls.loading(), *super().reaching(), f"generate-core-file {core}")
        return [f"core-file {core}", "up"]


if __name__ == "__main__":
    unittest.main()
