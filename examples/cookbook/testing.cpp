// A test of one's own code: what it returns, and what the library has reported meanwhile.
//
//     testing

#include "SqlDatabase.h"
#include "SqlTable.h"
#include "TraceLevel.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace {

std::string reported; // a line for each report
bool hasFailed = false;

__attribute__((format(printf, 1, 0))) void capture(const char* format, std::va_list arguments)
{
    char line[1000];
    std::vsnprintf(line, sizeof line, format, arguments);
    // "[ERROR] SqlTable.cpp:NNN (open) - text": the place changes from release to release.
    const std::string text = line;
    const std::string::size_type place = text.find(" - ");
    reported += (place == std::string::npos ? text : text.substr(place + 3)) + "\n";
}

} // namespace

// Functions of the program come before those of the shared libraries: what the library reports
// arrives here. <syslog.h> is not included because it may define syslog() in terms of the second
// one, which optimised builds of the library call.
extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int priority, const char* format, ...);
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
__attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int flag, const char* format,
                                                        ...);
void logAssertFailed(const char* expression, const char* path, int line, const char* function);

void syslog(int, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    capture(format, arguments);
    va_end(arguments);
}

void __syslog_chk(int, int, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    capture(format, arguments);
    va_end(arguments);
}

void logAssertFailed(const char* expression, const char*, int, const char*)
{
    reported += std::string("assertion ") + expression + "\n";
}
}

namespace {

// The code under test.
sql::string priceOf(sql::Table& products, const sql::string& name)
{
    if (!products.open("name = '" + sql::quoteStr(name) + "'"))
        return "unknown";
    const sql::Record* const product = products.getTopRecord();
    return product == nullptr ? "none" : product->getValue("price")->asString();
}

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_none),
    sql::Field("price", sql::type_int, sql::flag_none),
    sql::Field(),
};

void expect(const char* what, const std::string& actual, const std::string& expected,
            const std::string& reports)
{
    const bool isRight = actual == expected && reported == reports;
    std::printf("%s: %s\n", isRight ? "ok" : "FAILED", what);
    if (!isRight)
        std::printf("result %s, reported:\n%s", actual.c_str(), reported.c_str());
    hasFailed = hasFailed || !isRight;
    reported.clear();
}

void run()
{
    sql::Database database; // each test has its own, in memory
    if (!database.open(":memory:", sql::Database::access_create, false, 0))
        hasFailed = true;
    sql::Table products(database.getHandle(), "product", columns);
    expect("a missing table is an unknown price", priceOf(products, "tea"), "unknown",
           "Failed to run the SQL stmt 'select * from product where name = 'tea''\n"
           "  rc=1=SQLITE_ERROR: no such table: product\n");

    sql::Record tea(*products.fields());
    tea.setString("name", "Captain's tea");
    tea.setInteger("price", 250);
    if (!products.create() || !products.addRecord(tea))
        hasFailed = true;
    expect("a product has its price", priceOf(products, "Captain's tea"), "250", "");
    expect("a product that is not there has none", priceOf(products, "tea"), "none", "");

    sql::Table unconnected("product");
    expect("without a connection the price is unknown", priceOf(unconnected, "tea"), "unknown",
           "assertion _db\n");
}

} // namespace

int main()
{
    trace::setLevel(trace::trace_errors);
    run();
    return hasFailed ? 1 : 0;
}
