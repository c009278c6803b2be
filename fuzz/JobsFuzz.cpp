// The jobs around a database, on a file of any bytes: none may crash or go on for ever. Each succeeds or
// says why not; what fails leaves its file as it was, and what succeeds has done the whole.

#include "Fuzz.h"

#include "Environment.h"
#include "SqlBackup.h"
#include "SqlBlob.h"
#include "SqlMigration.h"
#include "SqlStatement.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace {

// No sound database of an input's size needs so many for one statement.
constexpr int most_steps = 100000;

int stop(void*)
{
    return 1;
}

// The pages of a file without what a copy has of its own: the journal mode, numbers of changes, and
// who has written it.
std::string pagesOf(const std::string& file, sql::integer count)
{
    std::string bytes = test::readFile(file);
    const auto byte = [&bytes](std::size_t at) {
        return static_cast<std::size_t>(static_cast<unsigned char>(bytes[at]));
    };
    bytes.resize(std::max<std::size_t>(bytes.size(), 512));
    const std::size_t size = byte(16) * 256 + byte(17);
    bytes.resize((size == 1 ? 65536 : size) * static_cast<std::size_t>(count));
    const std::pair<std::size_t, std::size_t> own[] = {{18, 2}, {24, 8}, {40, 4}, {92, 8}};
    for (const auto& [at, length] : own) {
        if (at < bytes.size())
            bytes.replace(at, length, length, '\0');
    }
    return bytes;
}

class Jobs {
public:
    Jobs(const std::uint8_t* data, std::size_t size)
        : _input(reinterpret_cast<const char*>(data), size)
    {
        sql::Database maker;
        open(maker, _sound);
        const sql::Result<int> made = sql::runScript(
            maker, "create table product (id integer primary key, name);"
                   "insert into product values (1, 'rum'), (2, zeroblob(3000))");
        fuzz::expectEqual("whether a sound file can be made", static_cast<bool>(made), true);
        maker.close();
        _soundBytes = test::readFile(_sound);
    }

    void all()
    {
        tryCopies(_file, _sound);
        tryCopies(_sound, _file);
        tryMigration();
        trySettings();
        for (const char* const table : {"product", "spare"})
            tryBlobs(table);
    }

private:
    void putBack() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            std::filesystem::remove(entry.path());
        test::writeFile(_file, _input);
        test::writeFile(_sound, _soundBytes);
    }

    void open(sql::Database& database, const std::string& file) const
    {
        fuzz::expectEqual("whether a file can be opened",
                          database.open(file, sql::Database::access_create, false, 0), true);
        sqlite3_progress_handler(database.getHandle(), most_steps, stop, nullptr);
    }

    // An operation that fails has a reason, and says it once.
    bool isDone(const char* what, bool succeeded, const sql::Error& error, bool wasReported = false)
    {
        fuzz::expectEqual(what, static_cast<bool>(error), !succeeded);
        const std::vector<std::string> lines = _diagnostics.errors();
        const auto told = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.compare(0, 15, "SQL statement '") == 0;
        });
        fuzz::expectEqual(what, told, succeeded || wasReported ? 0 : 1);
        _diagnostics.clear();
        return succeeded;
    }
    template <typename T> bool isDone(const char* what, const sql::Result<T>& result)
    {
        return isDone(what, static_cast<bool>(result), result.error());
    }

    static void expectSame(const char* what, bool isSame)
    {
        fuzz::expectEqual(what, isSame, true);
    }

    // From one file to a new one, onto the other, and into the other's connection.
    void tryCopies(const std::string& from, const std::string& to)
    {
        for (const std::string& target : {_none, to}) {
            putBack();
            const std::string before = test::readFile(from);
            const std::string former = target == _none ? "" : test::readFile(target);
            sql::Database database;
            open(database, from);
            const auto pages = sql::backupDatabase(database, target);
            database.close();
            expectSame("the source", test::readFile(from) == before);
            expectCopied("backupDatabase", pages, from, target, former);
        }
        putBack();
        const std::string former = test::readFile(to);
        const std::string before = test::readFile(from);
        sql::Database database;
        open(database, to);
        const auto pages = sql::restoreDatabase(database, from);
        database.close();
        expectSame("the source", test::readFile(from) == before);
        expectCopied("restoreDatabase", pages, from, to, former);
    }

    void expectCopied(const char* what, const sql::Result<sql::integer>& pages,
                      const std::string& from, const std::string& to, const std::string& former)
    {
        expectSame("what is left unfinished", !std::filesystem::exists(_none + "-unfinished")
                                                  && !std::filesystem::exists(to + "-unfinished"));
        if (isDone(what, pages)) // a file without a header has no pages
            expectSame("the copy", test::readFile(from).size() < 100
                                       || pagesOf(from, *pages) == pagesOf(to, *pages));
        else if (to == _none)
            expectSame("the absence of a file", !std::filesystem::exists(to));
        else
            expectSame("the target", test::readFile(to) == former);
    }

    void tryMigration()
    {
        putBack();
        const sql::MigrationStep steps[] = {
            {1, "create table if not exists spare (id integer primary key, name);"
                "insert into spare (name) values ('rum')"},
            {1000, "update product set name = name || 'x'; create index more on product (name)"}};
        sql::Database database;
        open(database, _file);
        const bool isMigrated = isDone("migrate", sql::migrate(database, steps));
        sqlite3_progress_handler(database.getHandle(), 0, nullptr, nullptr);
        const sql::Result<int> version = sql::Statement(database, "pragma user_version").one<int>();
        _diagnostics.clear();
        database.close();
        if (isMigrated)
            fuzz::expectEqual("the version", *version, 1000);
        else
            expectSame("the file", test::readFile(_file) == _input);
    }

    void trySettings()
    {
        putBack();
        sql::Database database;
        open(database, _file);
        for (const sql::IntegrityCheck check : {sql::check_quick, sql::check_full})
            isDone("checkIntegrity", sql::checkIntegrity(database, check));
        sql::Settings settings;
        settings.cacheSize = 10;
        settings.pageSize = 1024;
        settings.journalMode = sql::journal_wal;
        settings.synchronous = sql::synchronous_normal;
        isDone("apply", settings.apply(database));
        isDone("optimize", sql::optimize(database));
        const auto left = sql::checkpoint(database, sql::checkpoint_truncate);
        isDone("checkpoint", !left.failed(), left.error()); // of what has no log there is nothing
        settings.journalMode = sql::journal_delete;
        isDone("apply", settings.apply(database));
        database.close();
    }

    void tryBlobs(const std::string& table)
    {
        putBack();
        sql::Database database;
        open(database, _file);
        const auto faults = sql::checkIntegrity(database, sql::check_full);
        const bool isSound = isDone("checkIntegrity", faults) && faults->empty();
        for (const sql::integer key : {1, 2, 3})
            tryBlob(database, table, key, isSound);
        database.close();
    }

    // What is read is what a statement reads; and so is what was written, in a sound file.
    void tryBlob(sql::Database& database, const std::string& table, sql::integer key, bool isSound)
    {
        const auto before = cellOf(database, table, key);
        sql::Blob blob(database, table, "name", key, sql::blob_write);
        if (!isDone("Blob", blob.isOpen(), blob.error()))
            return;
        std::vector<unsigned char> bytes;
        const bool isRead = blob.readAll([&bytes](sql::Bytes piece) {
            const auto* const begin = static_cast<const unsigned char*>(piece.data);
            bytes.insert(bytes.end(), begin, begin + piece.size);
            return true;
        });
        if (isDone("readAll", isRead, blob.error()))
            expectSame("what is read", !before || *before == bytes);
        const bool isWritten = blob.writeAll([](void* piece, std::size_t size) {
            std::memset(piece, 'x', size);
            return true;
        });
        isDone("writeAll", isWritten, blob.error());
        const bool isKept = blob.release();
        isDone("release", isKept, blob.error(), !isRead || !isWritten);
        if (!isSound)
            return;
        expectSame("success in a sound file", isRead && isWritten && isKept && before);
        const auto after = cellOf(database, table, key);
        expectSame("what was written",
                   after && *after == std::vector<unsigned char>(bytes.size(), 'x'));
    }

    // Its bytes, as they are stored.
    sql::Result<std::vector<unsigned char>> cellOf(sql::Database& database,
                                                   const std::string& table, sql::integer key)
    {
        sql::Statement cell(database, "select cast(name as blob) from main." + table
                                          + " where rowid = ? and name is not null");
        auto bytes = cell.one<std::vector<unsigned char>>(key);
        _diagnostics.clear();
        return bytes;
    }

    test::Diagnostics _diagnostics;
    const test::TemporaryDirectory _directory;
    const std::string _file = _directory.file("any.db");
    const std::string _sound = _directory.file("sound.db");
    const std::string _none = _directory.file("none.db");
    const std::string _input;
    std::string _soundBytes;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Jobs(data, size).all();
    return 0;
}
