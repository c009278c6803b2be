"""Configures the project where something that it needs is missing: one line names it and the way to it.

CXX is the compiler and TOOLCHAIN the toolchain file, empty unless programs for another machine are
built; TRACE and FRAMEWORK stand for the device's libraries.
"""

import os
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOOLCHAIN = os.environ["TOOLCHAIN"]
DEVICE = "-DSQLWRAPPER_DEVICE_PLATFORM=ON"
TRACE = "-DSQLWRAPPER_TRACE_LIBRARY=" + os.environ["TRACE"]
FRAMEWORK = "-DSQLWRAPPER_FRAMEWORK_LIBRARY=" + os.environ["FRAMEWORK"]
CONSUMER = pathlib.Path(__file__).resolve().parent / "consumer"
NO_TESTS = "-DSQLWRAPPER_BUILD_TESTS=OFF"
NO_EXAMPLES = "-DSQLWRAPPER_BUILD_EXAMPLES=OFF"


def way_to(*packages):
    """How to get what the build is to link."""
    if TOOLCHAIN:
        arch = re.search(r"toolchain-(\w+)", TOOLCHAIN)[1]
        return f"run script/sysroot {arch}"
    return "apt-get install " + " ".join(packages)


class ConfigureTestCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.build = pathlib.Path(folder.name)

    def configure(self, *options, toolchain=TOOLCHAIN):
        compiler = [] if toolchain else ["-DCMAKE_CXX_COMPILER=" + os.environ["CXX"]]
        return subprocess.run(
            ["cmake", "-S", ROOT, "-B", self.build, "-G", "Ninja", NO_EXAMPLES,
             "-DCMAKE_TOOLCHAIN_FILE=" + str(toolchain), *compiler, *options],
            capture_output=True, text=True, check=False)

    def assert_configures(self, *options):
        done = self.configure(*options)
        self.assertEqual(done.returncode, 0, done.stderr)

    def assert_refused(self, line, *options, toolchain=TOOLCHAIN):
        done = self.configure(*options, toolchain=toolchain)
        self.assertEqual(done.returncode, 1)
        # Below the place in the project's files, in one piece.
        self.assertEqual(done.stderr.splitlines()[1].strip(), line)


class NeedsTest(ConfigureTestCase):
    def test_sqlite_is_missing(self):
        self.assert_refused(
            f"No SQLite with its headers: {way_to('libsqlite3-dev')}, or add its prefix to "
            "CMAKE_PREFIX_PATH", "-DCMAKE_DISABLE_FIND_PACKAGE_SQLite3=ON")

    def old_sqlite(self, version, header="sqlite3.h"):
        (self.build / header).write_text(f'#define SQLITE_VERSION "{version}"\n', "utf-8")
        return [f"-DSQLite3_INCLUDE_DIR={self.build}", "-DSQLite3_LIBRARY=" + os.environ["TRACE"]]

    def test_sqlite_is_older_than_the_oldest_tested(self):
        self.assert_refused(
            f"SQLite 3.7.7 in {self.build} is too old: install 3.7.7.1 or later, or add its prefix "
            "to CMAKE_PREFIX_PATH", *self.old_sqlite("3.7.7"))

    def test_sqlite_is_as_old_as_the_oldest_tested(self):
        self.assert_configures(NO_TESTS, *self.old_sqlite("3.7.7.1"))

    def test_sqlcipher_is_missing(self):
        for missing in ("INCLUDE_DIR", "LIBRARY"):
            with self.subTest(missing):
                self.assert_refused(
                    "No SQLCipher with its headers: apt-get install libsqlcipher-dev, or add its "
                    "prefix to CMAKE_PREFIX_PATH", "-DSQLWRAPPER_SQLITE=sqlcipher",
                    f"-DSQLWRAPPER_SQLCIPHER_INCLUDE_DIR={self.build}",
                    "-DSQLWRAPPER_SQLCIPHER_LIBRARY=" + os.environ["TRACE"],
                    f"-DSQLWRAPPER_SQLCIPHER_{missing}=")

    def test_sqlcipher_is_older_than_the_oldest_tested(self):
        (self.build / "sqlcipher").mkdir()
        self.old_sqlite("3.7.7", "sqlcipher/sqlite3.h")
        self.assert_refused(
            f"SQLite 3.7.7 in {self.build}/sqlcipher is too old: install 3.7.7.1 or later, or add "
            "its prefix to CMAKE_PREFIX_PATH", "-DSQLWRAPPER_SQLITE=sqlcipher",
            f"-DSQLWRAPPER_SQLCIPHER_INCLUDE_DIR={self.build}",
            "-DSQLWRAPPER_SQLCIPHER_LIBRARY=" + os.environ["TRACE"])

    def test_sqlite_of_another_name(self):
        self.assert_refused("SQLWRAPPER_SQLITE is 'sqlite4': set it to sqlite3 or sqlcipher",
                            "-DSQLWRAPPER_SQLITE=sqlite4")

    def test_googletest_is_missing(self):
        self.assert_refused("No GoogleTest with gmock: " + way_to("libgtest-dev", "libgmock-dev"),
                            "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON")

    def test_python_is_missing(self):
        self.assert_refused("No Python 3 for the tests: apt-get install python3",
                            "-DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON")

    def test_localedef_is_missing(self):
        self.assert_refused("No localedef for the tests' locale: apt-get install libc-bin",
                            "-DLOCALEDEF=")

    def test_pkg_config_is_missing(self):
        self.assert_refused("No pkg-config for the tests: apt-get install pkgconf", "-DPKG_CONFIG=")

    def test_library_alone_needs_none_of_the_tests_tools(self):
        self.assert_configures(NO_TESTS, "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON",
                               "-DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON", "-DLOCALEDEF=",
                               "-DPKG_CONFIG=", "-DGDB=", "-DSQLWRAPPER_EMULATOR=")


class CrossTest(ConfigureTestCase):
    def assert_cross_refused(self, arch, line, *options):
        toolchain = ROOT / "cmake" / f"toolchain-{arch}.cmake"
        self.assert_refused(line, *options, toolchain=toolchain)

    def test_cross_compiler_is_missing(self):
        for arch, triplet in (("armhf", "arm-linux-gnueabihf"), ("armel", "arm-linux-gnueabi"),
                              ("armhf-time64", "arm-linux-gnueabihf")):
            with self.subTest(arch):
                self.assert_cross_refused(
                    arch, f"No cross compiler {triplet}-g++: apt-get install g++-{triplet}",
                    "-DSQLWRAPPER_CROSS_COMPILER=")

    def test_sysroot_is_missing(self):
        for arch in ("armhf", "armel"):
            with self.subTest(arch):
                self.assert_cross_refused(
                    arch, f"No SQLite for {arch} in {self.build}/none: run script/sysroot {arch}",
                    f"-DSQLWRAPPER_CROSS_COMPILER={os.environ['CXX']}",
                    f"-DSQLWRAPPER_SYSROOT={self.build}/none")


class EmulatorTest(ConfigureTestCase):
    """Only where the programs are for another machine."""

    def test_emulator_is_missing(self):
        self.assert_refused("No emulator qemu-arm for the tests: apt-get install qemu-user, or "
                            "turn SQLWRAPPER_BUILD_TESTS off", "-DSQLWRAPPER_EMULATOR=")


class DebuggerTest(ConfigureTestCase):
    """Only where the programs are for this machine."""

    def test_gdb_is_missing(self):
        self.assert_refused("No gdb for the tests: apt-get install gdb", "-DGDB=")


class DeviceTest(ConfigureTestCase):
    def test_builds_with_the_devices_libraries(self):
        self.assert_configures(DEVICE, TRACE, FRAMEWORK)
        subprocess.run(["cmake", "--build", self.build], stdout=subprocess.DEVNULL, check=True)

    def test_trace_library_is_missing(self):
        self.assert_refused(
            "No libtrace of the device: point SQLWRAPPER_TRACE_LIBRARY at it, add its prefix to "
            "CMAKE_PREFIX_PATH, or turn SQLWRAPPER_DEVICE_PLATFORM off", DEVICE, FRAMEWORK)

    def test_framework_library_is_missing(self):
        self.assert_refused(
            "No libframework of the device: point SQLWRAPPER_FRAMEWORK_LIBRARY at it, add its "
            "prefix to CMAKE_PREFIX_PATH, or turn SQLWRAPPER_DEVICE_PLATFORM off", DEVICE, TRACE)

    def test_library_pointed_at_does_not_exist(self):
        self.assert_refused(
            "No libtrace of the device: point SQLWRAPPER_TRACE_LIBRARY at it, add its prefix to "
            "CMAKE_PREFIX_PATH, or turn SQLWRAPPER_DEVICE_PLATFORM off",
            DEVICE, "-DSQLWRAPPER_TRACE_LIBRARY=/none/libtrace.so", FRAMEWORK)

    def use_installed(self, *options):
        """Configures a project that finds an installation made with the device's libraries."""
        self.assert_configures(DEVICE, TRACE, FRAMEWORK, NO_TESTS)
        prefix = self.build / "installed"
        for step in (["--build", self.build], ["--install", self.build, "--prefix", prefix]):
            subprocess.run(["cmake", *step], stdout=subprocess.DEVNULL, check=True)
        compiler = [] if TOOLCHAIN else ["-DCMAKE_CXX_COMPILER=" + os.environ["CXX"]]
        return subprocess.run(
            ["cmake", "-S", CONSUMER, "-B", self.build / "user", "-G", "Ninja",
             "-DCMAKE_TOOLCHAIN_FILE=" + TOOLCHAIN, *compiler, f"-DCMAKE_PREFIX_PATH={prefix}",
             f"-DCMAKE_FIND_ROOT_PATH={prefix}", *options],
            capture_output=True, text=True, check=False)

    def test_installation_is_used_with_the_devices_libraries(self):
        done = self.use_installed(TRACE, FRAMEWORK)
        self.assertEqual(done.returncode, 0, done.stderr)
        subprocess.run(["cmake", "--build", self.build / "user"], stdout=subprocess.DEVNULL, check=True)

    def test_user_of_an_installation_lacks_a_library(self):
        for name, others in (("trace", [FRAMEWORK]), ("framework", [TRACE])):
            with self.subTest(name):
                done = self.use_installed(*others, f"-DSQLWRAPPER_{name.upper()}_LIBRARY=")
                self.assertEqual(done.returncode, 1)
                reason = " ".join(done.stderr.split()).rpartition(" Reason given by package: ")[2]
                self.assertEqual(
                    reason, f"No lib{name} of the device: point SQLWRAPPER_{name.upper()}_LIBRARY at "
                    "it, or add its prefix to CMAKE_PREFIX_PATH")


if __name__ == "__main__":
    unittest.main()
