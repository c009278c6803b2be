#ifndef SQLWRAPPER_TESTS_SUPPORT_ROWS_H
#define SQLWRAPPER_TESTS_SUPPORT_ROWS_H

#include "SqlRecord.h"
#include "SqlTable.h"

#include <string>
#include <vector>

namespace test {

// A row's cells with their types: "7 (integer)".
inline std::vector<std::string> cells(const sql::Record& record)
{
    std::vector<std::string> texts;
    texts.reserve(record.columnCount());
    for (int i = 0; i < record.columnCount(); ++i)
        texts.push_back(record.getValue(i)->dump(true));
    return texts;
}

// The rows that a table holds: "7|tea|2.5".
inline std::vector<std::string> held(sql::Table& table)
{
    std::vector<std::string> rows;
    rows.reserve(table.recordCount());
    for (int i = 0; i < table.recordCount(); ++i)
        rows.push_back(table.getRecord(i)->toString());
    return rows;
}

} // namespace test

#endif
