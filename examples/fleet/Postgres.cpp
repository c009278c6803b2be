#include "Postgres.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace {

constexpr long long year_2000 = 946684800; // seconds since 1970
constexpr long long second = 1000000;      // in microseconds

// Since 1970: the first second of PostgreSQL's times, and that behind the last.
constexpr long long first_second = -210866803200;
constexpr long long end_of_seconds = 9224318016000;

// Between looks at whether the server takes them.
constexpr std::size_t statements_at_once = 64;

// A server has memory for each, and devices may think of ever new updates.
constexpr std::size_t most_statements = 1000;

// What the connection string says itself comes later, and counts. A server that has vanished is
// noticed after half a minute; one that waits for its standby is waited for.
constexpr const char* defaults[][2] = {
    {"connect_timeout", "5"},          {"target_session_attrs", "read-write"},
    {"application_name", "fleet-hub"}, {"keepalives_idle", "10"},
    {"keepalives_interval", "5"},      {"keepalives_count", "3"},
    {"tcp_user_timeout", "30000"},
};

// Of the character that the bytes begin with, 0 if it is none of UTF-8.
std::size_t characterSize(std::string_view bytes)
{
    const auto byte = [bytes](std::size_t at) {
        return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0U;
    };
    const unsigned first = byte(0);
    if (first < 0x80)
        return 1;
    if (first < 0xC2 || first > 0xF4)
        return 0;
    const std::size_t size = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    // Not longer than it has to be, no surrogate, and not beyond the last.
    const unsigned least = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned most = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < least || byte(1) > most)
        return 0;
    for (std::size_t i = 2; i < size; ++i) {
        if ((byte(i) & 0xC0U) != 0x80)
            return 0;
    }
    return size;
}

// PostgreSQL writes lists so.
template <typename Range, typename Writer> std::string listOf(const Range& values, Writer write)
{
    std::string list = "{";
    for (const auto& value : values) {
        if (list.size() > 1)
            list += ',';
        write(list, value);
    }
    return list += '}';
}

void writeQuoted(std::string& list, const std::string& text)
{
    list += '"';
    for (const char letter : text) {
        if (letter == '"' || letter == '\\')
            list += '\\';
        list += letter;
    }
    list += '"';
}

// What libpq tells of a connection has a line for each host; advice is indented.
std::string inOneLine(const char* message)
{
    std::istringstream lines(message);
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.front() != '\t')
            text += (text.empty() ? "" : "; ") + line;
    }
    return text;
}

void ignoreNotice(void*, const PGresult*)
{
}

} // namespace

const char* whyNotText(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::size_t size = characterSize(bytes);
        if (size == 0)
            return "is no UTF-8";
        if (bytes.front() == '\0')
            return "has a zero byte";
        bytes.remove_prefix(size);
    }
    return nullptr;
}

std::string readable(std::string_view bytes)
{
    std::string text;
    while (!bytes.empty()) {
        const std::size_t size = characterSize(bytes);
        if (size == 0 || bytes.front() == '\0')
            text += '?';
        else
            text += bytes.substr(0, size);
        bytes.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return text;
}

// --- Parameters ----------------------------------------------------------------------------------

Parameters& Parameters::put(PostgresType type, std::string_view bytes, bool isBinary)
{
    _offsets.push_back(_bytes.size());
    _bytes.append(bytes).push_back('\0');
    _types.push_back(type);
    _lengths.push_back(static_cast<int>(bytes.size()));
    _formats.push_back(isBinary ? 1 : 0);
    return *this;
}

// Numbers go with their highest byte first.
Parameters& Parameters::putInteger(PostgresType type, std::uint64_t number)
{
    char bytes[sizeof number];
    for (std::size_t i = 0; i < sizeof bytes; ++i)
        bytes[i] = static_cast<char>(number >> 8 * (sizeof bytes - 1 - i) & 0xFF);
    return put(type, {bytes, sizeof bytes}, true);
}

Parameters& Parameters::addNull(PostgresType type)
{
    put(type, {}, true);
    _lengths.back() = -1;
    return *this;
}

Parameters& Parameters::addBoolean(bool value)
{
    return put(type_boolean, value ? std::string_view("\1", 1) : std::string_view("\0", 1), true);
}

Parameters& Parameters::addNumber(long long value)
{
    return putInteger(type_bigint, static_cast<std::uint64_t>(value));
}

Parameters& Parameters::addReal(double value)
{
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return putInteger(type_double, bits);
}

Parameters& Parameters::addText(std::string_view text)
{
    return put(type_text, text, true);
}

Parameters& Parameters::addBytes(std::string_view bytes)
{
    return put(type_bytea, bytes, true);
}

Parameters& Parameters::addTime(long long seconds, int microseconds)
{
    const long long since2000 = (seconds - year_2000) * second + microseconds;
    return putInteger(type_timestamptz, static_cast<std::uint64_t>(since2000));
}

bool isTime(long long seconds)
{
    return seconds >= first_second && seconds < end_of_seconds;
}

Parameters& Parameters::addNumeric(std::string_view text)
{
    return put(type_numeric, text, false);
}

Parameters& Parameters::addTexts(const std::vector<std::string>& texts)
{
    return put(type_text_array, listOf(texts, writeQuoted), false);
}

Parameters& Parameters::addNumbers(const std::vector<long long>& numbers)
{
    const auto write = [](std::string& list, long long number) {
        list += std::to_string(number);
    };
    return put(type_bigint_array, listOf(numbers, write), false);
}

// --- Rows ----------------------------------------------------------------------------------------

// Of hundreds of thousands of changed rows the number alone is kept.
Rows::Rows(PGresult* result)
    : _result(result, PQclear), _status(PQresultStatus(result)),
      _changed(std::strtoll(PQcmdTuples(result), nullptr, 10))
{
    if (_status == PGRES_COMMAND_OK)
        _result.reset();
}

bool Rows::isGood() const
{
    return _status == PGRES_COMMAND_OK || _status == PGRES_TUPLES_OK;
}

bool Rows::isSync() const
{
    return _status == PGRES_PIPELINE_SYNC;
}

std::string Rows::state() const
{
    const char* const state = PQresultErrorField(_result.get(), PG_DIAG_SQLSTATE);
    return state != nullptr ? state : "";
}

std::string Rows::message() const
{
    const char* const message = PQresultErrorField(_result.get(), PG_DIAG_MESSAGE_PRIMARY);
    return message != nullptr ? message : "no answer";
}

int Rows::count() const
{
    return PQntuples(_result.get());
}

long long Rows::changed() const
{
    return _changed;
}

bool Rows::isNull(int row, int column) const
{
    return PQgetisnull(_result.get(), row, column) != 0;
}

std::string Rows::text(int row, int column) const
{
    return {PQgetvalue(_result.get(), row, column),
            static_cast<std::size_t>(PQgetlength(_result.get(), row, column))};
}

std::string Rows::bytes(int row, int column) const
{
    std::size_t size = 0;
    const char* const written = PQgetvalue(_result.get(), row, column);
    const std::unique_ptr<unsigned char, decltype(&PQfreemem)> read(
        PQunescapeBytea(reinterpret_cast<const unsigned char*>(written), &size), PQfreemem);
    return {reinterpret_cast<const char*>(read.get()), size};
}

long long Rows::number(int row, int column) const
{
    return std::strtoll(PQgetvalue(_result.get(), row, column), nullptr, 10);
}

double Rows::real(int row, int column) const
{
    double value = 0;
    const std::string written = text(row, column);
    std::from_chars(written.data(), written.data() + written.size(), value);
    return value;
}

// --- Connection ----------------------------------------------------------------------------------

bool Postgres::connect(const std::string& connection)
{
    if (isConnected())
        return true;
    _names.clear();
    _pending.clear();
    _compiled.clear();
    std::vector<const char*> names;
    std::vector<const char*> values;
    for (const auto& [name, value] : defaults) {
        names.push_back(name);
        values.push_back(value);
    }
    names.insert(names.end(), {"dbname", "client_encoding", nullptr});
    values.insert(values.end(), {connection.c_str(), "UTF8", nullptr});
    _connection.reset(PQconnectdbParams(names.data(), values.data(), 1));
    if (!isConnected() || PQsetnonblocking(_connection.get(), 1) != 0
        || PQenterPipelineMode(_connection.get()) != 1)
        return lose();
    PQsetNoticeReceiver(_connection.get(), ignoreNotice, nullptr);
    // What a hub that has vanished has locked, others need.
    return run("set idle_in_transaction_session_timeout = '60s'");
}

bool Postgres::isConnected() const
{
    return PQstatus(_connection.get()) == CONNECTION_OK;
}

bool Postgres::fail(const std::string& why)
{
    _state.clear();
    _error = why;
    return false;
}

bool Postgres::lose()
{
    const std::string why = inOneLine(PQerrorMessage(_connection.get()));
    disconnect();
    return fail(why.empty() ? "the connection is lost" : why);
}

void Postgres::disconnect()
{
    _connection.reset();
}

bool Postgres::isOfValues() const
{
    for (const char* const kind : {"0A", "22", "23", "42", "44", "54", "P0"}) {
        if (_state.compare(0, 2, kind) == 0)
            return _state != "42501"; // a right that the hub is to be given
    }
    return false;
}

bool Postgres::isOfTables() const
{
    return _state.compare(0, 2, "42") == 0;
}

const std::string& Postgres::error() const
{
    return _error;
}

// Takes in what comes meanwhile: PostgreSQL would not read on while nobody takes its answers.
bool Postgres::waitFor(bool isToWrite)
{
    pollfd descriptor = {PQsocket(_connection.get()),
                         static_cast<short>(isToWrite ? POLLIN | POLLOUT : POLLIN), 0};
    int ready = 0;
    do
        ready = poll(&descriptor, 1, -1);
    while (ready < 0 && errno == EINTR);
    const bool isToRead = (descriptor.revents & ~POLLOUT) != 0;
    return (ready > 0 && (!isToRead || PQconsumeInput(_connection.get()) == 1)) || lose();
}

bool Postgres::flush()
{
    for (;;) {
        const int left = PQflush(_connection.get());
        if (left == 0)
            return true;
        if (left < 0)
            return lose();
        if (!waitFor(true))
            return false;
    }
}

void Postgres::compile(const std::string& sql, const Parameters& parameters, std::string& name)
{
    name = "s" + std::to_string(++_count);
    PQsendPrepare(_connection.get(), name.c_str(), sql.c_str(),
                  static_cast<int>(parameters._types.size()), parameters._types.data());
    _pending.push_back(false);
    _compiled.push_back(sql);
}

void Postgres::send(const std::string& sql, const Parameters& parameters)
{
    if (!isConnected())
        return;
    if (_names.size() == most_statements) {
        PQsendQueryParams(_connection.get(), "deallocate all", 0, nullptr, nullptr, nullptr,
                          nullptr, 0);
        _pending.push_back(false);
        _names.clear();
    }
    std::string& name = _names[sql];
    if (name.empty())
        compile(sql, parameters, name);
    std::vector<const char*> values;
    for (std::size_t i = 0; i < parameters._offsets.size(); ++i)
        values.push_back(parameters._lengths[i] < 0
                             ? nullptr
                             : parameters._bytes.data() + parameters._offsets[i]);
    if (PQsendQueryPrepared(_connection.get(), name.c_str(), static_cast<int>(values.size()),
                            values.data(), parameters._lengths.data(), parameters._formats.data(),
                            0)
        != 1) {
        lose();
        return;
    }
    _pending.push_back(true);
    if (_pending.size() % statements_at_once == 0)
        flush();
}

// The next result; null at the end of those of a statement.
PGresult* Postgres::next()
{
    while (isConnected() && PQisBusy(_connection.get()) == 1) {
        if (!waitFor(false))
            return nullptr;
    }
    return isConnected() ? PQgetResult(_connection.get()) : nullptr;
}

void Postgres::skipToSync()
{
    for (;;) {
        const Rows result(next());
        if (!isConnected() || result.isSync())
            return;
    }
}

bool Postgres::finish(std::vector<Rows>& results)
{
    results.clear();
    if (!isConnected())
        return false;
    if (PQpipelineSync(_connection.get()) != 1)
        return lose();
    if (!flush())
        return false;
    bool isGood = true;
    std::string state;
    std::string why;
    for (const bool isWanted : _pending) {
        Rows result(next());
        if (isConnected() && isGood && !result.isGood()) {
            isGood = false;
            state = result.state();
            why = result.message();
        }
        if (isGood && isWanted)
            results.push_back(std::move(result));
        const Rows end(next()); // the null behind each
    }
    skipToSync();
    _pending.clear();
    for (const std::string& sql : _compiled) {
        if (!isGood)
            _names.erase(sql); // it may not have come to it
    }
    _compiled.clear();
    if (_connection != nullptr && !isConnected())
        lose();
    if (!isGood) { // which is why a connection is lost that is
        _state = state;
        _error = why;
    }
    return isGood && isConnected();
}

bool Postgres::finish()
{
    std::vector<Rows> results;
    return finish(results);
}

bool Postgres::run(const std::string& sql, const Parameters& parameters, std::vector<Rows>& results)
{
    send(sql, parameters);
    return finish(results);
}

bool Postgres::run(const std::string& sql, const Parameters& parameters)
{
    std::vector<Rows> results;
    return run(sql, parameters, results);
}

bool Postgres::runScript(const std::string& sql)
{
    std::size_t at = 0;
    while (at < sql.size()) {
        const std::size_t end = std::min(sql.find(';', at), sql.size());
        send(sql.substr(at, end - at));
        at = end + 1;
    }
    return finish();
}
