#include "SqlEnvelope.h"

#include "SqlChangeReader.h"

#include "ReportTest.h"
#include "Reports.h"
#include "Session.h"

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace {

namespace report = test::report;

using sql::ChangeReader;
using sql::Envelope;
using std::string;
using testing::ElementsAre;

static_assert(
    std::is_same_v<decltype(&sql::encode), string (*)(const Envelope&, std::string_view)>);
static_assert(
    std::is_same_v<decltype(&sql::readEnvelope), sql::Result<Envelope> (*)(std::string_view)>);
static_assert(std::is_same_v<decltype(&sql::checkChangeSet),
                             sql::Result<sql::integer> (*)(const Envelope&, std::string_view)>);
static_assert(std::is_same_v<decltype(&sql::isNext),
                             sql::Result<bool> (*)(const Envelope&, const sql::SyncMark&)>);
static_assert(std::is_same_v<decltype(&ChangeReader::next), bool (ChangeReader::*)()>);
static_assert(std::is_same_v<decltype(&ChangeReader::table),
                             const sql::SyncTable& (ChangeReader::*)() const>);
static_assert(
    std::is_same_v<decltype(&ChangeReader::kind), sql::ChangeKind (ChangeReader::*)() const>);
static_assert(std::is_same_v<decltype(&ChangeReader::isIndirect), bool (ChangeReader::*)() const>);
static_assert(std::is_same_v<decltype(&ChangeReader::oldValue),
                             const sql::ChangeValue& (ChangeReader::*)(std::size_t) const>);
static_assert(std::is_same_v<decltype(&ChangeReader::newValue),
                             const sql::ChangeValue& (ChangeReader::*)(std::size_t) const>);
static_assert(
    std::is_same_v<decltype(&ChangeReader::error), const sql::Error& (ChangeReader::*)() const>);
static_assert(
    !std::is_copy_constructible_v<ChangeReader> && !std::is_copy_assignable_v<ChangeReader>);

// As the page of the format says it.
std::uint64_t fnv1a(std::string_view bytes)
{
    std::uint64_t sum = 14695981039346656037ULL;
    for (const char byte : bytes)
        sum = (sum ^ static_cast<unsigned char>(byte)) * 1099511628211ULL;
    return sum;
}

string numberOf(std::uint64_t number, int width)
{
    string bytes;
    for (; width > 0; --width, number >>= 8)
        bytes += static_cast<char>(number & 0xff);
    return bytes;
}

string textOf(const string& text)
{
    return numberOf(text.size(), 4) + text;
}

// A header of these fields, with a length and a checksum that fit them.
string sealed(const string& fields)
{
    const string header = "SQLSYNC1" + numberOf(fields.size() + 20, 4) + fields;
    return header + numberOf(fnv1a(header), 8);
}

// The same, with those of a description of tables.
string described(const string& tables, const string& size = numberOf(0, 8))
{
    return sealed(textOf("d") + numberOf(0, 16) + numberOf(1, 8) + numberOf(1, 8) + numberOf(0, 16)
                  + numberOf(fnv1a(tables), 8) + size + numberOf(fnv1a(""), 8) + tables);
}

string columnOf(const string& name, const string& type, int ordinal, int isNotNull)
{
    return textOf(name) + textOf(type) + numberOf(static_cast<unsigned>(ordinal), 4)
           + numberOf(static_cast<unsigned>(isNotNull), 4);
}

string tableOf(const string& name, const std::vector<string>& columns)
{
    string bytes = textOf(name) + numberOf(columns.size(), 4);
    for (const string& column : columns)
        bytes += column;
    return bytes;
}

const sql::SyncTable product = {
    "product", {{"id", "integer", 1, false}, {"name", "text", 0, false}, {"price", "", 0, false}}};
const sql::SyncTable pair = {"pair", {{"left", "text", 2, true}, {"right", "blob", 1, true}}};

Envelope envelopeOf(std::string_view bytes = "")
{
    Envelope envelope;
    envelope.device = "device-17";
    envelope.previous = {0x0102030405060708, 7};
    envelope.last = {-2, 9};
    envelope.dropped = {3, 5};
    envelope.size = bytes.size();
    envelope.checksum = fnv1a(bytes);
    envelope.tables = {product, pair};
    return envelope;
}

class SqlEnvelopeTest : public test::ReportTest {
protected:
    // What a refusal says, and has reported.
    template <typename T> string refusal(const string& operation, const sql::Result<T>& result)
    {
        const sql::Error& error = result.error();
        EXPECT_FALSE(static_cast<bool>(result));
        if (!error)
            return "nothing";
        EXPECT_EQ(error.extendedCode(), SQLITE_CORRUPT);
        EXPECT_EQ(error.statement(), operation);
        expectReport(
            report::statementFailed(operation, operation, "11=SQLITE_CORRUPT: " + error.text()));
        return error.text();
    }
    string refusalOf(std::string_view header)
    {
        return refusal("readEnvelope", sql::readEnvelope(header));
    }
    string refusalOfSet(const Envelope& envelope, std::string_view bytes)
    {
        return refusal("checkChangeSet", sql::checkChangeSet(envelope, bytes));
    }
    // Of a set whose size and checksum are right, and whose first change is wrong: a reader says the same.
    string refusalOfSet(std::string_view bytes)
    {
        const Envelope envelope = envelopeOf(bytes);
        ChangeReader reader(envelope, bytes);
        EXPECT_FALSE(reader.next());
        const string why = refusal("next", sql::Result<int>(reader.error()));
        EXPECT_FALSE(reader.next());
        EXPECT_EQ(refusalOfSet(envelope, bytes), why);
        return why;
    }
};

// --- Headers -------------------------------------------------------------------------------------

TEST_F(SqlEnvelopeTest, HeaderHasTheseBytesOnEverySystem)
{
    Envelope envelope = envelopeOf("bytes");
    envelope.device = "d";
    const string tables = numberOf(2, 4)
                          + tableOf("product",
                                    {columnOf("id", "integer", 1, 0),
                                     columnOf("name", "text", 0, 0), columnOf("price", "", 0, 0)})
                          + tableOf("pair", {columnOf("left", "text", 2, 1),
                                             columnOf("right", "blob", 1, 1)});
    const string fields = string("\1\0\0\0d", 5) + string("\10\7\6\5\4\3\2\1\7\0\0\0\0\0\0\0", 16)
                          + string("\xfe\xff\xff\xff\xff\xff\xff\xff\11\0\0\0\0\0\0\0", 16)
                          + string("\3\0\0\0\0\0\0\0\5\0\0\0\0\0\0\0", 16)
                          + numberOf(fnv1a(tables), 8) + string("\5\0\0\0\0\0\0\0", 8)
                          + numberOf(fnv1a("bytes"), 8) + tables;
    EXPECT_EQ(sql::encode(envelope, "bytes"), sealed(fields));
}

TEST_F(SqlEnvelopeTest, ChecksumIsThatOfThePublishedAlgorithm)
{
    EXPECT_EQ(fnv1a(""), 0xcbf29ce484222325U);
    EXPECT_EQ(fnv1a("a"), 0xaf63dc4c8601ec8cU);
    EXPECT_EQ(fnv1a("foobar"), 0x85944171f73967e8U);
}

TEST_F(SqlEnvelopeTest, ReadsWhatWasEncoded)
{
    const Envelope envelope = envelopeOf("bytes");
    const sql::Result<Envelope> read = sql::readEnvelope(sql::encode(envelope, "bytes"));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->device, "device-17");
    EXPECT_TRUE(read->previous == envelope.previous);
    EXPECT_TRUE(read->last == envelope.last);
    EXPECT_TRUE(read->dropped == envelope.dropped);
    EXPECT_TRUE(read->last != envelope.previous);
    EXPECT_EQ(read->size, 5U);
    EXPECT_EQ(read->checksum, fnv1a("bytes"));
    ASSERT_EQ(read->tables.size(), 2U);
    EXPECT_EQ(read->tables[0].name, "product");
    ASSERT_EQ(read->tables[0].columns.size(), 3U);
    EXPECT_EQ(read->tables[0].columns[0].type, "integer");
    EXPECT_EQ(read->tables[0].columns[0].keyOrdinal, 1);
    EXPECT_FALSE(read->tables[0].columns[0].isNotNull);
    EXPECT_EQ(read->tables[0].columns[2].name, "price");
    EXPECT_EQ(read->tables[0].columns[2].type, "");
    EXPECT_EQ(read->tables[1].name, "pair");
    EXPECT_EQ(read->tables[1].columns[0].keyOrdinal, 2);
    EXPECT_TRUE(read->tables[1].columns[0].isNotNull);
    EXPECT_EQ(sql::encode(*read, "bytes"), sql::encode(envelope, "bytes"));
}

TEST_F(SqlEnvelopeTest, FirstSetOfADeviceHasNothingBeforeIt)
{
    Envelope envelope = envelopeOf();
    envelope.previous = envelope.dropped = sql::SyncPosition();
    envelope.device = "Gerät \xe2\x82\xac \xf0\x9f\x98\x80";
    const sql::Result<Envelope> read = sql::readEnvelope(sql::encode(envelope, ""));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->device, envelope.device);
    EXPECT_TRUE(read->previous == sql::SyncPosition());
}

TEST_F(SqlEnvelopeTest, EveryTruncatedHeaderIsRefused)
{
    const string header = sql::encode(envelopeOf(), "");
    for (std::size_t size = 0; size < header.size(); ++size)
        EXPECT_EQ(refusalOf(header.substr(0, size)), "the header is cut off") << size;
    EXPECT_EQ(header.size(), 255U);
    EXPECT_EQ(refusalOf(header + '\0'), "there are bytes behind the header");
    EXPECT_EQ(refusalOf(header + header), "there are bytes behind the header");
}

TEST_F(SqlEnvelopeTest, EveryFlippedBitOfAHeaderIsSeen)
{
    const string header = sql::encode(envelopeOf(), "");
    std::map<string, int> refusals;
    for (std::size_t at = 0; at < header.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            string flipped = header;
            flipped[at] = static_cast<char>(flipped[at] ^ 1 << bit);
            ++refusals[refusalOf(flipped)];
        }
    }
    // The length is 255: a flip of one of its lowest eight bits makes it smaller.
    const std::map<string, int> expected = {{"the bytes are no header of a change set", 64},
                                            {"the header is cut off", 24},
                                            {"there are bytes behind the header", 8},
                                            {"the header's checksum is wrong", 243 * 8}};
    EXPECT_EQ(refusals, expected);
}

TEST_F(SqlEnvelopeTest, OtherBytesAreNoHeader)
{
    EXPECT_EQ(refusalOf(""), "the header is cut off");
    EXPECT_EQ(refusalOf("x"), "the bytes are no header of a change set");
    EXPECT_EQ(refusalOf("SQLSYNC2 and more than twenty bytes"),
              "the bytes are no header of a change set");
    EXPECT_EQ(refusalOf(string(1 << 20, 'x')), "the bytes are no header of a change set");
    EXPECT_EQ(refusalOf(string((1 << 20) + 1, 'x')), "the header is longer than 1048576 bytes");
}

TEST_F(SqlEnvelopeTest, EachFieldHasToBeThere)
{
    const string header = sql::encode(envelopeOf(), "");
    const string fields = header.substr(12, header.size() - 20);
    std::map<string, int> refusals;
    for (std::size_t size = 0; size < fields.size(); ++size)
        ++refusals[refusalOf(sealed(fields.substr(0, size)))];
    const std::map<string, int> expected = {{"the header's lengths do not add up", 85},
                                            {"the checksum of the tables is wrong", 150}};
    EXPECT_EQ(refusals, expected);
}

TEST_F(SqlEnvelopeTest, EachPartOfTheTablesHasToBeThere)
{
    const string tables = numberOf(2, 4) + tableOf("product", {columnOf("id", "integer", 1, 0)})
                          + tableOf("pair", {columnOf("left", "text", 1, 1)});
    for (std::size_t size = 0; size < tables.size(); ++size)
        EXPECT_EQ(refusalOf(described(tables.substr(0, size))),
                  "the header's lengths do not add up")
            << size;
    EXPECT_EQ(refusalOf(described(tables + 'x')), "the header's lengths do not add up");
    EXPECT_TRUE(sql::readEnvelope(described(tables)));
}

// The encoding of a number of up to 21 bits in so many bytes, which may be more than it needs.
string encoded(std::uint32_t number, std::size_t size)
{
    static const int heads[] = {0, 0x00, 0xc0, 0xe0, 0xf0};
    string bytes(size, '\0');
    for (std::size_t i = size; i-- > 1; number >>= 6)
        bytes[i] = static_cast<char>(0x80 | (number & 0x3f));
    bytes[0] = static_cast<char>(heads[size] | static_cast<int>(number));
    return bytes;
}

std::size_t sizeOf(std::uint32_t character)
{
    return character < 0x80 ? 1 : character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
}

TEST_F(SqlEnvelopeTest, DevicesNameMayHaveEveryCharacter)
{
    Envelope envelope = envelopeOf();
    envelope.device.clear();
    for (std::uint32_t character = 1; character < 0x110000; ++character) {
        if (character < 0xd800 || character > 0xdfff)
            envelope.device += encoded(character, sizeOf(character));
        if (envelope.device.size() < 900000 && character < 0x10ffff)
            continue;
        const auto read = sql::readEnvelope(sql::encode(envelope, ""));
        ASSERT_TRUE(read) << character;
        EXPECT_TRUE(read->device == envelope.device) << character;
        envelope.device.clear();
    }
}

TEST_F(SqlEnvelopeTest, DevicesNameHasEachCharacterInItsShortestForm)
{
    const char no_device[] = "the device's name is empty, has a zero byte in it or is no UTF-8";
    const auto refusalOfName = [this](const string& name) {
        Envelope envelope = envelopeOf();
        envelope.device = name;
        return refusalOf(sql::encode(envelope, ""));
    };
    for (const std::uint32_t character :
         {0x0U, 0x1U, 0x41U, 0x7fU, 0x80U, 0x7ffU, 0x800U, 0xffffU}) {
        for (std::size_t size = sizeOf(character) + 1; size <= 4; ++size)
            EXPECT_EQ(refusalOfName(encoded(character, size)), no_device) << character;
    }
    for (std::uint32_t surrogate = 0xd800; surrogate < 0xe000; ++surrogate)
        EXPECT_EQ(refusalOfName(encoded(surrogate, 3)), no_device) << surrogate;
    for (const std::uint32_t beyond : {0x110000U, 0x13ffffU, 0x1fffffU})
        EXPECT_EQ(refusalOfName(encoded(beyond, 4)), no_device) << beyond;
    for (int head = 0x80; head <= 0xff; ++head) {
        const string name(1, static_cast<char>(head));
        for (const string rest : {"", "a", "\xc3\xa4"})
            EXPECT_EQ(refusalOfName(name + rest), no_device) << head;
        if (head >= 0xc2 && head < 0xf5)
            continue;
        for (std::size_t count = 1; count <= 5; ++count) {
            EXPECT_EQ(refusalOfName(name + string(count, '\x80')), no_device) << head;
            EXPECT_EQ(refusalOfName(name + string(count, '\xbf')), no_device) << head;
        }
    }
}

TEST_F(SqlEnvelopeTest, DeviceHasAName)
{
    const char no_device[] = "the device's name is empty, has a zero byte in it or is no UTF-8";
    const string names[] = {"",
                            string("a\0b", 3),
                            "\x80",
                            "\xc3",
                            "\xc3(",
                            "\xc0\x80",
                            "\xe0\x9f\xbf",
                            "\xed\xa0\x80",
                            "\xf0\x8f\xbf\xbf",
                            "\xf4\x90\x80\x80",
                            "\xf8\x88\x80\x80\x80",
                            "\xff",
                            "a\xe2\x82"};
    for (const string& name : names) {
        Envelope envelope = envelopeOf();
        envelope.device = name;
        EXPECT_EQ(refusalOf(sql::encode(envelope, "")), no_device) << name;
    }
    for (const char* const name : {"\xc2\x80", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80",
                                   "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
        Envelope envelope = envelopeOf();
        envelope.device = name;
        EXPECT_TRUE(sql::readEnvelope(sql::encode(envelope, ""))) << name;
    }
}

TEST_F(SqlEnvelopeTest, PositionsGoUp)
{
    struct Positions {
        sql::SyncPosition previous, last, dropped;
    };
    const Positions wrong[] = {
        {{}, {}, {}},              // no last
        {{}, {0, 1}, {}},          // without an incarnation
        {{}, {1, 0}, {}},          // without a number
        {{}, {1, -1}, {}},         // beyond the numbers
        {{0, 1}, {1, 2}, {}},      // as above, of the previous
        {{1, 0}, {1, 2}, {}},      //
        {{1, -5}, {1, 2}, {}},     //
        {{1, 2}, {1, 2}, {}},      // not after the previous
        {{1, 3}, {2, 2}, {}},      //
        {{1, 3}, {1, 4}, {0, 1}},  // as above, of what was dropped
        {{1, 3}, {1, 4}, {1, 0}},  //
        {{1, 3}, {1, 4}, {1, -1}}, //
        {{1, 3}, {1, 4}, {1, 4}},  // dropped, but here
        {{}, {1, 4}, {1, 1}},      //
    };
    for (const Positions& positions : wrong) {
        Envelope envelope = envelopeOf();
        envelope.previous = positions.previous;
        envelope.last = positions.last;
        envelope.dropped = positions.dropped;
        EXPECT_EQ(refusalOf(sql::encode(envelope, "")), "the header's positions are not in order")
            << &positions - wrong;
    }
}

TEST_F(SqlEnvelopeTest, SetIsNoLongerThanSqliteTakes)
{
    const string tables = numberOf(1, 4) + tableOf("t", {columnOf("id", "integer", 1, 0)});
    EXPECT_TRUE(sql::readEnvelope(described(tables, numberOf(2147483647, 8))));
    for (const std::uint64_t size : {2147483648ULL, ~0ULL})
        EXPECT_EQ(refusalOf(described(tables, numberOf(size, 8))),
                  "the change set is longer than 2147483647 bytes");
}

TEST_F(SqlEnvelopeTest, HashIsThatOfTheTables)
{
    const string header = sql::encode(envelopeOf(), "");
    string fields = header.substr(12, header.size() - 20);
    fields[13 + 48] = static_cast<char>(fields[13 + 48] ^ 1);
    EXPECT_EQ(refusalOf(sealed(fields)), "the checksum of the tables is wrong");
}

TEST_F(SqlEnvelopeTest, TablesHaveNamesColumnsAndAKey)
{
    const string id = columnOf("id", "integer", 1, 0);
    const std::vector<std::pair<string, string>> refusals = {
        {numberOf(0, 4), "the header has no table"},
        {numberOf(1, 4) + tableOf("", {id}),
         "the name of a table is empty or has a zero byte in it"},
        {numberOf(1, 4) + tableOf(string("a\0b", 3), {id}),
         "the name of a table is empty or has a zero byte in it"},
        {numberOf(2, 4) + tableOf("t", {id}) + tableOf("t", {id}), "table 't': it comes twice"},
        {numberOf(1, 4) + tableOf("t", {id, columnOf("", "", 0, 0)}),
         "table 't': the name of a column is empty or has a zero byte in it"},
        {numberOf(1, 4) + tableOf("t", {id, columnOf(string("\0", 1), "", 0, 0)}),
         "table 't': the name of a column is empty or has a zero byte in it"},
        {numberOf(1, 4) + tableOf("t", {id, columnOf("name", "", 0, 2)}),
         "table 't': column 'name' has a mark other than 0 and 1"},
        {numberOf(1, 4) + tableOf("t", std::vector<string>(32768, columnOf("c", "", 0, 0))),
         "table 't': there are more than 32767 columns"},
        {numberOf(1, 4) + tableOf("t", {}),
         "table 't': the columns of the key are not numbered from 1"},
    };
    for (const auto& [tables, why] : refusals)
        EXPECT_EQ(refusalOf(described(tables)), why);
    for (const std::vector<int>& ordinals :
         {std::vector<int>{0}, {2}, {1, 1}, {1, 3}, {-1}, {0, 2, 0}}) {
        std::vector<string> columns;
        for (const int ordinal : ordinals)
            columns.push_back(columnOf("c", "", ordinal, 0));
        EXPECT_EQ(refusalOf(described(numberOf(1, 4) + tableOf("t", columns))),
                  "table 't': the columns of the key are not numbered from 1");
    }
    std::vector<string> many;
    for (int ordinal = 1; ordinal <= 255; ++ordinal)
        many.push_back(columnOf("c", "", ordinal, 0));
    EXPECT_TRUE(sql::readEnvelope(described(numberOf(1, 4) + tableOf("t", many))));
    many.push_back(columnOf("c", "", 256, 0));
    EXPECT_EQ(refusalOf(described(numberOf(1, 4) + tableOf("t", many))),
              "table 't': the columns of the key are not numbered from 1");
    std::vector<string> most(32767, columnOf("c", "", 0, 0));
    most.front() = id;
    EXPECT_TRUE(sql::readEnvelope(described(numberOf(1, 4) + tableOf("t", most))));
}

// --- Change sets ---------------------------------------------------------------------------------

// Parts of a change set.
const string product_head = string("T\3\1\0\0product\0", 13);
const string pair_head = string("T\2\2\1pair\0", 9);
const string undefined = string(1, '\0');
const string null = "\5";

string change(char kind, char isIndirect = 0)
{
    return string{kind, isIndirect};
}
string integer(char number)
{
    return "\1" + string(7, '\0') + number;
}
string text(const string& text)
{
    return "\3" + string(1, static_cast<char>(text.size())) + text;
}

string insertion(const string& price)
{
    return product_head + change(18) + integer(1) + text("tea") + price;
}

TEST_F(SqlEnvelopeTest, SetIsTheOneOfTheEnvelope)
{
    const string set = insertion(null);
    const Envelope envelope = envelopeOf(set);
    EXPECT_EQ(sql::checkChangeSet(envelope, set).valueOr(-1), 1);
    for (std::size_t size = 0; size < set.size(); ++size)
        EXPECT_EQ(refusalOfSet(envelope, set.substr(0, size)),
                  "the change set has " + std::to_string(size) + " bytes instead of 30");
    EXPECT_EQ(refusalOfSet(envelope, set + 'x'), "the change set has 31 bytes instead of 30");
    for (std::size_t at = 0; at < set.size(); ++at) {
        for (int bit = 0; bit < 8; ++bit) {
            string flipped = set;
            flipped[at] = static_cast<char>(flipped[at] ^ 1 << bit);
            EXPECT_EQ(refusalOfSet(envelope, flipped), "the change set's checksum is wrong");
        }
    }
}

TEST_F(SqlEnvelopeTest, EmptySetHasNoChanges)
{
    EXPECT_EQ(sql::checkChangeSet(envelopeOf(), "").valueOr(-1), 0);
    EXPECT_EQ(sql::checkChangeSet(envelopeOf(product_head), product_head).valueOr(-1), 0);
}

TEST_F(SqlEnvelopeTest, WhatIsWrongWithASetIsToldWithItsByte)
{
    const string key = integer(1);
    const string nan = string("\2\x7f\xf8\0\0\0\0\0\0", 9);
    const string whole = change(18) + key + null + null;
    const std::vector<std::pair<string, string>> refusals = {
        {"x", "byte 0: the change set is cut off"},
        {"xx", "byte 0: there is no such operation"},
        {string("P\3\1\0\0product\0", 13), "byte 0: a patch set does not tell former values"},
        {change(18) + key, "byte 0: there is no table before the change"},
        {string("T\3\1\0\0other\0", 11) + whole, "byte 0: the header has no such table"},
        {string("T\3\1\0\0produc\0", 12), "byte 0: the header has no such table"},
        {string("T\2\1\0product\0", 12) + whole,
         "byte 0: the table has another number of columns in the header"},
        {string("T\3\1\0\2product\0", 13) + whole,
         "byte 0: the table has another key in the header"},
        {string("T\3\0\0\0product\0", 13), "byte 0: the table has another key in the header"},
        {string("T\2\1\1pair\0", 9), "byte 0: the table has another key in the header"},
        {product_head + product_head + whole, "byte 13: the table comes twice"},
        {product_head + pair_head + product_head, "byte 22: the table comes twice"},
        {product_head + change(17), "byte 13: there is no such operation"},
        {product_head + change(18, 2),
         "byte 14: the mark of an indirect change is neither 0 nor 1"},
        {product_head + change(18) + "\6", "byte 15: there is no such type of value"},
        {product_head + change(18) + "\xff", "byte 15: there is no such type of value"},
        {insertion(undefined), "byte 13: a value is missing"},
        {insertion(nan), "byte 29: a real is not a number"},
        {product_head + change(18) + null + null + null, "byte 13: the key is null"},
        {product_head + change(9) + null + null + null, "byte 13: the key is null"},
        {product_head + change(9) + key + null + undefined, "byte 13: a value is missing"},
        {product_head + change(23) + null + null + undefined + undefined + key + undefined,
         "byte 13: the key is null"},
        {product_head + change(23) + undefined + null + undefined + undefined + key + undefined,
         "byte 13: a value is missing"},
        {product_head + change(23) + key + null + undefined + key + key + undefined,
         "byte 13: an update changes the key"},
        {product_head + change(23) + key + null + undefined + undefined + undefined + undefined,
         "byte 13: a value is missing"},
        {product_head + change(23) + key + undefined + undefined + undefined + undefined + key,
         "byte 13: a value is missing"},
        {product_head + change(23) + key + string(5, '\0'), "byte 13: an update changes nothing"},
        {product_head + change(18) + key + "\3\4abc", "byte 25: a length goes beyond the end"},
        {product_head + change(18) + key + "\3\x81", "byte 26: the change set is cut off"},
        {product_head + change(23) + key + null + undefined + undefined + text("tea"),
         "byte 32: the change set is cut off"},
        {product_head + change(18) + key + null + "\3\x81", "byte 27: the change set is cut off"},
        {product_head + change(18) + "\1abc", "byte 16: the change set is cut off"},
        {product_head + change(18) + key + "\3\x80\1" + string(200, 'x'),
         "byte 25: a length is longer than it has to be"},
        {product_head + change(18) + key + "\3\xff\xff\xff\xff\xff\1" + string(200, 'x'),
         "byte 25: a length goes beyond the end"},
        {product_head + change(18) + key + "\3\x8f\xff\xff\xff\x7f" + string(200, 'x'),
         "byte 25: a length goes beyond the end"},
        {product_head + change(18) + key + "\3\x81" + string(9, '\x80') + string(200, '\0'),
         "byte 25: a length goes beyond the end"},
        {"T\5\1", "byte 1: a length goes beyond the end"},
        {string("T\3\1\0\0product", 12), "byte 5: the change set is cut off"},
    };
    for (const auto& [set, why] : refusals)
        EXPECT_EQ(refusalOfSet(set), why) << testing::PrintToString(set);
}

TEST_F(SqlEnvelopeTest, KeyMayHaveAsManyColumnsAsAByteCounts)
{
    sql::SyncTable table{"t", {}};
    string head = "T\x81\x7f";
    for (int i = 1; i <= 255; ++i) {
        table.columns.push_back({"c" + std::to_string(i), "", i, true});
        head += static_cast<char>(i);
    }
    head += string("t\0", 2);
    Envelope envelope = envelopeOf(head);
    envelope.tables = {table};
    EXPECT_EQ(sql::checkChangeSet(envelope, head).valueOr(-1), 0);
}

TEST_F(SqlEnvelopeTest, ReaderThatHasFailedSaysSoOnce)
{
    const string set = product_head + string("\1\1") + change(18) + integer(1) + null + null;
    const Envelope envelope = envelopeOf(set);
    ChangeReader reader(envelope, set);
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(refusal("next", sql::Result<int>(reader.error())),
              "byte 13: there is no such operation");
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(reader.error().text(), "byte 13: there is no such operation");
}

// A set of several tables and all kinds of changes and values, as SQLite itself records it.
string sampleSet()
{
    test::Connection db;
    db.run("create table product (id integer primary key, name text, price);"
           "create table pair (left text not null, right blob not null, primary key (right, left));"
           "create trigger more after insert on product begin"
           " insert into pair values (new.name, x'01'); end;"
           "insert into product values (1, 'tea', 2.5), (2, 'rum', null), (3, 'ale', x'00ff')");
    return test::changesOf(db, {"product", "pair"},
                           "insert into product values (4, '', -1), (5, 'a' || char(0), 1e300);"
                           "update product set price = 7 where id = 1;"
                           "update product set name = null, price = 'x' where id = 2;"
                           "delete from product where id = 3;"
                           "delete from pair where left = 'tea'");
}

TEST_F(SqlEnvelopeTest, TruncatedSetIsRefusedUnlessItEndsBehindAChange)
{
    const string set = sampleSet();
    int passed = 0;
    for (std::size_t size = 0; size <= set.size(); ++size) {
        const string cut = set.substr(0, size);
        const sql::Result<sql::integer> count = sql::checkChangeSet(envelopeOf(cut), cut);
        _diagnostics.clear();
        if (!count)
            continue;
        ++passed;
        EXPECT_EQ(test::countChanges(cut), *count) << size;
    }
    EXPECT_EQ(passed, 11); // none, two headers and eight changes
    EXPECT_EQ(sql::checkChangeSet(envelopeOf(set), set).valueOr(-1), 8);
}

// Whatever passes, SQLite reads to its end.
TEST_F(SqlEnvelopeTest, SqliteReadsEveryChangedSetThatPasses)
{
    const string set = sampleSet();
    int passed = 0;
    for (std::size_t at = 0; at < set.size(); ++at) {
        for (int value = 0; value < 256; ++value) {
            string changed = set;
            changed[at] = static_cast<char>(value);
            const sql::Result<sql::integer> count = sql::checkChangeSet(envelopeOf(changed),
                                                                        changed);
            _diagnostics.clear();
            if (!count)
                continue;
            ++passed;
            EXPECT_EQ(test::countChanges(changed), *count) << at << ": " << value;
        }
    }
    EXPECT_GT(passed,
              static_cast<int>(set.size())); // each byte as it was, and others within values
}

// --- Reading -------------------------------------------------------------------------------------

std::uint64_t bitsOf(double real)
{
    std::uint64_t bits = 0;
    std::memcpy(&bits, &real, sizeof bits);
    return bits;
}

string described(const sql::ChangeValue& value)
{
    switch (value.type) {
    case sql::change_undefined:
        return "-";
    case sql::change_integer:
        return std::to_string(value.number);
    case sql::change_real:
        return "real " + std::to_string(bitsOf(value.real));
    case sql::change_text:
        return "'" + string(value.bytes) + "'";
    case sql::change_block:
        return "x" + testing::PrintToString(value.bytes);
    case sql::change_null:
        break;
    }
    return "null";
}

string described(sqlite3_value* value)
{
    sql::ChangeValue same;
    if (value == nullptr)
        return described(same);
    same.type = static_cast<sql::ChangeType>(sqlite3_value_type(value));
    same.number = sqlite3_value_int64(value);
    same.real = sqlite3_value_double(value);
    if (same.type == sql::change_text || same.type == sql::change_block)
        same.bytes = {static_cast<const char*>(sqlite3_value_blob(value)),
                      static_cast<std::size_t>(sqlite3_value_bytes(value))};
    return described(same);
}

string described(const ChangeReader& reader)
{
    string line = reader.table().name + " " + std::to_string(reader.kind())
                  + (reader.isIndirect() ? " indirect" : "");
    for (std::size_t i = 0; i < reader.table().columns.size(); ++i)
        line += " " + described(reader.oldValue(i)) + ">" + described(reader.newValue(i));
    return line;
}

// The same, by SQLite's own functions.
std::vector<string> readBySqlite(string set)
{
    std::vector<string> lines;
    sqlite3_changeset_iter* changes = nullptr;
    EXPECT_EQ(sqlite3changeset_start(&changes, static_cast<int>(set.size()), set.data()),
              SQLITE_OK);
    while (sqlite3changeset_next(changes) == SQLITE_ROW) {
        const char* table = nullptr;
        int count = 0;
        int kind = 0;
        int isIndirect = 0;
        sqlite3changeset_op(changes, &table, &count, &kind, &isIndirect);
        string line = string(table) + " " + std::to_string(kind)
                      + (isIndirect != 0 ? " indirect" : "");
        for (int i = 0; i < count; ++i) {
            sqlite3_value* former = nullptr;
            sqlite3_value* latter = nullptr;
            if (kind != SQLITE_INSERT)
                sqlite3changeset_old(changes, i, &former);
            if (kind != SQLITE_DELETE)
                sqlite3changeset_new(changes, i, &latter);
            line += " " + described(former) + ">" + described(latter);
        }
        lines.push_back(line);
    }
    EXPECT_EQ(sqlite3changeset_finalize(changes), SQLITE_OK);
    return lines;
}

TEST_F(SqlEnvelopeTest, ReaderTellsEachChange)
{
    const string set = product_head + change(18) + integer(1) + text("tea") + null + change(23, 1)
                       + integer(2) + undefined + string("\2\x3f\xf8\0\0\0\0\0\0", 9) + undefined
                       + undefined + "\4\2ab" + pair_head + change(9) + text("l") + text("");
    const Envelope envelope = envelopeOf(set);
    ChangeReader reader(envelope, set);
    ASSERT_TRUE(reader.next());
    EXPECT_EQ(&reader.table(), &envelope.tables[0]);
    EXPECT_EQ(described(reader), "product 18 ->1 ->'tea' ->null");
    ASSERT_TRUE(reader.next());
    EXPECT_EQ(described(reader), "product 23 indirect 2>- ->- real 4609434218613702656>x\"ab\"");
    EXPECT_EQ(described(reader.oldValue(3)), "-");
    EXPECT_EQ(described(reader.newValue(~std::size_t{0})), "-");
    ASSERT_TRUE(reader.next());
    EXPECT_EQ(&reader.table(), &envelope.tables[1]);
    EXPECT_EQ(described(reader), "pair 9 'l'>- ''>-");
    EXPECT_FALSE(reader.next());
    EXPECT_FALSE(reader.next());
    EXPECT_FALSE(reader.error());
}

TEST_F(SqlEnvelopeTest, ReaderStopsAtTheDamageAndTellsItOnce)
{
    const string set = insertion(null) + change(7);
    const Envelope envelope = envelopeOf(set);
    ChangeReader reader(envelope, set);
    EXPECT_TRUE(reader.next());
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(reader.error().text(), "byte 30: there is no such operation");
    EXPECT_TRUE(reader.error().isCorrupt());
    expectReport(report::statementFailed("next", "next",
                                         "11=SQLITE_CORRUPT: byte 30: there is no such operation"));
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(reader.error().text(), "byte 30: there is no such operation");
}

TEST_F(SqlEnvelopeTest, ReaderReadsNothingOfAnotherSet)
{
    const string set = insertion(null);
    const Envelope envelope = envelopeOf(set + "x");
    ChangeReader reader(envelope, set);
    EXPECT_FALSE(reader.next());
    EXPECT_EQ(reader.error().text(), "the change set has 30 bytes instead of 31");
    expectReport(report::statementFailed(
        "next", "next", "11=SQLITE_CORRUPT: the change set has 30 bytes instead of 31"));
}

// --- What SQLite records -------------------------------------------------------------------------

using Random = std::mt19937;

string anyValue(Random& random)
{
    switch (random() % 8) {
    case 0:
        return "null";
    case 1:
        return "zeroblob(" + std::to_string(random() % 300) + ")";
    case 2:
        return "'" + string(random() % 200, 'x') + "'";
    case 3:
        return std::to_string(static_cast<int>(random())) + ".25";
    case 4:
        return "-9223372036854775808";
    case 5:
        return "9e999";
    default:
        return std::to_string(random() % 10);
    }
}

string anyKey(Random& random)
{
    const string keys[] = {"1", "'1'", "x'31'", "2.5", "''", "7", "'long enough'", "-3"};
    return keys[random() % 8];
}

// A table with a key of one or several columns, anywhere in it.
sql::SyncTable anyTable(Random& random, const string& name)
{
    sql::SyncTable table{name, {}};
    const std::size_t count = 1 + random() % (random() % 10 == 0 ? 150 : 6);
    for (std::size_t i = 0; i < count; ++i)
        table.columns.push_back({"c" + std::to_string(i), "", 0, false});
    int ordinal = 0;
    for (std::size_t key = 1 + random() % count % 3; key > 0;) {
        sql::SyncColumn& column = table.columns[random() % count];
        if (column.keyOrdinal != 0)
            continue;
        column.keyOrdinal = ++ordinal;
        column.isNotNull = true;
        --key;
    }
    return table;
}

string definitionOf(const sql::SyncTable& table, bool hasRowids)
{
    string text = "create table " + table.name + " (";
    std::map<int, string> key;
    for (const sql::SyncColumn& column : table.columns) {
        text += column.name + (column.isNotNull ? " not null, " : ", ");
        if (column.keyOrdinal != 0)
            key[column.keyOrdinal] = column.name;
    }
    text += "primary key (";
    for (const auto& [ordinal, name] : key)
        text += (ordinal > 1 ? ", " : "") + name;
    return text + (hasRowids ? "))" : ")) without rowid");
}

string anyWrite(Random& random, const sql::SyncTable& table)
{
    const sql::SyncColumn& one = table.columns[random() % table.columns.size()];
    const string value = one.keyOrdinal != 0 ? anyKey(random) : anyValue(random);
    const sql::SyncColumn& other = table.columns[random() % table.columns.size()];
    switch (random() % 5) {
    case 0:
        return "delete from " + table.name + " where " + other.name + " = " + anyKey(random);
    case 1:
        return "update or replace " + table.name + " set " + one.name + " = " + value + " where "
               + other.name + " < " + anyKey(random);
    default:
        break;
    }
    string text = "insert or replace into " + table.name + " values (";
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        const bool isKey = table.columns[i].keyOrdinal != 0;
        text += (i > 0 ? ", " : "") + (isKey ? anyKey(random) : anyValue(random));
    }
    return text + ")";
}

TEST_F(SqlEnvelopeTest, WhatSqliteRecordsPassesAlwaysAndReadsTheSame)
{
    Random random(20100317);
    sql::integer changes = 0;
    for (int round = 0; round < 200; ++round) {
        test::Connection db;
        Envelope envelope = envelopeOf();
        envelope.tables = {anyTable(random, "one"), anyTable(random, "two")};
        for (const sql::SyncTable& table : envelope.tables)
            db.run(definitionOf(table, random() % 2 == 0));
        const auto write = [&](int count) {
            for (; count > 0; --count)
                db.run(anyWrite(random, envelope.tables[random() % 2]));
        };
        write(10);
        test::Session session(db, {"one", "two"});
        write(20);
        const string set = session.changeSet();
        envelope.size = set.size();
        envelope.checksum = fnv1a(set);
        ChangeReader reader(envelope, set);
        std::vector<string> lines;
        while (reader.next())
            lines.push_back(described(reader));
        EXPECT_EQ(reader.error().text(), "");
        ASSERT_EQ(lines, readBySqlite(set)) << round;
        changes += sql::checkChangeSet(envelope, set).valueOr(-1);
    }
    EXPECT_GT(changes, 1000);
}

// Sets that were merged are made by another part of SQLite.
TEST_F(SqlEnvelopeTest, WhatSqliteMergesPassesAlways)
{
    Random random(7);
    for (int round = 0; round < 100; ++round) {
        test::Connection db;
        Envelope envelope = envelopeOf();
        envelope.tables = {anyTable(random, "one")};
        db.run(definitionOf(envelope.tables[0], true));
        sqlite3_changegroup* group = nullptr;
        ASSERT_EQ(sqlite3changegroup_new(&group), SQLITE_OK);
        for (int part = 0; part < 4; ++part) {
            test::Session session(db, {"one"});
            for (int i = 0; i < 8; ++i)
                db.run(anyWrite(random, envelope.tables[0]));
            string set = session.changeSet();
            ASSERT_EQ(sqlite3changegroup_add(group, static_cast<int>(set.size()), set.data()),
                      SQLITE_OK);
        }
        int size = 0;
        void* bytes = nullptr;
        ASSERT_EQ(sqlite3changegroup_output(group, &size, &bytes), SQLITE_OK);
        const string set(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
        sqlite3_free(bytes);
        sqlite3changegroup_delete(group);
        envelope.size = set.size();
        envelope.checksum = fnv1a(set);
        EXPECT_EQ(sql::checkChangeSet(envelope, set).valueOr(-1), test::countChanges(set)) << round;
    }
}

// --- Order ---------------------------------------------------------------------------------------

class SqlSyncMarkTest : public test::ReportTest {
protected:
    // "next", "repeated", or the code and the reason of a refusal, which was reported.
    string orderOf(const Envelope& envelope, const sql::SyncMark& mark)
    {
        const sql::Result<bool> isNext = sql::isNext(envelope, mark);
        if (isNext)
            return *isNext ? "next" : "repeated";
        const string code = isNext.error().code() == SQLITE_AUTH ? "23=SQLITE_AUTH"
                                                                 : "12=SQLITE_NOTFOUND";
        const string text = code + ": " + isNext.error().text();
        EXPECT_EQ(isNext.error().statement(), "isNext");
        expectReport(report::statementFailed("isNext", "isNext", text));
        return text;
    }
};

Envelope range(sql::SyncPosition previous, sql::SyncPosition last, sql::SyncPosition dropped = {})
{
    Envelope envelope;
    envelope.device = "device-17";
    envelope.previous = previous;
    envelope.last = last;
    envelope.dropped = dropped;
    envelope.checksum = 50;
    return envelope;
}

TEST_F(SqlSyncMarkTest, FirstSetOfADeviceIsTheNext)
{
    EXPECT_EQ(orderOf(range({}, {7, 3}), {}), "next");
}

TEST_F(SqlSyncMarkTest, SetThatBeginsWhereTheLastHasEndedIsTheNextInAnyIncarnation)
{
    EXPECT_EQ(orderOf(range({7, 3}, {7, 4}), {{7, 3}, 49}), "next");
    EXPECT_EQ(orderOf(range({7, 3}, {8, 4}), {{7, 3}, 49}), "next");
}

TEST_F(SqlSyncMarkTest, SetWhoseLastCommitHasComeIsRepeated)
{
    EXPECT_EQ(orderOf(range({7, 1}, {7, 2}), {{7, 3}, 49, true}), "repeated");
    EXPECT_EQ(orderOf(range({7, 2}, {7, 3}), {{7, 3}, 50, true}), "repeated");
    EXPECT_EQ(orderOf(range({7, 2}, {7, 3}), {{7, 3}, 0, true}), "repeated") << "passed over";
    EXPECT_EQ(orderOf(range({7, 1}, {7, 2}), {{8, 3}, 49, true, true}), "repeated") << "retired";
}

TEST_F(SqlSyncMarkTest, CommitOfALineThatWasLeftIsRepeated)
{
    EXPECT_EQ(orderOf(range({7, 3}, {7, 4}), {{7, 3}, 0, true}), "repeated");
    EXPECT_EQ(orderOf(range({7, 4}, {7, 5}), {{7, 3}, 0, true}), "repeated");
}

TEST_F(SqlSyncMarkTest, LastSetWithOtherBytesIsAnother)
{
    EXPECT_EQ(orderOf(range({7, 2}, {7, 3}), {{7, 3}, 49, true}),
              "23=SQLITE_AUTH: the device went back to 2 (restored from a backup), or another"
              " device has its name");
}

TEST_F(SqlSyncMarkTest, SetsBeforeItAreMissingUnlessTheDeviceHasDroppedThem)
{
    EXPECT_EQ(orderOf(range({7, 5}, {7, 6}), {{7, 3}, 49}),
              "12=SQLITE_NOTFOUND: the commits 4 to 5 are missing");
    EXPECT_EQ(orderOf(range({7, 5}, {7, 6}, {7, 4}), {{7, 3}, 49}),
              "12=SQLITE_NOTFOUND: the commits 4 to 5 are missing");
    EXPECT_EQ(orderOf(range({7, 5}, {7, 6}, {7, 5}), {{7, 3}, 49}), "next");
    EXPECT_EQ(orderOf(range({7, 4}, {7, 6}, {7, 4}), {{7, 3}, 49}), "next");
}

TEST_F(SqlSyncMarkTest, SetThatBeginsElsewhereIsOfAnotherOrARestoredDevice)
{
    const string reason = "23=SQLITE_AUTH: the device went back to ";
    const string rest = " (restored from a backup), or another device has its name";
    EXPECT_EQ(orderOf(range({7, 2}, {8, 4}), {{7, 3}, 49}), reason + "2" + rest);
    EXPECT_EQ(orderOf(range({6, 3}, {6, 4}), {{7, 3}, 49}), reason + "3" + rest);
    EXPECT_EQ(orderOf(range({}, {8, 1}), {{7, 3}, 49}), reason + "0" + rest);
}

TEST_F(SqlSyncMarkTest, RetiredIncarnationIsRefused)
{
    EXPECT_EQ(orderOf(range({7, 3}, {6, 4}), {{7, 3}, 49, false, true}),
              "23=SQLITE_AUTH: the device's incarnation was retired when another was admitted");
}

} // namespace
