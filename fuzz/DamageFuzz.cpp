// Every operation on a database whose file is the input: none may crash or go on for ever, and each
// that fails says so by its result and by its lines alike.

#include "Fuzz.h"

#include "Columns.h"
#include "SqlCommon.h"
#include "SqlDatabase.h"
#include "SqlRecord.h"
#include "SqlTable.h"

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

namespace {

using fuzz::Events;
using fuzz::expectEqual;
using fuzz::Reports;
using sql::Record;
using sql::Table;

constexpr int longest_cell = 100000;

// No sound database of an input's size needs so many for one statement.
constexpr int most_steps = 100000;

// SQLite is not built for the fuzzer, which finds new ground by what is reported instead: it looks
// at this section of a program too.
__attribute__((section("__libfuzzer_extra_counters"), used)) std::uint8_t reported[4096];

bool startsWith(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

// Whether the text starts with a result and its name: "11=SQLITE_CORRUPT: ...".
bool isResult(const std::string& text)
{
    const int rc = static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
    const std::string name = sql::sqliteRc2Str(rc);
    return rc > 0 && name != "unknown" && startsWith(text, std::to_string(rc) + "=" + name);
}

// Whether the text is the rest of a negative number's report.
bool isNumber(const std::string& text)
{
    return text.find_first_not_of("0123456789") == text.find(" < 0") && text.find(" < 0") != 0;
}

// A report of two lines: how the first one starts and ends, how the second one starts and what its
// rest is.
struct Report {
    char letter;
    const char* start;
    const char* end;
    const char* before;
    bool (*isRest)(const std::string& text);
};

const Report reports[] = {
    {'r', "Failed to run the SQL stmt '", "'", "  rc=", isResult},
    {'n', "Failed to prepare the SQL query '", "': ", "  rc=", isResult},
    {'n', "The SQL query '", "' failed", "   the query returned ", isResult},
    {'n', "The SQL query '", "' failed", "  SQLite returned returned number = -", isNumber},
    {'o', "Failed to prepare the SQL statement '", "': ", " rc=", isResult},
    {'o', "Running the SQL stmt '", "' failed", "  SQLite returned ", isResult},
};

bool isReport(const Report& report, const std::string& first, const std::string& second)
{
    const std::string start = std::string("[ERROR] ") + report.start;
    const std::string end = report.end;
    const std::string before = std::string("[ERROR] ") + report.before;
    return startsWith(first, start) && first.size() >= end.size()
           && first.compare(first.size() - end.size(), end.size(), end) == 0
           && startsWith(second, before) && report.isRest(second.substr(before.size()));
}

// A letter for each report: "r" of a statement, "n" of a number, "o" of one step, "e" of an
// existence that could not be found out. Ends the program at a line that is part of none.
std::string lettersOf(const Events& lines)
{
    std::string letters;
    for (std::size_t i = 0; i < lines.size();) {
        const std::string& next = i + 1 < lines.size() ? lines[i + 1] : std::string();
        const char* const unknown = "[ERROR] Failed to determine if table '";
        const std::size_t before = letters.size();
        for (const Report& report : reports) {
            if (letters.size() == before && isReport(report, lines[i], next))
                letters += report.letter;
        }
        if (letters.size() > before) {
            i += 2;
            continue;
        }
        if (!startsWith(lines[i], unknown))
            expectEqual("what is reported", lines, Events{unknown});
        letters += 'e';
        ++i;
    }
    return letters;
}

class Run {
public:
    // The database is in memory: SQLite reads it as it would the file.
    Run(const std::uint8_t* data, std::size_t size) : _reports(3)
    {
        expectEqual("whether a database can be opened in memory",
                    _database.open(":memory:", sql::Database::access_create, false, 0), true);
        sqlite3* const db = _database.getHandle();
        sqlite3_limit(db, SQLITE_LIMIT_LENGTH, longest_cell);
        sqlite3_progress_handler(
            db, most_steps, [](void*) { return 1; }, nullptr);
        unsigned char* const file = static_cast<unsigned char*>(sqlite3_malloc64(size + 1));
        if (size > 0)
            std::memcpy(file, data, size);
        const unsigned flags = SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_RESIZEABLE;
        const sqlite3_int64 bytes = static_cast<sqlite3_int64>(size);
        const int rc = sqlite3_deserialize(db, "main", file, bytes, bytes + 1, flags);
        expectEqual("the result of sqlite3_deserialize", rc, SQLITE_OK);
    }

    void all()
    {
        Table table(_database.getHandle(), "product", test::all_type_columns);
        Table spare(_database.getHandle(), "spare", test::all_type_columns);
        tryVersion();
        tryExistence(table);
        tryReads(table);
        tryKeys(table);
        expectDone("transactionBegin", _database.transactionBegin());
        tryWrites(table);
        expectDone("transactionRollback", _database.transactionRollback());
        tryWrites(table);
        tryBackup(spare, table);
        expectDone("query", table.query("pragma integrity_check"));
        expectDone("truncate", table.truncate());
        expectDone("remove", table.remove());
        tryExistence(table);
    }

private:
    void tryVersion()
    {
        expectNumber("getUserVersion", _database.getUserVersion());
        const bool done = _database.setUserVersion(7);
        expectEqual("what setUserVersion reports", letters(), std::string(done ? "" : "o"));
    }

    // A table that cannot be looked for counts as one that exists.
    void tryExistence(Table& table)
    {
        const bool exists = table.exists();
        const std::string found = letters();
        if (found != "ne" && found != "e")
            expectEqual("what exists reports", found, std::string());
        else
            expectEqual("exists", exists, true);

        const bool created = table.create();
        expectEqual("what create reports", letters(), created ? found : std::string("r"));
    }

    void tryReads(Table& table)
    {
        expectNumber("totalRecordCount", table.totalRecordCount());
        expectDone("open", table.open());
        expectHeld(table);
        expectDone("open", table.open("price > 1 and name > 'b'", "name, at desc"));
        expectHeld(table);
    }

    void tryKeys(Table& table)
    {
        for (const sql::integer key : {sql::integer{-1}, sql::integer{2}, sql::integer{1} << 40}) {
            const bool has = table.hasRecordWithKeyId(key);
            const std::string asked = letters();
            if (has || asked != "n")
                expectEqual("what hasRecordWithKeyId reports", asked, std::string());
            const Record* const record = table.getRecordByKeyId(key);
            const std::string read = letters();
            if (record != nullptr || read != "r")
                expectEqual("what getRecordByKeyId reports", read, std::string());
            expectHeld(table);
        }
    }

    void tryWrites(Table& table)
    {
        Record record(*table.fields());
        record.setString("name", std::string(600, 'n')); // more than a page
        record.setDouble("price", 2.5);
        expectDone("addRecord", table.addRecord(record));
        record.setInteger("id", 2);
        expectDone("updateRecord", table.updateRecord(record));
        record.setInteger("id", 3);
        const bool written = table.addOrUpdateRecord(sql::integer{3}, record);
        const std::string asked = letters();
        const std::string failure = written ? "" : "r";
        if (asked != "n" + failure)
            expectEqual("what addOrUpdateRecord reports", asked, failure);
        expectDone("deleteRecord", table.deleteRecord(sql::integer{1}));
        expectDone("deleteRecords", table.deleteRecords("sold = 1"));
    }

    // Many statements, and counts that differ without a report.
    void tryBackup(Table& spare, Table& table)
    {
        const bool done = spare.backup(table);
        const std::string found = letters();
        if (done && found.find('n') == std::string::npos)
            expectEqual("what backup reports", found.find_last_not_of('r'), std::string::npos);
        expectHeld(table);
    }

    void expectDone(const char* what, bool done)
    {
        const std::string found = letters();
        expectEqual(what, found, std::string(done ? "" : "r"));
    }

    void expectNumber(const char* what, int number)
    {
        expectEqual(what, letters(), std::string(number >= 0 ? "" : "n"));
        if (number < 0)
            expectEqual(what, number, -1);
    }

    void expectHeld(Table& table)
    {
        for (int i = 0; i < table.recordCount(); ++i) {
            const Record& record = *table.getRecord(i);
            expectEqual("a row's number of cells", record.columnCount(), table.fields()->count());
            for (int j = 0; j < record.columnCount(); ++j)
                expectEqual("a cell's type", record.getValue(j)->getType(),
                            table.fields()->getByIndex(j)->getType());
        }
    }

    // What an operation came to is its reports' kinds and results, without names and texts.
    std::string letters()
    {
        const Events lines = _reports.take();
        std::string outcome = std::to_string(_operations++) + lettersOf(lines);
        for (const std::string& line : lines)
            outcome += startsWith(line, "[ERROR]  ") ? line.substr(0, line.find(':')) : "";
        reported[std::hash<std::string>()(outcome) % sizeof reported] = 1;
        return lettersOf(lines);
    }

    Reports _reports;
    sql::Database _database;
    int _operations = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Run(data, size).all();
    return 0;
}
