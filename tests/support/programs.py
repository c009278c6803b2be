"""Runs the example programs, each test in a folder of its own.

PROGRAMS is the folder with the programs, and EMULATOR the command that runs those of another
machine, else empty.
"""

import contextlib
import os
import pathlib
import re
import sqlite3
import subprocess
import tempfile
import unittest

PROGRAMS = pathlib.Path(os.environ["PROGRAMS"])
EMULATOR = os.environ["EMULATOR"].split()


def steps_of(session):
    """The commands of a session, each with what it prints."""
    return [(step.partition("\n")[0], step.partition("\n")[2])
            for step in re.split(r"^\$ ", session, flags=re.MULTILINE)[1:]]


def comparable(text):
    """Without blanks at the ends of lines, and with NNN for the numbers of source lines."""
    return re.sub(r"(\.cpp:)\d+", r"\1NNN", re.sub(r" +$", "", text, flags=re.MULTILINE))


class Test(unittest.TestCase):
    maxDiff = 10000

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def start(self, name, *arguments, before=(), **options):
        # A program may define what the stand-ins do, in their place.
        sanitizers = os.environ.get("ASAN_OPTIONS", "") + ":detect_odr_violation=0"
        options = {"env": {**os.environ, "TZ": "UTC", "ASAN_OPTIONS": sanitizers},
                   "stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE,
                   **options}
        return subprocess.Popen([*before, *EMULATOR, PROGRAMS / name, *arguments],
                                cwd=self.folder, encoding="utf-8", **options)

    def run_program(self, *command, given="", **options):
        """The exit status, what is printed, and what is told on standard error."""
        with self.start(*command, **options) as program:
            output, errors = program.communicate(given)
        return program.returncode, output, errors

    def assert_ends(self, program, status, output, errors="", given=""):
        """A program that was started ends so."""
        with program:
            printed, told = program.communicate(given)
        self.assertEqual((told, program.returncode, printed), (errors, status, output))

    def assert_prints(self, output, *command, given="", **options):
        self.assert_ends(self.start(*command, **options), 0, output, given=given)

    def assert_fails(self, error, name, *arguments, status=1, output="", given="", **options):
        """The program fails with one line."""
        self.assert_ends(self.start(name, *arguments, **options), status, output,
                         f"{name}: {error}\n", given)

    def write(self, name, content):
        content = content if isinstance(content, bytes) else content.encode("utf-8")
        (self.folder / name).write_bytes(content)
        return name

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
