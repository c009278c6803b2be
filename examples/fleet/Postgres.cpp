#include "Postgres.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int longest_wait = 60000;        // milliseconds for an answer
constexpr long long year_2000 = 946684800; // seconds since 1970
constexpr long long microseconds = 1000000;

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

std::string trimmed(const char* message)
{
    std::string text = message;
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

void ignoreNotice(void*, const PGresult*)
{
}

} // namespace

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

Parameters& Parameters::addTime(long long sinceEpoch)
{
    return putInteger(type_timestamptz,
                      static_cast<std::uint64_t>(sinceEpoch - year_2000 * microseconds));
}

Parameters& Parameters::addWritten(PostgresType type, std::string_view text)
{
    return put(type, text, false);
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

Rows::Rows(PGresult* result) : _result(result, PQclear)
{
}

bool Rows::isGood() const
{
    const ExecStatusType status = PQresultStatus(_result.get());
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

bool Rows::isSync() const
{
    return PQresultStatus(_result.get()) == PGRES_PIPELINE_SYNC;
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
    return std::strtoll(PQcmdTuples(_result.get()), nullptr, 10);
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
    // What the string says itself comes later, and counts.
    const char* const names[] = {"connect_timeout", "target_session_attrs", "application_name",
                                 "dbname",          "client_encoding",      nullptr};
    const char* const values[] = {"5",    "read-write", "fleet-hub", connection.c_str(),
                                  "UTF8", nullptr};
    _connection.reset(PQconnectdbParams(names, values, 1));
    if (!isConnected())
        return fail(trimmed(PQerrorMessage(_connection.get())));
    PQsetNoticeReceiver(_connection.get(), ignoreNotice, nullptr);
    if (PQsetnonblocking(_connection.get(), 1) != 0
        || PQenterPipelineMode(_connection.get()) != 1) {
        lose(trimmed(PQerrorMessage(_connection.get())));
        return false;
    }
    return run("set timezone to 'UTC'"); // that times in texts are of, unless they say it
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

void Postgres::lose(const std::string& why)
{
    fail(why);
    _connection.reset();
}

bool Postgres::isOfValues() const
{
    for (const char* const kind : {"22", "23", "54", "0A"}) {
        if (_state.compare(0, 2, kind) == 0)
            return true;
    }
    return false;
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
        ready = poll(&descriptor, 1, longest_wait);
    while (ready < 0 && errno == EINTR);
    if (ready > 0 && ((descriptor.revents & POLLIN) == 0 || PQconsumeInput(_connection.get()) == 1))
        return true;
    lose(ready == 0 ? "no answer in time" : trimmed(PQerrorMessage(_connection.get())));
    return false;
}

bool Postgres::flush()
{
    for (;;) {
        const int left = PQflush(_connection.get());
        if (left == 0)
            return true;
        if (left < 0) {
            lose(trimmed(PQerrorMessage(_connection.get())));
            return false;
        }
        if (!waitFor(true))
            return false;
    }
}

void Postgres::send(const std::string& sql, const Parameters& parameters)
{
    if (!isConnected())
        return;
    const int count = static_cast<int>(parameters._types.size());
    const auto added = _names.emplace(sql, std::string());
    std::string& name = added.first->second;
    if (added.second) {
        name = "s" + std::to_string(++_count);
        PQsendPrepare(_connection.get(), name.c_str(), sql.c_str(), count,
                      parameters._types.data());
        _pending.push_back(nullptr);
        _compiled.push_back(sql);
    }
    std::vector<const char*> values;
    for (std::size_t i = 0; i < parameters._offsets.size(); ++i)
        values.push_back(parameters._lengths[i] < 0
                             ? nullptr
                             : parameters._bytes.data() + parameters._offsets[i]);
    if (PQsendQueryPrepared(_connection.get(), name.c_str(), count, values.data(),
                            parameters._lengths.data(), parameters._formats.data(), 0)
        != 1)
        return lose(trimmed(PQerrorMessage(_connection.get())));
    _pending.push_back(&added.first->first);
    if (PQflush(_connection.get()) == 1)
        flush();
}

// The next result; null at the end of those of a statement.
PGresult* Postgres::next()
{
    while (PQisBusy(_connection.get()) == 1) {
        if (!waitFor(false))
            return nullptr;
    }
    return PQgetResult(_connection.get());
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
    if (!isConnected() || PQpipelineSync(_connection.get()) != 1 || !flush())
        return false;
    bool isGood = true;
    for (const std::string* const sql : _pending) {
        Rows result(next());
        if (isGood && isConnected() && !result.isGood()) {
            isGood = false;
            _state = result.state();
            _error = result.message();
        }
        if (!isConnected())
            return false;
        if (isGood && sql != nullptr)
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
