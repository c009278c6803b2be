// Any series of operations of a PreparedTable on any table, beside plain SQL.

#include "Records.h"

#include "Sqlite.h"

#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

namespace {

using fuzz::expectEqual;
using fuzz::Input;
using sql::Field;
using test::Cell;
using test::Cells;
using test::Stored;

constexpr int fewest_in_groups = 280; // records that go in several a statement

// --- Tables

// SQLite keeps some to itself.
std::string anyName(Input& input)
{
    static const char* const names[] = {"id", "name", "a b", "select", "`", "'\"[]", "rowid", "?1"};
    std::string name = input.flip() ? input.oneOf(names) : input.word();
    return sqlite3_strnicmp(name.c_str(), "sqlite_", 7) == 0 ? "x" + name : name;
}

bool isIn(const std::vector<Field>& fields, const std::string& name)
{
    return std::any_of(fields.begin(), fields.end(), [&](const Field& field) {
        return sqlite3_stricmp(field.getName().c_str(), name.c_str()) == 0;
    });
}

std::vector<Field> anyFields(Input& input)
{
    std::vector<Field> fields;
    for (int left = input.below(5); left >= 0; --left) {
        std::string name = anyName(input);
        while (isIn(fields, name))
            name += "+";
        const sql::field_type type = input.type();
        fields.emplace_back(name, type,
                            input.below(3) == 0 ? sql::flag_primary_key : sql::flag_none);
    }
    return fields;
}

// Of the file, whose columns may have other types than they are declared to have.
std::string anyDefinition(Input& input, const std::vector<Field>& fields)
{
    static const char* const types[] = {"integer", "text", "real", "blob", "numeric", ""};
    std::vector<std::string> columns;
    std::vector<std::string> keys;
    for (const Field& field : fields) {
        const std::string name = test::quotedName(field.getName());
        columns.push_back(name + " " + input.oneOf(types));
        if (field.isPrimaryKey())
            keys.push_back(name);
    }
    if (keys.empty())
        return "(" + test::joinedBy(", ", columns) + ")";
    columns.push_back("primary key (" + test::joinedBy(", ", keys) + ")");
    return "(" + test::joinedBy(", ", columns) + ")" + (input.below(4) == 0 ? "without rowid" : "");
}

// --- Series

class Run {
public:
    explicit Run(Input& input)
        : _input(input), _name(anyName(input)), _fields(anyFields(input)),
          _records(_diagnostics, _name, _fields)
    {
        runOnBoth("create table " + test::quotedName(_name) + anyDefinition(_input, _fields));
    }

    void step()
    {
        static void (Run::*const operations[])() = {
            &Run::add,  &Run::add,     &Run::update,  &Run::update, &Run::addOrUpdate,
            &Run::read, &Run::addMany, &Run::addMany, &Run::remove, &Run::addOrUpdate,
            &Run::has,  &Run::readAll, &Run::others,  &Run::others, &Run::transact,
        };
        (this->*_input.oneOf(operations))();
        expectSame();
    }

    void finish()
    {
        _records.copy();
        expectEqual("whether the declaration can be checked", _records.check().has_value(), true);
        expectSame();
    }

private:
    void runOnBoth(const std::string& statement)
    {
        test::run(_records.library.getHandle(), statement);
        test::run(_records.plain.connection(), statement);
    }

    void expectSame()
    {
        sqlite3* const db = _records.library.getHandle();
        expectEqual("the rows", test::typedRows(db, "select * from " + test::quotedName(_name)),
                    _records.plain.rows());
        expectEqual("whether a transaction is open", sqlite3_get_autocommit(db),
                    sqlite3_get_autocommit(_records.plain.connection()));
    }

    // Few keys, so that operations meet; and any.
    std::string anyText()
    {
        static const char* const texts[] = {"+7",  "007",  "-0",  ".5",  "7.",  "1e3",   "1E2",
                                            "7.0", "1e9",  "tea", "1e",  "inf", "1e999", " 1",
                                            "",    "0x10", "nan", "0.1", "+-1", "-",     "1e-999"};
        switch (_input.below(8)) {
        case 0:
            return _input.oneOf(texts);
        case 1:
            return _input.text();
        case 2:
            return std::to_string(_input.integer());
        default:
            return std::to_string(_input.below(4));
        }
    }

    Cells anyCells()
    {
        Cells cells;
        for (std::size_t i = 0; i < _fields.size(); ++i)
            cells.push_back(_input.below(12) == 0 ? Cell() : Cell(anyText()));
        return cells;
    }

    Stored anyValue()
    {
        switch (_input.below(8)) {
        case 0:
            return nullptr;
        case 1:
            return test::Block{_input.text()};
        case 2:
            return std::max(-std::numeric_limits<double>::max(), _input.real()); // not a NaN
        case 3:
            return anyText();
        case 4:
            return _input.integer();
        default:
            return sql::integer{_input.below(4)};
        }
    }

    void add()
    {
        _records.add(anyCells());
    }

    void update()
    {
        _records.update(anyCells());
    }

    void addOrUpdate()
    {
        _records.addOrUpdate(anyCells());
    }

    // A few, or so many of the same kind that they go in together.
    void addMany()
    {
        std::vector<Cells> all;
        for (int left = _input.below(4); left > 0; --left)
            all.push_back(anyCells());
        if (!all.empty() && _input.below(8) == 0) {
            const sql::integer first = _input.integer() / 2;
            const int count = fewest_in_groups + _input.below(64);
            for (int i = 0; i < count; ++i) {
                all.insert(all.begin(), all.back());
                for (std::size_t column = 0; column < _fields.size(); ++column) {
                    if (_fields[column].isPrimaryKey())
                        all.front()[column] = std::to_string(first - i);
                }
            }
        }
        _records.addAll(all);
    }

    void remove()
    {
        _records.remove(anyValue());
    }

    void has()
    {
        _records.has(anyValue());
    }

    void read()
    {
        _records.read(anyValue());
    }

    void readAll()
    {
        _records.readAll();
    }

    // As somebody else may write it.
    void others()
    {
        std::vector<Stored> values;
        for (std::size_t i = 0; i < _fields.size(); ++i)
            values.push_back(anyValue());
        for (sqlite3* const db : {_records.library.getHandle(), _records.plain.connection()})
            _records.plain.insertStored(db, values);
    }

    void transact()
    {
        if (_input.flip())
            _records.release();
        else if (sqlite3_get_autocommit(_records.plain.connection()) != 0)
            runOnBoth("begin");
        else
            runOnBoth(_input.flip() ? "commit" : "rollback");
    }

    test::Diagnostics _diagnostics;
    Input& _input;
    const std::string _name;
    const std::vector<Field> _fields;
    fuzz::Records _records;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Run run(input);
    for (int steps = 0; steps < 60 && !input.isUsedUp(); ++steps)
        run.step();
    run.finish();
    return 0;
}
