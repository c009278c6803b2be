#ifndef VENDORS_IMPORT_H
#define VENDORS_IMPORT_H

#include "CsvFile.h"
#include "Registry.h"

#include <string>

// Brings the records of a registry's file into a database: all of them, or none.
class Import {
public:
    explicit Import(const std::string& csvFile);

    // Makes the database when it is missing. False on failure, which error() tells; the database is
    // then as it was, as soon as this object is destroyed.
    bool run(const std::string& databaseFile, bool withProgress);

    // The number of records read, and of blocks in the database in the end. A file may have a block
    // more than once: its last record counts.
    long rows() const;
    int blocks() const;

    const std::string& error() const;

private:
    bool readHeader();
    bool putAll(bool withProgress);
    bool put(const CsvRecord& record);
    bool fail(const std::string& text);

    CsvFile _csv;
    Registry _registry;
    long _rows = 0;
    int _blocks = 0;
    std::string _error;
};

#endif
