#include "Reading.h"

#include "SqlLiteral.h"

#include <sstream>

bool parseReading(const std::string& line, Reading& reading)
{
    std::istringstream words(line);
    std::string at;
    std::string note;
    if (!(words >> at >> reading.sensor >> reading.value) || !sql::fromIso8601(at, reading.at))
        return false;
    if (std::getline(words >> std::ws, note))
        reading.note = note;
    return true;
}
