#include "Registry.h"

#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr int schema_version = 1;
constexpr int busy_timeout_ms = 5000;

const sql::Field block_columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
    sql::Field("registry", sql::type_text, sql::flag_not_null),
    sql::Field("assignment", sql::type_text, sql::flag_not_null),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field("address", sql::type_text, sql::flag_not_null),
    sql::Field(),
};

// Where SQLite lists what a database has; only its rows are counted here.
const char* const catalogue = "sqlite_master";

const char* const not_ours = "is not a database made by vendors";
const char* const not_readable = "cannot be read: no database, damaged, or locked";
const char* const not_writable = "cannot be written: disk full, read-only, damaged, or locked";

// The digits with a one in front, which tells 00000A from 000000A: blocks of all sizes share a table.
sql::integer keyOf(const std::string& digits)
{
    return std::stoll("1" + digits, nullptr, 16);
}

std::string textOf(const sql::Record& record, const char* column)
{
    return record.getValue(column)->asString();
}

Block blockOf(const sql::Record& record)
{
    return {textOf(record, "registry"), textOf(record, "assignment"), textOf(record, "name"),
            textOf(record, "address")};
}

// A pattern that matches the texts which contain this one, read literally with escape '\'.
std::string patternOf(const std::string& text)
{
    std::string pattern = "%";
    for (const char byte : text) {
        if (byte == '%' || byte == '_' || byte == '\\')
            pattern += '\\';
        pattern += byte;
    }
    return pattern + "%";
}

} // namespace

Registry::Registry() : _table("block")
{
}

Registry::~Registry()
{
    if (_hasBegun)
        rollBack();
    _database.close();
    std::error_code ignored;
    if (_isNew && fs::is_empty(_file, ignored))
        fs::remove(_file, ignored);
}

bool Registry::open(const std::string& file, sql::Database::AccessMode mode)
{
    std::error_code ignored;
    const bool isMissing = !fs::exists(file, ignored);
    _file = file;
    _isNew = isMissing && mode == sql::Database::access_create;

    // The absolute path, because SQLite has uses of its own for names such as ":memory:".
    const fs::path path = fs::absolute(file, ignored);
    if (!_database.open(path.string(), mode, false, busy_timeout_ms)) {
        if (_isNew)
            return fail("cannot be created");
        return fail(isMissing ? "does not exist" : "cannot be opened");
    }
    return _table.initTable(_database.getHandle(), block_columns);
}

bool Registry::check()
{
    int number = 0;
    if (!version(number))
        return false;
    return (number == schema_version && _table.exists()) || fail(not_ours);
}

bool Registry::prepare()
{
    int number = 0;
    if (!version(number))
        return false;
    const sql::FieldSet noColumns((std::vector<sql::Field>()));
    const sql::Table everything(_database.getHandle(), catalogue, noColumns);
    if (number != 0 || everything.totalRecordCount() != 0)
        return check();
    const bool isMade = _table.create() && _database.setUserVersion(schema_version);
    return isMade || fail(not_writable);
}

bool Registry::begin()
{
    _hasBegun = _database.transactionBegin();
    return _hasBegun || fail(not_readable);
}

bool Registry::commit()
{
    if (!_database.transactionCommit())
        return fail(not_writable);
    _hasBegun = false;
    return true;
}

bool Registry::put(const Block& block)
{
    const sql::integer key = keyOf(block.assignment);
    sql::Record record(*_table.fields());
    record.setInteger("id", key);
    record.setString("registry", block.registry);
    record.setString("assignment", block.assignment);
    record.setString("name", block.name);
    record.setString("address", block.address);
    // Not addOrUpdateRecord(): on a full disk its question whether there is such a row can fail, and
    // end the transaction with that. It takes this for a no, and the row would be added for good.
    return (_table.deleteRecord(key) && _table.addRecord(record)) || fail(not_writable);
}

bool Registry::find(const std::string& digits, std::optional<Block>& found)
{
    found.reset();
    const sql::integer key = keyOf(digits);
    if (const sql::Record* const record = _table.getRecordByKeyId(key)) {
        found = blockOf(*record);
        return true;
    }
    // No record may mean no row or a failed read; open() tells which.
    return _table.open("id = " + sql::intToStr(key)) || fail(not_readable);
}

bool Registry::findAddress(const std::string& digits, std::optional<Block>& found)
{
    for (const std::size_t size : {9, 7, 6}) {
        if (!find(digits.substr(0, size), found))
            return false;
        if (found)
            break;
    }
    return true;
}

bool Registry::search(const std::string& text, std::vector<Block>& found)
{
    const std::string condition = "name like '" + sql::quoteStr(patternOf(text)) + "' escape '\\'";
    if (!_table.open(condition, "name, assignment"))
        return fail(not_readable);
    for (int i = 0; i < _table.recordCount(); ++i)
        found.push_back(blockOf(*_table.getRecord(i)));
    return true;
}

bool Registry::rename(const std::string& digits, const std::string& name)
{
    const sql::Record* const old = _table.getRecordByKeyId(keyOf(digits));
    if (old == nullptr)
        return fail(not_readable);
    sql::Record record(old);
    record.setString("name", name);
    return _table.updateRecord(record) || fail(not_writable);
}

bool Registry::remove(const std::string& digits)
{
    return _table.deleteRecord(keyOf(digits)) || fail(not_writable);
}

bool Registry::copyFrom(Registry& source)
{
    int number = 0;
    if (!source.version(number))
        return fail(source.error());
    // backup() carries on with a table that it cannot drop. Such a failure may have ended the
    // transaction, and rows would then be added for good: the table is dropped here.
    const bool isCopied = _table.remove() && _table.backup(source._table)
                          && _database.setUserVersion(static_cast<unsigned int>(number));
    return isCopied || fail(not_writable);
}

bool Registry::count(int& blocks)
{
    blocks = _table.totalRecordCount();
    return blocks >= 0 || fail(not_readable);
}

bool Registry::version(int& version)
{
    version = _database.getUserVersion();
    return version >= 0 || fail(not_readable);
}

std::vector<std::string> Registry::columns() const
{
    std::vector<std::string> lines;
    sql::listToVector(_table.toString(), lines, "\r\n");
    return lines;
}

const std::string& Registry::error() const
{
    return _error;
}

void Registry::rollBack()
{
    // A failed write may have ended the transaction already, so a failure is no news here. SQLite
    // then restores the file with the next read, for which the version serves.
    _database.transactionRollback();
    _database.getUserVersion();
}

bool Registry::fail(const std::string& text)
{
    _error = _file + ": " + text;
    return false;
}
