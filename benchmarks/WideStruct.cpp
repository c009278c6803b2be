#include "SqlTypedTable.h"
#include "Wide.h"

#include <sqlite3.h>

namespace bench {

namespace {

// The members of a struct with a key and up to 2, 20 or 200 columns.
struct Pair {
    long long number = 0;
    std::string text;
};
struct Ten {
    Pair p0, p1, p2, p3, p4, p5, p6, p7, p8, p9;
};
template <int columns> struct Row {
    long long id = 0;
    Pair pairs;
};
template <> struct Row<20> {
    long long id = 0;
    Ten pairs;
};
template <> struct Row<200> {
    long long id = 0;
    Ten t0, t1, t2, t3, t4, t5, t6, t7, t8, t9;
};

constexpr Pair Ten::*pairs[] = {&Ten::p0, &Ten::p1, &Ten::p2, &Ten::p3, &Ten::p4,
                                &Ten::p5, &Ten::p6, &Ten::p7, &Ten::p8, &Ten::p9};
constexpr Ten Row<200>::*tens[] = {&Row<200>::t0, &Row<200>::t1, &Row<200>::t2, &Row<200>::t3,
                                   &Row<200>::t4, &Row<200>::t5, &Row<200>::t6, &Row<200>::t7,
                                   &Row<200>::t8, &Row<200>::t9};

template <int number> constexpr auto cellOfPair()
{
    if constexpr (isText(number))
        return &Pair::text;
    else
        return &Pair::number;
}

// The path to a column.
template <int columns, int number> constexpr auto path()
{
    constexpr int pair = (number - 1) / 2;
    if constexpr (number == 0)
        return sql::MemberPath<&Row<columns>::id>();
    else if constexpr (columns == 2)
        return sql::MemberPath<&Row<2>::pairs, cellOfPair<number>()>();
    else if constexpr (columns == 20)
        return sql::MemberPath<&Row<20>::pairs, pairs[pair], cellOfPair<number>()>();
    else
        return sql::MemberPath<tens[pair / 10], pairs[pair % 10], cellOfPair<number>()>();
}

template <int number, int columns> auto& cellOf(Row<columns>& row)
{
    return decltype(path<columns, number>())::of(row);
}

// Calls a function with each column's cell and number.
template <int columns, typename Function, int... numbers>
void forEach(Row<columns>& row, const Function& function,
             std::integer_sequence<int, numbers...> /*all*/)
{
    (function(cellOf<numbers>(row), numbers), ...);
}
template <int columns, typename Function> void forEach(Row<columns>& row, const Function& function)
{
    forEach(row, function, std::make_integer_sequence<int, columns>());
}

void set(long long& cell, int row, int column)
{
    cell = row * column;
}
void set(std::string& cell, int row, int column)
{
    cell = textOf(row, column);
}

template <int columns> class WideRows : public Wide {
protected:
    Row<columns>& rowOf(int key, int row)
    {
        forEach(_row, [&](auto& cell, int column) { set(cell, row, column); });
        _row.id = key;
        return _row;
    }
    long long read(bool /*byName*/) override
    {
        return static_cast<long long>(_rows.size());
    }

    std::vector<Row<columns>> _rows;

private:
    Row<columns> _row;
};

constexpr int most_columns = 200;
constexpr int name_size = 9;

// "column000" and so on.
constexpr auto name_texts = [] {
    std::array<char, most_columns * name_size> all{};
    for (int i = 0; i < most_columns * name_size; ++i) {
        const int column = i / name_size;
        const char digits[] = {static_cast<char>('0' + column / 100),
                               static_cast<char>('0' + column / 10 % 10),
                               static_cast<char>('0' + column % 10)};
        all[i] = i % name_size < 6 ? "column"[i % name_size] : digits[i % name_size - 6];
    }
    return all;
}();

constexpr std::string_view nameOf(int column)
{
    return {&name_texts[column * name_size], name_size};
}

template <int number, auto... path> constexpr auto columnOf(sql::MemberPath<path...> /*path*/)
{
    return sql::column<path...>(nameOf(number));
}
template <int columns, int... numbers>
constexpr auto mappingOf(std::integer_sequence<int, numbers...> /*but the first*/)
{
    return sql::mapping<Row<columns>>("item", sql::key<&Row<columns>::id>("id"),
                                      columnOf<numbers + 1>(path<columns, numbers + 1>())...);
}
template <int columns>
constexpr auto mapped = mappingOf<columns>(std::make_integer_sequence<int, columns - 1>());

// The table as structs, by a typed table.
template <int columns> class WideTyped : public WideRows<columns> {
public:
    explicit WideTyped(const std::string& file) : _table(_database, mapped<columns>)
    {
        require(_database.open(file, sql::Database::access_create, false, 1000), "open");
        require(_table.create() && _database.transactionBegin(), "create");
        require(_table.update(Row<columns>()) && _table.load(this->_rows), "compile");
    }
    void insert(int row) override
    {
        require(_table.add(this->rowOf(row, row)), "insert");
    }
    void update(int row) override
    {
        require(_table.update(this->rowOf(row, row + 1)), "update");
    }
    void load() override
    {
        require(_table.load(this->_rows), "load");
    }

private:
    sql::Database _database;
    sql::TypedTable<Row<columns>, long long> _table;
};

// The same by hand.
template <int columns> class WidePrepared : public WideRows<columns> {
public:
    explicit WidePrepared(const std::string& file) : _db(connect(file))
    {
        std::string list = "id";
        std::string declared = "id integer primary key";
        std::string values = "?1";
        std::string changes;
        for (int i = 1; i < columns; ++i) {
            const std::string name(nameOf(i));
            const std::string value = "?" + std::to_string(i + 1);
            list += ", " + name;
            declared += ", " + name + (isText(i) ? " text" : " integer");
            values += ", " + value;
            changes += (i > 1 ? ", " : "") + name + " = " + value;
        }
        run("create table item (" + declared + ")");
        run("begin");
        prepare("insert into item (" + list + ") values (" + values + ")", &_insert);
        prepare("update item set " + changes + " where id = ?1", &_update);
        prepare("select " + list + " from item", &_select);
    }
    ~WidePrepared() override
    {
        for (sqlite3_stmt* const statement : {_insert, _update, _select})
            sqlite3_finalize(statement);
        sqlite3_close(_db);
    }
    WidePrepared(const WidePrepared&) = delete;
    WidePrepared& operator=(const WidePrepared&) = delete;

    void insert(int row) override
    {
        write(_insert, this->rowOf(row, row));
    }
    void update(int row) override
    {
        write(_update, this->rowOf(row, row + 1));
    }
    void load() override
    {
        this->_rows.clear();
        while (sqlite3_step(_select) == SQLITE_ROW)
            forEach(this->_rows.emplace_back(),
                    [&](auto& cell, int column) { readCell(cell, column); });
        sqlite3_reset(_select);
    }

private:
    void run(const std::string& sql)
    {
        require(sqlite3_exec(_db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, "run");
    }
    void prepare(const std::string& sql, sqlite3_stmt** statement)
    {
        require(sqlite3_prepare_v2(_db, sql.c_str(), -1, statement, nullptr) == SQLITE_OK,
                "prepare");
    }
    void write(sqlite3_stmt* statement, Row<columns>& row)
    {
        forEach(row, [&](const auto& cell, int column) { bind(statement, column + 1, cell); });
        require(sqlite3_step(statement) == SQLITE_DONE, "write");
        sqlite3_reset(statement);
    }
    static void bind(sqlite3_stmt* statement, int position, long long number)
    {
        sqlite3_bind_int64(statement, position, number);
    }
    static void bind(sqlite3_stmt* statement, int position, const std::string& text)
    {
        sqlite3_bind_text(statement, position, text.data(), static_cast<int>(text.size()),
                          SQLITE_STATIC);
    }
    void readCell(long long& cell, int column)
    {
        cell = sqlite3_column_int64(_select, column);
    }
    void readCell(std::string& cell, int column)
    {
        const void* const text = sqlite3_column_text(_select, column);
        cell.assign(static_cast<const char*>(text), sqlite3_column_bytes(_select, column));
    }

    sqlite3* _db;
    sqlite3_stmt* _insert = nullptr;
    sqlite3_stmt* _update = nullptr;
    sqlite3_stmt* _select = nullptr;
};

template <template <int> class Contestant>
std::unique_ptr<Wide> make(const std::string& file, int columns)
{
    switch (columns) {
    case 2:
        return std::make_unique<Contestant<2>>(file);
    case 20:
        return std::make_unique<Contestant<20>>(file);
    case 200:
        return std::make_unique<Contestant<200>>(file);
    default:
        require(false, "2, 20 or 200 columns");
        return nullptr;
    }
}

} // namespace

std::unique_ptr<Wide> makeWideTyped(const std::string& file, int columns)
{
    return make<WideTyped>(file, columns);
}

std::unique_ptr<Wide> makeWidePrepared(const std::string& file, int columns)
{
    return make<WidePrepared>(file, columns);
}

} // namespace bench
