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
NO_PREPARED = "-DSQLWRAPPER_PREPARED=OFF"
NO_SYNC = "-DSQLWRAPPER_SYNC=OFF"

# What can be left out, by its packages and the option that makes it missing.
FOR_TESTS = {
    "GoogleTest with gmock": ("libgtest-dev libgmock-dev", "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"),
    "Python 3 for the tests": ("python3", "-DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON"),
    "localedef for the tests' locale": ("libc-bin", "-DLOCALEDEF="),
    "pkg-config for the tests": ("pkgconf", "-DPKG_CONFIG="),
    "registry of address blocks for the tests": ("ieee-data", "-DVENDORS_REGISTRY_DIR="),
    "gnuplot for the tests": ("gnuplot-nox", "-DGNUPLOT="),
}
if TOOLCHAIN:
    FOR_TESTS["emulator qemu-arm for the tests"] = ("qemu-user", "-DSQLWRAPPER_EMULATOR=")
else:
    FOR_TESTS["gdb for the tests"] = ("gdb", "-DGDB=")
    FOR_TESTS["strace for the tests"] = ("strace", "-DSTRACE=")
FOR_EXAMPLES = {
    "CLI11 for the example programs": ("libcli11-dev", "-DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON"),
    "libcsv for examples/vendors": ("libcsv-dev", "-DVENDORS_CSV_LIBRARY="),
}
FOR_FLEET = {
    "MQTT for the fleet's programs": ("libmosquitto-dev", "-DFLEET_MOSQUITTO_LIBRARY="),
    "PostgreSQL for the fleet's hub": ("libpq-dev", "-DFLEET_PQ_LIBRARY="),
    "HTTP for the fleet's hub": ("libcpp-httplib-dev", "-DFLEET_CPP_HTTPLIB_LIBRARY="),
}
FOR_FLEET_TESTS = {}
if not TOOLCHAIN:
    FOR_FLEET_TESTS["browser for the tests"] = (
        "chromium-driver python3-selenium python3-prometheus-client", "-DCHROMEDRIVER=")
    FOR_FLEET_TESTS["broker for the tests"] = ("mosquitto mosquitto-clients openssl", "-DMOSQUITTO=")
    FOR_FLEET_TESTS["PostgreSQL for the tests"] = ("postgresql", "-DINITDB=")
WANTED = {**FOR_EXAMPLES, **FOR_TESTS}


def way_to(packages):
    if TOOLCHAIN and "-dev" in packages:
        arch = re.search(r"toolchain-(\w+)", TOOLCHAIN)[1]
        return f"run script/sysroot {arch}"
    return "apt-get install " + packages


class ConfigureTestCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.build = pathlib.Path(folder.name)

    def configure(self, *options, toolchain=TOOLCHAIN):
        compiler = [] if toolchain else ["-DCMAKE_CXX_COMPILER=" + os.environ["CXX"]]
        return subprocess.run(
            ["cmake", "-S", ROOT, "-B", self.build, "-G", "Ninja",
             "-DCMAKE_TOOLCHAIN_FILE=" + str(toolchain), *compiler, *options],
            capture_output=True, text=True, check=False)

    def assert_configures(self, *options):
        done = self.configure(*options)
        self.assertEqual(done.returncode, 0, done.stderr)
        return [line for line in done.stdout.splitlines() if line.startswith("-- Left out")]

    def assert_refused(self, line, *options, toolchain=TOOLCHAIN):
        done = self.configure(*options, toolchain=toolchain)
        self.assertEqual(done.returncode, 1)
        # Below the place in the project's files, in one piece.
        self.assertEqual(done.stderr.splitlines()[1].strip(), line)

    def use_installed(self, *options):
        """Configures a project that finds an installation of what was configured before."""
        prefix = self.build / "installed"
        for step in (["--build", self.build], ["--install", self.build, "--prefix", prefix]):
            subprocess.run(["cmake", *step], stdout=subprocess.DEVNULL, check=True)
        compiler = [] if TOOLCHAIN else ["-DCMAKE_CXX_COMPILER=" + os.environ["CXX"]]
        return subprocess.run(
            ["cmake", "-S", CONSUMER, "-B", self.build / "user", "-G", "Ninja",
             "-DCMAKE_TOOLCHAIN_FILE=" + TOOLCHAIN, *compiler, f"-DCMAKE_PREFIX_PATH={prefix}",
             f"-DCMAKE_FIND_ROOT_PATH={prefix}", *options],
            capture_output=True, text=True, check=False)

    def build_user(self):
        subprocess.run(["cmake", "--build", self.build / "user"], stdout=subprocess.DEVNULL, check=True)

    def assert_not_found(self, done, reason):
        self.assertEqual(done.returncode, 1)
        said = " ".join(done.stderr.split()).rpartition(" Reason given by package: ")[2]
        self.assertEqual(said, reason)


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
        self.assertEqual(
            self.assert_configures(NO_TESTS, NO_EXAMPLES, *self.old_sqlite("3.7.7.1")),
            [f"-- Left out, no SQLite 3.24 for sqlprepared, only 3.7.7.1 in {self.build}: add its prefix "
             "to CMAKE_PREFIX_PATH"])

    def test_sqlite_is_older_than_sqlprepared_needs(self):
        self.assert_refused(
            f"No SQLite 3.24 for sqlprepared, only 3.23.1 in {self.build}: add its prefix to "
            "CMAKE_PREFIX_PATH, or turn SQLWRAPPER_PREPARED off", "-DSQLWRAPPER_PREPARED=ON", *self.old_sqlite("3.23.1"))

    def test_sqlite_is_as_old_as_sqlprepared_needs(self):
        self.assertEqual(
            self.assert_configures(NO_TESTS, NO_EXAMPLES, *self.old_sqlite("3.24.0")),
            [f"-- Left out, no session extension for sqlsync in the SQLite of {self.build}: add its "
             "prefix to CMAKE_PREFIX_PATH"])

    def test_sqlite_lacks_what_sqlsync_needs(self):
        self.assert_refused(
            f"No session extension for sqlsync in the SQLite of {self.build}: add its prefix to "
            "CMAKE_PREFIX_PATH, or turn SQLWRAPPER_SYNC off", "-DSQLWRAPPER_SYNC=ON", *self.old_sqlite("3.24.0"))

    def test_sqlcipher_lacks_what_sqlsync_needs(self):
        (self.build / "sqlcipher").mkdir()
        self.old_sqlite("3.24.0", "sqlcipher/sqlite3.h")
        self.assertEqual(
            self.assert_configures(
                NO_TESTS, NO_EXAMPLES, "-DSQLWRAPPER_SQLITE=sqlcipher",
                f"-DSQLWRAPPER_SQLCIPHER_INCLUDE_DIR={self.build}",
                "-DSQLWRAPPER_SQLCIPHER_LIBRARY=" + os.environ["TRACE"]),
            [f"-- Left out, no session extension for sqlsync in the SQLite of {self.build}/sqlcipher: "
             "add its prefix to CMAKE_PREFIX_PATH"])

    def test_sqlsync_needs_sqlprepared(self):
        self.assert_refused("No sqlprepared for sqlsync: turn SQLWRAPPER_PREPARED on, or SQLWRAPPER_SYNC off",
                            "-DSQLWRAPPER_SYNC=ON", NO_PREPARED)

    def test_sqlsync_is_not_wanted(self):
        left_out = self.assert_configures(NO_TESTS, NO_EXAMPLES, NO_SYNC, *self.old_sqlite("3.24.0"))
        self.assertEqual(left_out, [])

    def test_sqlprepared_is_not_wanted(self):
        left_out = self.assert_configures(NO_TESTS, NO_EXAMPLES, NO_PREPARED,
                                          *self.old_sqlite("3.7.7.1"))
        self.assertEqual(left_out, [])

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

    def test_asked_for_but_impossible(self):
        for option, wanted in (("TESTS", {**FOR_TESTS, **FOR_FLEET_TESTS}),
                               ("EXAMPLES", {**FOR_EXAMPLES, **FOR_FLEET})):
            for what, (packages, missing) in wanted.items():
                with self.subTest(what):
                    self.build = self.build / "next"
                    self.assert_refused(
                        f"No {what}: {way_to(packages)}, or turn SQLWRAPPER_BUILD_{option} off",
                        f"-DSQLWRAPPER_BUILD_{option}=ON", missing)

    def test_left_out_by_default(self):
        left_out = self.assert_configures(NO_PREPARED, *(missing for _, missing in WANTED.values()))
        self.assertEqual(sorted(left_out), sorted(f"-- Left out, no {what}: {way_to(packages)}"
                                                  for what, (packages, _) in WANTED.items()))

    def test_left_out_of_the_fleet_by_default(self):
        left_out = self.assert_configures(NO_TESTS, *(missing for _, missing in FOR_FLEET.values()))
        self.assertEqual(left_out, [f"-- Left out, no {what}: {way_to(packages)}"
                                    for what, (packages, _) in FOR_FLEET.items()])

    def test_needed_by_a_few_tests_alone(self):
        self.assert_configures("-DPKG_CONFIG=", "-DGDB=", "-DSTRACE=", "-DVENDORS_REGISTRY_DIR=")
        listed = subprocess.run(["ctest", "--test-dir", self.build, "-N"], capture_output=True,
                                text=True, check=True).stdout
        for name, there in (("SqlTableTest", True), ("Readme", True), ("Install", False), ("Gdb", False),
                            ("Cookbook.TracedTest", False), ("Vendors.", False)):
            self.assertEqual(f": {name}" in listed, there, name)

    def test_library_alone_needs_none_of_it(self):
        left_out = self.assert_configures(NO_TESTS, NO_EXAMPLES, NO_PREPARED,
                                          *(missing for _, missing in WANTED.values()))
        self.assertEqual(left_out, [])


class CrossTest(ConfigureTestCase):
    def assert_cross_refused(self, arch, line, *options):
        toolchain = ROOT / "cmake" / f"toolchain-{arch}.cmake"
        self.assert_refused(line, *options, toolchain=toolchain)

    def test_cross_compiler_is_missing(self):
        for arch, triplet in (("armhf", "arm-linux-gnueabihf"), ("armel", "arm-linux-gnueabi")):
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

    def cpp_framework(self):
        """A libframework whose reporter has C++ linkage."""
        library = self.build / "libframework.so"
        subprocess.run(
            [os.environ["CXX"], "-shared", "-fPIC", "-x", "c++", "-", "-o", library], check=True, text=True,
            input="void logAssertFailed(const char*, const char*, int, const char*) {}")
        return f"-DSQLWRAPPER_FRAMEWORK_LIBRARY={library}"

    def test_reporter_has_the_other_linkage(self):
        for linkage, default, framework in (("C++", "C", self.cpp_framework()), ("C", "C++", FRAMEWORK)):
            with self.subTest(linkage):
                self.assert_refused(
                    f"The device's libframework exports logAssertFailed() with {linkage} linkage: set "
                    f"SQLWRAPPER_FRAMEWORK_LINKAGE to {linkage}",
                    DEVICE, TRACE, framework, f"-DSQLWRAPPER_FRAMEWORK_LINKAGE={default}")

    def configure_for(self, framework, linkage):
        self.assert_configures(DEVICE, NO_PREPARED, TRACE, framework,
                               f"-DSQLWRAPPER_FRAMEWORK_LINKAGE={linkage}")

    def test_installation_is_used_with_the_devices_libraries(self):
        for linkage, framework in (("C", FRAMEWORK), ("C++", self.cpp_framework())):
            with self.subTest(linkage):
                self.configure_for(framework, linkage)
                done = self.use_installed(TRACE, framework)
                self.assertEqual(done.returncode, 0, done.stderr)
                self.build_user()

    def test_user_of_an_installation_lacks_a_library(self):
        for name, others in (("trace", [FRAMEWORK]), ("framework", [TRACE])):
            with self.subTest(name):
                self.configure_for(FRAMEWORK, "C")
                self.assert_not_found(
                    self.use_installed(*others, f"-DSQLWRAPPER_{name.upper()}_LIBRARY="),
                    f"No lib{name} of the device: point SQLWRAPPER_{name.upper()}_LIBRARY at it, or "
                    "add its prefix to CMAKE_PREFIX_PATH")


class WithoutPreparedTest(ConfigureTestCase):
    """An installation of sqlwrapper alone, as one package of two is."""

    def setUp(self):
        super().setUp()
        self.assert_configures(NO_TESTS, NO_EXAMPLES, NO_PREPARED)

    def test_is_used_by_who_does_not_ask_for_more(self):
        for wanted in ("", "COMPONENTS;sqlwrapper", "OPTIONAL_COMPONENTS;sqlprepared"):
            with self.subTest(wanted):
                done = self.use_installed("-DWANTED=" + wanted)
                self.assertEqual((done.returncode, done.stderr), (0, ""))
                self.build_user()
                self.assertFalse((self.build / "user" / "prepared").exists())

    def test_is_not_found_by_who_does(self):
        self.assert_not_found(
            self.use_installed("-DWANTED=COMPONENTS;sqlprepared"),
            "No sqlprepared beside sqlwrapper: apt-get install libsqlprepared-dev, or build it with "
            "SQLWRAPPER_PREPARED=ON")
        self.assert_not_found(
            self.use_installed("-DWANTED=COMPONENTS;sqlprepared;sqlsync"),
            "No sqlprepared beside sqlwrapper: apt-get install libsqlprepared-dev, or build it with "
            "SQLWRAPPER_PREPARED=ON")
        self.assert_not_found(
            self.use_installed("-DWANTED=COMPONENTS;sqlsync"),
            "No sqlsync beside sqlwrapper: apt-get install libsqlsync-dev, or build it with SQLWRAPPER_SYNC=ON")

    def test_is_not_found_by_who_asks_for_what_there_never_was(self):
        done = self.use_installed("-DWANTED=COMPONENTS;sqlsomething")
        self.assertEqual(done.returncode, 1)
        self.assertIn("considered to be NOT FOUND", " ".join(done.stderr.split()))


if __name__ == "__main__":
    unittest.main()
