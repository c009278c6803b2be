"""Lets gdb show the library's objects in a program that stops where it has one of each.

CXX is the compiler, GDB the debugger, BUILD the folder of the build, and LIBRARY, TRACE and
FRAMEWORK are the libraries built there, PREPARED and SYNC are sqlprepared and sqlsync or empty. DEBUG has the compiler's
options for debug information. EMULATED is an emulator for programs of this machine or empty, and
OBJECTS are what the libraries are made of, for a program without shared ones.
"""

import os
import pathlib
import re
import struct
import subprocess
import tempfile
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
COMPONENTS = HERE.parents[1] / "components" / "sql"
LIBRARIES = [pathlib.Path(os.environ[name]) for name in ("LIBRARY", "TRACE", "FRAMEWORK")]
SCRIPTS = {name: COMPONENTS / name / "gdb" / f"{name}-gdb.py" for name in ("sqlwrapper", "sqlprepared", "sqlsync")}
NOISE = "0x" + "a5" * struct.calcsize("P")

MANY = ("sql::Table many = {{handle = 0x?, columns = {{word text, n integer}}, "
        "records = sql::RecordSet of 1000 rows = {{{}...}}}}")
ROWS = [f'{{word = "so", n = {n}}}' for n in range(1, 201)]


def expected_of(source):
    """What stands behind an object, or in the lines below it."""
    found = re.findall(r"^(?:const )?sql::\w+(?:<.*>)?&? (\w+)\b.*;\s+// (.*(?:\n// .*)*)$",
                       (HERE / source).read_text("utf-8"), re.MULTILINE)
    return {f"all::{name}": re.sub(r"\n// ", " ", shown).replace("NOISE", NOISE)
            for name, shown in found}


EXPECTED = {
    **expected_of("InspectedByGdb.cpp"),
    "-elements 3 -- all::text": '"Cap"...',
    "-elements 2 -- all::tea": '{id = 1, name = "te"......}',
    "-pretty -- all::two": """sql::RecordSet of 2 rows = {{
    word = "so",
    n = 1
  }, {
    word = null,
    n = 2
  }}""",
    "-elements 4 -- all::many": MANY.format(", ".join(ROWS[:4])),
    "all::many": MANY.format(", ".join(ROWS)),
}


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}\n{done.stdout}{done.stderr}")
    return done


class BuildTreeTest(unittest.TestCase):
    """The script lies beside the library that was built."""

    maxDiff = None
    options = ["-O0"]
    source = "InspectedByGdb.cpp"
    libraries = LIBRARIES
    library_folders = [library.parent for library in LIBRARIES]

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.program = self.folder / "inspected"
        run(os.environ["CXX"], "-std=c++17", *os.environ["DEBUG"].split(), *self.options,
            *(f"-I{COMPONENTS}/{name}/include" for name in SCRIPTS), HERE / self.source,
            *self.libraries, "-o", self.program)

    def loading(self):
        return [f"add-auto-load-safe-path {folder}" for folder in self.library_folders]

    def reaching(self):
        path = ":".join(map(str, self.library_folders))
        # Where containers forbid the former, gdb would say so.
        return ["set disable-randomization off", f"set environment LD_LIBRARY_PATH {path}",
                "break inspect", "run"]

    def gdb(self, *commands):
        script = self.folder / "commands"
        script.write_text("\n".join(commands), "utf-8")
        environment = {"PATH": os.environ["PATH"], "HOME": str(self.folder), "LC_ALL": "C.UTF-8"}
        return run(os.environ["GDB"], "-nx", "-batch", "-x", script, self.program,
                   env=environment, stdin=subprocess.DEVNULL)

    def expected(self):
        return EXPECTED

    def shown(self, objects):
        lines = [line for what in objects for line in (f"echo >>>{what}\\n", f"print {what}")]
        done = self.gdb(*self.loading(), *self.reaching(), *lines)
        self.assertEqual(done.stderr, "")
        output = re.sub(rf"handle = 0x(?!0\b|{NOISE[2:]})[0-9a-f]+", "handle = 0x?", done.stdout)
        parts = re.split(r"^>>>(.*)\n\$\d+ = ", output, flags=re.MULTILINE)[1:]
        return {what: text.rstrip("\n") for what, text in zip(parts[::2], parts[1::2])}

    def test_shows_objects_and_what_is_wrong_with_those_not_built(self):
        expected = self.expected()
        shown = self.shown(expected)
        for what, text in expected.items():
            with self.subTest(what):
                self.assertEqual(shown.get(what), text)


class OptimisedProgramTest(BuildTreeTest):
    options = ["-O2"]


class SourcedScriptTest(BuildTreeTest):
    """Nothing is loaded by itself, neither this library's printers nor the C++ library's."""

    def loading(self):
        return ["set auto-load python-scripts off", f"source {SCRIPTS['sqlwrapper']}"]


class MovedInstallationTest(BuildTreeTest):
    """An installed library without symbols, in another folder than it was installed to."""

    def setUp(self):
        super().setUp()
        prefix = self.folder / "prefix"
        for component in ("runtime", "development"):
            run("cmake", "--install", os.environ["BUILD"], "--strip", "--prefix", prefix,
                "--component", component)
        installed = next(prefix.rename(self.folder / "moved").glob("**/libsqlwrapper.so.1"))
        self.library_folders = [installed.parent, *self.library_folders[1:]]


class CoreFileTest(BuildTreeTest):
    """The program is gone, and what it had in memory is in a file."""

    def reaching(self):
        core = self.folder / "core"
        self.gdb(*self.loading(), *super().reaching(), f"generate-core-file {core}")
        return [f"core-file {core}"]


PREPARED = {**expected_of("PreparedByGdb.cpp"),
            "all::longText": 'sql::Statement, ready = {text = "select 4' + 192 * " " + '"...}'}


def uncalled(shown):
    """What is shown where gdb cannot call: a text, with its parameters, only of what has failed."""
    if "rc=" in shown:
        return shown.replace("select NULL", "select ?")
    return re.sub(r" = \{text = .*\}$", "", shown)


@unittest.skipIf(not os.environ["PREPARED"], "this SQLite is too old for sqlprepared")
class PreparedTest(BuildTreeTest):
    """The objects of the other library, with the texts that SQLite tells where gdb can call it, which
    some containers forbid."""

    source = "PreparedByGdb.cpp"
    libraries = [pathlib.Path(os.environ["PREPARED"]), *LIBRARIES]
    library_folders = [library.parent for library in libraries]

    def can_call(self):
        call = "print ((int (*)(void))sqlite3_libversion_number)() > 3000000"
        try:
            return "= 1" in self.gdb(*self.reaching(), call).stdout
        except AssertionError:
            return False

    def expected(self):
        can_call = self.can_call()
        return {what: text if can_call else uncalled(text) for what, text in PREPARED.items()}


class PreparedMovedTest(PreparedTest, MovedInstallationTest):
    options = ["-O2"]


class PreparedCoreTest(PreparedTest, CoreFileTest):
    def can_call(self):
        return False


@unittest.skipIf(not os.environ["SYNC"], "this SQLite has no session extension")
class SyncTest(BuildTreeTest):
    """The objects of the third library."""

    source = "SyncByGdb.cpp"
    libraries = [pathlib.Path(os.environ["SYNC"]), pathlib.Path(os.environ["PREPARED"]), *LIBRARIES]
    library_folders = [library.parent for library in libraries]

    def expected(self):
        return expected_of("SyncByGdb.cpp")


class SyncMovedTest(SyncTest, MovedInstallationTest):
    options = ["-O2"]


class SyncCoreTest(SyncTest, CoreFileTest):
    pass


@unittest.skipIf(not os.environ["EMULATED"], "no emulator")
class PreparedEmulatedTest(PreparedTest):
    """Of an emulated program gdb can call functions, wherever the tests run. Without shared libraries
    nothing is loaded by itself."""

    options = ["-O0", "-static", "-no-pie"]
    libraries = [*os.environ["OBJECTS"].split(), "-l:libsqlite3.a", "-lm"]

    def loading(self):
        return [f"source {script}" for script in SCRIPTS.values()]

    def reaching(self):
        socket = self.folder / "gdb.socket"
        program = subprocess.Popen([os.environ["EMULATED"], "-g", socket, self.program])
        self.addCleanup(program.wait)
        self.addCleanup(program.kill)
        while not socket.exists() and program.poll() is None:
            time.sleep(0.01)
        return [f"target remote {socket}", "break inspect", "continue"]

    def can_call(self):
        return True


if __name__ == "__main__":
    unittest.main()
