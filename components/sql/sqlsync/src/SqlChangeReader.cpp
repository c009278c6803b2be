#include "SqlChangeReader.h"

#include "SqlFailure.h"
#include "SqlSchema.h"

#include <sqlite3.h>

#include <cmath>
#include <cstring>

namespace sql {

namespace {

constexpr const char* ends_early = "the change set is cut off";

std::uint64_t bigEndian(std::string_view bytes)
{
    std::uint64_t number = 0;
    for (const char byte : bytes)
        number = number << 8 | static_cast<unsigned char>(byte);
    return number;
}

double realOf(std::uint64_t bits)
{
    double real = 0;
    static_assert(sizeof real == sizeof bits);
    std::memcpy(&real, &bits, sizeof real);
    return real;
}

const ChangeValue& valueAt(const std::vector<ChangeValue>& row, std::size_t column)
{
    static const ChangeValue none;
    return column < row.size() ? row[column] : none;
}

} // namespace

ChangeReader::ChangeReader(const Envelope& envelope, std::string_view bytes)
    : _envelope(envelope), _bytes(bytes), _isRead(envelope.tables.size())
{
}

bool ChangeReader::next()
{
    if (advance())
        return true;
    const string why(std::exchange(_reason, string()));
    if (!why.empty())
        _error = failed("next", SQLITE_CORRUPT, why);
    return false;
}

const SyncTable& ChangeReader::table() const
{
    return *_table;
}

ChangeKind ChangeReader::kind() const
{
    return _kind;
}

bool ChangeReader::isIndirect() const
{
    return _isIndirect;
}

const ChangeValue& ChangeReader::oldValue(std::size_t column) const
{
    return valueAt(_old, column);
}

const ChangeValue& ChangeReader::newValue(std::size_t column) const
{
    return valueAt(_new, column);
}

const Error& ChangeReader::error() const
{
    return _error;
}

// --- Reading -------------------------------------------------------------------------------------

bool ChangeReader::advance()
{
    if (_isEnded)
        return false;
    bool isRead = _isChecked || check();
    while (isRead && _at < _bytes.size() && _bytes[_at] == 'T')
        isRead = readTable();
    isRead = isRead && _at < _bytes.size() && readChange();
    _isEnded = !isRead;
    return isRead;
}

bool ChangeReader::check()
{
    _isChecked = true;
    if (_bytes.size() != _envelope.size)
        _reason = joined({"the change set has ", intToStr(static_cast<integer>(_bytes.size())),
                          " bytes instead of ", intToStr(static_cast<integer>(_envelope.size))});
    else if (checksumOf(_bytes) != _envelope.checksum)
        _reason = "the change set's checksum is wrong";
    return _reason.empty();
}

// SQLite would skip a table that is not the one described, and tell nobody.
bool ChangeReader::readTable()
{
    const std::size_t start = _at++;
    std::size_t count = 0;
    std::string_view key;
    if (!readLength(count) || !readBytes(count, key))
        return false;
    const std::size_t end = _bytes.find('\0', _at);
    if (end == std::string_view::npos)
        return fail(_at, ends_early);
    const std::string_view name = _bytes.substr(_at, end - _at);
    _at = end + 1;

    std::size_t index = 0;
    while (index < _envelope.tables.size() && _envelope.tables[index].name != name)
        ++index;
    if (index == _envelope.tables.size())
        return fail(start, "the header has no such table");
    if (_isRead[index])
        return fail(start, "the table comes twice");
    _isRead[index] = true;
    _table = &_envelope.tables[index];
    if (_table->columns.size() != count)
        return fail(start, "the table has another number of columns in the header");
    for (std::size_t i = 0; i < count; ++i) {
        if (static_cast<unsigned char>(key[i]) != _table->columns[i].keyOrdinal)
            return fail(start, "the table has another key in the header");
    }
    return true;
}

bool ChangeReader::readChange()
{
    const std::size_t start = _at;
    std::string_view mark;
    if (!readBytes(2, mark))
        return false;
    if (mark[0] == 'P')
        return fail(start, "a patch set does not tell former values");
    if (mark[0] != change_delete && mark[0] != change_insert && mark[0] != change_update)
        return fail(start, "there is no such operation");
    if (_table == nullptr)
        return fail(start, "there is no table before the change");
    if (mark[1] != 0 && mark[1] != 1)
        return fail(start + 1, "the mark of an indirect change is neither 0 nor 1");
    _kind = static_cast<ChangeKind>(mark[0]);
    _isIndirect = mark[1] == 1;
    _old.assign(_table->columns.size(), ChangeValue());
    _new.assign(_table->columns.size(), ChangeValue());
    if ((_kind != change_insert && !readRow(_old)) || (_kind != change_delete && !readRow(_new)))
        return false;
    const char* const why = _kind == change_update ? whyNotUpdate() : whyNotWhole();
    return why == nullptr || fail(start, why);
}

bool ChangeReader::readRow(std::vector<ChangeValue>& row)
{
    for (ChangeValue& value : row) {
        if (!readValue(value))
            return false;
    }
    return true;
}

bool ChangeReader::readValue(ChangeValue& value)
{
    const std::size_t start = _at;
    std::string_view bytes;
    if (!readBytes(1, bytes))
        return false;
    if (bytes[0] < change_undefined || bytes[0] > change_null)
        return fail(start, "there is no such type of value");
    value.type = static_cast<ChangeType>(bytes[0]);
    if (value.type == change_undefined || value.type == change_null)
        return true;
    if (value.type == change_text || value.type == change_block) {
        std::size_t length = 0;
        return readLength(length) && readBytes(length, value.bytes);
    }
    if (!readBytes(8, bytes))
        return false;
    if (value.type == change_integer)
        value.number = static_cast<integer>(bigEndian(bytes));
    else
        value.real = realOf(bigEndian(bytes));
    return !std::isnan(value.real) || fail(start, "a real is not a number");
}

// Seven bits in a byte, the highest first, in as few bytes as there can be: up to five here.
bool ChangeReader::readLength(std::size_t& length)
{
    const std::size_t start = _at;
    std::uint64_t number = 0;
    std::string_view byte;
    do {
        if (!readBytes(1, byte))
            return false;
        number = number << 7 | (static_cast<unsigned char>(byte[0]) & 0x7fU);
        if (number == 0 && byte[0] != 0)
            return fail(start, "a length is longer than it has to be");
    } while ((static_cast<unsigned char>(byte[0]) & 0x80U) != 0 && _at - start < 5);
    if ((static_cast<unsigned char>(byte[0]) & 0x80U) != 0 || number > _bytes.size() - _at)
        return fail(start, "a length goes beyond the end");
    length = static_cast<std::size_t>(number);
    return true;
}

bool ChangeReader::readBytes(std::size_t size, std::string_view& bytes)
{
    if (size > _bytes.size() - _at)
        return fail(_at, ends_early);
    bytes = _bytes.substr(_at, size);
    _at += size;
    return true;
}

// --- What a change has to tell -------------------------------------------------------------------

const char* ChangeReader::whyNotWhole() const
{
    const std::vector<ChangeValue>& row = _kind == change_insert ? _new : _old;
    for (std::size_t i = 0; i < row.size(); ++i) {
        if (row[i].type == change_undefined)
            return "a value is missing";
        if (row[i].type == change_null && _table->columns[i].keyOrdinal != 0)
            return "the key is null";
    }
    return nullptr;
}

const char* ChangeReader::whyNotUpdate() const
{
    bool isChanged = false;
    for (std::size_t i = 0; i < _old.size(); ++i) {
        const bool wasTold = _old[i].type != change_undefined;
        const bool isTold = _new[i].type != change_undefined;
        const bool isKey = _table->columns[i].keyOrdinal != 0;
        if (isKey && isTold)
            return "an update changes the key";
        if (isKey && _old[i].type == change_null)
            return "the key is null";
        if (isKey ? !wasTold : wasTold != isTold)
            return "a value is missing";
        isChanged = isChanged || isTold;
    }
    return isChanged ? nullptr : "an update changes nothing";
}

bool ChangeReader::fail(std::size_t at, const char* why)
{
    _reason = joined({"byte ", intToStr(static_cast<integer>(at)), ": ", why});
    return false;
}

string whyNotChanges(const Envelope& envelope, std::string_view bytes, integer& count,
                     std::vector<bool>& isTouched)
{
    ChangeReader reader(envelope, bytes);
    while (reader.advance())
        ++count;
    isTouched = std::move(reader._isRead);
    return reader._reason;
}

} // namespace sql
