// Which of the places in the database are nearest: SQL sorts them by a distance that it asks this
// program for.
//
//     nearest DATABASE <POSITIONS
//
// A position is a line of two numbers: degrees north, and degrees east.

#include "SqlFunction.h"
#include "SqlStatement.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int busy_timeout_ms = 1000;
constexpr int places_shown = 2;
constexpr double radian = 0.017453292519943295; // of a degree
constexpr double earth_radius_km = 6371;

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "nearest: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

// Kilometres from one position to another, along the surface.
double distance(double north, double east, double otherNorth, double otherEast) noexcept
{
    const double height = std::sin((otherNorth - north) / 2 * radian);
    const double width = std::sin((otherEast - east) / 2 * radian);
    const double chord = height * height
                         + std::cos(north * radian) * std::cos(otherNorth * radian) * width * width;
    return 2 * earth_radius_km * std::asin(std::fmin(1, std::sqrt(chord)));
}

bool makeTable(sql::Database& database)
{
    const sql::Result<int> made = sql::runScript(
        database, "create table if not exists place (name text primary key, north real not null,"
                  " east real not null);"
                  "insert or ignore into place values ('harbour', 53.54, 9.97),"
                  " ('mill', 52.02, 8.53), ('station', 50.94, 6.96)");
    return made || fail("make the table", made.error());
}

// The function is the connection's: it is added each time that a file is opened.
bool addDistance(sql::Database& database)
{
    sql::FunctionOptions options;
    options.isDeterministic = true;
    const sql::Result<bool> added = sql::addFunction(database, "distance", distance, options);
    return added || fail("add the function", added.error());
}

bool show(sql::Statement& nearest, double north, double east)
{
    sql::string name;
    double kilometres = 0;
    nearest.reset();
    for (nearest.bind(1, north).bind(2, east).bind(3, places_shown);
         nearest.next(name, kilometres);)
        std::printf("%s %.0f km\n", name.c_str(), kilometres);
    return nearest.finished() || fail("find places", nearest.error());
}

bool readPosition(const char* line, double& north, double& east)
{
    char* middle = nullptr;
    char* end = nullptr;
    north = std::strtod(line, &middle);
    east = std::strtod(middle, &end);
    return middle != line && end != middle;
}

bool showAll(sql::Database& database)
{
    sql::Statement nearest(database, "select name, distance(?1, ?2, north, east) as kilometres"
                                     " from place order by kilometres, name limit ?3");
    char line[100];
    while (std::fgets(line, sizeof line, stdin) != nullptr) {
        double north = 0;
        double east = 0;
        if (!readPosition(line, north, east))
            std::fprintf(stderr, "nearest: left out what is no position: %s", line);
        else if (!show(nearest, north, east))
            return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: nearest DATABASE <POSITIONS\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms)) {
        fail("open the database", sql::lastError(database));
        return 1;
    }
    return makeTable(database) && addDistance(database) && showAll(database) ? 0 : 1;
}
