#include "SqlToken.h"

#include <sqlite3.h>

#include <algorithm>
#include <cctype>
#include <iterator>

namespace sql {

namespace {

bool isBlank(char byte)
{
    return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

// Behind the comment or the quoted text that begins here, else behind this byte. SQLite takes a comment
// that nobody ends for one up to the end.
std::size_t behind(std::string_view sql, std::size_t at)
{
    const auto past = [&](std::string_view end, std::size_t from) {
        const std::size_t found = sql.find(end, from);
        return found != std::string_view::npos ? found + end.size() : sql.size();
    };
    if (sql.compare(at, 2, "--") == 0)
        return past("\n", at);
    if (sql.compare(at, 2, "/*") == 0)
        return past("*/", at + 2);
    if (sql[at] == '\'' || sql[at] == '"' || sql[at] == '`')
        return past(sql.substr(at, 1), at + 1);
    if (sql[at] == '[')
        return past("]", at);
    return at + 1;
}

bool is(std::string_view token, std::string_view keyword)
{
    return token.size() == keyword.size()
           && sqlite3_strnicmp(token.data(), keyword.data(), static_cast<int>(keyword.size())) == 0;
}

// Takes the next word, mark or quoted name off the text.
std::string_view takeToken(std::string_view& sql)
{
    sql.remove_prefix(nextStatement(sql));
    const auto isOfWord = [](unsigned char byte) {
        return byte == '_' || byte == '$' || byte > 127 || std::isalnum(byte) != 0;
    };
    std::size_t end = 0;
    while (end < sql.size() && isOfWord(sql[end]))
        ++end;
    while (end < sql.size() && sql[end] == sql[0]) // again behind a quote that is doubled in a name
        end = behind(sql, end);
    const std::string_view token = sql.substr(0, end);
    sql.remove_prefix(end);
    return token;
}

string unquoted(std::string_view name)
{
    if (name.empty() || behind(name, 0) == 1)
        return string(name);
    string bare;
    for (std::size_t i = 1; i + 1 < name.size(); ++i) {
        bare += name[i];
        if (name[i] == name[0] && name[i] != '[')
            ++i;
    }
    return bare;
}

} // namespace

std::size_t nextStatement(std::string_view sql)
{
    std::size_t at = 0;
    while (at < sql.size()
           && (isBlank(sql[at]) || sql[at] == ';' || sql.compare(at, 2, "--") == 0
               || sql.compare(at, 2, "/*") == 0))
        at = behind(sql, at);
    return at;
}

string firstStatement(std::string_view sql)
{
    std::size_t at = 0;
    while (at < sql.size() && sql[at] != ';')
        at = behind(sql, at);
    return string(sql.substr(0, at + 1));
}

bool beginsWith(std::string_view sql, std::initializer_list<std::string_view> words)
{
    const std::string_view first = takeToken(sql);
    return std::any_of(words.begin(), words.end(),
                       [&](std::string_view word) { return is(first, word); });
}

bool mayChange(std::string_view sql)
{
    return beginsWith(sql, {"update", "delete"}) || mayInsert(sql);
}

bool mayInsert(std::string_view sql)
{
    return beginsWith(sql, {"insert", "replace", "with"});
}

bool givesKeys(sqlite3* db, const string& text)
{
    if (!mayInsert(text) || sqlite3_strlike("%conflict%", text.c_str(), 0) == 0)
        return false;
    std::string_view sql = text;
    while (!sql.empty() && !is(takeToken(sql), "into")) {
    }
    const string first = unquoted(takeToken(sql));
    const bool isSchema = is(takeToken(sql), ".");
    const string table = isSchema ? unquoted(takeToken(sql)) : first;
    const char* const schema = isSchema ? first.c_str() : nullptr;
    // A table whose rows have no keys may have columns of these names, but hardly of all of them.
    const char* const keys[] = {"rowid", "oid", "_rowid_"};
    return std::all_of(std::begin(keys), std::end(keys), [&](const char* key) {
        return sqlite3_table_column_metadata(db, schema, table.c_str(), key, nullptr, nullptr,
                                             nullptr, nullptr, nullptr)
               == SQLITE_OK;
    });
}

} // namespace sql
