#include "Import.h"

#include "Address.h"
#include "Progress.h"

#include <algorithm>
#include <vector>

namespace {

const std::vector<std::string> header = {"Registry", "Assignment", "Organization Name",
                                         "Organization Address"};

bool isBlock(const std::string& digits)
{
    return !digits.empty() && blockDigits(digits).size() == digits.size();
}

bool hasZeroByte(const std::string& field)
{
    return field.find('\0') != std::string::npos;
}

// What is wrong with a record; empty for a sound one.
std::string flawOf(const CsvRecord& record)
{
    if (record.fields.size() != header.size())
        return std::to_string(record.fields.size()) + " columns instead of "
               + std::to_string(header.size());
    // A statement that has the name in its text would end there.
    if (std::any_of(record.fields.begin(), record.fields.end(), hasZeroByte))
        return "a zero byte";
    if (!isBlock(record.fields[1]))
        return "'" + record.fields[1] + "' instead of 6, 7 or 9 hexadecimal digits";
    return std::string();
}

// The registry has stray blanks at both ends of many texts.
Block blockOf(const CsvRecord& record)
{
    return {sql::trim(record.fields[0]), blockDigits(record.fields[1]), sql::trim(record.fields[2]),
            sql::trim(record.fields[3])};
}

} // namespace

Import::Import(const std::string& csvFile) : _csv(csvFile)
{
}

bool Import::run(const std::string& databaseFile, bool withProgress)
{
    // First the header: a wrong file is refused before the database is touched.
    if (!readHeader())
        return false;
    if (!_registry.open(databaseFile, sql::Database::access_create) || !_registry.begin()
        || !_registry.prepare())
        return fail(_registry.error());
    if (!putAll(withProgress))
        return false;
    if (!_registry.count(_blocks) || !_registry.commit())
        return fail(_csv.located(_csv.lines(), _registry.error()));
    return true;
}

bool Import::readHeader()
{
    CsvRecord record;
    if (!_csv.read(record))
        return fail(_csv.error().empty() ? _csv.located(1, "no header") : _csv.error());
    if (record.fields != header)
        return fail(_csv.located(record.line, "unknown header"));
    return true;
}

bool Import::putAll(bool withProgress)
{
    Progress progress(withProgress);
    for (CsvRecord record; _csv.read(record); ++_rows) {
        if (!put(record))
            return false;
        progress.show(_csv.percentRead());
    }
    if (!_csv.error().empty())
        return fail(_csv.error());
    return true;
}

bool Import::put(const CsvRecord& record)
{
    const std::string flaw = flawOf(record);
    if (!flaw.empty())
        return fail(_csv.located(record.line, flaw));
    if (!_registry.put(blockOf(record)))
        return fail(_csv.located(record.line, _registry.error()));
    return true;
}

long Import::rows() const
{
    return _rows;
}

int Import::blocks() const
{
    return _blocks;
}

const std::string& Import::error() const
{
    return _error;
}

bool Import::fail(const std::string& text)
{
    _error = text;
    return false;
}
