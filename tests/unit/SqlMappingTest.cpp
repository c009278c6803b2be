#include "SqlMapping.h"

#include "TypedTableTest.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

using sql::Presence;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Bytes = std::vector<unsigned char>;

// --- Members of any type

template <typename T> struct Held {
    int id = 0;
    T member{};
};

class MappingTest : public TypedTest {
protected:
    // Adds an object with this member, and returns what the file has of it, and whether it is the same
    // when it is found.
    template <typename T, typename... Options>
    std::string stored(const T& value, const Options&... options)
    {
        const auto mapped = sql::mapping<Held<T>>(
            "held", sql::key<&Held<T>::id>("id"),
            sql::column<&Held<T>::member>("member", options...));
        run("drop table if exists held");
        sql::TypedTable held(_database, mapped);
        EXPECT_TRUE(held.create());
        EXPECT_TRUE(held.add(Held<T>{7, value})) << held.error().text();
        sql::Result<Held<T>> found = held.find(7);
        if (!found)
            return "not found: " + found.error().text();
        return (found->member == value ? "" : "not the same: ")
               + typedRows("select member from held");
    }

    // Declares a column by a member of this type.
    template <typename T, typename... Options> std::string declared(const Options&... options)
    {
        stored(T(), options...);
        return textOf("held");
    }

    // Reads a cell of this literal into a member of this type, and returns why it failed.
    template <typename T> std::string whyNot(const std::string& cell)
    {
        const auto mapped = sql::mapping<Held<T>>("held", sql::key<&Held<T>::id>("id"),
                                                  sql::column<&Held<T>::member>("member"));
        run("drop table if exists held; create table held (id, member);"
            "insert into held values (7, "
            + cell + ")");
        sql::TypedTable held(_database, mapped);
        const sql::Result<Held<T>> found = held.find(7);
        EXPECT_FALSE(found);
        if (found.failed())
            expectFailure(held, "find", "20=SQLITE_MISMATCH: " + found.error().text());
        return found.error().text();
    }

    template <typename T> void expectEdges(const std::string& lowest, const std::string& highest)
    {
        EXPECT_EQ(stored(Limits<T>::lowest()), lowest);
        EXPECT_EQ(stored(Limits<T>::max()), highest);
        EXPECT_EQ(stored(std::optional<T>(Limits<T>::max())), highest);
        EXPECT_EQ(stored(std::optional<T>()), "null");
    }

    template <typename T> void expectEnumEdges()
    {
        const auto number = [](T value) {
            return "integer " + std::to_string(static_cast<sql::integer>(value));
        };
        EXPECT_EQ(stored(T::lowest), number(T::lowest));
        EXPECT_EQ(stored(T::highest), number(T::highest));
        EXPECT_EQ(stored(std::optional<T>(T::highest)), number(T::highest));
    }
};

TEST_F(MappingTest, IntegersOfEveryWidthAreStoredWhole)
{
    expectEdges<signed char>("integer -128", "integer 127");
    expectEdges<unsigned char>("integer 0", "integer 255");
    expectEdges<short>("integer -32768", "integer 32767");
    expectEdges<unsigned short>("integer 0", "integer 65535");
    expectEdges<int>("integer -2147483648", "integer 2147483647");
    expectEdges<unsigned>("integer 0", "integer 4294967295");
    expectEdges<long long>("integer -9223372036854775808", "integer 9223372036854775807");
    expectEdges<long>("integer " + std::to_string(Limits<long>::lowest()),
                      "integer " + std::to_string(Limits<long>::max()));
    EXPECT_EQ(stored(0ULL), "integer 0");
    EXPECT_EQ(stored(~0ULL / 2), "integer 9223372036854775807");
    EXPECT_EQ(stored(std::optional<unsigned long long>(7)), "integer 7");
    EXPECT_EQ(stored(7UL), "integer 7");
}

TEST_F(MappingTest, UnsignedAboveTheRangeIsRefused)
{
    const auto mapped = sql::mapping<Held<unsigned long long>>(
        "held", sql::key<&Held<unsigned long long>::id>("id"),
        sql::column<&Held<unsigned long long>::member>("member"));
    sql::TypedTable held(_database, mapped);
    ASSERT_TRUE(held.create());
    EXPECT_FALSE(held.add({7, ~0ULL / 2 + 1}));
    expectFailure(held, "add", "20=SQLITE_MISMATCH: column member is above the range of integers");
    EXPECT_EQ(rows("select count(*) from held"), "0");
}

TEST_F(MappingTest, CellsOutOfTheRangeAreRefused)
{
    EXPECT_EQ(whyNot<signed char>("128"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<signed char>("-129"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<unsigned char>("256"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<unsigned char>("-1"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<std::uint16_t>("65536"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<std::int16_t>("32768"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<std::uint32_t>("4294967296"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<std::int32_t>("-2147483649"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<unsigned long long>("-1"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<bool>("2"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<Uint8>("256"), "column member is out of the variable's range");
    EXPECT_EQ(whyNot<float>("1e39"), "column member is out of the variable's range");
}

TEST_F(MappingTest, CellsOfAnotherKindAreRefused)
{
    EXPECT_EQ(whyNot<int>("null"), "column member is NULL");
    EXPECT_EQ(whyNot<double>("null"), "column member is NULL");
    EXPECT_EQ(whyNot<bool>("null"), "column member is NULL");
    EXPECT_EQ(whyNot<sql::string>("null"), "column member is NULL");
    EXPECT_EQ(whyNot<Bytes>("null"), "column member is NULL");
    EXPECT_EQ(whyNot<sql::Time>("null"), "column member is NULL");
    EXPECT_EQ(whyNot<Clock::time_point>("null"), "column member is NULL");
    EXPECT_EQ(whyNot<int>("'tea'"), "column member is no number");
    EXPECT_EQ(whyNot<std::optional<int>>("'tea'"), "column member is no number");
    EXPECT_EQ(whyNot<int>("2.5"), "column member is no integer");
    EXPECT_EQ(whyNot<double>("x'01'"), "column member is no number");
}

TEST_F(MappingTest, EnumsAreTheirNumbers)
{
    EXPECT_EQ(stored(plain_one), "integer 1");
    expectEnumEdges<Int8>();
    expectEnumEdges<Uint8>();
    expectEnumEdges<Int16>();
    expectEnumEdges<Uint16>();
    expectEnumEdges<Int32>();
    expectEnumEdges<Uint32>();
    expectEnumEdges<Int64>();
    expectEnumEdges<Uint64>();
    expectEnumEdges<Truth>();
    expectEnumEdges<WideLetter>();
    EXPECT_EQ(stored(Letter::a), "integer 97");
}

TEST_F(MappingTest, TruthsAndRealsAreStored)
{
    EXPECT_EQ(stored(true), "integer 1");
    EXPECT_EQ(stored(std::optional<bool>(false)), "integer 0");
    EXPECT_EQ(stored(2.5), "real 2.5");
    EXPECT_EQ(stored(Limits<double>::infinity()), "real inf");
    EXPECT_EQ(stored(1.5F), "real 1.5");
    EXPECT_EQ(stored(Limits<float>::max()), "real 3.4028234663852886e+38");
    EXPECT_EQ(stored(std::optional<float>(-1.5F)), "real -1.5");
    EXPECT_EQ(stored(std::optional<double>()), "null");
}

TEST_F(MappingTest, NanIsRefused)
{
    const auto mapped = sql::mapping<Held<float>>("held", sql::key<&Held<float>::id>("id"),
                                                  sql::column<&Held<float>::member>("member"));
    sql::TypedTable held(_database, mapped);
    ASSERT_TRUE(held.create());
    EXPECT_FALSE(held.add({7, Limits<float>::quiet_NaN()}));
    expectFailure(held, "add", "20=SQLITE_MISMATCH: column member is not a number");
}

TEST_F(MappingTest, TextsAndBlocksAreStoredWhole)
{
    EXPECT_EQ(stored(sql::string("it's")), "text it's");
    EXPECT_EQ(stored(sql::string()), "text ");
    EXPECT_EQ(stored(sql::string("a\0b", 3)), std::string("text a\0b", 8));
    EXPECT_EQ(stored(std::optional<sql::string>("tea")), "text tea");
    EXPECT_EQ(stored(Bytes{1, 0, 255}), "blob 0100FF");
    EXPECT_EQ(stored(Bytes()), "blob ");
    EXPECT_EQ(stored(std::optional<Bytes>()), "null");
    EXPECT_EQ(stored(std::array<unsigned char, 3>{1, 2, 65}), "blob 010241");
    EXPECT_EQ(stored(std::optional<std::array<unsigned char, 1>>({66})), "blob 42");
}

TEST_F(MappingTest, BlockOfAnotherSizeIsRefused)
{
    using Two = std::array<unsigned char, 2>;
    EXPECT_EQ(whyNot<Two>("x'01'"), "column member is of another size than the variable");
    EXPECT_EQ(whyNot<Two>("x'010203'"), "column member is of another size than the variable");
    EXPECT_EQ(whyNot<Two>("null"), "column member is NULL");
}

TEST_F(MappingTest, TimesAreStoredInSecondsOrMilliseconds)
{
    const Clock::time_point time(milliseconds(86400123));
    const Clock::time_point second(seconds(86400));
    EXPECT_EQ(stored(sql::Time(86400)), "integer 86400");
    EXPECT_EQ(stored(second), "integer 86400");
    EXPECT_EQ(stored(std::optional<Clock::time_point>(second)), "integer 86400");
    EXPECT_EQ(stored(time), "not the same: integer 86400");
    EXPECT_EQ(stored(time, sql::milliseconds), "integer 86400123");
    EXPECT_EQ(stored(std::optional<Clock::time_point>(time), sql::milliseconds),
              "integer 86400123");
    EXPECT_EQ(stored(std::optional<Clock::time_point>(), sql::milliseconds), "null");
    EXPECT_EQ(stored(Clock::time_point(milliseconds(-1)), sql::milliseconds), "integer -1");
    const TimePoint<milliseconds> exact(milliseconds(1500));
    EXPECT_EQ(stored(exact), "not the same: integer 1");
    EXPECT_EQ(stored(exact, sql::milliseconds), "integer 1500");
    EXPECT_EQ(stored(std::optional<TimePoint<milliseconds>>(exact), sql::milliseconds),
              "integer 1500");
    EXPECT_EQ(stored(TimePoint<seconds>(seconds(7)), sql::milliseconds), "integer 7000");
}

TEST_F(MappingTest, TimesThatNoMillisecondsHoldAreRefused)
{
    const auto mapped = sql::mapping<Held<TimePoint<seconds>>>(
        "held", sql::key<&Held<TimePoint<seconds>>::id>("id"),
        sql::column<&Held<TimePoint<seconds>>::member>("member", sql::milliseconds));
    sql::TypedTable held(_database, mapped);
    ASSERT_TRUE(held.create());
    const seconds most(Limits<sql::integer>::max() / 1000);
    EXPECT_TRUE(held.add({1, TimePoint<seconds>(most)}));
    EXPECT_TRUE(held.add({2, TimePoint<seconds>(-most)}));
    EXPECT_EQ(rows("select member from held"), "9223372036854775000\n-9223372036854775000");
    for (const seconds beyond : {most + seconds(1), -most - seconds(1)}) {
        EXPECT_FALSE(held.add({3, TimePoint<seconds>(beyond)}));
        expectFailure(held, "add",
                      "20=SQLITE_MISMATCH: column member is out of the range of milliseconds");
    }
    const sql::Result<Held<TimePoint<seconds>>> found = held.find(1);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->member.time_since_epoch(), most);
}

TEST_F(MappingTest, LowestAndHighestTimesAreReadBackInTheirUnit)
{
    using Times = Held<Clock::time_point>;
    const auto inSeconds = sql::mapping<Times>("held", sql::key<&Times::id>("id"),
                                               sql::column<&Times::member>("member"));
    const auto mapped = sql::mapping<Times>(
        "exact", sql::key<&Times::id>("id"),
        sql::column<&Times::member>("member", sql::milliseconds));
    sql::TypedTable held(_database, inSeconds);
    sql::TypedTable exact(_database, mapped);
    ASSERT_TRUE(held.create() && exact.create());
    int id = 0;
    for (const Clock::time_point time : {Clock::time_point::min(), Clock::time_point::max()}) {
        const Times times{++id, time};
        ASSERT_TRUE(held.add(times) && exact.add(times));
        EXPECT_EQ(std::chrono::floor<seconds>(held.find(id).valueOr(Times()).member),
                  std::chrono::floor<seconds>(time));
        EXPECT_EQ(std::chrono::floor<milliseconds>(exact.find(id).valueOr(Times()).member),
                  std::chrono::floor<milliseconds>(time));
    }
    EXPECT_EQ(rows("select member from held"), "-9223372037\n9223372036");
    EXPECT_EQ(rows("select member from exact"), "-9223372036855\n9223372036854");
}

TEST_F(MappingTest, MillisecondsCanBeCountedForAValue)
{
    EXPECT_EQ(sql::inMilliseconds(Clock::time_point(milliseconds(1500))), 1500);
    EXPECT_EQ(sql::inMilliseconds(TimePoint<seconds>(seconds(-2))), -2000);
    EXPECT_EQ(sql::inMilliseconds(Clock::time_point(std::chrono::nanoseconds(-1))), -1);
}

} // namespace

// A type of the program's own, stored as a text.
struct Money {
    sql::integer cents = 0;
};
bool operator==(const Money& one, const Money& other)
{
    return one.cents == other.cents;
}
template <> struct sql::Binder<Money> {
    static Argument argument(const Money& money)
    {
        return money.cents < 0 ? Argument::unfit("is a debt") : Argument(money.cents);
    }
    static const char* read(const Column& column, Money& money)
    {
        const char* const why = Binder<integer>::read(column, money.cents);
        return why == nullptr && money.cents < 0 ? "is a debt" : why;
    }
};

// An enum of the program's own, stored as a letter.
enum class Grade { good, bad };
template <> struct sql::Binder<Grade> {
    static Argument argument(Grade grade)
    {
        return std::string_view(grade == Grade::good ? "g" : "b");
    }
    static const char* read(const Column& column, Grade& grade)
    {
        grade = column.asText() == "g" ? Grade::good : Grade::bad;
        return nullptr;
    }
};

namespace {

TEST_F(MappingTest, TypesOfTheProgramGoByTheirBinder)
{
    EXPECT_EQ(stored(Money{250}), "integer 250");
    EXPECT_EQ(stored(std::optional<Money>(Money{250})), "integer 250");
    EXPECT_EQ(stored(std::optional<Money>()), "null");
    EXPECT_EQ(stored(Grade::bad), "text b");
    EXPECT_EQ(stored(std::optional<Grade>(Grade::good)), "text g");
    EXPECT_EQ(whyNot<Money>("-1"), "column member is a debt");
    EXPECT_EQ(whyNot<Money>("null"), "column member is NULL");
    EXPECT_EQ(whyNot<std::optional<Money>>("-1"), "column member is a debt");
}

// --- What is declared

TEST_F(MappingTest, TypeOfTheColumnIsThatOfTheMember)
{
    const std::string start = "CREATE TABLE `held` (`id` INTEGER PRIMARY KEY, `member`";
    EXPECT_EQ(declared<int>(), start + " INTEGER)");
    EXPECT_EQ(declared<bool>(), start + " INTEGER)");
    EXPECT_EQ(declared<Truth>(), start + " INTEGER)");
    EXPECT_EQ(declared<double>(), start + " REAL)");
    EXPECT_EQ(declared<float>(), start + " REAL)");
    EXPECT_EQ(declared<sql::string>(), start + " TEXT)");
    EXPECT_EQ(declared<Bytes>(), start + " BLOB)");
    EXPECT_EQ((declared<std::array<unsigned char, 2>>()), start + " BLOB)");
    EXPECT_EQ(declared<sql::Time>(), start + " INTEGER)");
    EXPECT_EQ(declared<Clock::time_point>(), start + " INTEGER)");
    EXPECT_EQ(declared<TimePoint<milliseconds>>(sql::milliseconds), start + " INTEGER)");
    EXPECT_EQ(declared<std::optional<sql::string>>(), start + " TEXT)");
    EXPECT_EQ(declared<Money>(), start + ")");
    EXPECT_EQ(declared<Money>(sql::storedAs("NUMERIC")), start + " NUMERIC)");
}

TEST_F(MappingTest, OptionsAreDeclaredInOneOrder)
{
    EXPECT_EQ(declared<int>(sql::references("held (id) on delete cascade"),
                            sql::check("member >= 0"), sql::defaultsTo("(1 + 1)"), sql::flag_unique,
                            sql::flag_not_null),
              "CREATE TABLE `held` (`id` INTEGER PRIMARY KEY, `member` INTEGER NOT NULL UNIQUE"
              " DEFAULT (1 + 1) CHECK (member >= 0) REFERENCES held (id) on delete cascade)");
    EXPECT_EQ(declared<int>(sql::flag_not_null | sql::flag_unique),
              "CREATE TABLE `held` (`id` INTEGER PRIMARY KEY, `member` INTEGER NOT NULL UNIQUE)");
}

TEST_F(MappingTest, MappingIsAConstant)
{
    static_assert(reading.view().columnCount == 5);
    static_assert(reading.view().columns[1].name == "sensor");
    static_assert(reading.view().hasRowid);
    static_assert(std::is_trivially_destructible_v<decltype(reading)>);
}

TEST_F(MappingTest, IndexesAreNamedAfterTheirColumns)
{
    struct Point {
        int x = 0;
        int y = 0;
    };
    const auto point = sql::mapping<Point>("point", sql::column<&Point::x>("x", sql::indexed),
                                           sql::column<&Point::y>("`y`"),
                                           sql::indexOver("x", "`y`"), sql::uniqueOver("`y`", "x"));
    sql::TypedTable points(_database, point);
    EXPECT_TRUE(points.create());
    EXPECT_EQ(textOf("point"), "CREATE TABLE `point` (`x` INTEGER, ```y``` INTEGER)");
    EXPECT_EQ(textOf("point_x"), "CREATE INDEX `point_x` on `point` (`x`)");
    EXPECT_EQ(textOf("point_x_`y`"), "CREATE INDEX `point_x_``y``` on `point` (`x`, ```y```)");
    EXPECT_EQ(textOf("point_`y`_x"),
              "CREATE UNIQUE INDEX `point_``y``_x` on `point` (```y```, `x`)");
}

// --- Members of members, and accessors

struct Place {
    sql::string city;
    int room = 0;
};

struct Named {
    sql::string name;
};

class Device : public Named {
public:
    Place place;

    sql::string label() const
    {
        return _label.empty() ? sql::string("a label that is too long to be kept in place")
                              : _label;
    }
    void setLabel(const sql::string& label)
    {
        _label = label;
    }
    const std::optional<int>& rank() const
    {
        return _rank;
    }
    void setRank(std::optional<int> rank) noexcept
    {
        _rank = rank;
    }
    int serial() const noexcept
    {
        return _serial;
    }
    Device& setSerial(int serial)
    {
        _serial = serial;
        return *this;
    }

private:
    sql::string _label;
    std::optional<int> _rank;
    int _serial = 0;
};

struct Rack {
    Device device;
    Clock::time_point at() const
    {
        return time;
    }
    void setAt(Clock::time_point at)
    {
        time = at;
    }
    Clock::time_point time;
};

const auto device = sql::mapping<Device>(
    "device", sql::key<&Device::serial, &Device::setSerial>("serial"),
    sql::column<&Device::name>("name"), sql::column<&Device::place, &Place::city>("city"),
    sql::column<&Device::place, &Place::room>("room"),
    sql::column<&Device::label, &Device::setLabel>("label"),
    sql::column<&Device::rank, &Device::setRank>("rank"));

TEST_F(MappingTest, MembersOfBasesAndOfMembersAreMapped)
{
    sql::TypedTable devices(_database, device);
    ASSERT_TRUE(devices.create());
    EXPECT_EQ(textOf("device"),
              "CREATE TABLE `device` (`serial` INTEGER PRIMARY KEY, `name` TEXT, `city` TEXT,"
              " `room` INTEGER, `label` TEXT, `rank` INTEGER)");
    Device pump;
    pump.setSerial(7);
    pump.name = "pump";
    pump.place = {"Ulm", 12};
    pump.setRank(3);
    ASSERT_TRUE(devices.add(pump));
    EXPECT_EQ(rows("select * from device"),
              "7|pump|Ulm|12|a label that is too long to be kept in place|3");
    const sql::Result<Device> found = devices.find(7);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->name, "pump");
    EXPECT_EQ(found->place.city, "Ulm");
    EXPECT_EQ(found->place.room, 12);
    EXPECT_EQ(found->label(), "a label that is too long to be kept in place");
    EXPECT_EQ(found->rank(), 3);
    EXPECT_EQ(found->serial(), 7);
}

TEST_F(MappingTest, CellThatIsRefusedIsNotSet)
{
    sql::TypedTable devices(_database, device);
    ASSERT_TRUE(devices.create());
    run("insert into device values (7, 'pump', 'Ulm', 12, 'hot', 'high')");
    EXPECT_TRUE(devices.find(7).failed());
    expectFailure(devices, "find", "20=SQLITE_MISMATCH: column rank is no number");
}

TEST_F(MappingTest, AccessorsOfMembersAreMapped)
{
    const auto rack = sql::mapping<Rack>(
        "rack", sql::key<&Rack::device, &Device::label, &Device::setLabel>("label"),
        sql::column<&Rack::at, &Rack::setAt>("at", sql::milliseconds));
    sql::TypedTable racks(_database, rack);
    ASSERT_TRUE(racks.create());
    Rack hot;
    hot.device.setLabel("hot");
    hot.time = Clock::time_point(milliseconds(1500));
    ASSERT_TRUE(racks.add(hot));
    EXPECT_EQ(rows("select * from rack"), "hot|1500");
    const sql::Result<Rack> found = racks.find("hot");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->time, hot.time);
    EXPECT_EQ(found->device.label(), "hot");
    EXPECT_EQ(racks.has(sql::string("hot")), Presence::present);
    EXPECT_EQ(racks.has("cold"), Presence::absent);
}

} // namespace
