#include "Environment.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace test {

namespace {

const char* const locale_variable = "SQLWRAPPER_TEST_LOCALE";

[[noreturn]] void refuse(const char* what)
{
    std::perror(what);
    std::abort();
}

struct CommaPunctuation : std::numpunct<char> {
    char do_decimal_point() const override
    {
        return ',';
    }
    char do_thousands_sep() const override
    {
        return '.';
    }
    std::string do_grouping() const override
    {
        return "\3";
    }
};

// For C++ the punctuation alone: a std::locale by name leaks what the C library keeps of LOCPATH.
void setLocale(const char* name)
{
    if (std::setlocale(LC_ALL, name) == nullptr)
        refuse(name);
    if (*std::localeconv()->decimal_point == ',')
        std::locale::global(std::locale(std::locale::classic(), new CommaPunctuation));
    std::setlocale(LC_ALL, name); // in case the line above has changed it
}

} // namespace

TemporaryDirectory::TemporaryDirectory()
    : _path((std::filesystem::temp_directory_path() / "sqlwrapper-XXXXXX").string())
{
    if (::mkdtemp(_path.data()) == nullptr)
        refuse("mkdtemp");
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::error_code ignored;
    std::filesystem::remove_all(_path, ignored);
}

const std::string& TemporaryDirectory::path() const
{
    return _path;
}

std::string TemporaryDirectory::file(const std::string& name) const
{
    return _path + "/" + name;
}

TimeZone::TimeZone(const std::string& name) : _had(false)
{
    if (const char* const former = std::getenv("TZ")) {
        _had = true;
        _former = former;
    }
    ::setenv("TZ", name.c_str(), 1);
    ::tzset();
}

TimeZone::~TimeZone()
{
    if (_had)
        ::setenv("TZ", _former.c_str(), 1);
    else
        ::unsetenv("TZ");
    ::tzset();
}

CommaLocale::CommaLocale() : _formerInC(std::setlocale(LC_ALL, nullptr))
{
    setLocale("de_DE.UTF-8");
}

CommaLocale::~CommaLocale()
{
    std::locale::global(_former);
    std::setlocale(LC_ALL, _formerInC.c_str()); // where the line above has set another one
}

void setLocaleOfRun()
{
    const char* const name = std::getenv(locale_variable);
    if (name == nullptr)
        return;
    setLocale(name);
    std::setlocale(LC_TIME, "C");
}

bool longRun()
{
    return std::getenv("SQLWRAPPER_TEST_LONG") != nullptr;
}

bool briefRun()
{
    if (longRun())
        return false;
#ifdef __arm__
    return true;
#else
    const char* const preloaded = std::getenv("LD_PRELOAD");
    return std::getenv(locale_variable) != nullptr
           || (preloaded != nullptr && std::strstr(preloaded, "vgpreload") != nullptr);
#endif
}

int stride(int usual)
{
    if (longRun())
        return 1;
    const int part = std::getenv("SQLWRAPPER_TEST_BRIEF") != nullptr ? 8 : 1;
    return (briefRun() ? 5 : 1) * part * usual;
}

void writeFile(const std::string& path, const std::string& contents)
{
    std::ofstream out(path, std::ios::binary);
    out << contents;
    if (!out.flush())
        refuse(path.c_str());
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        refuse(path.c_str());
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace test
