// readings: stores a reading, and prints all readings of its sensor.
#include <SqlStatement.h>

#include <cstdio>

static int fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "readings: cannot %s: %s\n", what, error.text().c_str());
    return 1;
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fputs("usage: readings SENSOR VALUE\n", stderr);
        return 2;
    }
    sql::Database database;
    if (!database.open("readings.db", sql::Database::access_create, false, 1000))
        return fail("open readings.db", sql::lastError(database));
    const sql::Result<int> made = sql::runScript(
        database, "create table if not exists reading (id integer primary key, sensor text,"
                  " value real constraint number check (value + 0 = value))");
    if (!made)
        return fail("make the table", made.error());

    sql::Statement add(database, "insert into reading (sensor, value) values (?, ?)");
    if (!add.run(argv[1], argv[2]))
        return fail("add the reading", add.error());

    sql::Statement all(database, "select id, value from reading where sensor = ? order by id");
    all.bind(1, argv[1]);
    sql::integer id = 0;
    double value = 0;
    while (all.next(id, value))
        std::printf("%lld: %.1f\n", id, value);
    return all.finished() ? 0 : fail("read the readings", all.error());
}
