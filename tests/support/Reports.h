#ifndef SQLWRAPPER_TESTS_SUPPORT_REPORTS_H
#define SQLWRAPPER_TESTS_SUPPORT_REPORTS_H

#include <initializer_list>
#include <string>
#include <vector>

namespace test {

typedef std::vector<std::string> Texts;

Texts joined(std::initializer_list<Texts> parts);

// The messages of the ERROR lines among `events`, without what stands before them.
Texts errorsOf(const Texts& events);

// What the library reports, as Diagnostics::events() gives it at the highest level; visibleAt()
// takes the lower ones. A `reason` is SQLite's result and text, "1=SQLITE_ERROR: no such table: t",
// in the words of SQLite 3.40: they come out in those of the SQLite at hand.
namespace report {

// One line of an operation such as "Table::exists" or "queryNumber".
std::string error(const std::string& operation, const std::string& message);
std::string debug(int number, const std::string& operation, const std::string& message);

// A failed assertion, and the line with an assertion behind it by which most failures are reported.
// The operation is known by its signature: "bool sql::Table::exists()".
std::string asserted(const std::string& signature, const std::string& expression = "false");
Texts failed(const std::string& signature, const std::string& message);

// queryNumber(): it counted, did not get as far, or got something else than one number.
Texts counted(const std::string& statement, const std::string& number);
Texts notPrepared(const std::string& statement, const std::string& reason);
Texts noRow(const std::string& statement, const std::string& reason);
Texts columnsInstead(const std::string& statement, int columns);
Texts negative(const std::string& statement, const std::string& number);
std::string nothingToCountOn();

// runOneStepSqlStmt()
Texts stepped(const std::string& statement);
Texts stepNotPrepared(const std::string& statement, const std::string& reason);
Texts stepFailed(const std::string& statement, const std::string& reason);
std::string nothingToStepOn();

// RecordSet::query() and all operations of tables and databases that run a statement through it.
Texts ran(const std::string& statement);
Texts refused(const std::string& statement, const std::string& reason);
std::string rowRead(const std::string& dump);
std::string notConnected();

// A Time that is made, with the text that ctime() has for it, line end and all.
std::string timeMade(const std::string& seconds, const std::string& calendarText);

// Database::open()
Texts opening(const std::string& fileName);
Texts notOpened(const std::string& fileName, const std::string& reason);
std::string openedWithoutHandle(const std::string& fileName);
std::string noBusyTimeout(const std::string& reason);

// Table::exists(), its statement included
std::string existenceQuery(const std::string& table);
Texts present(const std::string& table);
Texts absent(const std::string& table);
Texts undetermined(const std::string& table, const std::string& reason);
std::string undetermined(const std::string& table); // the last line alone

// Without a key column: the columns alone, and an operation that needs one; what an UPDATE adds.
Texts noKeyName();
Texts noKeyName(const std::string& signature);
Texts noKeyNameToUpdate(const std::string& table);

// A record without a cell for a column, asked by getValue() as a constant or to be changed.
Texts noValue(int index);
Texts noValue(const std::string& name);
Texts noValueToChange(int index);
Texts noValueToChange(const std::string& name);
Texts noValueToList(int index); // what Record::toSql() adds
Texts noValueToUpdate(int index, const std::string& name, const std::string& table);
Texts noField(const std::string& name); // Record::fieldByName()

// The same for the key, and what an UPDATE adds.
Texts noKeyValue();
Texts noKeyValueToUpdate(const std::string& table);

// Columns and records of which no statement can be built; `why` is that of the record.
Texts wrongKeyType(const std::string& field, const std::string& type);
std::string badColumns();
Texts noDefinition(const std::string& table);
Texts notCreated(const std::string& table); // noDefinition() and what create() says to it
Texts noInsert(const std::string& why);
Texts noFieldsToInsert(const std::string& table);
Texts noValuesToInsert(const std::string& table);
Texts noUpdate(const std::string& why);
Texts notAdded(const std::string& table, const Texts& noInsert);
Texts notUpdated(const std::string& table, const Texts& noUpdate);
std::string keyIsNoInteger();

// Any operation of sqlprepared, by the name alone, "run", "commit": the statement that it starts, the
// same with its values, and how it fails.
std::string started(const std::string& operation, const std::string& statement);
std::string withValues(const std::string& operation, const std::string& statement);
Texts statementFailed(const std::string& operation, const std::string& statement,
                      const std::string& reason);

} // namespace report

} // namespace test

#endif
