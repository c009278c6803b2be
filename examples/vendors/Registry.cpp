#include "Registry.h"

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
    _prepared.reset(); // its statements keep the database open
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
    if (!_table.initTable(_database.getHandle(), block_columns))
        return false;
    _prepared.emplace(_database, _table);
    return true;
}

bool Registry::check()
{
    int number = 0;
    if (!version(number))
        return false;
    if (number != schema_version || !_table.exists())
        return fail(not_ours);
    return true;
}

bool Registry::prepare()
{
    int number = 0;
    if (!version(number))
        return false;
    const char* const everything = "select count(*) from sqlite_master";
    if (number != 0 || sql::queryNumber(_database.getHandle(), everything) != 0)
        return check();
    if (!_table.create() || !_database.setUserVersion(schema_version))
        return fail(not_writable);
    return true;
}

bool Registry::begin()
{
    // Unlike transactionBegin() this waits for a program that writes, and keeps all others from it.
    if (!_table.query("begin immediate"))
        return fail(_database.getUserVersion() < 0 ? not_readable : not_writable);
    _hasBegun = true;
    return true;
}

bool Registry::beginReading()
{
    if (!_database.transactionBegin())
        return fail(not_readable);
    _hasBegun = true;
    return true;
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
    if (!_prepared->addOrUpdateRecord(recordOf(block)))
        return fail(not_writable);
    return true;
}

bool Registry::find(const std::string& digits, std::optional<Block>& found)
{
    sql::Record record(*_table.fields());
    const sql::Result<bool> isThere = _prepared->readRecord(keyOf(digits), record);
    if (isThere.failed())
        return fail(not_readable);
    found.reset();
    if (isThere)
        found = blockOf(record);
    return true;
}

// The smallest block has most digits.
bool Registry::findAddress(const std::string& digits, std::optional<Block>& found)
{
    // No import comes in between, after which there may be other blocks.
    const sql::Transaction reading(_database, sql::begin_deferred);
    if (!reading.isOpen())
        return fail(not_readable);
    for (const std::size_t size : {9, 7, 6}) {
        if (!find(digits.substr(0, size), found))
            return false;
        if (found)
            return true;
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

bool Registry::update(const Block& block)
{
    if (!_table.updateRecord(recordOf(block)))
        return fail(not_writable);
    return true;
}

bool Registry::remove(const std::string& digits)
{
    if (!_table.deleteRecord(keyOf(digits)))
        return fail(not_writable);
    return true;
}

bool Registry::copyFrom(Registry& source)
{
    int number = 0;
    if (!source.version(number))
        return fail(source.error());
    // backup() carries on with a table that it cannot drop. Such a failure may have ended the
    // transaction, and rows would then be added for good: the table is dropped here.
    if (!_table.remove() || !_table.backup(source._table)
        || !_database.setUserVersion(static_cast<unsigned int>(number)))
        return fail(not_writable);
    return true;
}

bool Registry::count(int& blocks)
{
    blocks = _table.totalRecordCount();
    if (blocks < 0)
        return fail(not_readable);
    return true;
}

bool Registry::version(int& version)
{
    version = _database.getUserVersion();
    if (version < 0)
        return fail(not_readable);
    return true;
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

sql::Record Registry::recordOf(const Block& block) const
{
    sql::Record record(*_table.fields());
    record.setInteger("id", keyOf(block.assignment));
    record.setString("registry", block.registry);
    record.setString("assignment", block.assignment);
    record.setString("name", block.name);
    record.setString("address", block.address);
    return record;
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
