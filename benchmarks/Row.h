#ifndef SQLWRAPPER_BENCHMARKS_ROW_H
#define SQLWRAPPER_BENCHMARKS_ROW_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace bench {

// A row of the table that all contestants work on, in a program's own types.
struct Row {
    long long id = 0;
    std::string name;
    std::string place;
    double price = 0.0;
    bool active = false;
    long long changed = 0;
    std::optional<std::string> note; // longer than what a string keeps within itself
};

constexpr int column_count = 7;
constexpr int column_indexes[column_count] = {0, 1, 2, 3, 4, 5, 6};
extern const char* const column_names[column_count];

// The statement that creates the table, as the library writes it.
std::string definition(const std::string& table);

// The row with this key: the same in every run.
Row makeRow(long long id);

// The rows with the keys `first` to `first + count - 1`.
std::vector<Row> makeRows(long long first, int count);

// A sum over cells, by which contestants show that they read all of them.
class Digest {
public:
    void add(const Row& row)
    {
        add(row.id, row.name.size(), row.place[0], row.price, row.active, row.changed,
            row.note ? row.note->size() + 1 : 0);
    }
    // The cells as a contestant has them; `note` is its length and one, 0 for null.
    void add(long long id, std::size_t name, char place, double price, bool active,
             long long changed, std::size_t note)
    {
        _sum += static_cast<unsigned long long>(id) * 3 + name * 5
                + static_cast<unsigned char>(place) + static_cast<unsigned long long>(price * 4)
                + (active ? 7 : 0) + static_cast<unsigned long long>(changed) + note * 11;
    }
    unsigned long long value() const
    {
        return _sum;
    }

private:
    unsigned long long _sum = 0;
};

// Stops the program when a contestant fails: what it then measured means nothing.
void require(bool holds, const char* what);

// SQLite's own interface: a connection, and statements whose rows are not wanted.
sqlite3* connect(const std::string& file);
void execute(sqlite3* db, const std::string& sql);

} // namespace bench

#endif
