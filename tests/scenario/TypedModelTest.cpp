// Any series of operations: a TypedTable and a std::map of the same objects have the same results, and
// end with the same objects.

#include "SqlTypedTable.h"

#include "Environment.h"
#include "PreparedTest.h"

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

struct Stock {
    sql::integer id = 0;
    std::string name;
    double price = 0;
    std::optional<int> count;
    std::vector<unsigned char> image;
    bool isOld = false;
};

bool operator==(const Stock& one, const Stock& other)
{
    const auto all = [](const Stock& stock) {
        return std::tie(stock.id, stock.name, stock.price, stock.count, stock.image, stock.isOld);
    };
    return all(one) == all(other);
}

void PrintTo(const Stock& stock, std::ostream* stream)
{
    *stream << stock.id << '|' << stock.name << '|' << stock.price << '|'
            << stock.count.value_or(-1);
}

const auto mapping = sql::mapping<Stock>(
    "stock", sql::column<&Stock::name>("name", sql::flag_not_null, sql::flag_unique),
    sql::autoKey<&Stock::id>("id"), sql::column<&Stock::price>("price", sql::indexed),
    sql::column<&Stock::count>("count"), sql::column<&Stock::image>("image"),
    sql::column<&Stock::isOld>("old"));

using Model = std::map<sql::integer, Stock>;

class TypedModelTest : public test::PreparedTest {
protected:
    TypedModelTest() : _table(_database, mapping)
    {
        EXPECT_TRUE(_table.create());
    }
    void TearDown() override
    {
        _table.release();
        PreparedTest::TearDown();
    }

    int anyTo(int most)
    {
        return std::uniform_int_distribution<>(0, most)(_random);
    }

    Stock any(sql::integer id)
    {
        Stock stock;
        stock.id = id;
        stock.name = std::string(anyTo(20), static_cast<char>('a' + anyTo(25))) + '\0'
                     + std::to_string(anyTo(300));
        stock.price = anyTo(1000) / 8.0;
        if (anyTo(2) > 0)
            stock.count = anyTo(1000) - 500;
        stock.image.assign(anyTo(30), static_cast<unsigned char>(anyTo(255)));
        stock.isOld = anyTo(1) == 1;
        return stock;
    }

    bool isNameTaken(const Stock& stock) const
    {
        return std::any_of(_model.begin(), _model.end(), [&](const auto& each) {
            return each.first != stock.id && each.second.name == stock.name;
        });
    }

    sql::integer nextKey() const
    {
        return _model.empty() ? 1 : std::max<sql::integer>(_model.rbegin()->first, 0) + 1;
    }

    void expectDone(bool isDone, bool expected)
    {
        EXPECT_EQ(isDone, expected) << _table.error().text();
        EXPECT_EQ(_table.error().isConstraint(), !expected);
        _diagnostics.clear();
    }

    void add()
    {
        Stock stock = any(anyTo(3) == 0 ? anyTo(60) : 0);
        Stock expected = stock;
        if (stock.id == 0)
            expected.id = nextKey();
        const bool isNew = _model.count(expected.id) == 0 && !isNameTaken(expected);
        expectDone(_table.add(stock), isNew);
        if (!isNew)
            return;
        EXPECT_EQ(stock, expected);
        EXPECT_EQ(_table.lastKey(), expected.id);
        _model[expected.id] = expected;
    }

    void addMany()
    {
        std::vector<Stock> many;
        Model after = _model;
        sql::integer next = nextKey();
        for (int count = anyTo(5) == 0 ? 290 : anyTo(10); count > 0; --count) {
            many.push_back(any(next++));
            many.back().name += " of many " + std::to_string(many.back().id);
            after[many.back().id] = many.back();
        }
        const bool isGood = many.empty() || anyTo(2) > 0;
        if (!isGood)
            many.push_back(many.front());
        expectDone(_table.add(many.begin(), many.end()), isGood);
        if (isGood)
            _model = after;
    }

    void update()
    {
        const Stock stock = any(anyTo(60) + 1);
        const bool isThere = _model.count(stock.id) != 0;
        const bool isGood = !isThere || !isNameTaken(stock);
        expectDone(_table.update(stock), isGood);
        EXPECT_EQ(_table.changes(), isGood && isThere ? 1 : 0);
        if (isGood && isThere)
            _model[stock.id] = stock;
    }

    void addOrUpdate()
    {
        const Stock stock = any(anyTo(60) + 1);
        const bool isGood = !isNameTaken(stock);
        expectDone(_table.addOrUpdate(stock), isGood);
        if (isGood)
            _model[stock.id] = stock;
    }

    void remove()
    {
        const sql::integer id = anyTo(60);
        expectDone(_table.remove(id), true);
        EXPECT_EQ(_table.changes(), static_cast<sql::integer>(_model.erase(id)));
        if (_model.size() > 300) {
            expectDone(sql::Statement(_database, "delete from stock where id > 20").run(), true);
            _model.erase(_model.upper_bound(20), _model.end());
        }
    }

    void ask()
    {
        const sql::integer id = anyTo(60);
        const auto expected = _model.find(id);
        const sql::Result<Stock> found = _table.find(id);
        EXPECT_EQ(static_cast<bool>(found), expected != _model.end());
        if (found && expected != _model.end()) {
            EXPECT_EQ(*found, expected->second);
        }
        EXPECT_EQ(_table.has(id),
                  expected != _model.end() ? sql::Presence::present : sql::Presence::absent);
    }

    void askForMany()
    {
        const double price = anyTo(1000) / 8.0;
        std::vector<Stock> expected;
        for (const auto& [id, stock] : _model) {
            if (stock.price > price)
                expected.push_back(stock);
        }
        std::vector<Stock> found;
        EXPECT_TRUE(_table.load(found, "where price > ? order by id", price));
        EXPECT_EQ(found, expected);
        EXPECT_EQ(_table.count("where price > ?", price).valueOr(-1),
                  static_cast<sql::integer>(expected.size()));
        found.clear();
        for (const Stock& each : _table.select("where price > ? order by id", price))
            found.push_back(each);
        EXPECT_EQ(found, expected);
        const sql::Result<Stock> first = _table.first("where price > ? order by id", price);
        EXPECT_EQ(static_cast<bool>(first), !expected.empty());
        if (first && !expected.empty()) {
            EXPECT_EQ(*first, expected.front());
        }
        const auto names = _table.values<std::string>("name", "where price > ? order by id", price);
        ASSERT_TRUE(names);
        ASSERT_EQ(names->size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i)
            EXPECT_EQ((*names)[i], expected[i].name);
    }

    void step()
    {
        using Step = void (TypedModelTest::*)();
        const Step steps[] = {&TypedModelTest::add,       &TypedModelTest::addMany,
                              &TypedModelTest::update,    &TypedModelTest::addOrUpdate,
                              &TypedModelTest::remove,    &TypedModelTest::ask,
                              &TypedModelTest::askForMany};
        (this->*steps[anyTo(6)])();
        if (anyTo(50) == 0)
            _table.release();
    }

    // The same numbers on every target.
    std::mt19937 _random;
    sql::TypedTable<Stock, sql::integer> _table;
    Model _model;
};

TEST_F(TypedModelTest, EndsWithTheSameObjects)
{
    for (unsigned seed = 1; seed <= 10 && !HasFailure(); ++seed) {
        _random.seed(seed);
        ASSERT_TRUE(sql::Statement(_database, "delete from stock").run());
        _model.clear();
        for (int i = 0; i < 200 && !HasFailure(); ++i) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(i));
            step();
        }
        std::vector<Stock> expected;
        for (const auto& [id, stock] : _model)
            expected.push_back(stock);
        std::vector<Stock> found;
        EXPECT_TRUE(_table.load(found, "order by id"));
        EXPECT_EQ(found, expected);
    }
}

} // namespace
