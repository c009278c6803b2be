// The text helpers, beside plain models of them.

#include "Cell.h"
#include "Fuzz.h"

#include "SqlCommon.h"
#include "SqlField.h"
#include "Sqlite.h"

#include <string>
#include <vector>

namespace {

using fuzz::Events;
using fuzz::expectEqual;
using fuzz::Input;
using fuzz::Reports;

const char* const blanks = " \t\n\v\f\r";

std::string withoutLeadingBlanks(const std::string& text)
{
    const std::size_t start = text.find_first_not_of(blanks);
    return start == std::string::npos ? std::string() : text.substr(start);
}

std::string withoutTrailingBlanks(const std::string& text)
{
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

void tryQuoting(Input& input)
{
    static test::Connection db;
    const std::string text = input.text();
    const std::string quoted = sql::quoteStr(text);
    expectEqual("the quoted text", "'" + quoted + "'", test::quoted(text));
    if (text.find('\0') == std::string::npos)
        expectEqual("the text as SQLite reads it", db.rows("select '" + quoted + "'"), text);
}

void tryTrimming(Input& input)
{
    const std::string text = input.text();
    std::string left = text;
    expectEqual("what trimleft returns", &sql::trimleft(left), &left);
    expectEqual("the text trimmed at the start", left, withoutLeadingBlanks(text));
    std::string right = text;
    expectEqual("what trimright returns", &sql::trimright(right), &right);
    expectEqual("the text trimmed at the end", right, withoutTrailingBlanks(text));
    std::string both = text;
    expectEqual("what trim returns", &sql::trim(both), &both);
    expectEqual("the text trimmed at both ends", both,
                withoutTrailingBlanks(withoutLeadingBlanks(text)));
    const std::string& constant = text;
    expectEqual("the trimmed copy", sql::trim(constant), both);
}

void trySplitting(Input& input)
{
    const std::string delimiters = test::shown(input.text());
    const std::string list = input.text();
    std::vector<std::string> items = {"of before"};
    sql::listToVector(list, items, delimiters.c_str());

    std::vector<std::string> expected;
    std::string item;
    for (const char byte : test::shown(list) + delimiters.substr(0, 1)) {
        if (delimiters.find(byte) == std::string::npos) {
            item += byte;
        } else if (!item.empty()) {
            expected.push_back(withoutTrailingBlanks(withoutLeadingBlanks(item)));
            item.clear();
        }
    }
    if (!item.empty()) // without delimiters there is one item
        expected.push_back(withoutTrailingBlanks(withoutLeadingBlanks(item)));
    expectEqual("the list's items", items, expected);
}

std::string digits(sql::integer number)
{
    std::uint64_t rest = static_cast<std::uint64_t>(number);
    rest = number < 0 ? 0 - rest : rest;
    std::string digits;
    do {
        digits.insert(digits.begin(), static_cast<char>('0' + rest % 10));
        rest /= 10;
    } while (rest > 0);
    return number < 0 ? "-" + digits : digits;
}

void tryNumbers(Input& input)
{
    const sql::integer number = input.integer();
    expectEqual("the integer's text", sql::intToStr(number), digits(number));
    const int narrow = input.number();
    expectEqual("the int's text", sql::intToStr(narrow), digits(narrow));
}

std::string resultName(int rc)
{
    static const char* const names[] = {
        "OK",       "ERROR",    "INTERNAL",  "PERM",   "ABORT",   "BUSY",       "LOCKED",
        "NOMEM",    "READONLY", "INTERRUPT", "IOERR",  "CORRUPT", "NOTFOUND",   "FULL",
        "CANTOPEN", "PROTOCOL", "EMPTY",     "SCHEMA", "TOOBIG",  "CONSTRAINT", "MISMATCH",
        "MISUSE",   "NOLFS",    "AUTH",      "FORMAT", "RANGE",   "NOTADB",
    };
    if (rc >= 0 && rc <= 26)
        return std::string("SQLITE_") + names[rc];
    if (rc == 100 || rc == 101)
        return rc == 100 ? "SQLITE_ROW" : "SQLITE_DONE";
    return "unknown";
}

void tryNames(Input& input, Reports& reports)
{
    const int rc = input.flip() ? input.number() : input.byte();
    expectEqual("the result code's name", std::string(sql::sqliteRc2Str(rc)), resultName(rc));
    reports.expect("sqliteRc2Str", {});

    const sql::field_type type = input.type();
    Events expected;
    const std::string name = fuzz::typeName(type, expected);
    expectEqual("the type's name", sql::type2Str(type), name);
    reports.expect("type2Str", expected);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Reports reports(9);
    while (!input.isUsedUp()) {
        switch (input.below(5)) {
        case 0:
            tryQuoting(input);
            break;
        case 1:
            tryTrimming(input);
            break;
        case 2:
            trySplitting(input);
            break;
        case 3:
            tryNumbers(input);
            break;
        default:
            tryNames(input, reports);
        }
        reports.expect("the text helpers", {});
    }
    return 0;
}
