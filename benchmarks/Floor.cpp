#include "Floor.h"

#include "Contestant.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>

namespace bench {

int keepRow(void* rows, int count, char** values, char**)
{
    Cells cells;
    cells.reserve(count);
    for (int i = 0; i < count; ++i) {
        if (values[i] != nullptr)
            cells.emplace_back(values[i]);
        else
            cells.emplace_back(std::nullopt);
    }
    static_cast<Rows*>(rows)->push_back(std::move(cells));
    return 0;
}

void appendQuoted(std::string& sql, const std::string& text)
{
    sql += '\'';
    for (const char c : text) {
        if (c == '\'')
            sql += '\'';
        sql += c;
    }
    sql += '\'';
}

namespace {

// The least that a program does which writes its SQL itself and keeps what comes back: statements
// put together as text, run by sqlite3_exec(), every cell copied. The statements are those of the
// library, letter by letter.
void appendReal(std::string& sql, double number)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.8f", number);
    sql += text;
}

void appendNote(std::string& sql, const Row& row)
{
    if (row.note)
        appendQuoted(sql, *row.note);
    else
        sql += "null";
}

std::string insertStatement(const Row& row)
{
    std::string sql = "insert into item (id, name, place, price, active, changed, note) values (";
    sql += std::to_string(row.id);
    sql += ", ";
    appendQuoted(sql, row.name);
    sql += ", ";
    appendQuoted(sql, row.place);
    sql += ", ";
    appendReal(sql, row.price);
    sql += row.active ? ", 1, " : ", 0, ";
    sql += std::to_string(row.changed);
    sql += ", ";
    appendNote(sql, row);
    sql += ")";
    return sql;
}

std::string updateStatement(const Row& row)
{
    std::string sql = "update item set name=";
    appendQuoted(sql, row.name);
    sql += ", place=";
    appendQuoted(sql, row.place);
    sql += ", price=";
    appendReal(sql, row.price);
    sql += row.active ? ", active=1, changed=" : ", active=0, changed=";
    sql += std::to_string(row.changed);
    sql += ", note=";
    appendNote(sql, row);
    sql += " where id = ";
    sql += std::to_string(row.id);
    return sql;
}

bool isText(std::size_t column)
{
    return column == 1 || column == 2 || column == 6;
}

// A row that was read goes into another table as it came.
std::string copyStatement(const Cells& cells)
{
    std::string sql = "insert into item (id, name, place, price, active, changed, note) values (";
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (i > 0)
            sql += ", ";
        if (!cells[i])
            sql += "null";
        else if (isText(i))
            appendQuoted(sql, *cells[i]);
        else
            sql += *cells[i];
    }
    sql += ")";
    return sql;
}

long long integerOf(const std::optional<std::string>& cell)
{
    return cell ? std::strtoll(cell->c_str(), nullptr, 10) : 0;
}

double realOf(const std::optional<std::string>& cell)
{
    return cell ? std::strtod(cell->c_str(), nullptr) : 0.0;
}

std::string textOf(const std::optional<std::string>& cell)
{
    return cell ? *cell : std::string();
}

bool boolOf(const std::optional<std::string>& cell)
{
    return cell && *cell == "1";
}

const std::optional<std::string>& cellOf(const Cells& cells, int column)
{
    return cells[column];
}

const std::optional<std::string>& cellOf(const Cells& cells, const std::string& name)
{
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (name == column_names[i])
            return cells[i];
    }
    std::abort();
}

class Floor : public Contestant {
public:
    void open(const std::string& file) override
    {
        _db = connect(file);
    }
    void close() override
    {
        _rows = Rows();
        require(sqlite3_close(_db) == SQLITE_OK, "close");
        _db = nullptr;
    }
    sqlite3* handle() override
    {
        return _db;
    }
    void begin() override
    {
        run("BEGIN TRANSACTION");
    }
    void commit() override
    {
        run("COMMIT TRANSACTION");
    }
    void insert(const Row& row) override
    {
        run(insertStatement(row));
    }
    void update(const Row& row) override
    {
        run(updateStatement(row));
    }
    void addOrUpdate(const Row& row) override
    {
        if (exists(row.id))
            update(row);
        else
            insert(row);
    }
    void remove(long long key) override
    {
        run("delete from item where id = " + std::to_string(key));
    }
    bool lookup(long long key) override
    {
        _rows.clear();
        run("select * from item where id = " + std::to_string(key), &_rows);
        return !_rows.empty();
    }
    bool exists(long long key) override
    {
        return number("select count(*) from item where id = " + std::to_string(key)) > 0;
    }
    long long count() override
    {
        return number("select count(*) from item");
    }
    long long load() override
    {
        _rows.clear();
        run("select * from item", &_rows);
        return static_cast<long long>(_rows.size());
    }
    void readByIndex(Digest& digest) override
    {
        digestRows(digest, column_indexes);
    }
    void readByName(Digest& digest) override
    {
        digestRows(digest, column_names);
    }
    void copyFrom(Contestant& source) override
    {
        Floor& from = static_cast<Floor&>(source);
        from.load();
        for (const Cells& cells : from._rows)
            run(copyStatement(cells));
    }

private:
    void run(const std::string& sql, Rows* rows = nullptr)
    {
        require(sqlite3_exec(_db, sql.c_str(), keepRow, rows, nullptr) == SQLITE_OK, sql.c_str());
    }
    long long number(const std::string& sql)
    {
        Rows rows;
        run(sql, &rows);
        return integerOf(rows.at(0).at(0));
    }

    // The columns are given by number or by name.
    template <typename Column>
    void digestRows(Digest& digest, const Column (&columns)[column_count]);

    sqlite3* _db = nullptr;
    Rows _rows;
    Row _row;
};

template <typename Column>
void Floor::digestRows(Digest& digest, const Column (&columns)[column_count])
{
    load();
    for (const Cells& cells : _rows) {
        _row.id = integerOf(cellOf(cells, columns[0]));
        _row.name = textOf(cellOf(cells, columns[1]));
        _row.place = textOf(cellOf(cells, columns[2]));
        _row.price = realOf(cellOf(cells, columns[3]));
        _row.active = boolOf(cellOf(cells, columns[4]));
        _row.changed = integerOf(cellOf(cells, columns[5]));
        _row.note = cellOf(cells, columns[6]);
        digest.add(_row);
    }
}

} // namespace

std::unique_ptr<Contestant> makeFloor()
{
    return std::make_unique<Floor>();
}

} // namespace bench
