"""Mistakes in programs that the compiler has to find, each with the reason that it gives.

The same programs without the mistakes compile. COMPILER is the compiler with the folders of the
headers.
"""

import os
import subprocess
import unittest

COMPILER = os.environ["COMPILER"].split(";")

PROGRAM = """
#include "SqlBlob.h"
#include "SqlGroupCommit.h"
#include "SqlBackup.h"
#include "SqlLiteral.h"
#include "SqlFunction.h"
#include "SqlMigration.h"
#include "SqlPreparedTable.h"
#include "SqlSettings.h"
#include "SqlStopFlag.h"
#include "SqlTransaction.h"
#include "SqlTypedTable.h"

#include <array>

enum class Size : int { small, large };

struct Own {
};

struct Product {
    sql::integer id = 0;
    sql::string name;
    Own own;
    void setId(sql::integer);
    sql::integer getId() const;
};
constexpr auto mapped = sql::mapping<Product>("product", sql::autoKey<&Product::id>("id"));
constexpr auto named = sql::mapping<Product>("product", sql::key<&Product::name>("name"));
constexpr auto keyless = sql::mapping<Product>("product", sql::column<&Product::name>("name"));
constexpr auto both = sql::mapping<Product>("product", sql::key<&Product::id>("id"), sql::key<&Product::name>("name"));
"""
FUNCTION = "[[maybe_unused]] static bool use%d(sql::Database& database, sql::Statement& statement," \
    " sql::PreparedTable& fast, sql::Record& record)" \
    " { (void)database; (void)statement; (void)fast; (void)record; %s; return true; }\n"

# The words of g++ and those of clang.
GONE_MAPPING = (
    "use of deleted function 'sql::TypedTable<T, Keys>::TypedTable(sql::Database&,"
    " const sql::Mapping<T, sql::KeyTypes<Keys ...>, columns, indexes>&&)",
    "call to deleted constructor of 'sql::TypedTable<Product, sql::integer>'")
GONE_MAPPING_OF_QUERY = (
    "use of deleted function 'sql::ObjectCursor<T> sql::query(Database&,"
    " const Mapping<T, Keys, columns, indexes>&&, const string&, const Values& ...)",
    "call to deleted function 'query'")
GONE_TABLE = (
    "use of deleted function 'sql::PreparedTable::PreparedTable(sql::Database&, const sql::Table&&)'",
    "call to deleted constructor of 'sql::PreparedTable'")

NOT_BOUND = "no value of this type can be bound"
NO_PARAMETER = "no argument can be read into a parameter of this type"
NOT_GIVEN = "no result of this type can be given to SQL"
NOT_READ = "no cell can be read into a variable of this type"
NO_VIEW = "one() lets go of the row: read a sql::string or a vector, no view"

USES = ("statement.bind(1, value)", 'statement.bind(":name", value)', "return statement.run(value)",
        "return statement.one<int>(value).failed()")


def used(values):
    """A use for each value, the four in turn: a type's mistake is told once in a program."""
    return [f"{value}; {USES[i % len(USES)]}" for i, value in enumerate(values)]


class MistakesTest(unittest.TestCase):
    def told(self, uses, standard):
        """The exit status and what the compiler says to a program of one use a line."""
        program = PROGRAM + "".join(FUNCTION % (i, use) for i, use in enumerate(uses))
        compiler = subprocess.run(
            [*COMPILER, f"-std=c++{standard}", "-fsyntax-only", "-Werror", "-x", "c++", "-"],
            input=program, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
            env={**os.environ, "LC_ALL": "C"}, check=False)
        return compiler.returncode, compiler.stdout

    def assert_compiles(self, uses, standard=17):
        self.assertEqual(self.told(uses, standard), (0, ""))

    def assert_mistaken(self, reason, uses, standard=17, once=True):
        """Every use is an error for this reason, or one of these, and nothing else is."""
        reasons = (reason,) if isinstance(reason, str) else reason
        first = PROGRAM.count("\n") + 1
        for start in range(0, len(uses), 15):  # clang stops at twenty errors
            part = uses[start:start + 15]
            status, told = self.told(part, standard)
            errors = [line for line in told.splitlines() if "error: " in line]
            self.assertEqual(status, 1, told)
            self.assertEqual([error for error in errors if not any(reason in error for reason in reasons)], [], told)
            if once:  # clang does not tell the line of a call through std::apply()
                self.assertEqual(len(errors), len(part), told)
                continue
            for i, use in enumerate(part):
                self.assertIn(f"<stdin>:{first + i}:", told, use)

    def test_mappings(self):
        self.assert_compiles((
            "sql::TypedTable products(database, mapped); return products.find(7).failed()",
            'sql::TypedTable products(database, named); return products.remove("tea")',
            'sql::TypedTable products(database, both); return products.remove(7, "tea")',
            'sql::TypedTable products(database, keyless); return products.add(Product())',
            "sql::TypedTable<Product, sql::integer> products(database, mapped)",
            'const auto lasting = sql::mapping<Product>("product", sql::key<&Product::getId, &Product::setId>("id"));'
            " sql::TypedTable products(database, lasting)"))

    def test_member_without_a_binder(self):
        for kind in ("column", "key"):
            self.assert_mistaken("there is no Binder for the type of this member", (
                f'sql::mapping<Product>("product", sql::{kind}<&Product::own>("own"))',), once=False)

    def test_keys_that_the_table_does_not_have(self):
        for use in ("products.find(7).failed()", "products.remove(7)", "products.update(Product())",
                    "products.addOrUpdate(Product())", "products.has(7) == sql::Presence::absent"):
            self.assert_mistaken("the mapping has no key", (
                f"sql::TypedTable products(database, keyless); return {use}",))

    def test_keys_of_another_type(self):
        for table, key in (("mapped", '"tea"'), ("mapped", "nullptr"), ("mapped", "2.5"), ("mapped", "true"),
                           ("mapped", "Size::small"), ("mapped", "sql::string()"), ("named", "7"),
                           ("named", "nullptr"), ("both", '"tea", 7')):
            self.assert_mistaken("a key of this type does not fit the table", (
                f"sql::TypedTable products(database, {table}); return products.find({key}).failed()",),
                once=False)

    def test_keys_of_another_number_of_columns(self):
        for table, key in (("mapped", "7, 8"), ("mapped", ""), ("both", "7")):
            self.assert_mistaken("the key has another number of columns", (
                f"sql::TypedTable products(database, {table}); return products.find({key}).failed()",))

    def test_keys_that_sqlite_cannot_choose(self):
        for members in ("&Product::name", "&Product::getId, &Product::setId"):
            self.assert_mistaken("SQLite chooses integers alone, and sets members alone", (
                f'sql::mapping<Product>("product", sql::autoKey<{members}>("id"))',))

    def test_members_that_hold_no_time(self):
        self.assert_mistaken("only a time_point can be held in milliseconds", (
            'sql::mapping<Product>("product", sql::column<&Product::name>("name", sql::milliseconds))',), once=False)

    def test_mappings_that_do_not_last(self):
        self.assert_mistaken(GONE_MAPPING, (
            "sql::TypedTable<Product, sql::integer> products(database, std::move(mapped))",
            'sql::TypedTable<Product, sql::integer> products(database,'
            ' sql::mapping<Product>("product", sql::key<&Product::id>("id")))'))
        self.assert_mistaken(GONE_MAPPING_OF_QUERY, (
            'auto rows = sql::query<Product>(database, std::move(mapped), "")',
            'auto rows = sql::query<Product>(database, sql::mapping<Product>("", sql::column<&Product::name>("name")), "")'))

    def test_values_that_cannot_be_bound(self):
        self.assert_mistaken(NOT_BOUND, used((
            "char value = 'a'", "wchar_t value = 'a'", "char16_t value = 'a'", "char32_t value = 'a'",
            "long double value = 7", "int* value = nullptr", "void* value = nullptr",
            'const wchar_t* value = L"tea"', 'auto value = u"tea"', 'auto value = U"tea"',
            "const unsigned char* value = nullptr", "std::wstring value", "Own value",
            "std::optional<char> value", "std::optional<void*> value", "std::vector<char> value",
            "std::array<char, 3> value{}", "const char** value = nullptr", "Own* value = nullptr",
            "auto value = std::nullopt", "std::chrono::seconds value(7)",
            "std::chrono::steady_clock::time_point value",
            "std::chrono::time_point<std::chrono::system_clock, std::chrono::hours> value",
            "std::chrono::time_point<std::chrono::system_clock, std::chrono::duration<double>> value")))
        self.assert_compiles(used((
            "signed char value = 'a'", "unsigned char value = 'a'", "int value = 7", "double value = 7",
            'const char* value = "tea"', "std::string value", "std::optional<int> value",
            "Size value = Size::small", "std::vector<unsigned char> value", 'auto value = u8"tea"')))

    def test_literals_that_cannot_be_bound(self):
        self.assert_mistaken(NOT_BOUND, ("return statement.run(1, 'a')", 'return statement.run("a", L"b")'))
        self.assert_compiles(('return statement.run(1, "a")', 'return statement.run("a", "bc")'))

    def test_keys_and_conditions_that_cannot_be_bound(self):
        self.assert_mistaken(NOT_BOUND, (
            "return fast.deleteRecord('a')", "return fast.deleteRecord(Own())",
            'return fast.hasRecordWithKeyId(L"tea") == sql::Presence::present',
            "return fast.readRecord(7.0L, record).failed()", "return bool(fast.readRecord(&record, record))",
            "auto rows = fast.select(\"where id = ?\", L'a')",
            'auto rows = fast.select("where id = ?", std::nullopt)'))
        self.assert_compiles((
            "return fast.deleteRecord(7)", 'return fast.deleteRecord("it\'s")',
            "return fast.hasRecordWithKeyId(Size::small) == sql::Presence::present",
            "return fast.readRecord(std::string(), record).failed()",
            "auto rows = fast.select(\"where id = ?\", std::optional<int>())"))

    def test_characters_of_a_later_standard(self):
        self.assert_mistaken(NOT_BOUND, used(("char8_t value = 'a'", 'auto value = u8"tea"')), standard=20)
        self.assert_compiles(used(("signed char value = 'a'", 'auto value = "tea"')), standard=20)

    def test_variables_that_cannot_be_read_into(self):
        self.assert_mistaken(NOT_READ, [cell + "; return statement.next(cell)" for cell in (
            "char cell = 'a'", "const int cell = 0", "const std::string cell", "const bool cell = false",
            "const Size cell = Size::small", "const std::optional<int> cell",
            "const std::vector<unsigned char> cell", "const char* cell = nullptr", "char cell[8]",
            "std::optional<const char*> cell", "std::optional<char> cell", "long double cell = 0",
            "wchar_t cell = 0", "void* cell = nullptr", "int* cell = nullptr", "Own cell",
            "std::nullptr_t cell", "std::wstring cell", "std::chrono::seconds cell(7)",
            "const std::chrono::system_clock::time_point cell",
            "std::chrono::time_point<std::chrono::system_clock, std::chrono::hours> cell")])
        self.assert_compiles([cell + "; return statement.next(cell)" for cell in (
            "int cell = 0", "std::string cell", "std::string_view cell", "bool cell = false",
            "std::optional<double> cell", "Size cell = Size::small", "std::optional<Size> cell",
            "std::chrono::system_clock::time_point cell", "std::vector<unsigned char> cell")])

    def test_values_that_one_cannot_give(self):
        self.assert_mistaken(NOT_READ, [f"return statement.one<{value}>(7).failed()" for value in (
            "char", "const char*", "int, Own", "long double")])
        self.assert_mistaken(NO_VIEW, [f"return statement.one<{view}>(7).failed()" for view in (
            "std::string_view", "sql::Bytes", "std::optional<std::string_view>",
            "std::optional<sql::Bytes>", "int, std::string_view")])
        self.assert_compiles([f"return statement.one<{value}>(7).failed()" for value in (
            "sql::string", "std::vector<unsigned char>", "std::optional<sql::string>",
            "int, sql::string")])

    def test_functions_that_sql_cannot_call(self):
        adding = 'return sql::addFunction(database, "f", %s).failed()'
        self.assert_mistaken(NO_PARAMETER, [adding % f"[]({parameter}) {{ return 1; }}" for parameter in (
            "const char*", "char", "Own", "const std::wstring&", "int, long double",
            "std::optional<void*>")])
        self.assert_mistaken(NOT_GIVEN, [adding % f"[] {{ return {result}; }}" for result in (
            "'a'", "Own()", 'L"tea"', "std::optional<char>()", "sql::Result<long double>(7.0L)")])
        self.assert_compiles([adding % function for function in (
            "[](const std::string&, std::string_view, sql::Bytes) { return 1; }", '[] { return "tea"; }',
            "[](std::optional<int> number) noexcept { return number; }", "[](double) {}",
            "[] { return sql::Result<double>(1.5); }", "[i = 0](int n) mutable noexcept { return i += n; }",
            "static_cast<int (*)() noexcept>([]() noexcept { return 1; })")])

    def test_results_that_are_ignored(self):
        self.assert_mistaken("nodiscard", (
            "statement.run()", "statement.run(7)", "statement.next()", "int i = 0; statement.next(i)",
            "statement.one<int>()", 'sql::runScript(database, "")',
            "sql::Transaction t(database, sql::begin_immediate); t.commit()",
            "sql::Savepoint s(database); s.commit()",
            "sql::inTransaction(database, [] { return true; })",
            'sql::backupDatabase(database, "")', 'sql::restoreDatabase(database, "")',
            'sql::addFunction(database, "one", [] { return 1; })',
            'sql::removeFunction(database, "one", 0)',
            'const sql::MigrationStep steps[] = {{1, ""}}; sql::migrate(database, steps)',
            "sql::Settings().apply(database)", "sql::checkIntegrity(database, sql::check_full)",
            "sql::checkpoint(database, sql::checkpoint_full)", "sql::optimize(database)",
            "sql::GroupCommit g(database, 1, {}); g.write([] { return true; })",
            "sql::GroupCommit g(database, 1, {}); g.flush()",
            'sql::Time time; sql::fromIso8601("", time)',
            'std::chrono::system_clock::time_point time; sql::fromIso8601("", time)'))
        self.assert_mistaken("nodiscard", (
            "fast.addRecord(record)", "fast.updateRecord(record)", "fast.addOrUpdateRecord(record)",
            "fast.deleteRecord(7)", "fast.hasRecordWithKeyId(7)", "fast.readRecord(7, record)",
            "fast.addRecords(&record, &record + 1)",
            "fast.addRecords(&record, &record + 1, [](sql::integer) { return true; })",
            "fast.copyRecords(fast)", "fast.select()", 'fast.select("where id = ?", 7)',
            "fast.checkDeclaration()", "auto rows = fast.select(); rows.next(record)"))
        self.assert_compiles((
            "fast.release()", "return fast.addRecord(record)",
            "for (const sql::Record& row : fast.select()) record = row",
            "return statement.run()", "statement.reset()", "statement.bind(1, 7)",
            "sql::Savepoint s(database); s.rollback()"))

    def test_owners_that_are_copied(self):
        self.assert_mistaken("deleted", (
            "sql::Statement copy(statement)", 'sql::Statement other(database, ""); other = statement',
            "sql::Transaction t(database, sql::begin_deferred); sql::Transaction copy(t)",
            "sql::Transaction t(database, sql::begin_deferred); auto moved = std::move(t)",
            "sql::GroupCommit g(database, 1, {}); sql::GroupCommit copy(g)",
            "sql::GroupCommit g(database, 1, {}); auto moved = std::move(g)",
            "sql::Savepoint s(database); sql::Savepoint copy(s)",
            "sql::StopFlag f(database); sql::StopFlag copy(f)",
            "sql::Savepoint s(database); sql::Savepoint t(database); t = s",
            "sql::PreparedTable copy(fast)", "sql::PreparedTable moved(std::move(fast))",
            "fast = fast", "auto rows = fast.select(); auto copy = rows",
            "auto rows = fast.select(); auto other = fast.select(); other = rows"), once=False)
        self.assert_compiles((
            "sql::Statement other(std::move(statement)); statement = std::move(other)",
            "auto rows = fast.select(); auto other = std::move(rows); rows = std::move(other)"))

    def test_tables_that_are_gone(self):
        self.assert_mistaken(GONE_TABLE, (
            'sql::PreparedTable gone(database, sql::Table("product"))',
            'sql::Table table("product"); sql::PreparedTable gone(database, std::move(table))',
            'const sql::Table table("product"); sql::PreparedTable gone(database, std::move(table))'),
            once=False)
        self.assert_compiles((
            'sql::Table table("product"); sql::PreparedTable fine(database, table)',
            'const sql::Table table("product"); sql::PreparedTable fine(database, table)'))

    def test_truths_that_are_none(self):
        self.assert_mistaken("conver", (  # "cannot convert", "no viable conversion"
            "return statement.one<bool>()", "return sql::lastError(database)"), once=False)
        self.assert_compiles((
            "return statement.one<bool>().valueOr(false)", "return bool(sql::lastError(database))"))


if __name__ == "__main__":
    unittest.main()
