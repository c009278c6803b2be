"""Builds the libraries, installs them, moves the installation and uses it from there.

CXX is the compiler, PKG_CONFIG, NM and READELF are tools beside it, SQLITE is the SQLite to link and
SHIPPED the libraries that are built with it. For another machine's programs TOOLCHAIN is the toolchain
file, TIME_BITS the width of their time_t, EMULATOR the command that runs them, SYSROOT the machine's
root folder and LIBRARIES the one of its libraries in there.
"""

import filecmp
import os
import pathlib
import shutil
import subprocess
import tempfile
import typing
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
CONSUMER = pathlib.Path(__file__).resolve().parent / "consumer"
CXX = os.environ["CXX"]
EMULATOR = os.environ["EMULATOR"].split()
SYSROOT = os.environ.get("SYSROOT")
LIBRARIES = os.environ.get("LIBRARIES")
SQLITE = os.environ["SQLITE"]
COMPILER = (["-DCMAKE_TOOLCHAIN_FILE=" + os.environ["TOOLCHAIN"]] if os.environ["TOOLCHAIN"]
            else ["-DCMAKE_CXX_COMPILER=" + CXX])
if os.environ.get("CMAKE_PREFIX_PATH"):  # SQLite from elsewhere, which debug information then names
    COMPILER.append(f"-DCMAKE_CXX_FLAGS=-ffile-prefix-map={os.environ['CMAKE_PREFIX_PATH']}=")
# Users do not know how wide the library's time_t is.
TIME_BITS = "-DSQLWRAPPER_TIME_BITS=" + os.environ["TIME_BITS"]


class Library(typing.NamedTuple):
    version: str
    headers: typing.Sequence[str]
    needed: typing.Set[str]  # beside the runtime
    function: str  # one that it exports
    program: str  # of the consumer's, which uses it
    standard: str
    printed: str


PLATFORM = ["lib/libframework.so", "lib/libtrace.so"]
ALL = {
    "sqlwrapper": Library(
        "1.0.0", ("SqlCommon", "SqlDatabase", "SqlField", "SqlFieldSet", "SqlRecord", "SqlRecordSet",
                  "SqlTable", "SqlValue"),
        {f"lib{SQLITE}.so.0", "libtrace.so", "libframework.so"}, "sql::Table::exists()",
        "consumer", "c++11", "Captain's tea, 86400\n"),
    "sqlprepared": Library(
        "1.0.0", ("SqlBackup", "SqlBinder", "SqlBlob", "SqlFunction", "SqlGroupCommit", "SqlLiteral",
                  "SqlMapping", "SqlMigration", "SqlPreparedTable", "SqlResult", "SqlSettings", "SqlStatement", "SqlStopFlag",
                  "SqlTableStatements", "SqlTransaction", "SqlTypedTable"),
        {f"lib{SQLITE}.so.0", "libtrace.so", "libframework.so", "libsqlwrapper.so.1"}, "sql::Statement::run()",
        "prepared", "c++17", "`tea`: 3.5, 1970-01-02T00:00:00Z, SQLITE_CONSTRAINT_PRIMARYKEY\n"),
    "sqlsync": Library(
        "0.1.0", ("SqlChangeReader", "SqlEnvelope", "SqlInbox", "SqlOutbox", "SqlRecorder"),
        {f"lib{SQLITE}.so.0", "libsqlwrapper.so.1", "libsqlprepared.so.1", "libtrace.so"},
        "sql::Outbox::restart()", "sync", "c++17", "1 change of meter-7, applied\n"),
}
SHIPPED = {name: ALL[name] for name in os.environ["SHIPPED"].split(",")}
RUNTIME = {"libstdc++.so.6", "libgcc_s.so.1", "libc.so.6", "libm.so.6"}


def run(*command, **options):
    done = subprocess.run(command, capture_output=True, text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command}\n{done.stdout}{done.stderr}")
    return done.stdout


def major(library):
    return library.version.split(".")[0]


def installed(kind):
    """Every file of an installation of shared or static libraries."""
    names = [*PLATFORM, "include/sqlwrapper/TraceLevel.h"]
    packages = ["sqlwrapperConfig", "sqlwrapperConfigVersion"]
    for name, library in SHIPPED.items():
        names += [f"include/sqlwrapper/{header}.h" for header in library.headers]
        names.append(f"lib/pkgconfig/{name}.pc")
        packages += [f"{name}Targets", f"{name}Targets-relwithdebinfo"]
        endings = ("", f".{major(library)}", f".{library.version}", f".{library.version}-gdb.py")
        names += ([f"lib/lib{name}.so{ending}" for ending in endings] if kind == "shared"
                  else [f"lib/lib{name}.a"])
    return sorted(names + [f"lib/cmake/sqlwrapper/{name}.cmake" for name in packages])


def files(folder):
    return sorted(str(file.relative_to(folder)) for file in folder.rglob("*") if not file.is_dir())


class InstallTestCase:
    """One kind of libraries. They are built from copies of the sources, without the examples, and all that
    remains is the installation, moved to another folder."""

    kind = None
    places = None

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.builds = [cls.folder / place for place in cls.places]
        cls.prefixes = [cls.install(build) for build in cls.builds]
        cls.prefix = cls.folder / "moved" / "to"
        cls.prefix.parent.mkdir()
        cls.prefixes[0].rename(cls.prefix)
        for build in cls.builds:
            shutil.rmtree(build)

    @classmethod
    def install(cls, folder):
        source = folder / "source"
        source.mkdir(parents=True)
        for name in ("CMakeLists.txt", "cmake", "components", "examples", "platform"):
            (shutil.copytree if (ROOT / name).is_dir() else shutil.copy)(ROOT / name, source / name)
        prefix = cls.folder / ("installed-from-" + folder.name)
        run("cmake", "-S", source, "-B", folder / "build", "-G", "Ninja", *COMPILER, TIME_BITS,
            "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-g -O0 -DNDEBUG",
            "-DBUILD_SHARED_LIBS=" + ("ON" if cls.kind == "shared" else "OFF"),
            f"-DSQLWRAPPER_SQLITE={SQLITE}", "-DSQLWRAPPER_BUILD_TESTS=OFF")
        run("cmake", "--build", folder / "build", "--target", *SHIPPED)
        run("cmake", "--install", folder / "build", "--prefix", prefix)
        return prefix

    def run_consumer(self, program):
        libraries = str(self.prefix / "lib")
        if EMULATOR:
            path = f"LD_LIBRARY_PATH={libraries}:{LIBRARIES}"
            return run(*EMULATOR, "-E", path, program)
        return run(program, env={"LD_LIBRARY_PATH": libraries})

    def test_found_by_cmake(self):
        for wanted in ([], ["COMPONENTS", *SHIPPED]):
            build = self.folder / "-".join(["cmake", *wanted])
            run("cmake", "-S", CONSUMER, "-B", build, "-G", "Ninja", *COMPILER,
                "-DWANTED=" + ";".join(wanted),
                f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_FIND_ROOT_PATH={self.prefix}")
            run("cmake", "--build", build)
            for name, library in SHIPPED.items():
                with self.subTest(wanted=wanted, library=name):
                    self.assertEqual(self.run_consumer(build / library.program), library.printed)

    def test_not_found_by_cmake_as_another_major_version(self):
        source = self.folder / "version-2"
        shutil.copytree(CONSUMER, source)
        project = (source / "CMakeLists.txt").read_text("utf-8").replace("sqlwrapper 1", "sqlwrapper 2")
        (source / "CMakeLists.txt").write_text(project, "utf-8")
        done = subprocess.run(
            ["cmake", "-S", source, "-B", source / "build", "-G", "Ninja", *COMPILER,
             f"-DCMAKE_PREFIX_PATH={self.prefix}", f"-DCMAKE_FIND_ROOT_PATH={self.prefix}"],
            capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("sqlwrapperConfig.cmake, version: 1.0.0\n", done.stderr)

    def test_found_by_pkg_config(self):
        folders = [str(self.prefix / "lib" / "pkgconfig")]
        environment = dict(os.environ, PKG_CONFIG_PATH=folders[0])
        machine = []
        if LIBRARIES:
            folders.append(LIBRARIES + "/pkgconfig")
            environment["PKG_CONFIG_LIBDIR"] = ":".join(folders)
            machine = [f"-L{LIBRARIES}", f"-Wl,-rpath-link,{LIBRARIES}"]
        for name, library in SHIPPED.items():
            with self.subTest(name):
                version = run(os.environ["PKG_CONFIG"], "--modversion", name, env=environment)
                self.assertEqual(version, library.version + "\n")
                flags = run(os.environ["PKG_CONFIG"], "--cflags", "--libs", name,
                            env=environment).split()
                program = self.folder / ("pkg-config-" + library.program)
                run(CXX, "-std=" + library.standard, CONSUMER / (library.program + ".cpp"), *flags,
                    *machine, "-o", program)
                self.assertEqual(self.run_consumer(program), library.printed)

    def test_installs_these_files_alone(self):
        self.assertEqual(files(self.prefix), installed(self.kind))

    def test_names_no_place_of_its_making(self):
        places = [str(place).encode() for place in (self.folder, SYSROOT, os.environ["TOOLCHAIN"])
                  if place]
        for file in files(self.prefix):
            for place in places:
                with self.subTest(file=file, place=place):
                    self.assertFalse(place in (self.prefix / file).read_bytes())


class SharedLibraryTest(InstallTestCase, unittest.TestCase):
    kind = "shared"
    places = ("one", "another/place")

    def test_is_the_same_from_any_folder(self):
        self.assertEqual(files(self.prefix), files(self.prefixes[1]))
        for file in files(self.prefix):
            with self.subTest(file):
                self.assertTrue(filecmp.cmp(self.prefix / file, self.prefixes[1] / file,
                                            shallow=False))

    def dynamic(self, name):
        lines = run(os.environ["READELF"], "-dW", self.prefix / "lib" / name).splitlines()
        return [line.split(None, 1)[1] for line in lines if "(" in line]

    def needed(self, name):
        return {line.split("[")[1].rstrip("]") for line in self.dynamic(name) if line.startswith("(NEEDED)")}

    def test_needs_sqlite_the_platform_and_the_runtime_alone(self):
        for name, library in SHIPPED.items():
            with self.subTest(name):
                self.assertEqual(self.needed(f"lib{name}.so") - RUNTIME, library.needed)

    def test_names_no_folder_to_look_for_libraries_in(self):
        for file in [f"lib{name}.so" for name in SHIPPED] + ["libtrace.so", "libframework.so"]:
            with self.subTest(file):
                paths = [line for line in self.dynamic(file) if "PATH)" in line]
                self.assertEqual(paths, [])

    def test_is_called_by_its_major_version(self):
        for name, library in SHIPPED.items():
            with self.subTest(name):
                called = f"lib{name}.so.{major(library)}"
                names = [line.split("[")[1] for line in self.dynamic(f"lib{name}.so")
                         if line.startswith("(SONAME)")]
                self.assertEqual(names, [called + "]"])
                self.assertEqual(os.readlink(self.prefix / "lib" / f"lib{name}.so"), called)

    def exported(self, name):
        lines = run(os.environ["NM"], "-DC", "--defined-only", self.prefix / "lib" / name).splitlines()
        return {line.split(" ", 2)[2] for line in lines}

    def test_exports_its_namespace_alone_and_versioned(self):
        for name, library in SHIPPED.items():
            version = f"{name.upper()}_{major(library)}"
            exported = self.exported(f"lib{name}.so")
            self.assertIn(f"{library.function}@@{version}", exported)
            for symbol in exported:
                with self.subTest(symbol):
                    self.assertRegex(symbol, rf"^(sql::(operator bool|[^ (])*\(.*\)( const)?@@)?{version}(\.\d+)?$")

    def test_stand_ins_export_and_need_no_more_than_they_must(self):
        self.assertEqual(self.exported("libtrace.so"),
                         {"g_traceObject", "trace::level()", "trace::setLevel(int)"})
        self.assertEqual(self.exported("libframework.so"), {"logAssertFailed"})
        for name in ("libtrace.so", "libframework.so"):
            self.assertLessEqual(self.needed(name), RUNTIME)


class StaticLibraryTest(InstallTestCase, unittest.TestCase):
    kind = "static"
    places = ("one",)


if __name__ == "__main__":
    unittest.main()
