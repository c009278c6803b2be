#include "Reports.h"

#include "Wording.h"

namespace test {

Texts joined(std::initializer_list<Texts> parts)
{
    Texts all;
    for (const Texts& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Texts errorsOf(const Texts& events)
{
    Texts messages;
    for (const std::string& event : events) {
        if (event.compare(0, 8, "[ERROR] ") == 0)
            messages.push_back(event.substr(event.find(") - ") + 4));
    }
    return messages;
}

namespace report {

namespace {

// No objects: tests make their tables of cases before those would be initialised.
const char query_number[] = "queryNumber";
const char one_step[] = "runOneStepSqlStmt";
const char query[] = "RecordSet::query";

// "Table::exists" out of "bool sql::Table::exists()"
std::string operationOf(const std::string& signature)
{
    const std::size_t end = signature.find('(');
    const std::size_t start = signature.rfind("sql::", end) + 5;
    return signature.substr(start, end - start);
}

// Where an operation is defined: functions of no class, and times, in SqlCommon.cpp.
std::string fileOf(const std::string& operation)
{
    const std::string type = operation.substr(0, operation.find("::"));
    return "Sql" + (type == operation || type == "Time" ? "Common" : type) + ".cpp";
}

std::string line(const std::string& tag, const std::string& operation, const std::string& message)
{
    const std::size_t scope = operation.rfind("::");
    const std::string function = scope == std::string::npos ? operation
                                                            : operation.substr(scope + 2);
    return "[" + tag + "] " + fileOf(operation) + " (" + function + ") - " + worded(message);
}

std::string statementLine(const std::string& operation, const std::string& statement)
{
    return debug(2, operation, "stmt='" + statement + "'");
}

// "101=SQLITE_DONE instead of SQLITE_ROW: not an error" out of "101=SQLITE_DONE: not an error"
std::string insteadOf(const std::string& expected, const std::string& reason)
{
    const std::size_t colon = reason.find(':');
    return reason.substr(0, colon) + " instead of " + expected + reason.substr(colon);
}

std::string queryFailed(const std::string& statement)
{
    return "The SQL query '" + statement + "' failed";
}

} // namespace

std::string error(const std::string& operation, const std::string& message)
{
    return line("ERROR", operation, message);
}

std::string debug(int number, const std::string& operation, const std::string& message)
{
    return line("DEBUG" + std::to_string(number), operation, message);
}

std::string asserted(const std::string& signature, const std::string& expression)
{
    return "assert '" + expression + "' in " + fileOf(operationOf(signature)) + " (" + signature
           + ")";
}

Texts failed(const std::string& signature, const std::string& message)
{
    return {error(operationOf(signature), message), asserted(signature)};
}

Texts counted(const std::string& statement, const std::string& number)
{
    return {statementLine(query_number, statement),
            debug(2, query_number, "SQLite returned number=" + number)};
}

Texts notPrepared(const std::string& statement, const std::string& reason)
{
    return {statementLine(query_number, statement),
            error(query_number, "Failed to prepare the SQL query '" + statement + "': "),
            error(query_number, "  rc=" + reason)};
}

Texts noRow(const std::string& statement, const std::string& reason)
{
    return {statementLine(query_number, statement), error(query_number, queryFailed(statement)),
            error(query_number, "   the query returned " + insteadOf("SQLITE_ROW", reason))};
}

Texts columnsInstead(const std::string& statement, int columns)
{
    return {statementLine(query_number, statement),
            error(query_number, queryFailed(statement) + ": query returned "
                                    + std::to_string(columns)
                                    + " columns in result while 1 is expected")};
}

Texts negative(const std::string& statement, const std::string& number)
{
    return {statementLine(query_number, statement), error(query_number, queryFailed(statement)),
            error(query_number, "  SQLite returned returned number = " + number + " < 0")};
}

std::string nothingToCountOn()
{
    return asserted("int sql::queryNumber(sqlite3*, const string&)", "db");
}

Texts stepped(const std::string& statement)
{
    return {statementLine(one_step, statement)};
}

Texts stepNotPrepared(const std::string& statement, const std::string& reason)
{
    return {statementLine(one_step, statement),
            error(one_step, "Failed to prepare the SQL statement '" + statement + "': "),
            error(one_step, " rc=" + reason)};
}

Texts stepFailed(const std::string& statement, const std::string& reason)
{
    return {statementLine(one_step, statement),
            error(one_step, "Running the SQL stmt '" + statement + "' failed"),
            error(one_step, "  SQLite returned " + insteadOf("SQLITE_DONE", reason))};
}

std::string nothingToStepOn()
{
    return asserted("bool sql::runOneStepSqlStmt(sqlite3*, const string&)", "db");
}

Texts ran(const std::string& statement)
{
    return {statementLine(query, statement)};
}

Texts refused(const std::string& statement, const std::string& reason)
{
    return {statementLine(query, statement),
            error(query, "Failed to run the SQL stmt '" + statement + "'"),
            error(query, "  rc=" + reason)};
}

std::string rowRead(const std::string& dump)
{
    return debug(3, "RecordSet::on_next_record", dump);
}

std::string notConnected()
{
    return asserted("bool sql::RecordSet::query(const string&)", "_db");
}

std::string timeMade(const std::string& seconds, const std::string& calendarText)
{
    return debug(3, "Time::Time", "Time ctor: time = " + seconds + " = '" + calendarText + "'");
}

Texts opening(const std::string& fileName)
{
    return {debug(1, "Database::open", "Opening database '" + fileName + "'")};
}

Texts notOpened(const std::string& fileName, const std::string& reason)
{
    return joined(
        {opening(fileName),
         {error("Database::open", "Failed to open the database " + fileName + ": rc=" + reason)}});
}

std::string openedWithoutHandle(const std::string& fileName)
{
    return error("Database::open", "Failed to open the database " + fileName
                                       + ": database handle returned by SQLite is 0");
}

std::string noBusyTimeout(const std::string& reason)
{
    return error("Database::open", "Failed to set the busy timeout: rc=" + reason);
}

std::string existenceQuery(const std::string& table)
{
    return "select count(*) from sqlite_master where type = 'table' and name = '" + table + "'";
}

Texts present(const std::string& table)
{
    return joined({counted(existenceQuery(table), "1"),
                   {debug(2, "Table::exists", "Table '" + table + "' exists")}});
}

Texts absent(const std::string& table)
{
    return joined({counted(existenceQuery(table), "0"),
                   {debug(2, "Table::exists", "Table '" + table + "' does not exist")}});
}

Texts undetermined(const std::string& table, const std::string& reason)
{
    return joined({notPrepared(existenceQuery(table), reason), {undetermined(table)}});
}

std::string undetermined(const std::string& table)
{
    return error("Table::exists", "Failed to determine if table '" + table + "' exists");
}

Texts noKeyName()
{
    return failed("sql::string sql::FieldSet::getKeyIdName() const",
                  "Failed to get name of PRIMARY KEY column");
}

Texts noKeyName(const std::string& signature)
{
    return joined({noKeyName(), failed(signature, "Failed to get name of PRIMARY KEY column")});
}

Texts noKeyNameToUpdate(const std::string& table)
{
    return noUpdate("Failed to get name of PRIMARY KEY column for table " + table);
}

Texts noValue(int index)
{
    return failed("const sql::Value* sql::Record::getValue(int) const",
                  "No value for column with index " + std::to_string(index));
}

Texts noValue(const std::string& name)
{
    return failed("const sql::Value* sql::Record::getValue(const string&) const",
                  "No value for column with name '" + name + "'");
}

Texts noValueToChange(int index)
{
    return failed("sql::Value* sql::Record::getValue(int)",
                  "No value for column with index " + std::to_string(index));
}

Texts noValueToChange(const std::string& name)
{
    return failed("sql::Value* sql::Record::getValue(const string&)",
                  "No value for column with name '" + name + "'");
}

Texts noValueToList(int index)
{
    return failed("sql::string sql::Record::toSql() const",
                  "field with index " + std::to_string(index) + " does not have value");
}

Texts noValueToUpdate(int index, const std::string& name, const std::string& table)
{
    return noUpdate("No value for column with index=" + std::to_string(index) + " (and name=" + name
                    + ") of table " + table);
}

Texts noField(const std::string& name)
{
    return failed("const sql::Field* sql::Record::fieldByName(const string&) const",
                  "Field/column '" + name + "' not found");
}

Texts noKeyValue()
{
    return failed("const sql::Value* sql::Record::getKeyIdValue() const",
                  "No PRIMARY KEY column found");
}

Texts noKeyValueToUpdate(const std::string& table)
{
    return noUpdate("No PRIMARY KEY column found for table " + table);
}

Texts wrongKeyType(const std::string& field, const std::string& type)
{
    return failed("bool sql::FieldSet::initFieldSet(const sql::Field*)",
                  "PRIMARY KEY column '" + field
                      + "' must be of type 'integer' or 'text' instead of type '" + type + "'");
}

std::string badColumns()
{
    return asserted("bool sql::FieldSet::initFieldSet(const sql::Field*)");
}

Texts noDefinition(const std::string& table)
{
    return failed("sql::string sql::Table::getDefinition() const",
                  "Failed to build SQL CREATE TABLE stmt for table " + table);
}

Texts notCreated(const std::string& table)
{
    return joined(
        {noDefinition(table), failed("bool sql::Table::create()",
                                     "Failed to build SQL CREATE TABLE stmt for table " + table)});
}

Texts noInsert(const std::string& why)
{
    return failed("sql::string sql::Record::toSqlInsert(const string&) const", why);
}

Texts noFieldsToInsert(const std::string& table)
{
    return noInsert("No fields to insert in table '" + table + "'");
}

Texts noValuesToInsert(const std::string& table)
{
    return noInsert("No values to insert in table '" + table + "'");
}

Texts noUpdate(const std::string& why)
{
    return failed("sql::string sql::Record::toSqlUpdate(const string&) const", why);
}

Texts notAdded(const std::string& table, const Texts& noInsert)
{
    return joined({noInsert,
                   {error("Table::addRecord",
                          "Failed to build SQL INSERT statement for table '" + table + "'")}});
}

Texts notUpdated(const std::string& table, const Texts& noUpdate)
{
    return joined({noUpdate,
                   {error("Table::updateRecord",
                          "Failed to build SQL UPDATE statement for table '" + table + "'")}});
}

std::string keyIsNoInteger()
{
    return asserted("sql::string sql::Record::toSqlUpdate(const string&) const",
                    "value->getType() == type_int");
}

std::string started(const std::string& operation, const std::string& statement)
{
    return statementLine("Statement::" + operation, statement);
}

std::string withValues(const std::string& operation, const std::string& statement)
{
    return debug(3, "Statement::" + operation, statement);
}

Texts statementFailed(const std::string& operation, const std::string& statement,
                      const std::string& reason)
{
    return {error("Failure::" + operation, "SQL statement '" + statement + "' failed: "),
            error("Failure::" + operation, "  rc=" + reason)};
}

} // namespace report

} // namespace test
