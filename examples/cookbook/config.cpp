// Settings that belong together: changed all at once or not at all, while other programs change them
// too.
//
//     config DATABASE

#include "SqlPreparedTable.h"

#include <cstdio>
#include <cstdlib>

namespace {

constexpr int busy_timeout_ms = 1000;       // for reading
constexpr std::chrono::seconds patience(5); // for changes

const sql::Field columns[] = {
    sql::Field("name", sql::type_text, sql::flag_primary_key | sql::flag_not_null),
    sql::Field("value", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "config: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

class Settings {
public:
    explicit Settings(sql::Database& database)
        : _database(database), _table(database.getHandle(), "setting", columns),
          _prepared(database, _table), _row(*_table.fields())
    {
    }

    // Of several programs that start at once, one makes the table.
    bool create()
    {
        return change([this] {
            return _table.create() || fail("make the table", sql::lastError(_database));
        });
    }

    // A setting that is not stored leaves `value` as it is: put the default there.
    bool get(const sql::string& name, sql::string& value)
    {
        const sql::Result<bool> found = _prepared.readRecord(name, _row);
        if (found)
            value = _row.getValue("value")->asString();
        return !found.failed() || fail("read", found.error());
    }

    bool set(const sql::string& name, const sql::string& value)
    {
        _row.setString("name", name);
        _row.setString("value", value);
        return _prepared.addOrUpdateRecord(_row) || fail("write", _prepared.error());
    }

    // Waits for other programs, then keeps them from writing: what `work` reads is still true when
    // it writes. Whoever gets true may lose power: all is on the disk.
    template <typename Work> bool change(const Work& work)
    {
        const sql::Result<bool> done = sql::inTransaction(_database, work, patience);
        return done || (done.failed() && fail("change the settings", done.error()));
    }

private:
    sql::Database& _database;
    sql::Table _table;
    sql::PreparedTable _prepared;
    sql::Record _row;
};

bool print(Settings& settings)
{
    sql::string address = "none";
    sql::string gateway = "none";
    sql::string changes = "0";
    if (!settings.get("address", address) || !settings.get("gateway", gateway)
        || !settings.get("changes", changes))
        return false;
    std::printf("address %s, gateway %s, changes: %s\n", address.c_str(), gateway.c_str(),
                changes.c_str());
    return true;
}

bool move(Settings& settings)
{
    return settings.change([&settings] {
        sql::string changes = "0";
        if (!settings.get("changes", changes))
            return false;
        changes = sql::intToStr(std::strtoll(changes.c_str(), nullptr, 10) + 1);
        return settings.set("address", "192.168.0.2") && settings.set("gateway", "192.168.0.1")
               && settings.set("changes", changes);
    });
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: config DATABASE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms)) {
        fail("open the database", sql::lastError(database));
        return 1;
    }
    Settings settings(database);
    return settings.create() && print(settings) && move(settings) ? 0 : 1;
}
