// Every operation on a database whose file is the input: none may crash or go on for ever, and each
// gives and reports what plain SQLite makes of its statements.

#include "Records.h"
#include "Sides.h"

#include "SqlRecord.h"

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace {

using sql::integer;
using sql::Record;

constexpr int longest_cell = 100000;

// No sound database of an input's size needs so many for one statement.
constexpr int most_steps = 100000;

// SQLite is not built for the fuzzer, which finds new ground by what is reported instead: it looks
// at this section of a program too.
__attribute__((section("__libfuzzer_extra_counters"), used)) std::uint8_t reported[4096];

// Whether no cell of the first page begins so near to its end that its size and key may lie beyond.
bool hasSoundCells(const std::uint8_t* data, std::size_t size)
{
    const auto at = [=](int place) {
        return static_cast<std::size_t>(place) + 1 < size ? data[place] * 256 + data[place + 1] : 0;
    };
    const int page = at(16) == 1 ? 65536 : at(16);
    // Those of an inner page stand four bytes further.
    const int cells = page < 512 ? 0 : at(103) + 2;
    for (int i = 0; i < cells; ++i) {
        if ((at(108 + 2 * i) & (page - 1)) > page - 22)
            return false;
    }
    return true;
}

// The database is in memory: SQLite reads it as it would the file. A cell that reaches beyond its page
// would be read on into SQLite's own memory, with addresses in it that differ from side to side. SQLite
// looks for such cells when it reads a page, but not at one that it still holds: so it holds the first
// alone.
void load(sqlite3* db, const std::uint8_t* data, std::size_t size)
{
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, longest_cell);
    sqlite3_progress_handler(
        db, most_steps, [](void*) { return 1; }, nullptr);
    unsigned char* const file = static_cast<unsigned char*>(sqlite3_malloc64(size + 1));
    if (size > 0)
        std::memcpy(file, data, size);
    const unsigned flags = SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_RESIZEABLE;
    const sqlite3_int64 bytes = static_cast<sqlite3_int64>(size);
    const int rc = sqlite3_deserialize(db, "main", file, bytes, bytes + 1, flags);
    fuzz::expectEqual("the result of sqlite3_deserialize", rc, SQLITE_OK);
    sqlite3_exec(db, "pragma cell_size_check = on; pragma cache_size = 1", nullptr, nullptr,
                 nullptr);
}

class Run {
public:
    Run(const std::uint8_t* data, std::size_t size)
    {
        load(_sides.library.database.getHandle(), data, size);
        load(_sides.plain.db, data, size);
    }

    void all()
    {
        tryBoth("getUserVersion", [](auto& side) { return side.getUserVersion(); });
        tryBoth("setUserVersion", [](auto& side) { return side.setUserVersion(7); });
        tryExistence();
        tryReads();
        tryBoth("transactionBegin", [](auto& side) { return side.transact("BEGIN"); });
        tryWrites();
        tryBoth("transactionRollback", [](auto& side) { return side.transact("ROLLBACK"); });
        tryWrites();
        tryBoth("backup", [](auto& side) { return side.tables[1].backup(side.tables[0]); });
        tryTable("query", [](auto& table) { return table.query("pragma integrity_check"); });
        tryTable("truncate", [](auto& table) { return table.truncate(); });
        tryTable("remove", [](auto& table) { return table.remove(); });
        tryExistence();
    }

private:
    void tryExistence()
    {
        tryTable("exists", [](auto& table) { return table.exists(); });
        tryTable("create", [](auto& table) { return table.create(); });
    }

    void tryReads()
    {
        tryTable("totalRecordCount", [](auto& table) { return table.totalRecordCount(); });
        tryTable("open", [](auto& table) { return table.open(); });
        tryTable("open", [](auto& table) {
            return table.open("price > 1 and name > 'b'", "name, at desc");
        });
        for (const integer key : {integer{-1}, integer{2}, integer{1} << 40}) {
            tryTable("hasRecordWithKeyId",
                     [=](auto& table) { return table.hasRecordWithKeyId(key); });
            tryTable("getRecordByKeyId",
                     [=](auto& table) { return fuzz::found(table.getRecordByKeyId(key)); });
        }
    }

    void tryWrites()
    {
        Record record(*_sides.library.tables[0].fields());
        record.setString("name", std::string(600, 'n')); // more than a page
        record.setDouble("price", 2.5);
        tryTable("addRecord", [&](auto& table) { return table.addRecord(record); });
        record.setInteger("id", 2);
        tryTable("updateRecord", [&](auto& table) { return table.updateRecord(record); });
        record.setInteger("id", 3);
        tryTable("addOrUpdateRecord",
                 [&](auto& table) { return table.addOrUpdateRecord(integer{3}, record); });
        tryTable("deleteRecord", [](auto& table) { return table.deleteRecord(integer{1}); });
        tryTable("deleteRecords", [](auto& table) { return table.deleteRecords("sold = 1"); });
    }

    template <typename Generic> void tryTable(const char* what, Generic operation)
    {
        tryBoth(what, [&](auto& side) { return operation(side.tables[0]); });
    }

    // What an operation came to is its reports' starts, without names and texts.
    template <typename Generic> void tryBoth(const char* what, Generic operation)
    {
        _sides.expectSame(what, operation);
        std::string outcome = std::to_string(_operations++);
        for (const std::string& line : _sides.diagnostics.errors())
            outcome += line.substr(0, line.find_first_of(":'"));
        reported[std::hash<std::string>()(outcome) % sizeof reported] = 1;
    }

    fuzz::Sides _sides{"product", "spare"};
    int _operations = 0;
};

std::vector<sql::Field> allTypes()
{
    const sql::FieldSet columns = test::all_type_columns;
    std::vector<sql::Field> fields;
    fields.reserve(columns.count());
    for (int i = 0; i < columns.count(); ++i)
        fields.push_back(*columns.getByIndex(i));
    return fields;
}

// The same with bound values. Steps are counted by the statement: none is used twice.
void runPrepared(const std::uint8_t* data, std::size_t size)
{
    test::Diagnostics diagnostics;
    fuzz::Records records(diagnostics, "product", allTypes());
    load(records.library.getHandle(), data, size);
    load(records.plain.connection(), data, size);
    const auto tryAlone = [&](auto operation) {
        operation();
        records.release();
    };
    const test::Cells row = {"2", std::string(600, 'n'), "2.5", std::nullopt, "7"};
    const test::Cells other = {"3", std::nullopt, "0.1", "1", "7"};
    tryAlone([&] { records.check(); });
    tryAlone([&] { records.readAll(); });
    tryAlone([&] { records.copy(); });
    for (const integer key : {integer{-1}, integer{2}, integer{1} << 40}) {
        tryAlone([&] { records.has(key); });
        tryAlone([&] { records.read(key); });
    }
    tryAlone([&] { records.add(other); });
    tryAlone([&] { records.update(row); });
    tryAlone([&] { records.addOrUpdate(other); });
    tryAlone([&] { records.remove(integer{1}); });
    tryAlone([&] { records.readAll(); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (hasSoundCells(data, size)) {
        Run(data, size).all();
        runPrepared(data, size);
    }
    return 0;
}
