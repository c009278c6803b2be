#ifndef SQLPREPARED_SRC_SQLRECORDCELLS_H
#define SQLPREPARED_SRC_SQLRECORDCELLS_H

// The cells of records and rows on their way to each other, without copies: texts are borrowed.

#include "SqlBinder.h"
#include "SqlRecord.h"

#include <forward_list>

struct sqlite3_stmt;

namespace sql {

struct RecordAccess {
    static constexpr int all = -1;
    static constexpr int other_columns = -2;

    // Whether the record has these columns: the same names in the same order.
    SQLWRAPPER_LOCAL static bool fits(const Record& record, const FieldSet& fields);

    // Takes the cells as columns of these types hold them. Returns all, other_columns, or the index of
    // a cell that is no number where it has to be. Texts that are made for a cell go into the list.
    SQLWRAPPER_LOCAL static int take(const Record& record, const FieldSet& fields,
                                     const std::vector<field_type>& types, Argument* cells,
                                     std::forward_list<string>& texts);

    // Takes a cell as the integer that it has to be.
    SQLWRAPPER_LOCAL static bool takeInteger(const Record& record, int index, Argument& cell);

    // Takes the cells of the row that the statement stands at. Returns all, or the index of one that
    // memory did not suffice for, or of a block where none is wanted.
    SQLWRAPPER_LOCAL static int take(sqlite3_stmt* statement, std::vector<Argument>& cells,
                                     bool withBlocks);

    SQLWRAPPER_LOCAL static void fill(Record& record, const std::vector<Argument>& cells);
};

inline bool isOfText(field_type type)
{
    return type != type_int && type != type_float && type != type_bool && type != type_time;
}

// Where a row goes.
struct RowTarget {
    Record* record; // null where the cells themselves are wanted
    const FieldSet* fields;
    std::vector<Argument>* cells;
};

constexpr const char* wrong_columns = "the record has other columns than the table";

} // namespace sql

#endif
