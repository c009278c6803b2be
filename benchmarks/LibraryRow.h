#ifndef SQLWRAPPER_BENCHMARKS_LIBRARYROW_H
#define SQLWRAPPER_BENCHMARKS_LIBRARYROW_H

#include "Row.h"
#include "SqlTable.h"

namespace bench {

// The table as the library declares it.
inline const sql::Field declaration[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key | sql::flag_not_null),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field("place", sql::type_text, sql::flag_none),
    sql::Field("price", sql::type_float, sql::flag_none),
    sql::Field("active", sql::type_bool, sql::flag_none),
    sql::Field("changed", sql::type_time, sql::flag_none),
    sql::Field("note", sql::type_text, sql::flag_none),
    sql::Field(),
};

// The columns are given by number or by name.
template <typename Column>
void fillRecord(sql::Record& record, const Row& row, const Column (&columns)[column_count])
{
    record.setInteger(columns[0], row.id);
    record.setString(columns[1], row.name);
    record.setString(columns[2], row.place);
    record.setDouble(columns[3], row.price);
    record.setBool(columns[4], row.active);
    record.setTime(columns[5], sql::Time(row.changed));
    if (row.note)
        record.setString(columns[6], *row.note);
    else
        record.setNull(columns[6]);
}

template <typename Column>
sql::Record recordOf(const Row& row, const sql::FieldSet& fields,
                     const Column (&columns)[column_count])
{
    sql::Record record(fields);
    fillRecord(record, row, columns);
    return record;
}

template <typename Column>
void readRecord(const sql::Record& record, Row& row, const Column (&columns)[column_count])
{
    row.id = record.getValue(columns[0])->asInteger();
    row.name = record.getValue(columns[1])->asString();
    row.place = record.getValue(columns[2])->asString();
    row.price = record.getValue(columns[3])->asDouble();
    row.active = record.getValue(columns[4])->asBool();
    row.changed = record.getValue(columns[5])->asTime().asInteger();
    const sql::Value* const note = record.getValue(columns[6]);
    if (note->isNull())
        row.note.reset();
    else
        row.note = note->asString();
}

} // namespace bench

#endif
