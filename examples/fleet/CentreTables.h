#ifndef FLEET_CENTRETABLES_H
#define FLEET_CENTRETABLES_H

#include "Postgres.h"

#include "SqlChangeReader.h"

#include <set>
#include <string>

// The tables of devices in PostgreSQL: made from what an envelope says of them, in the schema "data".

// Makes those that are missing, and columns that a later release of the devices has added. On failure
// `why` says what keeps these tables from being written; if it is empty, the connection is lost.
bool makeTables(Postgres& postgres, const std::vector<sql::SyncTable>& tables, std::string& why);

// Sends what makes a device's change of a row, which is to change one. False, with a reason and
// nothing sent, if a value is not of its column's type.
bool sendChange(Postgres& postgres, const std::string& device, const sql::ChangeReader& change,
                std::string& why);

// Why a change has changed no row: asks for the row.
bool whyNotChanged(Postgres& postgres, const std::string& device, const sql::ChangeReader& change,
                   std::string& why);

// "table 'reading', insert: " and the reason.
std::string reasonOf(const sql::ChangeReader& change, const std::string& why);

#endif
