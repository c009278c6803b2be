// Any series of operations: a TypedTable and a std::map end with the same objects, to the last bit, and
// each operation with the same result, whatever the key is.

#include "SqlTypedTable.h"

#include "Environment.h"
#include "HostileTexts.h"
#include "PreparedTest.h"
#include "Reports.h"
#include "TypedItem.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

namespace report = test::report;

using sql::integer;
using sql::Presence;
using test::cellsOf;
using test::Item;

// The same values on every target.
class Source {
public:
    explicit Source(unsigned seed) : _engine(seed)
    {
    }
    unsigned below(std::size_t count)
    {
        return static_cast<unsigned>(_engine() % count);
    }
    unsigned long long bits()
    {
        const unsigned long long high = _engine();
        return high << 32 | _engine();
    }
    std::string text()
    {
        for (;;) {
            const std::string& text = test::hostileTexts()[below(test::hostileTexts().size())];
            if (text.size() < 3000)
                return text;
        }
    }

private:
    std::mt19937 _engine;
};

// --- Tables, by their keys

using ModelKey = std::tuple<integer, std::string>;

struct ByNumber {
    static constexpr bool has_key = true;
    static constexpr bool is_chosen = false;
    static constexpr char order[] = "id";
    static constexpr char unique[] = "item.id";

    static ModelKey keyOf(const Item& item)
    {
        return {item.id, ""};
    }
    template <typename Use> static auto withKey(const Item& item, const Use& use)
    {
        return use(item.id);
    }
};

struct ChosenKey : ByNumber {
    static constexpr auto& mapping = test::item_with_chosen_key;
    static constexpr bool is_chosen = true;
};

struct GivenKey : ByNumber {
    static constexpr auto& mapping = test::item_with_given_key;
};

struct TextKey {
    static constexpr auto& mapping = test::item_with_text_key;
    static constexpr bool has_key = true;
    static constexpr bool is_chosen = false;
    static constexpr char order[] = "code";
    static constexpr char unique[] = "item.code";

    static ModelKey keyOf(const Item& item)
    {
        return {0, item.code};
    }
    template <typename Use> static auto withKey(const Item& item, const Use& use)
    {
        return use(item.code);
    }
};

struct WithoutRowid : TextKey {
    static constexpr auto& mapping = test::item_without_rowid;
};

struct TwoKeys {
    static constexpr auto& mapping = test::item_with_two_keys;
    static constexpr bool has_key = true;
    static constexpr bool is_chosen = false;
    static constexpr char order[] = "id, code";
    static constexpr char unique[] = "item.id, item.code";

    static ModelKey keyOf(const Item& item)
    {
        return {item.id, item.code};
    }
    template <typename Use> static auto withKey(const Item& item, const Use& use)
    {
        return use(item.id, item.code);
    }
};

struct NoKey {
    static constexpr auto& mapping = test::item_without_key;
    static constexpr bool has_key = false;
    static constexpr bool is_chosen = true; // the model's alone
    static constexpr char order[] = "rowid";
};

// --- A series

std::string shown(const std::vector<Item>& items)
{
    std::string text;
    for (const Item& item : items)
        text += (text.empty() ? "" : "\n") + cellsOf(item);
    return text;
}

template <typename Shape> class TypedTypesTest : public test::PreparedTest {
protected:
    void work(unsigned seed)
    {
        _source = Source(seed);
        _rows.clear();
        run("drop table if exists item");
        ASSERT_TRUE(_table.create());
        for (int i = 0; i < 60 && !HasFailure(); ++i) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(i));
            step();
            ASSERT_EQ(test::typedRows(_database.getHandle(), std::string("select id, code, ") + rest
                                                                 + " from item order by "
                                                                 + Shape::order),
                      shown(expected([](const Item&) { return true; })));
        }
        _table.release();
    }

private:
    using Rows = std::map<ModelKey, Item>;
    static constexpr char rest[] =
        "small, byte, half, positive_half, whole, positive, big, natural, truth, level, position,"
        " real, single, loose, text, block, four, time, at, moment, maybe_whole, maybe_truth,"
        " maybe_level, maybe_real, maybe_single, maybe_text, maybe_block, maybe_four, maybe_time,"
        " maybe_at, maybe_moment";

    void step()
    {
        static constexpr void (TypedTypesTest::*all[])() = {
            &TypedTypesTest::add,       &TypedTypesTest::add,       &TypedTypesTest::addMany,
            &TypedTypesTest::addMany,   &TypedTypesTest::update,    &TypedTypesTest::update,
            &TypedTypesTest::upsert,    &TypedTypesTest::upsert,    &TypedTypesTest::remove,
            &TypedTypesTest::has,       &TypedTypesTest::find,      &TypedTypesTest::first,
            &TypedTypesTest::load,      &TypedTypesTest::select,    &TypedTypesTest::values,
            &TypedTypesTest::runsQuery, &TypedTypesTest::writeBySql};
        (this->*all[_source.below(std::size(all))])();
    }

    // Few keys, so that operations meet.
    Item anyItem()
    {
        Item item = test::AnyItem(_source)();
        static const std::string codes[] = {"", "a", "A", "b", std::string("a\0", 2), "\xff", "7"};
        item.id = _source.below(20) == 0 ? 1000000000000 : _source.below(6);
        if (!Shape::is_chosen && _source.below(10) == 0)
            item.id = -item.id;
        item.code = _source.below(6) == 0 ? _source.text() : codes[_source.below(7)];
        return item;
    }

    std::vector<Item> expected(bool (*isIt)(const Item&)) const
    {
        std::vector<Item> items;
        for (const auto& [key, item] : _rows) {
            if (isIt(item))
                items.push_back(item);
        }
        return items;
    }

    // It has failed for this reason, or not, if that is empty, and has reported so.
    void expectOutcome(const char* operation, bool succeeded, const std::string& why, int changes)
    {
        EXPECT_EQ(succeeded, why.empty()) << operation;
        const sql::Error error = _table.error();
        EXPECT_EQ(static_cast<bool>(error), !why.empty()) << operation;
        EXPECT_EQ(_table.changes(), why.empty() ? changes : 0) << operation;
        if (why.empty())
            expectReport({});
        else
            expectReport(report::statementFailed(operation, error.statement(), why));
    }

    // The key that SQLite chooses.
    ModelKey nextKey(const Rows& rows) const
    {
        return {rows.empty() ? 1 : std::get<0>(rows.rbegin()->first) + 1, ""};
    }
    ModelKey keyFor(const Rows& rows, const Item& item) const
    {
        if constexpr (!Shape::has_key)
            return nextKey(rows);
        else
            return Shape::is_chosen && item.id == 0 ? nextKey(rows) : Shape::keyOf(item);
    }

    // Adds it to the rows. Returns why not.
    std::string put(Rows& rows, const Item& item, bool mayReplace, const std::string& prefix = "")
    {
        const std::string why = test::whyUnfit(item);
        if (!why.empty())
            return "20=SQLITE_MISMATCH: " + prefix + why;
        const ModelKey key = keyFor(rows, item);
        if constexpr (Shape::has_key) {
            if (!mayReplace && rows.count(key) > 0)
                return "1555=SQLITE_CONSTRAINT_PRIMARYKEY: " + prefix
                       + "UNIQUE constraint failed: " + Shape::unique;
        }
        Item& stored = rows[key];
        stored = test::asStored(item);
        if (Shape::has_key && Shape::is_chosen)
            stored.id = std::get<0>(key);
        return "";
    }

    template <typename Add> void store(const char* operation, bool mayReplace, const Add& add)
    {
        Item item = anyItem();
        const bool tells = _source.below(2) == 0;
        const std::string before = cellsOf(item);
        const ModelKey key = keyFor(_rows, item);
        const std::string why = put(_rows, item, mayReplace);
        const Item& constant = item;
        expectOutcome(operation, tells ? add(item) : add(constant), why, 1);
        if (Shape::has_key && Shape::is_chosen && tells && why.empty()) {
            EXPECT_EQ(item.id, std::get<0>(key));
            item.id = before.compare(0, 10, "integer 0|") == 0 ? 0 : item.id;
        }
        EXPECT_EQ(cellsOf(item), before);
    }

    void add()
    {
        store("add", false, [this](auto& item) { return _table.add(item); });
    }

    void upsert()
    {
        if constexpr (Shape::has_key)
            store("addOrUpdate", true, [this](auto& item) { return _table.addOrUpdate(item); });
    }

    // A few, or so many that several go in together.
    void addMany()
    {
        std::vector<Item> items;
        const bool many = _source.below(12) == 0;
        for (unsigned i = many ? 270 + _source.below(40) : _source.below(5); i > 0; --i) {
            items.push_back(anyItem());
            if (many) {
                items.back().id = integer{i} + 100;
                items.back().code = "item " + std::to_string(i);
                items.back().natural %= 1000;
            }
        }
        Rows rows = _rows;
        std::string why;
        int number = 0;
        for (const Item& item : items) {
            ++number;
            why = put(rows, item, false, "record " + std::to_string(number) + ": ");
            if (!why.empty())
                break;
        }
        const std::string before = shown(items);
        expectOutcome("add", _table.add(items.begin(), items.end()), why,
                      static_cast<int>(items.size()));
        EXPECT_EQ(shown(items), before);
        if (why.empty())
            _rows = rows;
    }

    void update()
    {
        if constexpr (Shape::has_key) {
            const Item item = anyItem();
            const auto row = _rows.find(Shape::keyOf(item));
            std::string why = test::whyUnfit(item);
            if (!why.empty())
                why = "20=SQLITE_MISMATCH: " + why;
            else if (row != _rows.end())
                row->second = test::asStored(item);
            expectOutcome("update", _table.update(item), why, row != _rows.end() ? 1 : 0);
        }
    }

    void remove()
    {
        if constexpr (Shape::has_key) {
            const Item item = anyItem();
            const auto isRemoved = [&](const auto&... key) {
                return _table.remove(key...);
            };
            expectOutcome("remove", Shape::withKey(item, isRemoved), "",
                          static_cast<int>(_rows.erase(Shape::keyOf(item))));
        }
    }

    void has()
    {
        if constexpr (Shape::has_key) {
            const Item item = anyItem();
            const Presence there = Shape::withKey(
                item, [&](const auto&... key) { return _table.has(key...); });
            EXPECT_EQ(there,
                      _rows.count(Shape::keyOf(item)) > 0 ? Presence::present : Presence::absent);
            expectOutcome("has", true, "", 0);
        }
    }

    void find()
    {
        if constexpr (Shape::has_key) {
            const Item item = anyItem();
            const sql::Result<Item> found = Shape::withKey(
                item, [&](const auto&... key) { return _table.find(key...); });
            const auto row = _rows.find(Shape::keyOf(item));
            ASSERT_EQ(static_cast<bool>(found), row != _rows.end());
            if (found) {
                EXPECT_EQ(cellsOf(*found), cellsOf(row->second));
            }
            expectOutcome("find", true, "", 0);
        }
    }

    void first()
    {
        const std::vector<Item> items = expected([](const Item& item) { return item.small >= 0; });
        const sql::Result<Item> found = _table.first(
            std::string("where small >= ? order by ") + Shape::order, 0);
        ASSERT_EQ(static_cast<bool>(found), !items.empty());
        if (found) {
            EXPECT_EQ(cellsOf(*found), cellsOf(items.front()));
        }
        EXPECT_EQ(_table.count("where small >= ?", 0).valueOr(-1),
                  static_cast<integer>(items.size()));
        EXPECT_EQ(_table.count().valueOr(-1), static_cast<integer>(_rows.size()));
        expectOutcome("first", true, "", 0);
    }

    void load()
    {
        std::vector<Item> items(3);
        ASSERT_TRUE(
            _table.load(items, std::string("where truth = ? order by ") + Shape::order, true));
        EXPECT_EQ(shown(items), shown(expected([](const Item& item) { return item.truth; })));
        expectOutcome("load", true, "", 0);
    }

    // Each object is read into the same one, whose members have what was in them before.
    void select()
    {
        auto rows = _table.select(std::string("where maybe_text is null order by ") + Shape::order);
        Item item = anyItem();
        for (const Item& each : expected([](const Item& one) { return !one.maybeText; })) {
            ASSERT_TRUE(rows.next(item));
            ASSERT_EQ(cellsOf(item), cellsOf(each));
        }
        EXPECT_FALSE(rows.next(item));
        EXPECT_TRUE(rows.finished());
        expectOutcome("select", true, "", 0);
    }

    template <typename Value> void expectColumn(const char* name, Value Item::*member)
    {
        const auto found = _table.template values<Value>(name,
                                                         std::string("order by ") + Shape::order);
        ASSERT_TRUE(found);
        ASSERT_EQ(found->size(), _rows.size());
        auto value = found->begin();
        for (const auto& [key, item] : _rows)
            EXPECT_TRUE(*value++ == item.*member) << name;
    }

    void values()
    {
        expectColumn("byte", &Item::byte);
        expectColumn("natural", &Item::natural);
        expectColumn("level", &Item::level);
        expectColumn("single", &Item::single);
        expectColumn("text", &Item::text);
        expectColumn("block", &Item::block);
        expectColumn("four", &Item::four);
        expectColumn("at", &Item::at);
        expectColumn("moment", &Item::moment);
        expectColumn("maybe_real", &Item::maybeReal);
        expectColumn("maybe_text", &Item::maybeText);
        expectColumn("maybe_moment", &Item::maybeMoment);
        expectOutcome("values", true, "", 0);
    }

    // With the columns in an order of its own.
    void runsQuery()
    {
        std::vector<Item> items;
        for (const Item& item : sql::query<Item>(
                 _database, Shape::mapping,
                 std::string("select ") + rest + ", code, id from item order by " + Shape::order))
            items.push_back(item);
        EXPECT_EQ(shown(items), shown(expected([](const Item&) { return true; })));
        expectReport({});
    }

    // As others do, past the table.
    void writeBySql()
    {
        if (_source.below(3) == 0) {
            run("delete from item");
            _rows.clear();
            return;
        }
        run("update item set text = 'it''s', maybe_real = -2.5, natural = 7, maybe_four = null");
        for (auto& [key, item] : _rows) {
            item.text = "it's";
            item.maybeReal = -2.5;
            item.natural = 7;
            item.maybeFour.reset();
        }
    }

    Source _source{0};
    Rows _rows;
    decltype(sql::TypedTable(std::declval<sql::Database&>(), Shape::mapping)) _table{
        _database, Shape::mapping};
};

using Shapes = testing::Types<ChosenKey, GivenKey, TextKey, WithoutRowid, TwoKeys, NoKey>;
struct NameOfShape {
    template <typename Shape> static std::string GetName(int)
    {
        if constexpr (std::is_same_v<Shape, ChosenKey>)
            return "ChosenKey";
        else if constexpr (std::is_same_v<Shape, GivenKey>)
            return "GivenKey";
        else if constexpr (std::is_same_v<Shape, TextKey>)
            return "TextKey";
        else if constexpr (std::is_same_v<Shape, WithoutRowid>)
            return "WithoutRowid";
        else if constexpr (std::is_same_v<Shape, TwoKeys>)
            return "TwoKeys";
        else
            return "NoKey";
    }
};
TYPED_TEST_SUITE(TypedTypesTest, Shapes, NameOfShape);

TYPED_TEST(TypedTypesTest, SeriesEndWithTheSameObjects)
{
    const int step = test::stride(25);
    for (unsigned seed = 1; seed <= 500 && !this->HasFailure(); seed += step)
        this->work(seed);
}

} // namespace
