// A settings store: names and values that outlast a restart and a power failure.
//
//     settings DATABASE

#include "SqlDatabase.h"
#include "SqlTable.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr int busy_timeout_ms = 2000;

// The key is an integer although names would do: rows are updated by integer key.
const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null | sql::flag_unique),
    sql::Field("value", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

class Settings {
public:
    Settings() : _table("setting")
    {
    }

    bool open(const char* file)
    {
        if (!_database.open(file, sql::Database::access_create, false, busy_timeout_ms))
            return false;
        // This reads the file, which open() does not: create() takes a table that it cannot look
        // for as there.
        if (_database.getUserVersion() < 0)
            return false;
        return _table.initTable(_database.getHandle(), columns) && _table.create();
    }

    // False when the store cannot be read. A setting that is not stored leaves `value` as it is:
    // put the default there.
    bool get(const sql::string& name, sql::string& value)
    {
        if (!find(name))
            return false;
        if (_table.recordCount() > 0)
            value = _table.getRecord(0)->getValue("value")->asString();
        return true;
    }

    // Whoever gets true may lose power: the value is on the disk.
    bool set(const sql::string& name, const sql::string& value)
    {
        if (!find(name))
            return false;
        if (sql::Record* const stored = _table.getTopRecord()) {
            stored->setString("value", value);
            return _table.updateRecord(*stored);
        }
        sql::Record added(*_table.fields()); // its key stays null: SQLite chooses one
        added.setString("name", name);
        added.setString("value", value);
        return _table.addRecord(added);
    }

private:
    bool find(const sql::string& name)
    {
        return _table.open("name = '" + sql::quoteStr(name) + "'");
    }

    sql::Database _database;
    sql::Table _table; // ends before the connection that it borrows
};

int fail(const char* what, const char* file)
{
    std::fprintf(stderr, "settings: %s %s\n", what, file);
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: settings DATABASE\n", stderr);
        return 2;
    }
    Settings settings;
    if (!settings.open(argv[1]))
        return fail("cannot open", argv[1]);

    sql::string owner = "nobody";
    sql::string starts = "0";
    if (!settings.get("owner", owner) || !settings.get("starts", starts))
        return fail("cannot read", argv[1]);
    std::printf("owner: %s, starts so far: %s\n", owner.c_str(), starts.c_str());

    starts = sql::intToStr(std::strtoll(starts.c_str(), nullptr, 10) + 1);
    if (!settings.set("owner", "O'Neill") || !settings.set("starts", starts))
        return fail("cannot write", argv[1]);
    return 0;
}
