#ifndef VENDORS_REGISTRY_H
#define VENDORS_REGISTRY_H

#include "SqlPreparedTable.h"

#include <optional>
#include <string>
#include <vector>

// A block of network addresses and whom it is assigned to.
struct Block {
    std::string registry;   // "MA-L", "MA-M" or "MA-S": large, medium or small blocks
    std::string assignment; // the digits that the block's addresses begin with: 6, 7 or 9
    std::string name;
    std::string address; // the postal one
};

// The assigned blocks, kept in a table of a database file.
//
// Operations return false on failure, and error() then tells in one line what went wrong. Blocks are
// named by their digits, in capitals. An object opens one file once.
class Registry {
public:
    Registry();
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    // Rolls back what was begun and not committed, and closes the database. A file that open() has
    // created and that is still empty is removed.
    ~Registry();

    // Opens a file, with access_create also one that is still missing.
    bool open(const std::string& file, sql::Database::AccessMode mode);

    // Fails unless the database is one that this program has made.
    bool check();

    // Makes the table and sets the user version in an empty database; otherwise as check().
    bool prepare();

    // Begin and commit a transaction, so that the writes in between are done together or not at all.
    bool begin();
    bool commit();

    // Begins one in which nothing is written: what is read belongs together.
    bool beginReading();

    // Adds a block, in place of the one with the same digits.
    bool put(const Block& block);

    // Looks for a block; `found` is empty when there is none.
    bool find(const std::string& digits, std::optional<Block>& found);

    // Looks for the smallest block that an address of 12 digits is in.
    bool findAddress(const std::string& digits, std::optional<Block>& found);

    // Looks for the blocks whose holder's name contains a text, in the order of names and digits.
    bool search(const std::string& text, std::vector<Block>& found);

    // Write all of a block that exists, or remove it.
    bool update(const Block& block);
    bool remove(const std::string& digits);

    // Makes the table anew as a copy of another database's, and takes its user version.
    bool copyFrom(Registry& source);

    // The number of blocks, and the number that tells the table's version.
    bool count(int& blocks);
    bool version(int& version);

    // The definitions of the table's columns, one a line.
    std::vector<std::string> columns() const;

    const std::string& error() const;

private:
    sql::Record recordOf(const Block& block) const;
    void rollBack();

    // Always false.
    bool fail(const std::string& text);

    std::string _file;
    bool _isNew = false;
    bool _hasBegun = false;
    sql::Database _database;
    sql::Table _table;
    std::optional<sql::PreparedTable> _prepared; // the same table, for what is done many times
    std::string _error;
};

#endif
