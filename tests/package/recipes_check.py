#!/usr/bin/python3
"""Checks the Debian packages that were built, what those of the fleet bring along and, as their tools
are not at hand, the recipes for Buildroot and Yocto by reading them as those would. The last line sums
up: "N passed, N failed"."""

import fnmatch
import hashlib
import itertools
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import kconfiglib

from fleet_check import FleetBroker, FleetDatabase, FleetUnits  # which are run with these

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / "build" / "package" / "check"
BUILDROOT = ROOT / "packaging" / "buildroot"
YOCTO = ROOT / "packaging" / "yocto"
RECIPE = next((YOCTO / "recipes-support" / "sqlwrapper").glob("*.bb"))
VERSION = re.search(r"project\(\w+ VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text())[1]

HEADERS = ["SqlCommon.h", "SqlDatabase.h", "SqlField.h", "SqlFieldSet.h", "SqlRecord.h",
           "SqlRecordSet.h", "SqlTable.h", "SqlValue.h", "TraceLevel.h"]
CMAKE = ["sqlwrapperConfig.cmake", "sqlwrapperConfigVersion.cmake",
         "sqlwrapperTargets-relwithdebinfo.cmake", "sqlwrapperTargets.cmake"]
PREPARED_HEADERS = ["SqlBackup.h", "SqlBinder.h", "SqlBlob.h", "SqlFunction.h", "SqlGroupCommit.h",
                    "SqlLiteral.h", "SqlMapping.h", "SqlMigration.h", "SqlPreparedTable.h", "SqlResult.h", "SqlSettings.h",
                    "SqlStatement.h", "SqlStopFlag.h", "SqlTableStatements.h", "SqlTransaction.h", "SqlTypedTable.h"]
PREPARED_CMAKE = ["sqlpreparedTargets-relwithdebinfo.cmake", "sqlpreparedTargets.cmake"]
SYNC_HEADERS = ["SqlChangeReader.h", "SqlEnvelope.h", "SqlInbox.h", "SqlOutbox.h", "SqlRecorder.h"]
SYNC_CMAKE = ["sqlsyncTargets-relwithdebinfo.cmake", "sqlsyncTargets.cmake"]
SYNC_VERSION = re.search(r"add_sql_library\(sqlsync (\S+)", (ROOT / "components/sql/sqlsync/CMakeLists.txt").read_text())[1]
# Each file of an installation, by the package that it belongs to.
FILES = {
    "sqlwrapper": ["lib/libsqlwrapper.so.1", f"lib/libsqlwrapper.so.{VERSION}"],
    "sqlwrapper-dev": [f"include/sqlwrapper/{name}" for name in HEADERS]
                      + [f"lib/cmake/sqlwrapper/{name}" for name in CMAKE]
                      + ["lib/libsqlwrapper.so", "lib/pkgconfig/sqlwrapper.pc",
                         f"share/gdb/auto-load/usr/lib/libsqlwrapper.so.{VERSION}-gdb.py"],
    "sqlprepared": ["lib/libsqlprepared.so.1", f"lib/libsqlprepared.so.{VERSION}"],
    "sqlprepared-dev": [f"include/sqlwrapper/{name}" for name in PREPARED_HEADERS]
                       + [f"lib/cmake/sqlwrapper/{name}" for name in PREPARED_CMAKE]
                       + ["lib/libsqlprepared.so", "lib/pkgconfig/sqlprepared.pc",
                          f"share/gdb/auto-load/usr/lib/libsqlprepared.so.{VERSION}-gdb.py"],
    "sqlsync": ["lib/libsqlsync.so.0", f"lib/libsqlsync.so.{SYNC_VERSION}"],
    "sqlsync-dev": [f"include/sqlwrapper/{name}" for name in SYNC_HEADERS]
                   + [f"lib/cmake/sqlwrapper/{name}" for name in SYNC_CMAKE]
                   + ["lib/libsqlsync.so", "lib/pkgconfig/sqlsync.pc",
                      f"share/gdb/auto-load/usr/lib/libsqlsync.so.{SYNC_VERSION}-gdb.py"],
    "sqlwrapper-trace": ["lib/libtrace.so"],
    "sqlwrapper-framework": ["lib/libframework.so"],
}
ALL_FILES = sorted(name for names in FILES.values() for name in names)
C_LIBRARIES = {"libc.so.6", "libgcc_s.so.1", "libm.so.6"}
# By its Debian package: the name of each library, its version, and what it needs.
LIBRARIES = {
    "libsqlwrapper1": ("libsqlwrapper.so.1", VERSION,
                       {"libsqlite3.so.0", "libtrace.so", "libframework.so", "libstdc++.so.6"}),
    "libsqlprepared1": ("libsqlprepared.so.1", VERSION,
                        {"libsqlite3.so.0", "libtrace.so", "libframework.so", "libsqlwrapper.so.1",
                         "libstdc++.so.6"}),
    "libsqlsync0": ("libsqlsync.so.0", SYNC_VERSION,
                    {"libsqlite3.so.0", "libtrace.so", "libsqlwrapper.so.1", "libsqlprepared.so.1",
                     "libstdc++.so.6"}),
}


def output(*command, **options):
    """What a command prints; a failing one shows all it said."""
    result = subprocess.run(command, text=True, capture_output=True, **options)
    if result.returncode != 0:
        raise RuntimeError(f"{command}: {result.stdout}{result.stderr}")
    return result.stdout


def dynamic_section(library, tag):
    pattern = rf"\((?:{tag})\).*\[(.*)\]"
    return re.findall(pattern, output("readelf", "--dynamic", "--wide", library))


class Installation(unittest.TestCase):
    """Built from a copy of the tree, as Buildroot and Yocto do."""

    def test_has_these_files_and_no_others(self):
        shutil.copytree(ROOT, BUILD / "source", ignore=shutil.ignore_patterns("build", ".git"))
        output("cmake", "-G", "Ninja", "-S", BUILD / "source", "-B", BUILD / "build",
               "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DCMAKE_INSTALL_PREFIX=/usr",
               "-DCMAKE_INSTALL_LIBDIR=lib", "-DSQLWRAPPER_BUILD_TESTS=OFF",
               "-DSQLWRAPPER_BUILD_EXAMPLES=OFF", "-DSQLWRAPPER_PREPARED=ON", "-DSQLWRAPPER_SYNC=ON")
        output("cmake", "--build", BUILD / "build")
        output("cmake", "--install", BUILD / "build", env={**os.environ, "DESTDIR": BUILD / "root"})
        usr = BUILD / "root" / "usr"
        installed = [str(path.relative_to(usr)) for path in usr.rglob("*") if not path.is_dir()]
        self.assertEqual(sorted(installed), ALL_FILES)


class Packages(unittest.TestCase):
    """The Debian packages that script/package has built, whichever they are."""

    def test_have_the_version_of_the_project(self):
        changelog = (ROOT / "packaging" / "debian" / "changelog").read_text()
        self.assertTrue(changelog.startswith(f"sqlwrapper ({VERSION}) "), changelog.splitlines()[0])

    def test_library_needs_the_least_and_says_where_it_is_nowhere(self):
        for name, (soname, version, wanted) in LIBRARIES.items():
            packages = sorted((ROOT / "build" / "package").glob(f"*/{name}_*.deb"))
            self.assertNotEqual(packages, [], "script/package has not built any")
            for package in packages:
                with self.subTest(package.name), tempfile.TemporaryDirectory() as folder:
                    output("dpkg-deb", "--extract", package, folder)
                    library, = pathlib.Path(folder).glob(f"usr/lib/*/{soname[:-2]}.{version}")
                    # On ARM the loader keeps the value that guards the stack.
                    needed = {name for name in dynamic_section(library, "NEEDED")
                              if not name.startswith("ld-linux")}
                    self.assertEqual(needed - C_LIBRARIES, wanted)
                    self.assertEqual(dynamic_section(library, "SONAME"), [soname])
                    self.assertEqual(dynamic_section(library, "RPATH|RUNPATH"), [])

    def test_share_the_installed_files_as_meant(self):
        """As those of Yocto share them, beside documents, with another build type."""
        names = {"libsqlwrapper1": "sqlwrapper", "libsqlwrapper-dev": "sqlwrapper-dev",
                 "libsqlprepared1": "sqlprepared", "libsqlprepared-dev": "sqlprepared-dev",
                 "libsqlsync0": "sqlsync", "libsqlsync-dev": "sqlsync-dev"}
        for debian, name in names.items():
            for package in sorted((ROOT / "build" / "package").glob(f"*/{debian}_*.deb")):
                with self.subTest(package.name):
                    lines = output("dpkg-deb", "--contents", package).splitlines()
                    paths = [line.split()[5] for line in lines if not line.startswith("d")]
                    files = [re.sub(r"lib/[a-z0-9_]+-linux-[a-z]+/", "lib/", path[len("./usr/"):])
                             .replace("-none.cmake", "-relwithdebinfo.cmake") for path in paths]
                    self.assertEqual(sorted(file for file in files
                                            if not re.match("share/(doc|man|lintian)/", file)),
                                     sorted(FILES[name]))

    def test_mention_no_folder_of_the_build(self):
        packages = sorted((ROOT / "build" / "package").glob("*/*sql*.deb"))
        self.assertNotEqual(packages, [], "script/package has not built any")
        for package in packages:
            with self.subTest(package.name), tempfile.TemporaryDirectory() as folder:
                output("dpkg-deb", "--raw-extract", package, folder)
                output("find", folder, "-type", "f", "-name", "*.gz", "-exec", "gunzip", "{}", "+")
                found = subprocess.run(["grep", "-rlF", str(ROOT / "build"), folder], text=True,
                                       capture_output=True)
                self.assertEqual(found.stdout, "")


class BuildrootPackage(unittest.TestCase):
    # What the package's menu entry refers to, and a way to answer it.
    KCONFIG = """
config BR2_INSTALL_LIBSTDCPP
	bool "C++"
config BR2_TOOLCHAIN_GCC_AT_LEAST_12
	bool "GCC 12"
config BR2_STATIC_LIBS
	bool "static"
config BR2_PACKAGE_SQLITE
	bool "SQLite"
source "{}/Config.in"
"""
    MAKEFILE = """
BR2_EXTERNAL_SQLWRAPPER_PATH = {}
cmake-package = GENERATED = cmake-package
include $(BR2_EXTERNAL_SQLWRAPPER_PATH)/external.mk
$(foreach name,GENERATED $(filter SQLWRAPPER_%,$(.VARIABLES)),$(info $(name)=$($(name))))
all: ;
"""

    def configuration(self, **answers):
        os.environ.update(BR2_EXTERNAL_SQLWRAPPER_PATH=str(BUILDROOT), KCONFIG_WARN_UNDEF="y")
        with tempfile.NamedTemporaryFile("w") as file:
            file.write(self.KCONFIG.format(BUILDROOT))
            file.flush()
            configuration = kconfiglib.Kconfig(file.name, warn_to_stderr=False)
        for name, value in answers.items():
            configuration.syms[f"BR2_{name}"].set_value(value)
        self.assertEqual(configuration.warnings, [])
        return {name: symbol.str_value for name, symbol in configuration.syms.items()}

    def variables(self, *answers):
        with tempfile.NamedTemporaryFile("w") as file:
            file.write(self.MAKEFILE.format(BUILDROOT))
            file.flush()
            lines = output("make", "--warn-undefined-variables", "-nf", file.name, *answers)
        return dict(line.split("=", 1) for line in lines.splitlines() if "=" in line)

    def test_chosen_brings_sqlite(self):
        values = self.configuration(INSTALL_LIBSTDCPP="y", TOOLCHAIN_GCC_AT_LEAST_12="y",
                                    PACKAGE_SQLWRAPPER="y")
        self.assertEqual(values["BR2_PACKAGE_SQLITE"], "y")
        self.assertEqual(values["BR2_PACKAGE_SQLWRAPPER_PREPARED"], "n")
        self.assertEqual(values["BR2_PACKAGE_SQLWRAPPER_SYNC"], "n")
        self.assertEqual(values["BR2_PACKAGE_SQLWRAPPER_DEVICE_PLATFORM"], "n")

    def test_cannot_be_chosen_without_what_it_needs(self):
        enough = {"INSTALL_LIBSTDCPP": "y", "TOOLCHAIN_GCC_AT_LEAST_12": "y", "STATIC_LIBS": "n"}
        for name, value in enough.items():
            with self.subTest(name):
                lacking = {**enough, name: "n" if value == "y" else "y"}
                values = self.configuration(**lacking, PACKAGE_SQLWRAPPER="y")
                self.assertEqual(values["BR2_PACKAGE_SQLWRAPPER"], "n")

    def test_builds_this_tree_in_this_version(self):
        values = self.variables()
        self.assertEqual(values["GENERATED"], "cmake-package")
        self.assertEqual(values["SQLWRAPPER_SITE"], str(ROOT))
        self.assertEqual(values["SQLWRAPPER_SITE_METHOD"], "local")
        self.assertEqual(values["SQLWRAPPER_VERSION"], VERSION)
        self.assertEqual(values["SQLWRAPPER_DEPENDENCIES"], "sqlite")
        self.assertEqual(values["SQLWRAPPER_INSTALL_STAGING"], "YES")

    def test_sets_options_that_exist(self):
        for prepared, sync, platform in itertools.product((("n", "OFF"), ("y", "ON")), repeat=3):
            with self.subTest(prepared=prepared, sync=sync, platform=platform):
                values = self.variables(f"BR2_PACKAGE_SQLWRAPPER_PREPARED={prepared[0]}",
                                        f"BR2_PACKAGE_SQLWRAPPER_SYNC={sync[0]}",
                                        f"BR2_PACKAGE_SQLWRAPPER_DEVICE_PLATFORM={platform[0]}")
                options = values["SQLWRAPPER_CONF_OPTS"]
                self.assertEqual(options.split(), ["-DSQLWRAPPER_BUILD_EXAMPLES=OFF",
                                                   "-DSQLWRAPPER_BUILD_TESTS=OFF",
                                                   f"-DSQLWRAPPER_PREPARED={prepared[1]}",
                                                   f"-DSQLWRAPPER_SYNC={sync[1]}",
                                                   f"-DSQLWRAPPER_DEVICE_PLATFORM={platform[1]}"])
                assert_options_exist(self, options)

    def test_hash_is_that_of_the_licence_file(self):
        file = BUILDROOT / "package" / "sqlwrapper" / "sqlwrapper.hash"
        lines = [line for line in file.read_text().splitlines() if not line.startswith("#")]
        licence = self.variables()["SQLWRAPPER_LICENSE_FILES"]
        digest = hashlib.sha256((ROOT / licence).read_bytes()).hexdigest()
        self.assertEqual(lines, [f"sha256  {digest}  {licence}"])


class YoctoRecipe(unittest.TestCase):
    # BitBake's own values, as far as the packages' contents depend on them.
    DEFAULTS = {
        "PN": "sqlwrapper",
        "THISDIR": str(RECIPE.parent),
        "LAYERDIR": str(YOCTO),
        "libdir": "lib",
        "includedir": "include",
        "datadir": "share",
        "PACKAGES": "${PN}-src ${PN}-dbg ${PN}-staticdev ${PN}-dev ${PN}-doc ${PN}-locale ${PN}",
        "FILES:${PN}": "${libdir}/lib*.so.*",
        "FILES:${PN}-dev": "${includedir}/* ${libdir}/lib*.so ${libdir}/cmake/* "
                           "${libdir}/pkgconfig/*",
    }
    STATEMENT = re.compile(r'([A-Za-z_]+(?:_sqlwrapper)?(?:\[[a-z-]+\]|:(?:\$\{PN\}|sqlprepared|sqlsync)[a-z-]*)?) '
                           r'(=|\?\?=|\+=|=\+|\.=) "([^"]*)"')

    def read(self, file):
        """The variables that a recipe or a layer sets; fails at a line that is no statement."""
        values = dict(self.DEFAULTS)
        for line in file.read_text().replace("\\\n", "").splitlines():
            if not line or line.startswith("#"):
                continue
            if line.startswith("inherit "):
                values["inherit"] = line.split()[1:]
                continue
            statement = self.STATEMENT.fullmatch(line)
            self.assertIsNotNone(statement, line)
            name, operator, value = statement.groups()
            old = values.get(name, "")
            values[name] = {"=": value, "??=": old or value, "+=": f"{old} {value}",
                            "=+": f"{value} {old}", ".=": old + value}[operator]
        return values

    def expand(self, values, text):
        while "${" in text:
            text = re.sub(r"\$\{(\w+)\}", lambda match: values[match[1]], text)
            text = re.sub(r"\$\{@([^{}]*)\}", lambda match: eval(match[1]), text)
        return text

    def test_builds_this_tree_in_this_version(self):
        values = self.read(RECIPE)
        self.assertEqual(RECIPE.name, f"sqlwrapper_{VERSION}.bb")
        self.assertEqual(values["inherit"], ["cmake", "externalsrc"])
        self.assertEqual(values["DEPENDS"], "sqlite3")
        self.assertEqual(self.expand(values, values["EXTERNALSRC"]), str(ROOT))

    def test_is_found_in_its_layer(self):
        values = self.read(YOCTO / "conf" / "layer.conf")
        pattern = self.expand(values, values["BBFILES"]).strip()
        self.assertTrue(fnmatch.fnmatch(str(RECIPE), pattern))
        self.assertRegex(str(RECIPE), self.expand(values, values["BBFILE_PATTERN_sqlwrapper"]))
        self.assertEqual(values["BBFILE_COLLECTIONS"].strip(), "sqlwrapper")

    def test_sets_options_that_exist(self):
        values = self.read(RECIPE)
        for name in "EXTRA_OECMAKE", "PACKAGECONFIG[prepared]", "PACKAGECONFIG[sync]", "PACKAGECONFIG[device-platform]":
            assert_options_exist(self, values[name].replace(",", " "))

    def test_checksum_is_that_of_the_licence_file(self):
        licence, digest = re.fullmatch(r"file://(.*);md5=(.*)",
                                       self.read(RECIPE)["LIC_FILES_CHKSUM"]).groups()
        self.assertEqual(hashlib.md5((ROOT / licence).read_bytes()).hexdigest(), digest)

    def test_packages_share_the_installed_files_as_meant(self):
        values = self.read(RECIPE)
        packages = {}
        left = ALL_FILES
        for package in values["PACKAGES"].split():
            patterns = self.expand(values, values.get(f"FILES:{package}", "")).split()
            taken = [name for name in left
                     if any(fnmatch.fnmatch(name, pattern) for pattern in patterns)]
            left = [name for name in left if name not in taken]
            if taken:
                packages[self.expand(values, package)] = taken
        self.assertEqual(left, [])
        self.assertEqual(packages, {name: sorted(files) for name, files in FILES.items()})


def assert_options_exist(test, options):
    declared = re.findall(r"(?:option|set)\((\w+)", (ROOT / "CMakeLists.txt").read_text())
    named = re.findall(r"-D(\w+)=(?:ON|OFF)", options)
    test.assertEqual(len(named), len(options.split()), options)
    test.assertEqual([name for name in named if name not in declared], [])


if __name__ == "__main__":
    shutil.rmtree(BUILD, ignore_errors=True)
    result = unittest.main(exit=False, verbosity=2).result
    failed = len({test.id().split(" ")[0] for test, _ in result.failures + result.errors})
    print(f"{result.testsRun - failed} passed, {failed} failed")
    sys.exit(failed != 0)
