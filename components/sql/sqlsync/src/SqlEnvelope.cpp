#include "SqlEnvelope.h"

#include "SqlFailure.h"
#include "SqlSchema.h"

#include <sqlite3.h>

#include <algorithm>
#include <climits>

namespace sql {

namespace {

constexpr std::string_view magic = "SQLSYNC1";
constexpr std::size_t longest_header = 1 << 20;
constexpr std::size_t frame_size = 20; // the magic, the length of the header and its checksum
constexpr std::size_t most_columns = 32767;
constexpr int most_key_columns = 255; // whose places in the key are bytes of a change set

constexpr const char* cut_off = "the header is cut off";
constexpr const char* lengths_differ = "the header's lengths do not add up";
constexpr const char* positions_differ = "the header's positions are not in order";

// --- Writing -------------------------------------------------------------------------------------

void put(string& bytes, std::uint64_t number, int width)
{
    for (int i = 0; i < width; ++i)
        bytes += static_cast<char>(number >> 8 * i & 0xff);
}

void putText(string& bytes, std::string_view text)
{
    put(bytes, text.size(), 4);
    bytes += text;
}

void putPosition(string& bytes, const SyncPosition& position)
{
    put(bytes, static_cast<std::uint64_t>(position.incarnation), 8);
    put(bytes, static_cast<std::uint64_t>(position.number), 8);
}

// --- Reading -------------------------------------------------------------------------------------

// Fields from the start of bytes; zeros and empty texts once they do not suffice.
class Fields {
public:
    explicit Fields(std::string_view bytes) : _left(bytes)
    {
    }

    std::uint64_t number(std::size_t width)
    {
        std::uint64_t number = 0;
        const std::string_view bytes = take(width);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            number |= static_cast<std::uint64_t>(static_cast<unsigned char>(bytes[i])) << 8 * i;
        return number;
    }
    std::string_view text()
    {
        return take(number(4));
    }
    SyncPosition position()
    {
        const auto incarnation = static_cast<integer>(number(8));
        return {incarnation, static_cast<integer>(number(8))};
    }

    std::string_view rest() const
    {
        return _left;
    }
    bool suffice() const
    {
        return _suffice;
    }

private:
    std::string_view take(std::uint64_t size)
    {
        _suffice = _suffice && size <= _left.size();
        if (!_suffice)
            return {};
        const std::string_view taken = _left.substr(0, static_cast<std::size_t>(size));
        _left.remove_prefix(taken.size());
        return taken;
    }

    std::string_view _left;
    bool _suffice = true;
};

// How many bytes the character at the start of a text has, 0 if it is none of UTF-8.
std::size_t characterSize(std::string_view text)
{
    const auto byte = [text](std::size_t at) {
        return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
    };
    const unsigned first = byte(0);
    if (first < 0x80)
        return 1;
    const std::size_t size = first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    std::uint32_t character = first & (0x7fU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xc0U) != 0x80)
            return 0;
        character = character << 6 | (byte(i) & 0x3fU);
    }
    const std::uint32_t lowest[] = {0x80, 0x800, 0x10000};
    const bool isSurrogate = character >= 0xd800 && character < 0xe000;
    const bool isOne = first >= 0xc0 && first < 0xf8 && character >= lowest[size - 2]
                       && character < 0x110000 && !isSurrogate;
    return isOne ? size : 0;
}

bool isUtf8(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t size = characterSize(text);
        if (size == 0)
            return false;
        text.remove_prefix(size);
    }
    return true;
}

bool isName(std::string_view text)
{
    return !text.empty() && text.find('\0') == std::string_view::npos;
}

const char* whyNotFrame(std::string_view header)
{
    if (header.size() > longest_header)
        return "the header is longer than 1048576 bytes";
    if (header.substr(0, magic.size()) != magic.substr(0, header.size()))
        return "the bytes are no header of a change set";
    if (header.size() < frame_size)
        return cut_off;
    const std::uint64_t length = Fields(header.substr(magic.size())).number(4);
    if (length > header.size())
        return cut_off;
    if (length < header.size())
        return "there are bytes behind the header";
    const std::string_view checked = header.substr(0, header.size() - 8);
    if (Fields(header.substr(checked.size())).number(8) != checksumOf(checked))
        return "the header's checksum is wrong";
    return nullptr;
}

// None, or a number above 0 of an incarnation.
bool isPosition(const SyncPosition& position)
{
    return position.number > 0 ? position.incarnation != 0 : position == SyncPosition();
}

const char* whyNotInOrder(const Envelope& envelope)
{
    const SyncPosition& previous = envelope.previous;
    const bool isInOrder = isPosition(previous) && isPosition(envelope.last)
                           && isPosition(envelope.dropped) && previous.number < envelope.last.number
                           && envelope.dropped.number <= previous.number;
    return isInOrder ? nullptr : positions_differ;
}

// The places are 1, 2 and so on, once each.
bool isKey(const std::vector<SyncColumn>& columns)
{
    std::vector<int> places;
    for (const SyncColumn& column : columns) {
        if (column.keyOrdinal != 0)
            places.push_back(column.keyOrdinal);
    }
    std::sort(places.begin(), places.end());
    int expected = 0;
    const bool isCounted = std::all_of(places.begin(), places.end(),
                                       [&expected](int place) { return place == ++expected; });
    return isCounted && expected > 0 && expected <= most_key_columns;
}

string whyNotDescribed(Fields& fields, SyncTable& table)
{
    table.name = fields.text();
    if (fields.suffice() && !isName(table.name))
        return "the name of a table is empty or has a zero byte in it";
    for (std::uint64_t left = fields.number(4); left > 0; --left) {
        SyncColumn column;
        column.name = fields.text();
        column.type = fields.text();
        const std::uint64_t ordinal = fields.number(4);
        const std::uint64_t isNotNull = fields.number(4);
        if (!fields.suffice())
            break;
        if (!isName(column.name))
            return joined({"table '", table.name,
                           "': the name of a column is empty or has a zero byte in it"});
        if (isNotNull > 1)
            return joined({"table '", table.name, "': column '", column.name,
                           "' has a mark other than 0 and 1"});
        column.keyOrdinal = static_cast<int>(std::min<std::uint64_t>(ordinal, INT_MAX));
        column.isNotNull = isNotNull == 1;
        table.columns.push_back(std::move(column));
    }
    if (!fields.suffice())
        return lengths_differ;
    if (table.columns.size() > most_columns)
        return joined({"table '", table.name, "': there are more than 32767 columns"});
    if (!isKey(table.columns))
        return joined({"table '", table.name, "': the columns of the key are not numbered from 1"});
    return string();
}

} // namespace

std::uint64_t checksumOf(std::string_view bytes)
{
    std::uint64_t sum = 0xcbf29ce484222325;
    for (const char byte : bytes)
        sum = (sum ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    return sum;
}

string encodeSchema(const std::vector<SyncTable>& tables)
{
    string bytes;
    put(bytes, tables.size(), 4);
    for (const SyncTable& table : tables) {
        putText(bytes, table.name);
        put(bytes, table.columns.size(), 4);
        for (const SyncColumn& column : table.columns) {
            putText(bytes, column.name);
            putText(bytes, column.type);
            put(bytes, static_cast<std::uint64_t>(column.keyOrdinal), 4);
            put(bytes, column.isNotNull ? 1 : 0, 4);
        }
    }
    return bytes;
}

string encode(const Envelope& envelope, std::string_view bytes)
{
    const string schema = encodeSchema(envelope.tables);
    string fields;
    putText(fields, envelope.device);
    putPosition(fields, envelope.previous);
    putPosition(fields, envelope.last);
    putPosition(fields, envelope.dropped);
    put(fields, checksumOf(schema), 8);
    put(fields, bytes.size(), 8);
    put(fields, checksumOf(bytes), 8);
    fields += schema;

    string header(magic);
    put(header, frame_size + fields.size(), 4);
    header += fields;
    put(header, checksumOf(header), 8);
    return header;
}

// Makes no table and no column before its bytes are there.
string whyNotSchema(std::string_view description, std::vector<SyncTable>& tables)
{
    Fields fields(description);
    const std::uint64_t count = fields.number(4);
    if (fields.suffice() && count == 0)
        return "the header has no table";
    for (std::uint64_t left = count; left > 0; --left) {
        SyncTable table;
        string why = whyNotDescribed(fields, table);
        if (!why.empty())
            return why;
        const auto isSame = [&table](const SyncTable& other) {
            return other.name == table.name;
        };
        if (std::any_of(tables.begin(), tables.end(), isSame))
            return joined({"table '", table.name, "': it comes twice"});
        tables.push_back(std::move(table));
    }
    return fields.suffice() && fields.rest().empty() ? "" : lengths_differ;
}

string whyNotEnvelope(std::string_view header, Envelope& envelope)
{
    if (const char* const why = whyNotFrame(header))
        return why;
    Fields fields(header.substr(0, header.size() - 8).substr(frame_size - 8));
    envelope.device = fields.text();
    envelope.previous = fields.position();
    envelope.last = fields.position();
    envelope.dropped = fields.position();
    envelope.schemaHash = fields.number(8);
    envelope.size = fields.number(8);
    envelope.checksum = fields.number(8);
    if (!fields.suffice())
        return lengths_differ;
    if (!isName(envelope.device) || !isUtf8(envelope.device))
        return "the device's name is empty, has a zero byte in it or is no UTF-8";
    if (const char* const why = whyNotInOrder(envelope))
        return why;
    if (envelope.size > INT_MAX)
        return "the change set is longer than 2147483647 bytes";
    if (envelope.schemaHash != checksumOf(fields.rest()))
        return "the checksum of the tables is wrong";
    return whyNotSchema(fields.rest(), envelope.tables);
}

Error failed(const char* operation, int rc, const string& cause)
{
    reportFailure(operation, operation, rc, cause.c_str());
    return Error(rc, cause, operation);
}

Result<Envelope> readEnvelope(std::string_view header)
{
    Envelope envelope;
    const string why = whyNotEnvelope(header, envelope);
    if (!why.empty())
        return failed("readEnvelope", SQLITE_CORRUPT, why);
    return envelope;
}

Result<integer> checkChangeSet(const Envelope& envelope, std::string_view bytes)
{
    integer count = 0;
    std::vector<bool> isTouched;
    const string why = whyNotChanges(envelope, bytes, count, isTouched);
    if (!why.empty())
        return failed("checkChangeSet", SQLITE_CORRUPT, why);
    return count;
}

// --- Order ---------------------------------------------------------------------------------------

const char* const retired = "the device's incarnation was retired when another was admitted";

// Of the very last set the bytes have to be the same, unless it was passed over.
bool hasCome(const Envelope& envelope, const SyncMark& mark)
{
    const bool isLast = envelope.last == mark.position && mark.checksum != 0;
    const bool isSame = !isLast || static_cast<integer>(envelope.checksum) == mark.checksum;
    return mark.isKnown && isSame;
}

Result<bool> isTurn(const char* operation, const Envelope& envelope, const SyncMark& mark)
{
    if (hasCome(envelope, mark))
        return false;
    if (mark.isRetired)
        return failed(operation, SQLITE_AUTH, retired);
    const integer next = mark.position.number + 1;
    const integer before = envelope.previous.number;
    if (before >= next && envelope.dropped != envelope.previous)
        return failed(
            operation, SQLITE_NOTFOUND,
            joined({"the commits ", intToStr(next), " to ", intToStr(before), " are missing"}));
    if (before < next && envelope.previous != mark.position)
        return failed(operation, SQLITE_AUTH,
                      joined({"the device went back to ", intToStr(before),
                              " (restored from a backup), or another device has its name"}));
    return true;
}

Result<bool> isNext(const Envelope& envelope, const SyncMark& mark)
{
    return isTurn("isNext", envelope, mark);
}

} // namespace sql
