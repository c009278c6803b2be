"""Changes the libraries' sources and looks whether tools/abi-check tells a broken interface from a whole one.

CXX is the compiler, BUILD the folder where it has built the libraries as they are, whose interface is the
one recorded.
"""

import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = ROOT / os.environ["BUILD"]
SQL = ROOT / "components/sql"
BROKEN = "breaks the interface"
EXTENDED = "adds to the interface"

# What is changed, where, from what to what, and what is said about it.
SQLWRAPPER = {
    "nothing": ([], ""),
    "the body of a function": (
        [("src/SqlField.cpp", "return _name;", "return string(_name);")], ""),
    "a new function": (
        [("include/SqlTable.h", "    bool truncate();", "    bool truncate();\n    bool vacuum();"),
         ("src/SqlTable.cpp", "bool Table::truncate()",
          "bool Table::vacuum()\n{\n    return false;\n}\n\nbool Table::truncate()")], EXTENDED),
    "a function removed": (
        [("include/SqlTable.h", "    bool truncate();", ""),
         ("src/SqlTable.cpp", "bool Table::truncate()", "static bool truncate()"),
         ("src/SqlTable.cpp", 'return _recordSet.query("delete from " + _name);', "return true;")],
        BROKEN),
    "another type of a parameter": (
        [("include/SqlCommon.h", "void addDays(integer d);", "void addDays(int d);"),
         ("src/SqlCommon.cpp", "void Time::addDays(integer d)", "void Time::addDays(int d)")], BROKEN),
    "another type of a result": (
        [("include/SqlCommon.h", "int queryNumber(", "integer queryNumber("),
         ("src/SqlCommon.cpp", "int queryNumber(sqlite3* db", "integer queryNumber(sqlite3* db"),
         ("src/SqlTable.cpp", "const int count = queryNumber", "const integer count = queryNumber"),
         ("src/SqlTable.cpp", 'return queryNumber(_db, "select count(*) from " + _name);',
          'return static_cast<int>(queryNumber(_db, "select count(*) from " + _name));'),
         ("src/SqlDatabase.cpp", 'return queryNumber(_db, "PRAGMA user_version;");',
          'return static_cast<int>(queryNumber(_db, "PRAGMA user_version;"));')], BROKEN),
    "a new member": (
        [("include/SqlField.h", "std::int32_t _flags;", "std::int32_t _flags;\n    int _size;")],
        BROKEN),
    "members in another order": (
        [("include/SqlDatabase.h", "    sqlite3* _db;\n    std::int32_t _rc;",
          "    std::int32_t _rc;\n    sqlite3* _db;"),
         ("src/SqlDatabase.cpp", "_db(nullptr), _rc(SQLITE_ERROR)", "_rc(SQLITE_ERROR), _db(nullptr)")],
        BROKEN),
    "a wider time_t": (
        [("include/SqlCommon.h", "    time_t _time;", "    time_t _time[2];"),
         ("src/SqlCommon.cpp", "_time(-1)", "_time()"),
         ("src/SqlCommon.cpp", "_time(static_cast<time_t>(t))", "_time()"),
         ("src/SqlCommon.cpp", "&_time", "_time"), ("src/SqlCommon.cpp", "return _time;", "return *_time;"),
         ("src/SqlCommon.cpp", "other._time", "*other._time"),
         ("src/SqlCommon.cpp", "difftime(_time", "difftime(*_time"),
         ("src/SqlCommon.cpp", "_time = shifted(_time", "*_time = shifted(*_time"),
         ("src/SqlCommon.cpp", "static_cast<long>(_time), calendarText(_time)", "0L, \"\"")], BROKEN),
    "another number of an enumerator": (
        [("include/SqlCommon.h", "type_time = 4,", "type_time = 6,")], BROKEN),
    "another width of an enumeration": (
        [("include/SqlCommon.h", "enum field_type : std::int32_t", "enum field_type : std::int16_t")],
        BROKEN),
    "another name of a private member": (
        [("include/SqlRecordSet.h", "_records", "_rows"), ("src/SqlRecordSet.cpp", "_records", "_rows")],
        EXTENDED),
    "a virtual function": (
        [("include/SqlTable.h", "    bool truncate();", "    virtual bool truncate();")], BROKEN),
}
# What sqlwrapper has none of.
BINDER = "include/SqlBinder.h"
STATEMENT = "include/SqlStatement.h"
SQLPREPARED = {
    "nothing": ([], ""),
    "a class of a source file": (
        [("src/SqlTypedTable.cpp", "    bool _isKeyChosen = false;\n", "    bool _isKeyChosen = false;\n    int _more = 0;\n")],
        ""),
    "a member of a base class": (
        [("include/SqlTransaction.h", "    Error _error;\n};", "    Error _error;\n    int _more = 0;\n};")],
        BROKEN),
    "another type of a union's member": (
        [(BINDER, "        double _real;", "        float _real;"),
         (BINDER, "_real(real)", "_real(static_cast<float>(real))")], BROKEN),
    "a parameter of a function that a member points at": (
        [(STATEMENT, "const char* (*read)(const Column& column, void* variable);",
          "const char* (*read)(const Column& column, void* variable, int more);"),
         (STATEMENT, "[](const Column& column, void* target)", "[](const Column& column, void* target, int)"),
         ("src/SqlStatementRun.h", "variables[i].variable)", "variables[i].variable, 0)"),
         ("src/SqlTypedTable.cpp", "{inMilliseconds ? readerOfMilliseconds : reader, list}", "{nullptr, list}")],
        BROKEN),
    "another type that a template's result holds": (
        [("include/SqlSettings.h", "Result<bool> optimize", "Result<int> optimize"),
         ("src/SqlSettings.cpp", "Result<bool> optimize", "Result<int> optimize")], BROKEN),
}
CHANGES = {("sqlwrapper", what): change for what, change in SQLWRAPPER.items()}
CHANGES.update({("sqlprepared", what): change for what, change in SQLPREPARED.items()})
CHANGES["sqlsync", "nothing"] = ([], "")
CHANGES["sqlsync", "another number of an enumerator"] = (
    [("include/SqlChangeReader.h", "change_delete = 9,", "change_delete = 8,")], BROKEN)


def reached(folder, changed):
    """The sources that these files are, or that include them, be it through others."""
    includes = {file.name: set(re.findall(r'#include "(\w+\.h)"', file.read_text("utf-8")))
                for file in folder.glob("*/*.*")}
    while more := {name for name, wanted in includes.items() if wanted & changed} - changed:
        changed = changed | more
    return {name for name in changed if name.endswith(".cpp")}


def build(name, what, folder):
    """The library with some texts of its sources replaced, for its interface alone. Sources that this does
    not reach are not compiled again: their objects are those of the library as it is."""
    built = BUILD / "components/sql" / name
    change = CHANGES[name, what][0]
    if not change:
        return built / f"lib{name}.so"
    library = folder / name / what
    shutil.copytree(SQL / name, library)
    for file, old, new in change:
        text = (library / file).read_text("utf-8")
        if old not in text:
            raise AssertionError(f"{file} has no {old!r}")
        (library / file).write_text(text.replace(old, new), "utf-8")
    compiled = reached(library, {pathlib.Path(file).name for file, _, _ in change})
    objects = []
    for source in sorted((library / "src").glob("*.cpp")):
        if source.name in compiled:
            objects.append(source.with_suffix(".o"))
            subprocess.run(
                [os.environ["CXX"], "-std=gnu++17", "-g", "-fPIC", "-fvisibility=hidden",
                 "-fvisibility-inlines-hidden", f"-I{library}/include", f"-I{SQL}/sqlwrapper/include",
                 f"-I{SQL}/sqlprepared/include", f"-I{SQL}/sqlprepared/src", f"-I{SQL}/sqltrace",
                 "-DSQLITE_ENABLE_SESSION", "-DSQLITE_ENABLE_PREUPDATE_HOOK", '-DSQL_SOURCE_FOLDER=""', "-c", source, "-o", objects[-1]], check=True)
        else:
            objects.append(built / f"CMakeFiles/{name}.dir/src/{source.name}.o")
    file = library / f"lib{name}.so"
    subprocess.run([os.environ["CXX"], "-shared", f"-Wl,--version-script={library}/{name}.map", *objects,
                    "-o", file], check=True)
    return file


class AbiCheckTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        temporary = tempfile.TemporaryDirectory()
        cls.addClassCleanup(temporary.cleanup)
        folder = pathlib.Path(temporary.name)
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            cls.libraries = dict(zip(CHANGES, pool.map(lambda key: build(*key, folder), CHANGES)))

    def test_changes_are_told_apart(self):
        for (name, what), (_, verdict) in CHANGES.items():
            with self.subTest(what, library=name):
                done = subprocess.run(
                    [ROOT / "tools/abi-check", SQL / name / f"{name}.abi", self.libraries[name, what]],
                    capture_output=True, text=True, check=False)
                said = [text for text in (BROKEN, EXTENDED) if text in done.stderr]
                self.assertEqual((done.returncode != 0, said), (verdict != "", [verdict] if verdict else []),
                                 done.stdout + done.stderr)


if __name__ == "__main__":
    unittest.main()
