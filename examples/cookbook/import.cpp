// An import of many lines, all or none: it shows how far it has come, and Ctrl+C stops it.
//
//     import DATABASE <LINES
//
// A line is such as "Captain's tea,250".

#include "SqlPreparedTable.h"
#include "SqlTransaction.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>

namespace {

constexpr int busy_timeout_ms = 2000;
constexpr int percent_step = 25;

const sql::Field columns[] = {
    sql::Field("id", sql::type_int, sql::flag_primary_key),
    sql::Field("name", sql::type_text, sql::flag_not_null),
    sql::Field("cents", sql::type_int, sql::flag_not_null),
    sql::Field(),
};

volatile std::sig_atomic_t is_stopped = 0;

bool fail(const char* what, const sql::Error& error)
{
    std::fprintf(stderr, "import: cannot %s: %s\n", what, error.text().c_str());
    return false;
}

// The input, of which one line is in memory, as a record.
class Input {
public:
    explicit Input(const sql::FieldSet& fields) : _record(fields)
    {
        struct stat file = {};
        if (::fstat(STDIN_FILENO, &file) == 0)
            _size = file.st_size;
    }

    // A price that is no number goes into the record as it is: the table refuses it, and says which.
    bool next()
    {
        std::string line;
        if (!std::getline(std::cin, line))
            return false;
        _read += static_cast<long long>(line.size()) + 1;
        const std::size_t comma = line.rfind(',');
        _record.setString("name", line.substr(0, comma));
        _record.setString("cents", comma < line.size() ? line.substr(comma + 1) : "");
        return true;
    }

    const sql::Record& record() const
    {
        return _record;
    }

    // Nothing for a pipe, whose size nobody knows.
    int percentRead() const
    {
        return _size > 0 ? static_cast<int>(std::min(100 * _read / _size, 100LL)) : 0;
    }

private:
    sql::Record _record;
    long long _size = 0;
    long long _read = 0;
};

// Goes through the input as addRecords() does.
class Lines {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = sql::Record;
    using difference_type = std::ptrdiff_t;
    using pointer = const sql::Record*;
    using reference = const sql::Record&;

    Lines() = default; // behind the last line

    explicit Lines(Input& input) : _input(&input)
    {
        ++*this;
    }

    const sql::Record& operator*() const
    {
        return _input->record();
    }

    Lines& operator++()
    {
        if (!_input->next())
            _input = nullptr;
        return *this;
    }

    bool operator!=(const Lines& other) const
    {
        return _input != other._input;
    }

private:
    Input* _input = nullptr;
};

// Shows in steps how far the input has been read, and stops at Ctrl+C.
class Progress {
public:
    explicit Progress(const Input& input) : _input(input)
    {
    }

    // Whether to go on. That many rows tell nothing: nobody knows how many there will be.
    bool operator()(sql::integer /*rows*/)
    {
        const int percent = _input.percentRead() / percent_step * percent_step;
        if (percent > _shown)
            std::printf("%d percent\n", percent);
        _shown = percent;
        return is_stopped == 0;
    }

private:
    const Input& _input;
    int _shown = 0;
};

// The transaction is for lines that cannot be read to their end, which addRecords() does not see.
bool import(sql::Database& database, sql::PreparedTable& products, Input& input)
{
    sql::Transaction transaction(database, sql::begin_immediate);
    if (!transaction.isOpen())
        return fail("begin", transaction.error());
    if (!products.addRecords(Lines(input), Lines(), Progress(input)))
        return fail("import", products.error());
    if (std::ferror(stdin) != 0) {
        std::fputs("import: cannot read the lines\n", stderr);
        return false;
    }
    if (!transaction.commit())
        return fail("commit", transaction.error());
    std::printf("%lld products\n", products.changes());
    return true;
}

} // namespace

extern "C" void stop(int)
{
    is_stopped = 1;
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fputs("usage: import DATABASE <LINES\n", stderr);
        return 2;
    }
    std::signal(SIGINT, stop);
    sql::Database database;
    if (!database.open(argv[1], sql::Database::access_create, false, busy_timeout_ms)) {
        fail("open the database", sql::lastError(database));
        return 1;
    }
    sql::Table table(database.getHandle(), "product", columns);
    if (database.getUserVersion() < 0 || !table.create()) {
        fail("read the database, or make the table", sql::lastError(database));
        return 1;
    }
    sql::PreparedTable products(database, table);
    Input input(*table.fields());
    return import(database, products, input) ? 0 : 1;
}
