#include "SqlSchema.h"

#include "SqlFailure.h"
#include "SqlStatement.h"

#include <sqlite3.h>

namespace sql {

namespace {

bool isOwn(const string& name)
{
    return sqlite3_strnicmp(name.c_str(), "sqlsync_", 8) == 0;
}

// Recent versions of SQLite give the usual types in capitals, however they were declared.
void capitalize(string& type)
{
    for (char& letter : type) {
        if (letter >= 'a' && letter <= 'z')
            letter = static_cast<char>(letter - 'a' + 'A');
    }
}

// Only that of a key with an index of its own may be null: a rowid never is.
Result<bool> hasKeyIndex(Database& database, const string& name)
{
    return Statement(database,
                     "select count(*) from pragma_index_list(?, 'main') where origin = 'pk'")
        .one<bool>(name);
}

// Why not, with the table's name; empty if it is one.
Result<string> whyNotTable(Database& database, SyncTable& table)
{
    Statement find(database, "select name, type = 'view', rootpage = 0 from main.sqlite_master"
                             " where type in ('table', 'view') and name = ? collate nocase");
    const auto found = find.one<string, bool, bool>(table.name);
    if (found.failed())
        return found.error();
    if (isOwn(table.name))
        return joined({"table '", table.name, "': names with sqlsync_ are the library's own"});
    if (!found)
        return joined({"table '", table.name, "': there is none"});
    if (std::get<1>(*found))
        return joined({"table '", table.name, "': it is a view"});
    if (std::get<2>(*found))
        return joined({"table '", table.name, "': it is a virtual table"});
    table.name = std::get<0>(*found);
    return string();
}

Result<string> whyNotColumns(Database& database, SyncTable& table)
{
    const Result<bool> hasIndex = hasKeyIndex(database, table.name);
    if (!hasIndex)
        return hasIndex.error();
    bool hasKey = false;
    bool isGenerated = false;
    SyncColumn column;
    Statement columns(database,
                      sqlite3_libversion_number() < 3026000 // whose columns are not generated
                          ? "select name, type, pk, \"notnull\", 0"
                            " from pragma_table_info(?, 'main') order by cid"
                          : "select name, type, pk, \"notnull\", hidden != 0"
                            " from pragma_table_xinfo(?, 'main') order by cid");
    columns.bind(1, table.name);
    while (
        columns.next(column.name, column.type, column.keyOrdinal, column.isNotNull, isGenerated)) {
        if (isGenerated)
            return joined({"table '", table.name, "': column '", column.name, "' is generated"});
        if (column.keyOrdinal != 0 && !column.isNotNull && *hasIndex)
            return joined(
                {"table '", table.name, "': column '", column.name, "' of the key may be null"});
        capitalize(column.type);
        hasKey = hasKey || column.keyOrdinal != 0;
        table.columns.push_back(column);
    }
    if (!columns.finished())
        return columns.error();
    return hasKey ? string() : joined({"table '", table.name, "': it has no key"});
}

} // namespace

Result<SyncTable> describeTable(Database& database, const char* operation, const string& name)
{
    SyncTable table{name, {}};
    for (const auto check : {whyNotTable, whyNotColumns}) {
        const Result<string> why = check(database, table);
        if (!why)
            return why.error();
        if (!why->empty())
            return failed(operation, SQLITE_MISUSE, *why);
    }
    return table;
}

} // namespace sql
