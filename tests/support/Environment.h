#ifndef SQLWRAPPER_TESTS_SUPPORT_ENVIRONMENT_H
#define SQLWRAPPER_TESTS_SUPPORT_ENVIRONMENT_H

#include <locale>
#include <string>

namespace test {

// A directory of its own, removed with all its files in the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::string& path() const;
    std::string file(const std::string& name) const;

private:
    std::string _path;
};

// Sets the process's time zone, by default one with daylight-saving time that is not UTC, and puts
// the former one back.
class TimeZone {
public:
    explicit TimeZone(const std::string& name = "CET-1CEST,M3.5.0,M10.5.0/3");
    ~TimeZone();
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

private:
    bool _had;
    std::string _former;
};

// Sets a decimal comma with digit grouping, as C locale and as C++ global locale, and puts the
// former locales back. The C locale is de_DE.UTF-8, which the build makes and LOCPATH points at.
class CommaLocale {
public:
    CommaLocale();
    ~CommaLocale();
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

private:
    std::string _formerInC;
    std::locale _former;
};

// Sets the locale that SQLWRAPPER_TEST_LOCALE names, if any, as C and as C++ global locale for all
// tests of the program. Times keep their plain names: the language of weekdays has its own test.
void setLocaleOfRun();

// Whether tests that try many cases shall try all of them, which may take hours:
// SQLWRAPPER_TEST_LONG is set. Otherwise they take a part that is the same in every run.
bool longRun();

// Whether a smaller part will do: in another locale and time zone, once all of the part was tried
// in the usual ones; and where everything takes many times as long, ARM code in an emulator, and
// valgrind. Not so in a long run.
bool briefRun();

// How far apart the cases of a series are that a test tries: every `usual`th, a fifth of those in a
// brief run, an eighth of either where SQLWRAPPER_TEST_BRIEF is set, all of them in a long one.
int stride(int usual);

void writeFile(const std::string& path, const std::string& contents);
std::string readFile(const std::string& path);

} // namespace test

#endif
