// Columns, rows and the statements built from them, beside a model of the texts; and whether SQLite
// takes such a statement and gives the row back.

#include "Cell.h"
#include "Fuzz.h"

#include "SqlField.h"
#include "SqlFieldSet.h"
#include "SqlRecord.h"
#include "SqlTable.h"
#include "Sqlite.h"

#include <cmath>
#include <string>
#include <vector>

namespace {

using fuzz::Cell;
using fuzz::Events;
using fuzz::expectEqual;
using fuzz::Input;
using fuzz::Reports;
using sql::Field;
using sql::FieldSet;
using sql::Record;
using test::shown;

const char* const failed = "assert 'false'";

struct Column {
    std::string name;
    std::int32_t type;
    int flags;
    int index;

    bool isKey() const
    {
        return (flags & sql::flag_primary_key) != 0;
    }

    std::string flagText() const
    {
        return std::string(isKey() ? " PRIMARY KEY" : "")
               + ((flags & sql::flag_not_null) != 0 ? " NOT NULL" : "")
               + ((flags & sql::flag_unique) != 0 ? " UNIQUE" : "");
    }

    std::string definition(Events& events) const
    {
        static const char* const types[] = {"INTEGER", "TEXT", "REAL", "INTEGER", "INTEGER"};
        const bool isKnown = type >= 0 && type <= 4;
        if (!isKnown)
            events.emplace_back(failed);
        std::string text = name + " " + (isKnown ? types[type] : "") + flagText();
        const char* const blanks = " \t\n\v\f\r";
        text.erase(text.find_last_not_of(blanks) + 1);
        return text.erase(0, text.find_first_not_of(blanks));
    }

    std::string dump(Events& events) const
    {
        return std::to_string(index) + ": name=" + name + ", type=" + fuzz::typeName(type, events)
               + ", flags:" + flagText();
    }
};

// The columns of a set and the cells of one row, by the rules of both.
class Model {
public:
    std::vector<Column> columns;
    std::vector<Cell> cells;

    // What becomes of the columns of an array.
    void append(const std::vector<Column>& array, Events& events)
    {
        std::size_t position = 0;
        for (const Column& column : array) {
            if (column.name.empty())
                break;
            if (column.isKey() && column.type != sql::type_int && column.type != sql::type_text) {
                const std::string type = fuzz::typeName(column.type, events);
                events.push_back("[ERROR] PRIMARY KEY column '" + shown(column.name)
                                 + "' must be of type 'integer' or 'text' instead of type '" + type
                                 + "'");
                events.emplace_back(failed);
                columns.clear();
                return;
            }
            columns.push_back(column);
            columns[position].index = static_cast<int>(position);
            ++position;
        }
        if (key() == nullptr)
            events.emplace_back(failed);
    }

    void makeCells()
    {
        for (const Column& column : columns)
            cells.emplace_back(column.type);
    }

    const Column* key() const
    {
        for (const Column& column : columns) {
            if (column.isKey())
                return &column;
        }
        return nullptr;
    }

    std::string keyName(Events& events) const
    {
        if (const Column* const column = key())
            return column->name;
        report(events, "Failed to get name of PRIMARY KEY column");
        return std::string();
    }

    const Column* column(const std::string& name) const
    {
        for (const Column& column : columns) {
            if (column.name == name)
                return &column;
        }
        return nullptr;
    }

    Cell* cell(int index, Events& events)
    {
        if (index >= 0 && index < static_cast<int>(cells.size()))
            return &cells[static_cast<std::size_t>(index)];
        report(events, "No value for column with index " + std::to_string(index));
        return nullptr;
    }

    Cell* cell(const std::string& name, Events& events)
    {
        if (const Column* const found = column(name))
            return cell(found->index, events);
        report(events, "No value for column with name '" + shown(name) + "'");
        return nullptr;
    }

    // One text of all columns, joined by a separator: what getDefinition, toSql and dump are.
    template <typename Text> std::string joined(const char* separator, Text text) const
    {
        std::string line;
        for (const Column& column : columns) {
            line += text(column);
            if (&column != &columns.back())
                line += separator;
        }
        return line;
    }

    std::string definition(Events& events) const
    {
        return joined(", ", [&](const Column& column) { return column.definition(events); });
    }

    std::string names() const
    {
        return joined(", ", [](const Column& column) { return column.name; });
    }

    std::string literals(Events& events)
    {
        std::string line;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            const Cell* const found = cell(columns[i].name, events);
            if (found == nullptr) {
                report(events, "field with index " + std::to_string(i) + " does not have value");
                return std::string();
            }
            line += (i > 0 ? ", " : "") + found->toSql(columns[i].type, events);
        }
        return line;
    }

    std::string insert(const std::string& table, Events& events)
    {
        const std::string inTable = shown(table);
        if (table.empty())
            return refused(events, "No table name given");
        if (names().empty())
            return refused(events, "No fields to insert in table '" + inTable + "'");
        const std::string values = literals(events);
        if (values.empty())
            return refused(events, "No values to insert in table '" + inTable + "'");
        return "insert into " + table + " (" + names() + ") values (" + values + ")";
    }

    std::string update(const std::string& table, Events& events)
    {
        if (table.empty())
            return refused(events, "No table name given");
        std::string statement = "update " + table + " set ";
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (columns[i].isKey())
                continue;
            const Cell* const found = cell(columns[i].name, events);
            if (found == nullptr)
                return refused(events, "No value for column with index=" + std::to_string(i)
                                           + " (and name=" + shown(columns[i].name) + ") of table "
                                           + shown(table));
            statement += columns[i].name + "=" + found->toSql(columns[i].type, events);
            statement += i + 1 < columns.size() ? ", " : "";
        }
        const std::string where = whereKey(shown(table), events);
        return where.empty() ? where : statement + where;
    }

    std::string createTable(const std::string& table, Events& events) const
    {
        const std::string list = definition(events);
        if (list.empty())
            return refused(events, std::string("Failed to build SQL CREATE TABLE stmt for table ")
                                       + shown(table));
        return "CREATE TABLE " + table + " (" + list + ")";
    }

private:
    static void report(Events& events, const std::string& message)
    {
        events.push_back("[ERROR] " + message);
        events.emplace_back(failed);
    }

    static std::string refused(Events& events, const std::string& message)
    {
        report(events, message);
        return std::string();
    }

    std::string whereKey(const std::string& table, Events& events)
    {
        const std::string name = keyName(events);
        if (name.empty())
            return refused(events, "Failed to get name of PRIMARY KEY column for table " + table);
        const Cell* const found = cell(key()->index, events);
        if (found == nullptr)
            return refused(events, "No PRIMARY KEY column found for table " + table);
        if (found->type != sql::type_int)
            events.emplace_back("assert 'value->getType() == type_int'");
        return " where " + name + " = " + found->toSql(sql::type_int, events);
    }
};

// One column, plain enough for SQLite or of any kind.
Column chosenColumn(Input& input, bool isPlain, int position)
{
    Column column = {"x" + std::to_string(position), sql::type_int, 0, -1};
    if (isPlain) {
        column.type = input.below(5);
        // The first column that is a key stays the only one: SQLite takes no second one.
        column.flags = input.below(position == 0 ? 8 : 2);
        if (column.isKey())
            column.type %= 2;
    } else {
        if (!input.flip())
            column.name = input.text();
        column.type = input.type();
        column.flags = input.flip() ? input.number() : input.below(8);
    }
    return column;
}

std::vector<Column> chosenColumns(Input& input, bool isPlain)
{
    std::vector<Column> columns;
    const int count = input.below(7);
    columns.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i)
        columns.push_back(chosenColumn(input, isPlain, i));
    return columns;
}

std::vector<Field> fieldsOf(const std::vector<Column>& columns, Reports& reports)
{
    std::vector<Field> fields;
    Events events;
    for (const Column& column : columns) {
        fields.emplace_back(column.name, static_cast<sql::field_type>(column.type), column.flags);
        if (column.name.empty())
            events.emplace_back("assert 'name.empty() == false'");
    }
    reports.expect("Field", events);
    fields.emplace_back();
    return fields;
}

// The set in one of the ways that there are, and what is to be in it.
FieldSet chosenSet(Model& model, Input& input, bool isPlain, Reports& reports)
{
    const std::vector<Column> columns = chosenColumns(input, isPlain);
    std::vector<Field> fields = fieldsOf(columns, reports);
    Events events;
    const int way = isPlain ? 0 : input.below(3);
    if (way == 1) {
        fields.pop_back();
        model.columns = columns;
        FieldSet set(fields);
        reports.expect("FieldSet(vector)", events);
        return set;
    }
    FieldSet set(fields.data());
    model.append(columns, events);
    if (way == 2) {
        const std::vector<Column> more = chosenColumns(input, isPlain);
        reports.expect("FieldSet(array)", events);
        events.clear();
        const std::vector<Field> moreFields = fieldsOf(more, reports);
        model.append(more, events);
        expectEqual("initFieldSet", set.initFieldSet(moreFields.data()), events.empty());
    }
    reports.expect("the array's columns", events);
    return set;
}

void checkField(const Field* field, const Column& column, Reports& reports)
{
    Events events;
    expectEqual("a field's type", static_cast<std::int32_t>(field->getType()), column.type);
    expectEqual("a field's index", field->getIndex(), column.index);
    expectEqual("a field's name", field->getName(), column.name);
    expectEqual("isEndingField", field->isEndingField(), column.name.empty());
    expectEqual("isPrimaryKey", field->isPrimaryKey(), column.isKey());
    expectEqual("isNotNull", field->isNotNull(), (column.flags & sql::flag_not_null) != 0);
    expectEqual("isUnique", field->isUnique(), (column.flags & sql::flag_unique) != 0);
    expectEqual("getFlags", field->getFlags(), column.flagText());
    expectEqual("a field's definition", field->getDefinition(), column.definition(events));
    expectEqual("a field's dump", field->dump(), column.dump(events));
    reports.expect("a field", events);
}

void checkSet(const FieldSet& set, const Model& model, Reports& reports)
{
    const int count = static_cast<int>(model.columns.size());
    expectEqual("the fields' number", set.count(), count);
    expectEqual("getByIndex(-1)", set.getByIndex(-1) == nullptr, true);
    expectEqual("getByIndex(count())", set.getByIndex(count) == nullptr, true);
    for (int i = 0; i < count; ++i) {
        const Column& column = model.columns[static_cast<std::size_t>(i)];
        checkField(set.getByIndex(i), column, reports);
        checkField(set.getByName(column.name), *model.column(column.name), reports);
    }
    Events events;
    expectEqual("getDefinition", set.getDefinition(), model.definition(events));
    expectEqual("toSql", set.toSql(), model.names());
    expectEqual("dump", set.dump(),
                model.joined("\r\n", [&](const Column& column) { return column.dump(events); }));
    expectEqual("getKeyIdName", set.getKeyIdName(), model.keyName(events));
    reports.expect("a field set", events);
}

// The cell's text is what every setter comes down to.
template <typename Place>
void setCell(Record& record, const Place& place, Cell* cell, Input& input, int kind)
{
    Cell ignored(sql::type_int);
    Cell& target = cell != nullptr ? *cell : ignored;
    const sql::integer number = kind < 4 ? input.integer() : 0;
    switch (kind) {
    case 0:
        record.setInteger(place, number);
        target.set(std::to_string(number));
        break;
    case 1:
        record.setBool(place, number % 2 != 0);
        target.set(number % 2 != 0 ? "1" : "0");
        break;
    case 2: {
        record.setDouble(place, static_cast<double>(number) / 64);
        target.set(test::fixedText(static_cast<double>(number) / 64));
        break;
    }
    case 3: {
        const time_t time = static_cast<time_t>(number);
        record.setTime(place, sql::Time(time));
        target.set(std::to_string(time));
        break;
    }
    case 4: {
        const std::string text = input.text();
        record.setString(place, text);
        target.set(text);
        break;
    }
    default:
        record.setNull(place);
        target.setNull();
    }
}

void setByName(Record& record, Model& model, Input& input, Events& events)
{
    const int position = input.below(8);
    const bool isKnown = position < static_cast<int>(model.columns.size());
    const std::string name = isKnown ? model.columns[static_cast<std::size_t>(position)].name
                                     : input.text();
    const Column* const column = model.column(name);
    if (column == nullptr) {
        events.push_back("[ERROR] Field/column '" + shown(name) + "' not found");
        events.emplace_back(failed);
    }
    Cell* const cell = column != nullptr ? model.cell(column->index, events) : nullptr;
    setCell(record, name, cell, input, input.below(6));
}

void setByPosition(Record& record, Model& model, Input& input, Events& events)
{
    const int position = input.below(9) - 1;
    Cell* const cell = model.cell(position, events);
    setCell(record, position, cell, input, input.below(6));
}

void setRaw(Record& record, Model& model, Input& input, Events& events)
{
    const int position = input.below(9) - 1;
    const sql::field_type type = input.type();
    const std::string text = input.word();
    const bool isKnown = position >= 0 && position < static_cast<int>(model.cells.size());
    expectEqual("initColumnValue", record.initColumnValue(position, text.c_str(), type), isKnown);
    if (isKnown) {
        model.cells[static_cast<std::size_t>(position)].type = type;
        model.cells[static_cast<std::size_t>(position)].set(text);
        return;
    }
    events.push_back("[ERROR] Column index (" + std::to_string(position) + ") is out of range [0, "
                     + std::to_string(model.cells.size()) + "[");
    events.emplace_back(failed);
}

void fill(Record& record, Model& model, Input& input, Reports& reports)
{
    const int steps = input.below(16);
    for (int i = 0; i < steps; ++i) {
        Events events;
        reports.setLevel(3); // times are traced when they are made
        const int way = input.below(3);
        if (way == 0)
            setByName(record, model, input, events);
        else if (way == 1)
            setByPosition(record, model, input, events);
        else
            setRaw(record, model, input, events);
        reports.expect("a setter", events);
        reports.setLevel(9);
    }
}

void checkTexts(const Record& record, Model& model, Reports& reports)
{
    Events events;
    std::string plain;
    std::string typed;
    for (std::size_t i = 0; i < model.cells.size(); ++i) {
        const char* const separator = i > 0 ? "|" : "";
        plain += separator + model.cells[i].toString(events);
    }
    expectEqual("columnCount", record.columnCount(), static_cast<int>(model.cells.size()));
    expectEqual("a record's toString", record.toString(), plain);
    for (std::size_t i = 0; i < model.cells.size(); ++i) {
        typed += (i > 0 ? "|" : "") + model.columns[i].name + " = ";
        typed += model.cells[i].dump(true, events);
    }
    expectEqual("a record's dump", record.dump(true), typed);
    reports.expect("a record's texts", events);
}

void checkStatements(const Record& record, Model& model, const std::string& table, Reports& reports)
{
    Events events;
    expectEqual("a record's toSql", record.toSql(), model.literals(events));
    reports.expect("a record's toSql", events);
    events.clear();
    expectEqual("toSqlInsert", record.toSqlInsert(table), model.insert(table, events));
    reports.expect("toSqlInsert", events);
    events.clear();
    expectEqual("toSqlUpdate", record.toSqlUpdate(table), model.update(table, events));
    reports.expect("toSqlUpdate", events);
    events.clear();
    const sql::Table detached(nullptr, table, *record.fields());
    expectEqual("a table's getDefinition", detached.getDefinition(),
                model.createTable(table, events));
    reports.expect("a table's getDefinition", events);
}

// Fills each cell with what its column is for.
void fillFitting(Record& record, Model& model, Input& input)
{
    for (std::size_t i = 0; i < model.cells.size(); ++i) {
        static const int kinds[] = {0, 4, 2, 1, 3}; // of setCell(), by type
        const int position = static_cast<int>(i);
        const bool isNull = input.below(4) == 0;
        setCell(record, position, &model.cells[i], input,
                isNull ? 5 : kinds[model.columns[i].type]);
        const std::string text = shown(model.cells[i].text); // a statement ends at a zero byte
        if (text != model.cells[i].text) {
            record.setString(position, text);
            model.cells[i].set(text);
        }
    }
}

// What SQLite has against the row; empty when it takes it. A null integer key is one it chooses.
std::string refusal(const Model& model, const std::string& table)
{
    for (std::size_t i = 0; i < model.cells.size(); ++i) {
        const Column& column = model.columns[i];
        const bool isChosen = column.isKey() && column.type == sql::type_int;
        if ((column.flags & sql::flag_not_null) != 0 && model.cells[i].isNull && !isChosen)
            return "NOT NULL constraint failed: " + table + "." + column.name;
    }
    return std::string();
}

void expectRun(bool done, const std::string& statement, const std::string& refusal,
               Reports& reports)
{
    expectEqual("whether SQLite takes the statement", done, refusal.empty());
    Events expected;
    if (!refusal.empty())
        expected = {"[ERROR] Failed to run the SQL stmt '" + statement + "'",
                    "[ERROR]   rc=19=SQLITE_CONSTRAINT: " + refusal};
    reports.expect("the statement", expected);
}

// SQLite keeps 15 digits of a real number as it hands it out.
void checkStored(const sql::Value& stored, const Cell& cell)
{
    expectEqual("whether the stored cell is null", stored.isNull(), cell.isNull);
    if (cell.type != sql::type_float) {
        Events ignored;
        expectEqual("the stored cell", stored.toSql(sql::type_int),
                    cell.toSql(sql::type_int, ignored));
        return;
    }
    const double expected = cell.asDouble();
    const bool isClose = std::fabs(stored.asDouble() - expected) <= std::fabs(expected) * 1e-13;
    if (!isClose)
        expectEqual("the stored number", stored.asDouble(), expected);
}

// Takes over the key that SQLite has chosen.
void checkRow(sql::Table& table, Record& record, Model& model)
{
    expectEqual("whether the table can be read", table.open(), true);
    expectEqual("the number of rows", table.recordCount(), 1);
    const Record& row = *table.getTopRecord();
    for (std::size_t i = 0; i < model.cells.size(); ++i) {
        const int position = static_cast<int>(i);
        if (model.columns[i].isKey() && model.cells[i].type == sql::type_int
            && model.cells[i].isNull) {
            record.setInteger(position, 1);
            model.cells[i].set("1");
        }
        checkStored(*row.getValue(position), model.cells[i]);
    }
}

// Whether the UPDATE statement is one that SQLite can run.
bool hasUpdate(const Model& model)
{
    return model.columns.size() > 1 && model.columns[0].isKey()
           && model.columns[0].type == sql::type_int;
}

void tryStoring(Record& record, Model& model, Input& input, Reports& reports)
{
    static test::Connection db;
    sql::Table table(db, "y" + std::to_string(model.columns.size()), *record.fields());
    expectEqual("whether the table can be created", table.create(), true);

    Events ignored;
    std::string flaw = refusal(model, table.name());
    expectRun(table.addRecord(record), model.insert(table.name(), ignored), flaw, reports);
    if (flaw.empty()) {
        checkRow(table, record, model);
        if (hasUpdate(model)) {
            const Cell key = model.cells[0];
            fillFitting(record, model, input);
            record.setString(0, key.text);
            model.cells[0] = key;
            flaw = refusal(model, table.name());
            expectRun(table.updateRecord(record), model.update(table.name(), ignored), flaw,
                      reports);
            if (flaw.empty())
                checkRow(table, record, model);
        }
    }
    expectEqual("whether the table can be dropped", table.remove(), true);
    reports.expect("the table", {});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const bool isPlain = input.flip();
    Reports reports(9);
    Model model;
    const FieldSet set = chosenSet(model, input, isPlain, reports);
    checkSet(set, model, reports);

    model.makeCells();
    Record record(set);
    if (isPlain) {
        reports.setLevel(3);
        fillFitting(record, model, input);
        if (!model.columns.empty())
            tryStoring(record, model, input, reports);
        reports.setLevel(9);
    } else {
        fill(record, model, input, reports);
    }
    checkTexts(record, model, reports);
    checkStatements(record, model, isPlain ? "y" : input.text(), reports);
    return 0;
}
