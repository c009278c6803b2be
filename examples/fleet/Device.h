#ifndef FLEET_DEVICE_H
#define FLEET_DEVICE_H

#include "Reading.h"
#include "Wire.h"

#include "SqlDatabase.h"
#include "SqlInbox.h"
#include "SqlOutbox.h"
#include "SqlRecorder.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// How a device keeps its readings.
struct DeviceOptions {
    std::string file;
    std::string name;
    int group = 100; // so many readings are one commit,
    int within = 5;  // or those of so many seconds
    int keep = 0;    // days that readings are kept after the centre has them; 0: for ever
    sql::RecorderOptions outbox;
};

// A device's file: readings and events, which are recorded for the centre, and the settings that come
// from there. What goes wrong is told in a line on standard error, once.
class Device {
public:
    // False if the file cannot be used.
    bool open(const DeviceOptions& options);

    // Stores the reading with its group.
    void take(const Reading& reading);

    // How long until flush(); nothing if no reading waits.
    std::optional<std::chrono::milliseconds> due() const;

    // Stores the readings that wait. They go on waiting if there is no room, but not more than some.
    void flush();

    // The change sets for the centre.
    sql::Outbox& outbox();

    // Removes readings of past days, if the centre has all.
    void tidy();

    // Applies a change set of settings, and obeys.
    Answer apply(std::string_view header, std::string_view bytes);

    sql::integer stored() const;
    sql::integer lost() const; // readings for which there was no room, or is none yet

    void complain(const std::string& text);

private:
    bool fail(const std::string& what, const sql::Error& error);
    bool store();
    bool removeBefore(TimePoint time);
    bool storeEvent(const std::string& kind, bool isSerious, const std::string& detail);
    void obey();
    void obey(const char* name, int& value);

    DeviceOptions _options;
    sql::Database _database;
    std::unique_ptr<sql::Recorder> _recorder;
    std::unique_ptr<sql::Inbox> _inbox;
    std::unique_ptr<sql::Outbox> _outbox;
    std::vector<Reading> _waiting;
    std::chrono::steady_clock::time_point _since; // the first of them, or the last failure
    TimePoint _tidied;                            // the day before which there are none
    sql::integer _stored = 0;
    sql::integer _lost = 0;
    sql::integer _told = 0; // lost readings that are an event
    std::string _complaint; // the latest
};

#endif
