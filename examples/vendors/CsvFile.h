#ifndef VENDORS_CSVFILE_H
#define VENDORS_CSVFILE_H

#include <csv.h>

#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

struct CsvRecord {
    long line = 0; // where the record starts, from 1
    std::vector<std::string> fields;
};

// Reads a file of comma-separated values record by record. Fields may be quoted, and may then hold
// commas, doubled quotes and line ends; every byte of a field counts, blanks too. Empty lines are
// skipped.
class CsvFile {
public:
    explicit CsvFile(const std::string& path);
    CsvFile(const CsvFile&) = delete;
    CsvFile& operator=(const CsvFile&) = delete;
    ~CsvFile();

    // Takes the next record. False at the end of the file and on failure, which error() tells.
    bool read(CsvRecord& record);

    // What went wrong, with the file and, once there is one, the line; empty when nothing did.
    const std::string& error() const;

    // The text behind the name of the file and a line, as error() puts it.
    std::string located(long line, const std::string& text) const;

    // The number of lines read.
    long lines() const;

    // How much of the file has been read; -1 for a pipe, whose end cannot be told.
    int percentRead() const;

private:
    void readLine();
    void finish();
    void fail(const std::string& text);

    static void onField(void* bytes, std::size_t size, void* file) noexcept;
    static void onRecord(int terminator, void* file) noexcept;

    const std::string _path;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> _file;
    long long _size = 0; // 0 when unknown
    long long _bytesRead = 0;

    char* _line = nullptr; // grown by getline()
    std::size_t _capacity = 0;
    long _lines = 0;

    csv_parser _parser;
    CsvRecord _current;
    bool _betweenRecords = true;
    std::deque<CsvRecord> _records; // read, but not yet taken
    bool _atEnd = false;
    std::string _error;
};

#endif
