#ifndef LOGGER_RECORDER_H
#define LOGGER_RECORDER_H

#include "Log.h"

#include "SqlGroupCommit.h"
#include "SqlTypedTable.h"

// How readings are recorded.
struct Recording {
    int group = 100;           // so many readings are one commit,
    int seconds = 5;           // or those of so many seconds
    int days = 0;              // that readings are kept; 0: for ever
    bool acknowledges = false; // prints the number of readings stored, after each commit
};

// Stores readings as they come, in groups. What goes wrong it tells in a line on standard error, and
// goes on.
class Recorder {
public:
    Recorder(Log& log, const Recording& recording);

    // Takes a reading in a line such as "2009-12-31T23:59:59Z hall 21.5 window open".
    void take(const std::string& line);

    // How long the next reading may be waited for until flush(); nothing if as long as it takes.
    std::optional<std::chrono::milliseconds> due() const;

    // Stores what is yet pending.
    void flush();

    sql::integer stored() const;
    sql::integer lost() const;

private:
    void tidyBefore(const Reading& reading);
    void tellStored();
    void complain(const std::string& text);

    Log& _log;
    const Recording _recording;
    sql::TypedTable<Reading, sql::integer> _readings;
    sql::GroupCommit _group;
    sql::integer _taken = 0;
    sql::integer _refused = 0;
    sql::integer _told = 0; // readings stored
    TimePoint _day;         // of the latest reading
    std::string _complaint; // the latest: a full disk is told once
};

#endif
