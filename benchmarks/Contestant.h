#ifndef SQLWRAPPER_BENCHMARKS_CONTESTANT_H
#define SQLWRAPPER_BENCHMARKS_CONTESTANT_H

#include "Row.h"

#include <memory>
#include <string>
#include <vector>

namespace bench {

// One way to work with the table "item". A contestant holds at most one connection, and with it the
// statements that it has prepared and the rows that it has loaded. What it fails in ends the program.
class Contestant {
public:
    Contestant() = default;
    virtual ~Contestant() = default;
    Contestant(const Contestant&) = delete;
    Contestant& operator=(const Contestant&) = delete;

    virtual void open(const std::string& file) = 0;
    virtual void close() = 0;

    // What a contestant needs besides the connection before it can work.
    virtual void prepare()
    {
    }

    // The connection, for what is not measured.
    virtual sqlite3* handle() = 0;

    virtual void begin() = 0;
    virtual void commit() = 0;

    virtual void insert(const Row& row) = 0;
    virtual void update(const Row& row) = 0;
    virtual void addOrUpdate(const Row& row) = 0;
    virtual void remove(long long key) = 0;

    // Brings a row into the program, in whatever form it then holds it; false when there is none.
    virtual bool lookup(long long key) = 0;
    virtual bool exists(long long key) = 0;
    virtual long long count() = 0;

    // Brings all rows into the program, in whatever form it then holds them; their number.
    virtual long long load() = 0;

    // Reads every cell of every row into a variable of its type, by column number or by column
    // name; a contestant that reads from rows held loads them first.
    virtual void readByIndex(Digest& digest) = 0;
    virtual void readByName(Digest& digest) = 0;

    // Reads all rows of another contestant of the same kind and adds them to the own table.
    virtual void copyFrom(Contestant& source) = 0;

    // As insert(), with the cells set by column name.
    virtual void insertByName(const Row& row)
    {
        insert(row);
    }

    // As insert(), of rows that the contestant already has in its own form.
    virtual void makeReady(const std::vector<Row>& rows)
    {
        _ready = &rows;
    }
    virtual void insertReady(int index)
    {
        insert((*_ready)[index]);
    }

    // All of them.
    virtual void insertTogether(int count)
    {
        for (int i = 0; i < count; ++i)
            insertReady(i);
    }

private:
    const std::vector<Row>* _ready = nullptr;
};

// What a contestant prepares a statement for. Its values are numbered as the columns, its key is 1.
enum Work {
    insert_row,
    update_row,
    add_or_update_row,
    remove_row,
    look_up,
    test_existence,
    count_rows,
    select_rows,
    work_count
};
extern const char* const statements[work_count];

// A contestant that prepares each of the statements once and keeps it.
class PreparingContestant : public Contestant {
public:
    void insert(const Row& row) override
    {
        write(insert_row, row);
    }
    void update(const Row& row) override
    {
        write(update_row, row);
    }
    void addOrUpdate(const Row& row) override
    {
        write(add_or_update_row, row);
    }
    void remove(long long key) override
    {
        find(remove_row, key);
    }
    bool lookup(long long key) override
    {
        return find(look_up, key);
    }
    bool exists(long long key) override
    {
        return find(test_existence, key);
    }

protected:
    virtual void write(Work work, const Row& row) = 0;
    // Whether there is a row with the key; look_up reads it.
    virtual bool find(Work work, long long key) = 0;
};

// One that also reads rows from the running statement.
class ReadingContestant : public PreparingContestant {
public:
    long long load() override;
    void readByIndex(Digest& digest) override;
    void copyFrom(Contestant& source) override;

protected:
    virtual void select() = 0;
    virtual bool next(Row& row) = 0;

    std::vector<Row> _rows;
    Row _row;
};

struct Entry {
    const char* name;
    std::unique_ptr<Contestant> (*make)();
};

// Those that this program was built with, the library first.
const std::vector<Entry>& contestants();
const Entry& contestant(const std::string& name);

std::unique_ptr<Contestant> makeLibrary();
std::unique_ptr<Contestant> makeFloor();
std::unique_ptr<Contestant> makePrepared();
std::unique_ptr<Contestant> makeStatement();
std::unique_ptr<Contestant> makePreparedTable();
std::unique_ptr<Contestant> makeTyped();
std::unique_ptr<Contestant> makeSqliteCpp();
std::unique_ptr<Contestant> makeSoci();
std::unique_ptr<Contestant> makePoco();
std::unique_ptr<Contestant> makeQt();

} // namespace bench

#endif
