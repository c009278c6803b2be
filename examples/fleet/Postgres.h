#ifndef FLEET_POSTGRES_H
#define FLEET_POSTGRES_H

#include <libpq-fe.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Types of PostgreSQL, by the numbers that it gives its own.
enum PostgresType : Oid {
    type_boolean = 16,
    type_bytea = 17,
    type_bigint = 20,
    type_text = 25,
    type_double = 701,
    type_timestamptz = 1184,
    type_numeric = 1700,
    type_bigint_array = 1016,
    type_text_array = 1009,
};

// Why PostgreSQL does not take bytes as a text; null if it does.
const char* whyNotText(std::string_view bytes);

// The same with a question mark for each byte that it does not take.
std::string readable(std::string_view bytes);

// The values of a statement, $1 and so on.
class Parameters {
public:
    Parameters& addNull(PostgresType type);
    Parameters& addBoolean(bool value);
    Parameters& addNumber(long long value);
    Parameters& addReal(double value);
    Parameters& addText(std::string_view text); // any bytes: PostgreSQL refuses what is no text
    Parameters& addBytes(std::string_view bytes);
    Parameters& addTime(long long seconds, int microseconds); // since 1970: isTime()
    Parameters& addNumeric(std::string_view text);
    Parameters& addTexts(const std::vector<std::string>& texts);
    Parameters& addNumbers(const std::vector<long long>& numbers);

private:
    friend class Postgres;

    Parameters& put(PostgresType type, std::string_view bytes, bool isBinary);
    Parameters& putInteger(PostgresType type, std::uint64_t number);

    std::string _bytes; // of all, each with a zero behind it
    std::vector<std::size_t> _offsets;
    std::vector<Oid> _types;
    std::vector<int> _lengths; // -1: null
    std::vector<int> _formats;
};

// Whether PostgreSQL has such a time: seconds since 1970.
bool isTime(long long seconds);

// What a statement has returned, or how many rows it has changed.
class Rows {
public:
    explicit Rows(PGresult* result); // becomes its owner

    bool isGood() const;       // the statement was run
    bool isSync() const;       // there are no more
    std::string state() const; // SQLSTATE of a failure
    std::string message() const;

    int count() const;
    long long changed() const;
    bool isNull(int row, int column) const;
    std::string text(int row, int column) const;
    std::string bytes(int row, int column) const; // of a bytea
    long long number(int row, int column) const;
    double real(int row, int column) const;

private:
    std::unique_ptr<PGresult, decltype(&PQclear)> _result; // null if it has no more to tell
    ExecStatusType _status;
    long long _changed;
};

// A connection to PostgreSQL whose statements are compiled once and sent one behind the other, without
// waiting for each. Functions return false on failure, which error() tells. One thread at a time.
class Postgres {
public:
    // Takes libpq's connection string; asks for one that can be written to where it names several
    // hosts. Waits no longer than some seconds for each.
    bool connect(const std::string& connection);

    bool isConnected() const;
    void disconnect();

    // Statements are kept by their text.
    void send(const std::string& sql, const Parameters& parameters = Parameters());

    // Waits for the results of what was sent, one for each. Where one has failed those behind it were
    // not run, and `results` has those before it.
    bool finish(std::vector<Rows>& results);
    bool finish();

    // Sends one, and waits for its result.
    bool run(const std::string& sql, const Parameters& parameters, std::vector<Rows>& results);
    bool run(const std::string& sql, const Parameters& parameters = Parameters());

    // Runs several that return nothing.
    bool runScript(const std::string& sql);

    // Whether the latest failure is that of the values or what they were to be written to: the same
    // would fail again.
    bool isOfValues() const;

    // Whether it is that of a table or column, which may have gone since it was looked at.
    bool isOfTables() const;
    const std::string& error() const;

private:
    void compile(const std::string& sql, const Parameters& parameters, std::string& name);
    bool fail(const std::string& why);
    bool lose();
    bool waitFor(bool isToWrite);
    bool flush();
    PGresult* next();
    void skipToSync();

    struct Finish {
        void operator()(PGconn* connection) const
        {
            PQfinish(connection);
        }
    };
    std::unique_ptr<PGconn, Finish> _connection;
    std::map<std::string, std::string> _names; // of statements that are compiled
    std::vector<bool> _pending;                // whether the result of what was sent is wanted
    std::vector<std::string> _compiled;        // with what was sent
    int _count = 0;
    std::string _state; // SQLSTATE of the latest failure
    std::string _error;
};

#endif
