#ifndef SQLPREPARED_SQLMIGRATION_H
#define SQLPREPARED_SQLMIGRATION_H

#include "SqlResult.h"

#include <chrono>
#include <iterator>
#include <string_view>
#include <type_traits>

#pragma GCC visibility push(default)

namespace sql {

class SQLWRAPPER_LOCAL Migration; // which is the library's own

/// What takes a file to a version: statements, or a function.
///
///     const auto name = [](sql::Database& file) {
///         sql::Statement add(file, "insert into sensor values ('hall')");
///         return add.run();
///     };
///     const sql::MigrationStep steps[] = {
///         {1, "create table sensor (name)"}, {2, name}};
///     if (sql::migrate(database, steps))
///         std::puts("version 2"); // version 2
///
/// Borrows texts and function objects, which must outlive it.
class MigrationStep {
public:
    /// Takes the file to `version`, 1 or more, by the statements in the text.
    constexpr MigrationStep(int version, std::string_view statements)
        : _version(version), _statements(statements)
    {
    }

    /// Takes it there by the function, which returns false on failure. It writes by either library
    /// on the database that it is given. What throws passes through migrate().
    constexpr MigrationStep(int version, bool (*function)(Database&))
        : _version(version), _run(runFunction), _function(function)
    {
    }

    /// Takes it there likewise by an object that can be called as such a function.
    template <typename Work,
              typename = std::enable_if_t<
                  std::is_class_v<Work> && std::is_invocable_r_v<bool, Work&, Database&>>>
    constexpr MigrationStep(int version, Work& work)
        : _version(version), _run(runObject<Work>), _object(&work)
    {
    }

    /// Does not compile: the text would be gone before it runs.
    template <typename Text,
              typename = std::enable_if_t<std::is_same_v<std::remove_const_t<Text>, string>>>
    MigrationStep(int version, Text&& statements) = delete;

private:
    friend class Migration;

    using Run = bool (*)(const MigrationStep& step, Database& database);

    static bool runFunction(const MigrationStep& step, Database& database)
    {
        return step._function(database);
    }

    template <typename Work> static bool runObject(const MigrationStep& step, Database& database)
    {
        return (*static_cast<Work*>(const_cast<void*>(step._object)))(database);
    }

    int _version;
    std::string_view _statements{};
    Run _run = nullptr; // null for statements
    bool (*_function)(Database&) = nullptr;
    const void* _object = nullptr;
};

/// Does what migrate() does, with `count` steps in a row.
Result<int> migrateSteps(Database& database, const MigrationStep* steps, std::size_t count,
                         std::chrono::milliseconds patience);

/// Runs the steps above the file's user version, and sets that to the version of the last. All are
/// one immediate transaction, which waits for other programs as a Transaction with this `patience`.
/// Returns the version, or the reason of a failure, which leaves the file as it was. A file that is
/// newer than the last step is a failure, too, and so is a transaction that is open already. Steps
/// ascend. Foreign keys are not enforced meanwhile: references that lead nowhere when all steps have
/// run are a failure. No step ends the transaction, or attaches files. One that has nothing to do
/// takes no lock for writing.
template <typename Steps>
Result<int> migrate(Database& database, const Steps& steps,
                    std::chrono::milliseconds patience = std::chrono::milliseconds(0))
{
    return migrateSteps(database, std::data(steps), std::size(steps), patience);
}

} // namespace sql

#pragma GCC visibility pop

#endif
