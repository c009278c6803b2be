#include "CsvFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr unsigned char parser_options = CSV_STRICT | CSV_STRICT_FINI | CSV_APPEND_NULL;

// The parser drops blanks around fields unless it is told that there are none.
int noBlank(unsigned char)
{
    return 0;
}

long long sizeOf(std::FILE* file)
{
    struct stat status;
    const bool isKnown = ::fstat(::fileno(file), &status) == 0 && S_ISREG(status.st_mode);
    return isKnown ? static_cast<long long>(status.st_size) : 0;
}

bool isEmptyLine(const char* line, std::size_t length)
{
    return std::string(line, length).find_first_not_of("\r\n") == std::string::npos;
}

} // namespace

CsvFile::CsvFile(const std::string& path)
    : _path(path), _file(std::fopen(path.c_str(), "re"), std::fclose)
{
    if (_file != nullptr)
        _size = sizeOf(_file.get());
    else
        fail(std::strerror(errno));
    csv_init(&_parser, parser_options);
    csv_set_space_func(&_parser, noBlank);
}

CsvFile::~CsvFile()
{
    csv_free(&_parser);
    std::free(_line);
}

bool CsvFile::read(CsvRecord& record)
{
    while (_records.empty() && !_atEnd && _error.empty())
        readLine();
    if (_records.empty())
        return false;
    record = std::move(_records.front());
    _records.pop_front();
    return true;
}

const std::string& CsvFile::error() const
{
    return _error;
}

std::string CsvFile::located(long line, const std::string& text) const
{
    return _path + (line > 0 ? ":" + std::to_string(line) : "") + ": " + text;
}

long CsvFile::lines() const
{
    return _lines;
}

int CsvFile::percentRead() const
{
    return _size > 0 ? static_cast<int>(_bytesRead * 100 / _size) : -1;
}

// The parser knows no lines, so it gets them one by one.
void CsvFile::readLine()
{
    const ssize_t length = ::getline(&_line, &_capacity, _file.get());
    if (length < 0)
        return finish();

    ++_lines;
    _bytesRead += length;
    const std::size_t size = static_cast<std::size_t>(length);
    if (_betweenRecords) {
        if (isEmptyLine(_line, size))
            return;
        _betweenRecords = false;
        _current.line = _lines;
    }
    if (csv_parse(&_parser, _line, size, onField, onRecord, this) != size)
        fail(csv_error(&_parser) == CSV_EPARSE ? "misplaced quote"
                                               : csv_strerror(csv_error(&_parser)));
}

void CsvFile::finish()
{
    _atEnd = true;
    if (std::ferror(_file.get()) != 0)
        fail(std::strerror(errno));
    else if (csv_fini(&_parser, onField, onRecord, this) != 0)
        fail("quote without an end");
}

void CsvFile::fail(const std::string& text)
{
    _error = located(_current.line, text);
}

void CsvFile::onField(void* bytes, std::size_t size, void* file) noexcept
{
    static_cast<CsvFile*>(file)->_current.fields.emplace_back(static_cast<const char*>(bytes),
                                                              size);
}

void CsvFile::onRecord(int, void* file) noexcept
{
    CsvFile& self = *static_cast<CsvFile*>(file);
    self._records.push_back({self._current.line, std::move(self._current.fields)});
    self._current.fields.clear();
    self._betweenRecords = true;
}
