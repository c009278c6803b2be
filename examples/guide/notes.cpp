// notes: keeps the notes that it is given and prints them all.
#include <SqlDatabase.h>
#include <SqlTable.h>
#include <TraceLevel.h>

#include <cstdio>
#include <cstdlib>
#include <syslog.h>

static const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("text", sql::type_text, sql::flag_not_null | sql::flag_unique),
    sql::Field(), // ends the list
};

static int fail(const char* what)
{
    std::fprintf(stderr, "notes: cannot %s\n", what);
    return 1;
}

int main(int argc, char** argv)
{
    if (const char* const level = std::getenv("TRACE")) {
        openlog("notes", LOG_PERROR, LOG_USER); // to the terminal, too
        trace::setLevel(static_cast<int>(std::strtol(level, nullptr, 10)));
    }
    sql::Database database;
    if (!database.open("notes.db", sql::Database::access_create, false, 1000))
        return fail("open notes.db");
    sql::Table notes(database.getHandle(), "note", columns);
    if (database.getUserVersion() < 0 || !notes.create())
        return fail("read notes.db");

    sql::Record note(*notes.fields());
    if (argc > 1) {
        note.setString("text", argv[1]);
        if (!notes.addRecord(note))
            return fail("add the note");
    }
    if (!notes.open("", "id"))
        return fail("read the notes");
    for (int i = 0; i < notes.recordCount(); ++i)
        std::printf("%s\n", notes.getRecord(i)->toString().c_str());
    return 0;
}
