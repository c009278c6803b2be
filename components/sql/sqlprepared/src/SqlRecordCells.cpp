#include "SqlRecordCells.h"

#include "SqlFailure.h"
#include "SqlNumber.h"
#include "SqlStatement.h"

#include <sqlite3.h>

#include <cmath>

namespace sql {

namespace {

constexpr const char* is_block = "is a block of bytes";

bool takeNumber(const string& text, field_type type, Argument& cell)
{
    integer number = 0;
    if (type != type_float && readNumber(text, number) == nullptr) {
        cell = number;
        return true;
    }
    double real = 0;
    if (readNumber(text, real) != nullptr || !std::isfinite(real)) // "inf" and "nan" are words
        return false;
    cell = real;
    return true;
}

} // namespace

bool RecordAccess::fits(const Record& record, const FieldSet& fields)
{
    const int count = record.columnCount();
    if (count != fields.count())
        return false;
    if (record._fields == &fields)
        return true;
    for (int i = 0; i < count; ++i) {
        const Field* const field = record._fields->getByIndex(i);
        if (field == nullptr || field->getName() != fields.getByIndex(i)->getName())
            return false;
    }
    return record._fields->count() == count;
}

int RecordAccess::take(const Record& record, const FieldSet& fields,
                       const std::vector<field_type>& types, Argument* cells,
                       std::forward_list<string>& texts)
{
    if (!fits(record, fields))
        return other_columns;
    int index = 0;
    for (const Value& value : record._values) {
        const field_type type = types[index];
        Argument& cell = cells[index];
        if (value._isNull) {
            cell = nullptr;
        } else if (!isOfText(type)) {
            if (!takeNumber(value._value, type, cell))
                return index;
        } else if (value._type == type_time) {
            cell = std::string_view(texts.emplace_front(value.asString()));
        } else {
            cell = std::string_view(value._value);
        }
        ++index;
    }
    return all;
}

bool RecordAccess::takeInteger(const Record& record, int index, Argument& cell)
{
    integer number = 0;
    if (readNumber(record._values[index]._value, number) != nullptr)
        return false;
    cell = number;
    return true;
}

int RecordAccess::take(sqlite3_stmt* statement, std::vector<Argument>& cells, bool withBlocks)
{
    int index = 0;
    for (Argument& cell : cells) {
        sqlite3_value* const value = sqlite3_column_value(statement, index);
        switch (sqlite3_value_type(value)) {
        case SQLITE_INTEGER:
            cell = static_cast<integer>(sqlite3_value_int64(value));
            break;
        case SQLITE_FLOAT:
            cell = sqlite3_value_double(value);
            break;
        case SQLITE_NULL:
            cell = nullptr;
            break;
        case SQLITE_BLOB: {
            if (!withBlocks)
                return index;
            const void* const data = sqlite3_value_blob(value);
            cell = Bytes{data, static_cast<std::size_t>(sqlite3_value_bytes(value))};
            break;
        }
        default: {
            const unsigned char* const text = sqlite3_value_text(value);
            if (text == nullptr)
                return index;
            cell = std::string_view(reinterpret_cast<const char*>(text),
                                    sqlite3_value_bytes(value));
        }
        }
        ++index;
    }
    return all;
}

void RecordAccess::fill(Record& record, const std::vector<Argument>& cells)
{
    const Argument* cell = cells.data();
    for (Value& value : record._values) {
        const auto set = [&](std::string_view text) {
            value._value = text;
        };
        value._isNull = cell->_kind == Argument::Kind::null;
        switch (cell->_kind) {
        case Argument::Kind::number:
            set(NumberText(cell->_number).view());
            break;
        case Argument::Kind::real:
            if (std::isinf(cell->_real))
                set(cell->_real > 0 ? "Inf" : "-Inf"); // as SQLite writes it
            else
                set(NumberText(cell->_real).view());
            break;
        case Argument::Kind::text:
            set({static_cast<const char*>(cell->_bytes.data), cell->_bytes.size});
            break;
        default:
            value._value.clear();
        }
        ++cell;
    }
}

// All cells, or none.
bool Statement::readRecord(const char* operation, const Variable& variable)
{
    const RowTarget& target = *static_cast<const RowTarget*>(variable.variable);
    if (target.record != nullptr && !RecordAccess::fits(*target.record, *target.fields))
        return fail(operation, State::failed, SQLITE_MISUSE, wrong_columns);
    const bool isCopy = target.record == nullptr;
    const int index = RecordAccess::take(_handle.statement, *target.cells, isCopy);
    if (index != RecordAccess::all) {
        const bool isBlock = sqlite3_column_type(_handle.statement, index) == SQLITE_BLOB;
        return failToRead(operation, index, isBlock ? is_block : no_memory);
    }
    if (!isCopy)
        RecordAccess::fill(*target.record, *target.cells);
    return true;
}

} // namespace sql
