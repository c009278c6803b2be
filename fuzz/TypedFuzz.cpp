// Any series of operations of a TypedTable of all types, beside statements whose values are bound and read
// one by one; rows of others with any cells in them included.

#include "Fuzz.h"
#include "PlainTable.h"
#include "Reports.h"
#include "SqlDatabase.h"
#include "SqlTypedTable.h"
#include "TypedItem.h"

#include <sqlite3.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using fuzz::expectEqual;
using fuzz::Input;
using sql::integer;
using test::AnyItem;
using test::cellsOf;
using test::Item;

constexpr int most_steps = 100000; // of SQLite's machine, for a condition
constexpr int fewest_in_groups = 280;

// The choices of AnyItem.
class Source {
public:
    explicit Source(Input& input) : _input(input)
    {
    }
    unsigned below(std::size_t count)
    {
        return static_cast<unsigned>(_input.below(static_cast<int>(count)));
    }
    unsigned long long bits()
    {
        return _input.bits(8);
    }
    std::string text()
    {
        return _input.text();
    }

private:
    Input& _input;
};

// What is chosen at random is the same each time.
template <typename Operation> auto calm(Operation operation)
{
    sqlite3_test_control(SQLITE_TESTCTRL_PRNG_SEED, 7, nullptr);
    return operation();
}

// Binds the members of an item, the first of which are its keys.
class Binding {
public:
    Binding(sql::Statement& statement, const Item& item, bool choosesKey) : _statement(statement)
    {
        if (choosesKey && item.id == 0)
            (*this)(nullptr);
        else
            (*this)(item.id);
        (*this)(item.code);
        forMembers(item, *this);
    }

    template <typename T> void operator()(const T& member) const
    {
        _statement.bind(++_position, member);
    }
    void operator()(const Item::Instant& time, sql::Milliseconds) const
    {
        (*this)(sql::inMilliseconds(time));
    }
    void operator()(const std::optional<Item::Instant>& time, sql::Milliseconds) const
    {
        if (time)
            (*this)(sql::inMilliseconds(*time));
        else
            (*this)(nullptr);
    }

private:
    sql::Statement& _statement;
    mutable int _position = 0;
};

// Reads a row into an item, up to a cell that does not fit.
class Reading {
public:
    Reading(sql::Statement& statement, const sql::MappingView& mapping, Item& item)
        : _statement(statement), _mapping(mapping)
    {
        (*this)(item.id);
        (*this)(item.code);
        forMembers(item, *this);
    }

    const std::string& why() const
    {
        return _why;
    }

    template <typename T> void operator()(T& member) const
    {
        read<sql::Binder<T>>(member);
    }
    template <typename T> void operator()(T& time, sql::Milliseconds) const
    {
        read<sql::MillisecondsBinder<T>>(time);
    }

private:
    template <typename By, typename T> void read(T& member) const
    {
        const int index = _index++;
        if (!_why.empty())
            return;
        if (const char* const why = By::read(_statement.column(index), member))
            _why = "column " + std::string(_mapping.columns[index].name) + " " + why;
    }

    sql::Statement& _statement;
    const sql::MappingView& _mapping;
    mutable int _index = 0;
    mutable std::string _why;
};

struct Objects {
    std::vector<std::string> all; // by their cells
    std::string why;              // there are no more
};

template <const auto& mapping, bool has_key, bool is_chosen, bool has_two> class Run {
public:
    explicit Run(Input& input) : _input(input), _source(input)
    {
        for (sql::Database* const database : {&_database, &_plain})
            database->open(":memory:", sql::Database::access_create, false, 0);
        expectEqual("whether the table is created", _table.create(), true);
        test::run(_plain.getHandle(),
                  test::rows(_database.getHandle(), "select sql from sqlite_master limit 1"));
        for (int i = 0; i < _mapping.columnCount; ++i)
            _names.push_back(std::string(_mapping.columns[i].name));
        takeReports("", "");
    }

    ~Run()
    {
        _table.release();
        _database.close();
        _plain.close();
        takeReports("", "");
    }

    void step()
    {
        static void (Run::*const operations[])() = {
            &Run::add,    &Run::add,     &Run::addMany, &Run::update,   &Run::upsert, &Run::remove,
            &Run::find,   &Run::readAll, &Run::others,  &Run::others,   &Run::load,   &Run::count,
            &Run::select, &Run::runIt,   &Run::values,  &Run::transact,
        };
        (this->*_input.oneOf(operations))();
        const std::string all = "select * from item";
        expectEqual("the rows", test::typedRows(_database.getHandle(), all),
                    test::typedRows(_plain.getHandle(), all));
        expectEqual("whether a transaction is open", sqlite3_get_autocommit(_database.getHandle()),
                    sqlite3_get_autocommit(_plain.getHandle()));
    }

private:
    // --- What is compared

    void takeReports(const char* operation, const sql::Error& error)
    {
        expectEqual(
            "what is reported", _diagnostics.take(),
            test::visibleAt(_diagnostics.level(), error ? test::report::statementFailed(
                                                      operation, error.statement(), reasonIn(error))
                                                        : test::Texts()));
    }
    void takeReports(const char*, const char*)
    {
        expectEqual("what is reported", _diagnostics.take(), test::Texts());
    }

    static std::string reasonIn(const sql::Error& error)
    {
        return error ? test::codeOf(error.extendedCode()) + ": " + error.text() : "";
    }
    static std::string mismatch(const std::string& why)
    {
        return why.empty() ? "" : test::codeOf(SQLITE_MISMATCH) + ": " + why;
    }

    // The operation did the same as statements did, whose reports are let go.
    void expectOutcome(const char* operation, bool succeeded, const std::string& why,
                       integer changes)
    {
        _diagnostics.clear();
        expectEqual(operation, reasonIn(_table.error()), why);
        expectEqual("whether it succeeded", succeeded, why.empty());
        expectEqual("the changes", _table.changes(), why.empty() ? changes : 0);
    }

    // --- Statements

    std::string listed(const char* item, const char* between = ", ") const
    {
        std::string list;
        for (const std::string& name : _names) {
            std::string one = item;
            for (std::size_t at = one.find('%'); at != std::string::npos; at = one.find('%'))
                one.replace(at, 1, name);
            list += (list.empty() ? "" : between) + one;
        }
        return list;
    }
    std::string insertion() const
    {
        return "insert into item (" + listed("%") + ") values (" + listed("?") + ")";
    }
    static std::string keys()
    {
        return has_two ? "id, code" : isText() ? "code" : "id";
    }
    static constexpr bool isText()
    {
        return mapping.view().columns[1].flags != 0 && !has_two;
    }
    std::string selection() const
    {
        return "select " + listed("`%`") + " from `item`";
    }

    // Returns why it failed.
    std::string runPlain(const std::string& text, const Item& item, integer& changes)
    {
        const std::string unfit = test::whyUnfit(item);
        if (!unfit.empty())
            return mismatch(unfit);
        sql::Statement statement(_plain, text);
        const Binding binding(statement, item, is_chosen && text.compare(0, 6, "insert") == 0);
        calm([&] { return statement.run(); });
        changes = statement.changes();
        return reasonIn(statement.error());
    }

    // The objects that any selection of all columns yields.
    Objects readPlain(const std::string& text)
    {
        Objects objects;
        sql::Statement statement(_plain, text);
        Item item;
        while (statement.next()) {
            const Reading reading(statement, _mapping, item);
            if (!reading.why().empty()) {
                objects.why = mismatch(reading.why());
                return objects;
            }
            objects.all.push_back(cellsOf(item));
        }
        objects.why = reasonIn(statement.error());
        return objects;
    }

    void expectObjects(const std::vector<std::string>& found, const sql::Error& error,
                       const Objects& expected)
    {
        _diagnostics.clear();
        expectEqual("why objects are not read", reasonIn(error), expected.why);
        expectEqual("the objects", found, expected.all);
    }

    // --- Choices

    Item anyItem()
    {
        Item item = AnyItem(_source)();
        item.id = _input.below(8) == 0 ? _input.integer() : _input.below(4);
        item.code = _input.below(4) == 0 ? _input.text() : std::string(_input.below(3), 'a');
        return item;
    }

    std::string anyCondition()
    {
        static const char* const conditions[] = {
            "",
            " where small > 0",
            " order by big desc, id, code limit 3",
            " where maybe_text is null",
            " where code in (select code from item limit 1) or truth",
            " group by byte",
            " where none",
            " limit 0",
            " where at < moment"};
        if (_input.flip())
            return _input.oneOf(conditions);
        std::string condition = " " + _input.text();
        for (char& letter : condition) { // without parameters
            if (std::string("?:@$#").find(letter) != std::string::npos)
                letter = ' ';
        }
        return condition;
    }

    // --- Operations

    template <typename Store>
    void storeOne(const char* operation, const std::string& text, const Store& store)
    {
        Item item = anyItem();
        const integer before = item.id;
        const bool succeeded = calm([&] { return store(item); });
        takeReports(operation, _table.error());
        if (item.id != before) {
            expectEqual("whether a key was to be chosen", is_chosen && before == 0, true);
            expectEqual("the key", item.id, sqlite3_last_insert_rowid(_database.getHandle()));
        }
        item.id = before;
        integer changes = 0;
        const std::string why = runPlain(text, item, changes);
        expectOutcome(operation, succeeded, why, changes);
    }

    void add()
    {
        storeOne("add", insertion(), [&](Item& item) { return _table.add(item); });
    }

    void update()
    {
        if constexpr (has_key)
            storeOne("update",
                     "update item set (" + listed("%") + ") = (" + listed("?") + ") where ("
                         + keys() + ") = ("
                         + (has_two    ? "?1, ?2"
                            : isText() ? "?2"
                                       : "?1")
                         + ")",
                     [&](const Item& item) { return _table.update(item); });
    }

    void upsert()
    {
        if constexpr (has_key)
            storeOne("addOrUpdate",
                     insertion() + " on conflict (" + keys() + ") do update set "
                         + listed("% = excluded.%"),
                     [&](Item& item) { return _table.addOrUpdate(item); });
    }

    // A few, or so many that several go in together.
    void addMany()
    {
        std::vector<Item> items;
        for (int left = _input.below(4); left > 0; --left)
            items.push_back(anyItem());
        if (!items.empty() && _input.below(8) == 0) {
            const integer first = _input.integer() / 2;
            for (int i = fewest_in_groups + _input.below(64); i > 0; --i) {
                items.insert(items.begin(), items.back());
                items.front().id = first - i;
                items.front().code = "item " + std::to_string(i);
            }
        }
        const bool succeeded = calm([&] { return _table.add(items.begin(), items.end()); });
        takeReports("add", _table.error());
        addPlain(items, succeeded);
    }

    void addPlain(const std::vector<Item>& items, bool succeeded)
    {
        sqlite3* const db = _plain.getHandle();
        test::run(db, "savepoint many");
        std::string why;
        integer changes = 0;
        sqlite3_test_control(SQLITE_TESTCTRL_PRNG_SEED, 7, nullptr);
        for (std::size_t i = 0; i < items.size() && why.empty(); ++i) {
            integer one = 0;
            why = runPlain(insertion(), items[i], one);
            if (!why.empty())
                why.insert(why.find(": ") + 2, "record " + std::to_string(i + 1) + ": ");
            changes += one;
        }
        test::run(db, why.empty() ? "release many" : "rollback to many; release many");
        expectOutcome("add", succeeded, why, changes);
    }

    template <typename Use> auto withKey(const Item& item, const Use& use)
    {
        if constexpr (has_two)
            return use(item.id, item.code);
        else if constexpr (isText())
            return use(item.code);
        else
            return use(item.id);
    }
    std::string byKey() const
    {
        return std::string(" where (") + keys() + ") = (" + (has_two ? "?, ?" : "?") + ")";
    }

    void remove()
    {
        if constexpr (has_key) {
            const Item item = anyItem();
            const bool removed = withKey(item,
                                         [&](const auto&... key) { return _table.remove(key...); });
            takeReports("remove", _table.error());
            sql::Statement plain(_plain, "delete from item" + byKey());
            withKey(item, [&](const auto&... key) { return plain.run(key...); });
            expectOutcome("remove", removed, reasonIn(plain.error()), plain.changes());
        }
    }

    void find()
    {
        if constexpr (has_key) {
            const Item item = anyItem();
            const auto found = withKey(item,
                                       [&](const auto&... key) { return _table.find(key...); });
            takeReports("find", _table.error());
            sql::Statement plain(_plain, selection() + byKey());
            int position = 0;
            withKey(item, [&](const auto&... key) { (plain.bind(++position, key), ...); });
            std::string why;
            Item expected;
            const bool isThere = plain.next();
            if (isThere)
                why = mismatch(Reading(plain, _mapping, expected).why());
            expectOutcome("find", !found.failed(), why, 0);
            expectEqual("whether it is found", static_cast<bool>(found), isThere && why.empty());
            if (found)
                expectEqual("what is found", cellsOf(*found), cellsOf(expected));
            const auto has = withKey(item, [&](const auto&... key) { return _table.has(key...); });
            expectEqual("whether there is one", has == sql::Presence::present, isThere);
        }
    }

    template <typename Cursor> void expectRows(Cursor& rows, const Objects& expected)
    {
        std::vector<std::string> found;
        Item item = anyItem();
        while (rows.next(item))
            found.push_back(cellsOf(item));
        expectEqual("whether all were read", rows.finished(), expected.why.empty());
        expectObjects(found, rows.error(), expected);
    }

    void readAll()
    {
        const Objects expected = readPlain(selection());
        auto rows = _table.select();
        expectRows(rows, expected);
        auto others = sql::query<Item>(_database, mapping, "select * from item");
        expectRows(others, expected);
    }

    // Conditions end after so many steps.
    template <typename Use> void withCondition(const Use& use)
    {
        const auto stop = [](void*) {
            return 1;
        };
        for (sql::Database* const database : {&_database, &_plain})
            sqlite3_progress_handler(database->getHandle(), most_steps, stop, nullptr);
        const std::string condition = anyCondition();
        use(condition);
        for (sql::Database* const database : {&_database, &_plain})
            sqlite3_progress_handler(database->getHandle(), 0, nullptr, nullptr);
        _diagnostics.clear();
    }
    static bool isStopped(const std::string& why)
    {
        return why.compare(0, 2, "9=") == 0;
    }

    void select()
    {
        withCondition([&](const std::string& condition) {
            const Objects expected = calm([&] { return readPlain(selection() + condition); });
            sqlite3_test_control(SQLITE_TESTCTRL_PRNG_SEED, 7, nullptr);
            auto rows = _table.select(condition);
            if (!isStopped(expected.why))
                expectRows(rows, expected);
        });
    }

    void load()
    {
        withCondition([&](const std::string& condition) {
            std::vector<Item> items(2);
            const bool loaded = calm([&] { return _table.load(items, condition); });
            takeReports("load", _table.error());
            Objects expected = calm([&] { return readPlain(selection() + condition); });
            if (isStopped(expected.why) || isStopped(reasonIn(_table.error())))
                return;
            if (!expected.why.empty())
                expected.all.clear();
            std::vector<std::string> found;
            found.reserve(items.size());
            for (const Item& item : items)
                found.push_back(cellsOf(item));
            expectEqual("whether they are loaded", loaded, expected.why.empty());
            expectObjects(found, _table.error(), expected);
            const auto first = calm([&] { return _table.first(condition); });
            if (loaded)
                expectEqual("whether there is a first", static_cast<bool>(first), !found.empty());
            if (loaded && first)
                expectEqual("the first", cellsOf(*first), found[0]);
        });
    }

    void count()
    {
        withCondition([&](const std::string& condition) {
            const auto found = calm([&] { return _table.count(condition); });
            takeReports("count", _table.error());
            sql::Statement plain(_plain, "select count(*) from `item`" + condition);
            const bool isThere = calm([&] { return plain.next(); });
            const std::string why = reasonIn(plain.error());
            if (isStopped(why) || isStopped(reasonIn(_table.error())))
                return;
            if (isThere && found)
                expectEqual("the number", *found, plain.column(0).asInteger());
            else if (!why.empty())
                expectEqual("why there is no number", reasonIn(_table.error()), why);
        });
    }

    template <typename T> void expectColumn(const char* name)
    {
        const auto found = _table.template values<T>(name);
        takeReports("values", _table.error());
        sql::Statement plain(_plain, std::string("select ") + name + " from item");
        std::vector<T> expected;
        const char* why = nullptr;
        while (why == nullptr && plain.next()) {
            T value{};
            why = sql::Binder<T>::read(plain.column(0), value);
            expected.push_back(value);
        }
        expectOutcome("values", !found.failed(),
                      why == nullptr ? "" : mismatch(std::string("column ") + name + " " + why), 0);
        if (found)
            expectEqual("the values", *found == expected, true);
    }

    void values()
    {
        expectColumn<std::optional<integer>>("maybe_whole");
        expectColumn<unsigned char>("byte");
        expectColumn<std::string>("text");
        expectColumn<Item::Instant>("at");
        expectColumn<std::optional<std::string>>("maybe_block");
    }

    // The text of a cell goes in and out of a query by its name.
    void runIt()
    {
        auto rows = sql::query<Item>(_database, mapping,
                                     "select " + listed("%") + " from item"
                                         + (_input.flip() ? ", item" : ""));
        Item item;
        while (rows.next(item)) {
        }
        expectEqual("whether the query ended", rows.finished(), !rows.error());
        takeReports(rows.error().text().find("ambiguous") == 0 ? "query" : "next", rows.error());
    }

    // As somebody else may write it.
    void others()
    {
        std::vector<test::Stored> cells(_names.size());
        for (test::Stored& cell : cells)
            cell = anyStored();
        for (sql::Database* const database : {&_database, &_plain}) {
            sql::Statement statement(*database, "insert or replace into item (" + listed("%")
                                                    + ") values (" + listed("?") + ")");
            int position = 0;
            for (const test::Stored& cell : cells)
                std::visit([&](const auto& value) { bindStored(statement, ++position, value); },
                           cell);
            calm([&] { return statement.run(); });
        }
        _diagnostics.clear();
    }

    template <typename T>
    static void bindStored(sql::Statement& statement, int position, const T& value)
    {
        if constexpr (std::is_same_v<T, test::Block>)
            statement.bind(position, sql::Bytes{value.bytes.data(), value.bytes.size()});
        else
            statement.bind(position, value);
    }

    test::Stored anyStored()
    {
        static const char* const texts[] = {"7",   "-1", "1e3", "2.5",
                                            "tea", "",   " 3",  "99999999999"};
        switch (_input.below(10)) {
        case 0:
            return nullptr;
        case 1:
            return test::Block{_input.text()};
        case 2: {
            const double real = _input.real();
            return real == real ? test::Stored(real) : test::Stored(0.5);
        }
        case 3:
            return std::string(_input.oneOf(texts));
        case 4:
            return _input.integer();
        case 5:
            return test::Block{"four"};
        default:
            return integer{_input.below(2)};
        }
    }

    void transact()
    {
        static const char* const ends[] = {"commit", "rollback"};
        if (_input.flip())
            return _table.release();
        const bool isOpen = sqlite3_get_autocommit(_plain.getHandle()) == 0;
        const char* const text = isOpen ? _input.oneOf(ends) : "begin";
        for (sql::Database* const database : {&_database, &_plain})
            test::run(database->getHandle(), text);
    }

    test::Diagnostics _diagnostics;
    Input& _input;
    Source _source;
    sql::Database _database;
    sql::Database _plain;
    const sql::MappingView _mapping = mapping.view();
    std::vector<std::string> _names;
    decltype(sql::TypedTable(std::declval<sql::Database&>(), mapping)) _table{_database, mapping};
};

template <typename Any> void work(Input& input)
{
    Any run(input);
    for (int steps = 0; steps < 40 && !input.isUsedUp(); ++steps)
        run.step();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static void (*const shapes[])(Input&) = {
        work<Run<test::item_with_chosen_key, true, true, false>>,
        work<Run<test::item_with_given_key, true, false, false>>,
        work<Run<test::item_with_text_key, true, false, false>>,
        work<Run<test::item_with_two_keys, true, false, true>>,
        work<Run<test::item_without_key, false, false, false>>,
        work<Run<test::item_without_rowid, true, false, false>>,
    };
    Input input(data, size);
    input.oneOf(shapes)(input);
    return 0;
}
