#ifndef FLEET_SETTINGSET_H
#define FLEET_SETTINGSET_H

#include "Centre.h"

#include <map>

// Who sends settings to devices, in their headers.
constexpr const char* centre_name = "centre";

// The table that devices have for them.
constexpr const char* make_setting_table =
    "create table setting (name text primary key not null, value text not null) without rowid";

// Makes the change set that has a device with these settings change one, or without a value remove
// it: the next behind a position, in whose incarnation, or one of its own, it is numbered. A setting
// that is so already gives no bytes. False on failure, and `why`.
bool makeSettingSet(const std::map<std::string, std::string>& settings, const std::string& name,
                    const std::optional<std::string>& value, sql::SyncPosition previous,
                    Outgoing& set, std::string& why);

#endif
