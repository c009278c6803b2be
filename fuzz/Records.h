#ifndef SQLWRAPPER_FUZZ_RECORDS_H
#define SQLWRAPPER_FUZZ_RECORDS_H

// A PreparedTable beside plain SQL: each operation has the same result, and the same reason of a failure.

#include "Fuzz.h"
#include "PlainTable.h"
#include "Reports.h"
#include "SqlDatabase.h"
#include "SqlPreparedTable.h"

#include <sqlite3.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

namespace fuzz {

// For what takes a key of some type.
template <typename Operation> auto withKey(const test::Stored& key, Operation operation)
{
    return std::visit(
        [&](const auto& value) {
            if constexpr (std::is_same_v<std::decay_t<decltype(value)>, test::Block>)
                return operation(sql::Bytes{value.bytes.data(), value.bytes.size()});
            else
                return operation(value);
        },
        key);
}

// What is chosen at random is the same each time.
template <typename Operation> auto calm(Operation operation)
{
    sqlite3_test_control(SQLITE_TESTCTRL_PRNG_SEED, 7, nullptr);
    return operation();
}

class Records {
public:
    Records(test::Diagnostics& diagnostics, const std::string& name,
            const std::vector<sql::Field>& fields)
        : plain(name, fields), _diagnostics(diagnostics), _fields(fields),
          _table(nullptr, name, sql::FieldSet(fields))
    {
        expectEqual("whether a database can be opened in memory",
                    library.open(":memory:", sql::Database::access_create, false, 0), true);
        _diagnostics.clear(); // of columns of odd types
    }

    ~Records()
    {
        release();
        library.close();
        takeReports({});
    }

    Records(const Records&) = delete;
    Records& operator=(const Records&) = delete;

    void release()
    {
        _fast.release();
    }

    void add(const test::Cells& cells)
    {
        const test::Outcome expected = calm([&] { return plain.add(cells); });
        const bool added = calm([&] { return _fast.addRecord(record(cells)); });
        expectOutcome("addRecord", added, expected);
    }

    void update(const test::Cells& cells)
    {
        const bool updated = _fast.updateRecord(record(cells));
        expectOutcome("updateRecord", updated, plain.update(cells));
    }

    void addOrUpdate(const test::Cells& cells)
    {
        const test::Outcome expected = calm([&] { return plain.addOrUpdate(cells); });
        const bool stored = calm([&] { return _fast.addOrUpdateRecord(record(cells)); });
        expectOutcome("addOrUpdateRecord", stored, expected);
    }

    void addAll(const std::vector<test::Cells>& all)
    {
        std::vector<sql::Record> records;
        records.reserve(all.size());
        for (const test::Cells& cells : all)
            records.push_back(record(cells));
        const test::Outcome expected = calm([&] { return plain.addAll(all); });
        const bool added = calm([&] { return _fast.addRecords(records.begin(), records.end()); });
        expectOutcome("addRecords", added, expected);
    }

    void remove(const test::Stored& key)
    {
        const bool removed = withKey(key, [&](const auto& it) { return _fast.deleteRecord(it); });
        expectOutcome("deleteRecord", removed, plain.remove(key));
    }

    void has(const test::Stored& key)
    {
        const sql::Presence found = withKey(
            key, [&](const auto& it) { return _fast.hasRecordWithKeyId(it); });
        const test::Outcome expected = plain.has(key);
        expectOutcome("hasRecordWithKeyId", found != sql::Presence::unknown, expected);
        expectEqual("whether there is one", found == sql::Presence::present,
                    !expected.rows.empty());
    }

    void read(const test::Stored& key)
    {
        sql::Record read = record(test::Cells(_fields.size(), "as it was"));
        const sql::Result<bool> result = withKey(
            key, [&](const auto& it) { return _fast.readRecord(it, read); });
        test::Outcome expected = plain.find(key);
        const bool found = !expected.rows.empty()
                           && !test::hasBlock(_fields, expected.rows[0], expected.why);
        expectOutcome("readRecord", !result.failed(), expected);
        expectEqual("whether there is a row", static_cast<bool>(result),
                    found && expected.why.empty());
        for (int i = 0; i < read.columnCount(); ++i) {
            if (result)
                expectCell(*read.getValue(i), expected.rows[0][i]);
            else
                expectEqual("a cell that was not read", text(*read.getValue(i)), "as it was");
        }
    }

    void readAll()
    {
        sql::RecordCursor cursor = _fast.select();
        const char* const operation = cursor.error() ? "select" : "next";
        sql::Record read(_texts);
        test::Outcome expected = plain.all();
        std::size_t count = 0;
        for (; cursor.next(read); ++count) {
            expectEqual("whether there is another row", count < expected.rows.size(), true);
            for (int i = 0; i < read.columnCount(); ++i)
                expectCell(*read.getValue(i), expected.rows[count][i]);
        }
        if (count < expected.rows.size()) {
            expectEqual("whether the row cannot be held",
                        test::hasBlock(_fields, expected.rows[count], expected.why), true);
        }
        expectEqual("whether all were read", cursor.finished(), expected.why.empty());
        expectFailure(operation, cursor.error(), expected);
    }

    // Into a table of its own, of columns without types.
    void copy()
    {
        sql::Database other;
        other.open(":memory:", sql::Database::access_create, false, 0);
        const sql::Table table(nullptr, "copied", *_table.fields());
        std::vector<std::string> names;
        for (const sql::Field& field : _fields)
            names.push_back(test::quotedName(field.getName()));
        test::run(other.getHandle(), "create table copied (" + test::joinedBy(", ", names) + ")");
        sql::PreparedTable target(other, table);
        const bool copied = target.copyRecords(_fast);
        const test::Outcome expected = plain.all();
        expectEqual("whether the rows were copied", copied, expected.why.empty());
        expectFailure("copyRecords", target.error(), expected);
        expectEqual("the rows copied", test::rows(other.getHandle(), "select count(*) from copied"),
                    std::to_string(copied ? expected.rows.size() : 0));
        if (copied)
            expectEqual("the cells copied",
                        test::ran(other.getHandle(), "select * from copied", {}).rows
                            == expected.rows,
                        true);
    }

    // The differences, or the reason why they are not known.
    std::optional<std::vector<std::string>> check()
    {
        const auto differences = _fast.checkDeclaration();
        expectEqual("whether a failure is told", static_cast<bool>(_fast.error()),
                    differences.failed());
        takeReports(differences ? test::Texts() : reported("checkDeclaration", _fast.error()));
        if (!differences)
            return std::nullopt;
        return *differences;
    }

    sql::Database library;
    test::PlainTable plain;

private:
    sql::Record record(const test::Cells& cells) const
    {
        sql::Record made(_texts);
        for (std::size_t i = 0; i < cells.size(); ++i) {
            if (cells[i])
                made.setString(static_cast<int>(i), *cells[i]);
        }
        return made;
    }

    static std::string text(const sql::Value& cell)
    {
        return cell.isNull() ? "NULL" : cell.asString();
    }

    static void expectCell(const sql::Value& cell, const test::Stored& stored)
    {
        expectEqual("whether a cell is NULL", cell.isNull(),
                    std::holds_alternative<std::nullptr_t>(stored));
        if (const sql::integer* const number = std::get_if<sql::integer>(&stored))
            expectEqual("an integer", text(cell), std::to_string(*number));
        if (const std::string* const letters = std::get_if<std::string>(&stored))
            expectEqual("a text", text(cell), *letters);
        if (const double* const real = std::get_if<double>(&stored)) {
            expectEqual("a real", test::readDouble(text(cell)), *real);
            expectEqual("its sign", std::signbit(test::readDouble(text(cell))),
                        std::signbit(*real));
        }
    }

    static std::string reasonIn(const sql::Error& error)
    {
        return error ? test::codeOf(error.extendedCode()) + ": " + error.text() : "";
    }

    static test::Texts reported(const char* operation, const sql::Error& error)
    {
        return test::report::statementFailed(operation, error.statement(), reasonIn(error));
    }

    void takeReports(const test::Texts& expected)
    {
        expectEqual("what is reported", _diagnostics.take(),
                    test::visibleAt(_diagnostics.level(), expected));
    }

    void expectFailure(const char* operation, const sql::Error& error, test::Outcome expected)
    {
        const std::string why = reasonIn(error);
        if (std::count(expected.whyElse.begin(), expected.whyElse.end(), why) > 0)
            expected.why = why;
        expectEqual(operation, why, expected.why);
        takeReports(why.empty() ? test::Texts() : reported(operation, error));
    }

    void expectOutcome(const char* operation, bool succeeded, const test::Outcome& expected)
    {
        expectEqual(operation, succeeded, expected.why.empty());
        expectFailure(operation, _fast.error(), expected);
        expectEqual("the changes", _fast.changes(), sql::integer{succeeded ? expected.changes : 0});
    }

    static sql::FieldSet textsOf(std::vector<sql::Field> fields)
    {
        for (sql::Field& field : fields)
            field = sql::Field(field.getName(), sql::type_text, sql::flag_none);
        return sql::FieldSet(fields);
    }

    test::Diagnostics& _diagnostics;
    const std::vector<sql::Field> _fields;
    const sql::FieldSet _texts = textsOf(_fields); // the cells as they are, times too
    const sql::Table _table;
    sql::PreparedTable _fast{library, _table};
};

} // namespace fuzz

#endif
