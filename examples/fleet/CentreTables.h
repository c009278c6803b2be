#ifndef FLEET_CENTRETABLES_H
#define FLEET_CENTRETABLES_H

#include "Postgres.h"

#include "SqlChangeReader.h"

#include <map>
#include <string>
#include <vector>

// The tables of devices in PostgreSQL: made from what an envelope says of them, in the schema "data".
class CentreTables {
public:
    // Makes those that are missing, and columns that a later release of the devices has added. Gives
    // for each why it cannot be written, nothing if it can. False on failure, which the connection
    // tells.
    bool make(Postgres& postgres, const std::vector<sql::SyncTable>& tables,
              std::vector<std::string>& reasons);

    // Looks at all anew, or at those that cannot be written.
    void forget();
    void forgetRefused();

private:
    std::map<std::string, std::string> _reasons; // by the statement that makes the table
};

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
