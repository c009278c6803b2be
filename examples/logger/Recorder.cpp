#include "Recorder.h"

#include <iostream>

Recorder::Recorder(Log& log, const Recording& recording)
    : _log(log), _recording(recording), _readings(log.database(), reading_mapping),
      _group(log.database(), recording.group, std::chrono::seconds(recording.seconds))
{
}

void Recorder::take(const std::string& line)
{
    Reading reading;
    if (!parseReading(line, reading))
        return complain("left out what is no reading: " + line);
    tidyBefore(reading);
    ++_taken;
    if (!_group.write([&] { return _readings.add(reading); })) {
        ++_refused;
        complain("cannot store a reading: "
                 + (_group.error() ? _group.error() : _readings.error()).text());
    }
    tellStored();
}

std::optional<std::chrono::milliseconds> Recorder::due() const
{
    return _group.due();
}

void Recorder::flush()
{
    if (!_group.flush())
        complain("cannot commit: " + _group.error().text());
    tellStored();
}

sql::integer Recorder::stored() const
{
    return _taken - _refused - _group.lost() - _group.pending();
}

sql::integer Recorder::lost() const
{
    return _taken - stored();
}

// Once a day that comes to its end.
void Recorder::tidyBefore(const Reading& reading)
{
    const TimePoint day = midnightOf(reading.at);
    if (_recording.days == 0 || day <= _day)
        return;
    flush();
    sql::integer removed = 0;
    if (_log.tidy(day - (_recording.days - 1) * whole_day, removed))
        _day = day;
    else
        complain(_log.error());
}

void Recorder::tellStored()
{
    if (!_recording.acknowledges || stored() == _told)
        return;
    _told = stored();
    std::cout << _told << std::endl;
}

void Recorder::complain(const std::string& text)
{
    if (text != _complaint)
        std::cerr << "logger: " << text << '\n';
    _complaint = text;
}
