#include "Diagnostics.h"
#include "Environment.h"
#include "Job.h"
#include "Rows.h"
#include "Shop.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace report = test::report;
using sql::Database;
using test::held;
using test::result;
using test::Shop;
using test::Step;
using test::Texts;
using test::TwinShop;
using testing::ElementsAre;

const char cannot_open[] = "14=SQLITE_CANTOPEN: unable to open database file";

sql::Record good(int id, std::size_t nameLength)
{
    return test::good(id, std::string(nameLength, static_cast<char>('a' + id % 26)));
}

sql::Record vendor(int number)
{
    sql::Record record(test::vendors());
    record.setString("code", "v" + std::to_string(number));
    if (number % 3 != 0)
        record.setString("name", "vendor " + std::to_string(number));
    return record;
}

// A database of a few dozen pages: two tables, one with rows longer than a page and with a unique
// column, the other with a text key; pages of deleted rows; a user version.
void makeShop(const std::string& path, int pageSize)
{
    Shop shop(path);
    shop.open();
    shop.query("pragma page_size = " + std::to_string(pageSize));
    shop.product.create();
    shop.supplier.create();
    shop.transact("BEGIN");
    const auto page = static_cast<std::size_t>(pageSize);
    for (int id = 1; id <= 40; ++id)
        shop.product.addRecord(good(id, id % 8 == 0 ? page * 5 / 2 : page / 12));
    for (int number = 1; number <= 40; ++number)
        shop.supplier.addRecord(vendor(number));
    shop.transact("COMMIT");
    shop.product.deleteRecord(16);
    shop.product.deleteRecords("id > 35");
    shop.setUserVersion(7);
}

// With the rows held then.
template <typename Rows> std::string loaded(bool success, Rows& table)
{
    std::string text = result(success);
    for (const std::string& row : held(table))
        text += "\n" + row;
    return text;
}

const std::vector<Step> reads = {
    [](auto& shop) { return shop.getUserVersion(); },
    [](auto& shop) { return shop.product.exists(); },
    [](auto& shop) { return shop.product.create(); },
    [](auto& shop) { return shop.archive.exists(); },
    [](auto& shop) { return shop.product.totalRecordCount(); },
    [](auto& shop) { return shop.supplier.totalRecordCount(); },
    [](auto& shop) { return loaded(shop.product.open(), shop.product); },
    [](auto& shop) { return loaded(shop.product.open("code > 'c3'", "code"), shop.product); },
    [](auto& shop) { return loaded(shop.product.open("", "name desc"), shop.product); },
    [](auto& shop) { return loaded(shop.supplier.open("", "code"), shop.supplier); },
    [](auto& shop) { return shop.product.getRecordByKeyId(8); },
    [](auto& shop) { return shop.product.getRecordByKeyId("35"); },
    [](auto& shop) { return shop.supplier.getRecordByKeyId("v7"); },
    [](auto& shop) { return shop.product.hasRecordWithKeyId(16); },
    [](auto& shop) { return shop.supplier.hasRecordWithKeyId("v40"); },
};

const std::vector<Step> writes = {
    [](auto& shop) { return shop.transact("BEGIN"); },
    [](auto& shop) { return shop.product.addRecord(good(50, 3000)); },
    [](auto& shop) { return shop.supplier.deleteRecord("v3"); },
    [](auto& shop) { return shop.transact("ROLLBACK"); },
    [](auto& shop) { return shop.product.addRecord(good(50, 20)); },
    [](auto& shop) { return shop.product.addRecord(good(51, 3000)); },
    [](auto& shop) { return shop.product.updateRecord(good(5, 1000)); },
    [](auto& shop) { return shop.product.updateRecord(good(8, 5)); },
    [](auto& shop) { return shop.product.addOrUpdateRecord(20, good(20, 2)); },
    [](auto& shop) { return shop.product.deleteRecord(24); },
    [](auto& shop) { return shop.product.deleteRecords("price > 16"); },
    [](auto& shop) { return shop.supplier.addOrUpdateRecord("v50", vendor(50)); },
    [](auto& shop) { return shop.supplier.deleteRecord("v3"); },
    [](auto& shop) { return shop.transact("BEGIN"); },
    [](auto& shop) { return shop.supplier.addRecord(vendor(51)); },
    [](auto& shop) { return shop.transact("COMMIT"); },
    [](auto& shop) { return shop.transact("BEGIN"); },
    [](auto& shop) { return shop.archive.backup(shop.product); },
    [](auto& shop) { return shop.transact("COMMIT"); },
    [](auto& shop) { return shop.setUserVersion(9); },
    [](auto& shop) { return loaded(shop.product.open(), shop.product); },
    [](auto& shop) { return shop.supplier.truncate(); },
    [](auto& shop) { return shop.product.remove(); },
    [](auto& shop) { return shop.product.create(); },
};

const std::vector<Step> both = reads + writes;

// What somebody sees who uses a file.
struct Outcome {
    Texts results; // of opening it and of each step
    Texts events;
};

bool operator==(const Outcome& one, const Outcome& other)
{
    return one.results == other.results && one.events == other.events;
}

bool hasFailed(const Outcome& outcome)
{
    return !test::errorsOf(outcome.events).empty();
}

const std::vector<Step> no_steps;

long openDescriptors()
{
    const std::filesystem::directory_iterator entries("/proc/self/fd");
    return std::distance(begin(entries), end(entries));
}

// Two directories, one for the library and one for its twin.
class DamagedFileTest : public testing::Test {
protected:
    DamagedFileTest()
    {
        _diagnostics.setLevel(9);
        std::filesystem::create_directory(_directory.file("library"));
        std::filesystem::create_directory(_directory.file("plain"));
    }

    void TearDown() override
    {
        RecordProperty("files", _files);
        RecordProperty("failures", _failures);
    }

    // Does it with both directories.
    void prepare(const std::function<void(const std::string& path)>& make) const
    {
        make(_library);
        make(_plain);
    }

    // A database file and one beside it.
    void write(const std::string& database, const std::string& suffix = "",
               const std::string& beside = "") const
    {
        prepare([&](const std::string& path) {
            clean(path);
            test::writeFile(path, database);
            if (!suffix.empty())
                test::writeFile(path + suffix, beside);
        });
    }

    static void clean(const std::string& path)
    {
        for (const char* const suffix : {"", "-journal", "-wal", "-shm"})
            std::filesystem::remove_all(path + suffix);
    }

    Outcome runLibrary(Database::AccessMode mode, const std::vector<Step>& steps)
    {
        _diagnostics.clear();
        Outcome outcome;
        {
            Shop shop(_library);
            outcome.results = {result(shop.open(mode))};
            for (const Step& step : shop.database.isOpen() ? steps : no_steps)
                outcome.results.push_back(step.library(shop));
        }
        outcome.events = _diagnostics.events();
        return outcome;
    }

    Outcome runPlain(Database::AccessMode mode, const std::vector<Step>& steps) const
    {
        TwinShop shop;
        sqlite3* const db = open(shop, mode);
        const bool opened = shop.events().size() == 1;
        Outcome outcome;
        outcome.results = {result(opened)};
        for (const Step& step : opened ? steps : no_steps)
            outcome.results.push_back(step.plain(shop));
        outcome.events = shop.events();
        EXPECT_EQ(sqlite3_close(db), SQLITE_OK);
        return outcome;
    }

    // As the library has to, which reports the name of its own file.
    sqlite3* open(TwinShop& shop, Database::AccessMode mode) const
    {
        static const int flags[] = {SQLITE_OPEN_READONLY, SQLITE_OPEN_READWRITE,
                                    SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE};
        sqlite3* db = nullptr;
        const int rc = sqlite3_open_v2(_plain.c_str(), &db, flags[mode], nullptr);
        shop.use(db);
        shop.report(rc == SQLITE_OK ? test::report::opening(_library)
                                    : test::report::notOpened(
                                        _library, test::reasonOf(rc, sqlite3_errmsg(db))));
        return db;
    }

    // The same results, reports and files, and nothing left open.
    Outcome expectSame(Database::AccessMode mode, const std::vector<Step>& steps)
    {
        const long descriptors = openDescriptors();
        const sqlite3_int64 memory = sqlite3_memory_used();
        Outcome library = runLibrary(mode, steps);
        EXPECT_EQ(openDescriptors(), descriptors);
        EXPECT_EQ(sqlite3_memory_used(), memory);
        const Outcome plain = runPlain(mode, steps);
        EXPECT_EQ(library.results, plain.results);
        EXPECT_EQ(library.events, plain.events);
        for (const char* const suffix : {"", "-journal"})
            EXPECT_TRUE(contents(_library + suffix) == contents(_plain + suffix)) << suffix;
        ++_files;
        _failures += hasFailed(library);
        return library;
    }

    // A journal can make a file of terabytes, nearly all of them a hole.
    static std::string contents(const std::string& path)
    {
        if (!std::filesystem::is_regular_file(path))
            return "no file";
        const std::uintmax_t size = std::filesystem::file_size(path);
        if (size > 1 << 20)
            return std::to_string(size) + " bytes";
        std::string bytes(static_cast<std::size_t>(size), '\0');
        std::ifstream(path, std::ios::binary)
            .read(bytes.data(), static_cast<std::streamsize>(size));
        return bytes;
    }

    static Texts errors(const Outcome& outcome)
    {
        return test::errorsOf(outcome.events);
    }

    std::string shopBytes(int pageSize) const
    {
        const std::string path = _directory.file("intact.db");
        std::filesystem::remove(path);
        makeShop(path, pageSize);
        return test::readFile(path);
    }

    test::Diagnostics _diagnostics;
    test::TemporaryDirectory _directory;
    const std::string _library = _directory.file("library/shop.db");
    const std::string _plain = _directory.file("plain/shop.db");
    int _files = 0;    // that were tried
    int _failures = 0; // that the library has noticed
};

// With the size of a page.
class DamagedPageTest : public DamagedFileTest, public testing::WithParamInterface<int> {
protected:
    DamagedPageTest() : _intact(shopBytes(GetParam()))
    {
    }

    void expectSame(const std::string& bytes, const std::string& what)
    {
        SCOPED_TRACE(what);
        write(bytes);
        DamagedFileTest::expectSame(Database::access_read_write, both);
    }

    void expectSameWithBit(std::size_t position, int bit)
    {
        std::string bytes = _intact;
        bytes[position] = static_cast<char>(bytes[position] ^ (1 << bit));
        expectSame(bytes, "bit " + std::to_string(bit) + " of byte " + std::to_string(position));
    }

    std::size_t pageSize() const
    {
        return static_cast<std::size_t>(GetParam());
    }

    const std::string _intact;
};

INSTANTIATE_TEST_SUITE_P(PageSizes, DamagedPageTest, testing::Values(512, 4096),
                         testing::PrintToStringParamName());

// The file header, with the page size, the free pages and the format's versions.
TEST_P(DamagedPageTest, BitsOfTheHeaderAreFlipped)
{
    const std::size_t step = test::stride(pageSize() == 512 ? 1 : 3);
    for (std::size_t position = 0; position < 100; position += step) {
        for (std::size_t bit = 0; bit < 8; ++bit) {
            if (test::longRun() || bit == position % 8)
                expectSameWithBit(position, static_cast<int>(bit));
        }
    }
    EXPECT_GT(_failures, 0);
}

// The start of each page says what it is and where its cells are; cells are at its end.
TEST_P(DamagedPageTest, BitsOfEachPageAreFlipped)
{
    const std::size_t page = pageSize();
    const std::vector<std::size_t> places = {0, 1, 3, 4, 5, 7, 8, 10, page / 2, page - 3};
    const std::size_t step = test::stride(3);
    for (std::size_t start = 0; start < _intact.size(); start += page) {
        const std::size_t number = start / page;
        const std::size_t header = start == 0 ? 100 : 0;
        for (std::size_t i = number % step; i < places.size(); i += step) {
            if (header + places[i] < page)
                expectSameWithBit(start + header + places[i], static_cast<int>((number + i) % 8));
        }
    }
    EXPECT_GT(_failures, 0);
}

TEST_P(DamagedPageTest, AnyByteHasABitFlipped)
{
    const std::size_t each = pageSize() == 512 ? 1 : 7;
    const std::size_t step = test::longRun() ? each : test::stride(2503);
    for (std::size_t position = 0; position < _intact.size(); position += step)
        expectSameWithBit(position, static_cast<int>(position % 8));
    EXPECT_GT(_failures, 0);
}

TEST_P(DamagedPageTest, PageIsOverwritten)
{
    const std::size_t page = pageSize();
    std::string noise(page, '\0');
    unsigned state = 1;
    for (char& byte : noise) {
        state = state * 1103515245U + 12345U;
        byte = static_cast<char>(state >> 16);
    }
    const std::size_t step = page * test::stride(1);
    for (std::size_t start = 0; start < _intact.size(); start += step) {
        for (const std::string& other :
             {noise,
              start % (2 * page) == 0 ? std::string(page, '\0') : _intact.substr(page, page)}) {
            std::string bytes = _intact;
            bytes.replace(start, page, other);
            expectSame(bytes, "page at " + std::to_string(start));
        }
    }
    EXPECT_GT(_failures, 0);
}

TEST_P(DamagedPageTest, FileIsCutShort)
{
    const std::size_t step = 512 * test::stride(1);
    for (std::size_t size = 0; size < _intact.size(); size += step)
        expectSame(_intact.substr(0, size), std::to_string(size) + " bytes");
    for (const std::size_t size : {1U, 15U, 16U, 99U, 100U, 101U, 511U, 513U, 1023U})
        expectSame(_intact.substr(0, size), std::to_string(size) + " bytes");
    expectSame(_intact.substr(0, _intact.size() - 1), "one byte less");
    EXPECT_GT(_failures, 0);
}

TEST_P(DamagedPageTest, FileIsLongerThanItSays)
{
    for (const std::size_t more : {std::size_t(1), pageSize(), 3 * pageSize() + 7})
        expectSame(_intact + std::string(more, '\x0D'), std::to_string(more) + " bytes more");
}

TEST_P(DamagedPageTest, IntactFileGivesItsRowsAndTakesOthers)
{
    write(_intact);
    const Outcome outcome = DamagedFileTest::expectSame(Database::access_read_write, both);
    EXPECT_FALSE(hasFailed(outcome));
    ASSERT_EQ(outcome.results.size(), 40U);
    EXPECT_EQ(Texts(outcome.results.begin(), outcome.results.begin() + 7),
              Texts({"true", "7", "true", "true", "false", "34", "40"}));
    EXPECT_EQ(outcome.results[12], "35|" + std::string(pageSize() / 12, 'j') + "|17.5|0|c35");
    EXPECT_EQ(outcome.results[13], "v7|vendor 7");
    EXPECT_EQ(outcome.results[14], "false");
    EXPECT_EQ(outcome.results[15], "true");
    Texts rest(outcome.results.begin() + 16, outcome.results.end());
    rest.erase(rest.begin() + 20); // rows
    EXPECT_EQ(rest, Texts(23, "true"));
}

// Files that are none of this system's making.
TEST_F(DamagedFileTest, TextIsNoDatabase)
{
    write("This is a text, and no database. " + std::string(600, 'x'));
    const std::vector<Step> steps = {
        [](auto& shop) { return shop.getUserVersion(); },
        [](auto& shop) { return shop.product.exists(); },
        [](auto& shop) { return shop.product.open(); },
        [](auto& shop) { return shop.setUserVersion(7); },
    };
    const Outcome outcome = expectSame(Database::access_read_write, steps);
    EXPECT_THAT(outcome.results, ElementsAre("true", "-1", "true", "false", "false"));
    const std::string reason = "26=SQLITE_NOTADB: file is not a database";
    EXPECT_EQ(errors(outcome),
              test::errorsOf(test::joined({report::noRow("PRAGMA user_version;", reason),
                                           report::undetermined("product", reason),
                                           report::refused("select * from product", reason),
                                           report::stepFailed("PRAGMA user_version=7;", reason)})));
}

TEST_F(DamagedFileTest, FileCutShortIsMalformed)
{
    const std::string bytes = shopBytes(512);
    write(bytes.substr(0, bytes.size() / 2));
    const Outcome outcome = expectSame(Database::access_read_only, {[](auto& shop) {
                                           return shop.product.totalRecordCount();
                                       }});
    EXPECT_THAT(outcome.results, ElementsAre("true", "-1"));
    EXPECT_EQ(errors(outcome), test::errorsOf(report::notPrepared(
                                   "select count(*) from product",
                                   "11=SQLITE_CORRUPT: database disk image is malformed")));
}

TEST_F(DamagedFileTest, EmptyFileIsAnEmptyDatabase)
{
    write("");
    const std::vector<Step> steps = {
        [](auto& shop) { return shop.getUserVersion(); },
        [](auto& shop) { return shop.product.exists(); },
        [](auto& shop) { return shop.product.create(); },
        [](auto& shop) { return shop.product.totalRecordCount(); },
    };
    const Outcome outcome = expectSame(Database::access_read_write, steps);
    EXPECT_THAT(outcome.results, ElementsAre("true", "0", "false", "true", "0"));
    EXPECT_FALSE(hasFailed(outcome));
}

TEST_F(DamagedFileTest, FilesOfAnyKindGiveWhatSqliteMakesOfThem)
{
    for (const std::string& bytes :
         {std::string(), std::string("\0", 1), std::string(100, '\0'), std::string(4096, '\0'),
          std::string(70000, '\xFF'), std::string("SQLite format 3"),
          std::string("SQLite format 3\0", 16), "SQLite format 3" + std::string(600, '\0'),
          std::string("\x7F"
                      "ELF\1\1\1"),
          std::string("\n"), std::string("create table product (id);\n")}) {
        for (const Database::AccessMode mode :
             {Database::access_read_only, Database::access_read_write, Database::access_create}) {
            write(bytes);
            expectSame(mode, both);
        }
    }
}

TEST_F(DamagedFileTest, FolderIsRefused)
{
    prepare([](const std::string& path) { std::filesystem::create_directory(path); });
    for (const auto& [mode, reason] :
         {std::pair(Database::access_read_only, "10=SQLITE_IOERR: disk I/O error"),
          std::pair(Database::access_read_write, cannot_open),
          std::pair(Database::access_create, cannot_open)}) {
        const Outcome outcome = expectSame(mode, both);
        EXPECT_THAT(outcome.results, ElementsAre("false"));
        EXPECT_EQ(errors(outcome), test::errorsOf(report::notOpened(_library, reason)));
    }
}

TEST_F(DamagedFileTest, LinkThatLeadsNowhereIsRefused)
{
    prepare(
        [](const std::string& path) { std::filesystem::create_symlink("missing/shop.db", path); });
    const Outcome outcome = expectSame(Database::access_create, both);
    EXPECT_THAT(outcome.results, ElementsAre("false"));
}

// Not written to: a journal would stand beside the device.
TEST_F(DamagedFileTest, DeviceIsAnEmptyDatabase)
{
    for (const char* const device : {"/dev/null", "/dev/zero", "/dev/full"}) {
        SCOPED_TRACE(device);
        prepare([device](const std::string& path) {
            clean(path);
            std::filesystem::create_symlink(device, path);
        });
        const Outcome outcome = expectSame(Database::access_read_only, both);
        EXPECT_EQ(outcome.results.at(1), "0");
        EXPECT_EQ(outcome.results.at(2), "false");
        expectSame(Database::access_read_write, {reads[0], reads[1], reads[4]});
    }
}

// Held open at its other end, so that opening it does not wait for a writer.
TEST_F(DamagedFileTest, PipeDoesNotHang)
{
    int ends[2] = {-1, -1};
    int* next = ends;
    prepare([&next](const std::string& path) {
        ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
        *next++ = ::open(path.c_str(), O_RDWR | O_NONBLOCK);
    });
    for (const Database::AccessMode mode :
         {Database::access_read_only, Database::access_read_write})
        expectSame(mode, both);
    ::close(ends[0]);
    ::close(ends[1]);
}

// A file that has lost its rights, used by somebody who has not those of the superuser.
class ForbiddenFileTest : public DamagedFileTest {
protected:
    ForbiddenFileTest()
    {
        write(shopBytes(512));
        prepare([](const std::string& path) {
            std::filesystem::permissions(std::filesystem::path(path).parent_path(),
                                         std::filesystem::perms(0755));
        });
        std::filesystem::permissions(_directory.path(), std::filesystem::perms(0755));
    }

    // Results, and the ERROR lines of a report.
    static std::string lines(const std::string& results, const Texts& report)
    {
        std::string text = results + "\n";
        for (const std::string& line : test::errorsOf(report))
            text += line + "\n";
        return text;
    }

    const Texts refused = report::refused(
        "delete from vendor where code = \"v7\"",
        "8=SQLITE_READONLY: attempt to write a readonly database");

    // What the library reports to such a user, when plain SQLite does too.
    std::string reportOf(Database::AccessMode mode, const std::vector<Step>& steps)
    {
        int pipe[2];
        EXPECT_EQ(::pipe(pipe), 0);
        const pid_t child = ::fork();
        if (child == 0) {
            const std::string text = reportAsOwner(mode, steps);
            const ssize_t written = ::write(pipe[1], text.data(), text.size());
            ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
        }
        ::close(pipe[1]);
        std::string text;
        char buffer[4096];
        for (ssize_t size = 0; (size = ::read(pipe[0], buffer, sizeof buffer)) > 0;)
            text.append(buffer, static_cast<std::size_t>(size));
        ::close(pipe[0]);
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
        return text;
    }

private:
    // The user who may look into the folder for temporary files, whoever else may not, and who has
    // no rights but those that files give.
    static bool becomeOwner()
    {
        struct stat folder = {};
        if (::stat(std::filesystem::temp_directory_path().c_str(), &folder) != 0)
            return false;
        if (folder.st_uid != 0)
            return ::setgid(folder.st_gid) == 0 && ::setuid(folder.st_uid) == 0;
        __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
        const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
        return ::syscall(SYS_capset, &header, none) == 0;
    }

    std::string reportAsOwner(Database::AccessMode mode, const std::vector<Step>& steps)
    {
        if (::geteuid() == 0 && !becomeOwner())
            return "the user cannot be changed";
        const Outcome library = runLibrary(mode, steps);
        if (!(library == runPlain(mode, steps)))
            return "differs from plain SQLite";
        std::string results;
        for (const std::string& line : library.results)
            results += (results.empty() ? "" : "\n") + line;
        return lines(results, library.events);
    }
};

TEST_F(ForbiddenFileTest, UnreadableFileIsRefused)
{
    prepare([](const std::string& path) {
        std::filesystem::permissions(path, std::filesystem::perms(0));
    });
    for (const Database::AccessMode mode :
         {Database::access_read_only, Database::access_read_write, Database::access_create})
        EXPECT_EQ(reportOf(mode, both), lines("false", report::notOpened(_library, cannot_open)));
}

TEST_F(ForbiddenFileTest, FileThatMayOnlyBeReadGivesItsRowsAndTakesNone)
{
    prepare([](const std::string& path) {
        std::filesystem::permissions(path, std::filesystem::perms(0444));
    });
    const std::vector<Step> steps = {
        [](auto& shop) { return shop.product.totalRecordCount(); },
        [](auto& shop) { return shop.product.getRecordByKeyId(35); },
        [](auto& shop) { return shop.supplier.deleteRecord("v7"); },
    };
    EXPECT_EQ(reportOf(Database::access_read_write, steps),
              lines("true\n34\n35|" + std::string(512 / 12, 'j') + "|17.5|0|c35\nfalse", refused));
}

TEST_F(ForbiddenFileTest, FolderThatTakesNoJournalKeepsRowsFromBeingWritten)
{
    prepare([](const std::string& path) {
        std::filesystem::permissions(path, std::filesystem::perms(0666));
        std::filesystem::permissions(std::filesystem::path(path).parent_path(),
                                     std::filesystem::perms(0555));
    });
    const std::vector<Step> steps = {
        [](auto& shop) { return shop.product.totalRecordCount(); },
        [](auto& shop) { return shop.supplier.deleteRecord("v7"); },
    };
    EXPECT_EQ(reportOf(Database::access_read_write, steps), lines("true\n34\nfalse", refused));
    prepare([](const std::string& path) {
        std::filesystem::permissions(std::filesystem::path(path).parent_path(),
                                     std::filesystem::perms(0755));
    });
}

// What an interrupted transaction has left beside the file.
class DamagedJournalTest : public DamagedFileTest {
protected:
    DamagedJournalTest() : _intact(shopBytes(512))
    {
        const std::string path = _directory.file("intact.db");
        Shop shop(path);
        shop.open();
        shop.query("pragma cache_size = 4"); // so that changed pages reach the file at once
        shop.transact("BEGIN");
        for (int id = 1; id <= 35; ++id)
            shop.product.updateRecord(good(id, 700));
        _half = test::readFile(path);
        _journal = test::readFile(path + "-journal");
        shop.transact("ROLLBACK");
    }

    const std::string _intact;
    std::string _half;
    std::string _journal;
};

TEST_F(DamagedJournalTest, InterruptedTransactionIsUndone)
{
    ASSERT_NE(_half, _intact);
    ASSERT_GT(_journal.size(), 10000U);
    write(_half, "-journal", _journal);
    const Outcome outcome = expectSame(Database::access_read_write, reads);
    EXPECT_EQ(contents(_library + "-journal"), "no file");
    write(_intact); // but for free pages
    EXPECT_TRUE(outcome == expectSame(Database::access_read_write, reads));
    EXPECT_FALSE(hasFailed(outcome));
}

TEST_F(DamagedJournalTest, BitsOfTheJournalAreFlipped)
{
    const std::size_t step = test::longRun() ? 3 : test::stride(397);
    for (std::size_t position = 0; position < _journal.size();
         position += position < 28 ? 1 : step) {
        SCOPED_TRACE(position);
        std::string journal = _journal;
        journal[position] = static_cast<char>(journal[position] ^ (1 << position % 8));
        write(_half, "-journal", journal);
        expectSame(Database::access_read_write, both);
    }
    EXPECT_GT(_failures, 0);
}

TEST_F(DamagedJournalTest, JournalIsCutShort)
{
    const std::size_t step = test::longRun() ? 16 : test::stride(1024);
    for (std::size_t size = 0; size < _journal.size(); size += step) {
        SCOPED_TRACE(size);
        write(_half, "-journal", _journal.substr(0, size));
        expectSame(Database::access_read_write, both);
    }
}

TEST_F(DamagedJournalTest, GarbageBesideTheFileChangesNothingOrIsReported)
{
    const std::string magic("\xD9\xD5\x05\xF9\x20\xA1\x63\xD7", 8);
    for (const std::string& garbage :
         {std::string(), std::string("x"), std::string(512, '\0'), std::string(5000, '\xFF'), magic,
          magic + std::string(500, '\0'), magic + std::string(5000, '\xFF'), _intact, _journal}) {
        for (const char* const suffix : {"-journal", "-wal", "-shm"}) {
            for (const Database::AccessMode mode :
                 {Database::access_read_only, Database::access_read_write}) {
                SCOPED_TRACE(suffix);
                write(_intact, suffix, garbage);
                expectSame(mode, both);
            }
        }
    }
}

TEST_F(DamagedJournalTest, FolderInPlaceOfTheJournalKeepsRowsFromBeingWritten)
{
    write(_intact);
    prepare([](const std::string& path) { std::filesystem::create_directory(path + "-journal"); });
    const Outcome outcome = expectSame(Database::access_read_write, both);
    EXPECT_TRUE(hasFailed(outcome));
}

} // namespace
