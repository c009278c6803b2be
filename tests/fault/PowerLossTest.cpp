#include "Cases.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "FaultVfs.h"
#include "PreparedSteps.h"
#include "Rows.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using test::FileAccess;
using test::FileCall;
using testing::AnyOf;
using testing::IsEmpty;

// --- The disk

struct DiskKind : test::Case {
    int sectorSize;
    bool sparesNeighbours; // of the bytes being written, within their sectors
};

typedef std::map<std::string, std::string> Files; // the bytes by path

// What is left when the power fails. What was synced is; of all else any part is: writes may be
// missing although later ones are there, the sectors being written may hold anything, and names are
// made and removed in their order, but perhaps not yet.
class Disk {
public:
    explicit Disk(const DiskKind& kind) : _kind(kind)
    {
    }

    void take(const FileAccess& access)
    {
        const std::string path = access.path;
        if (path.empty()) // nobody looks for a temporary file
            return;
        switch (access.call) {
        case FileCall::open:
            open(path, access.flags);
            break;
        case FileCall::remove:
            rename(path, no_file);
            if (access.flags != 0)
                syncNames();
            break;
        case FileCall::write:
            fileOf(path).pending.push_back({offsetOf(access), bytesOf(access), false});
            break;
        case FileCall::truncate:
            fileOf(path).pending.push_back({offsetOf(access), std::string(), true});
            break;
        case FileCall::sync:
            sync(path);
            break;
        default:
            break;
        }
    }

    bool hasRemovalsPending() const
    {
        return std::any_of(_pendingNames.begin(), _pendingNames.end(),
                           [](const Name& name) { return name.second == no_file; });
    }

    Files afterPowerLoss(std::mt19937& random) const
    {
        std::map<std::string, int> names = _syncedNames;
        const std::size_t made = random() % (_pendingNames.size() + 1);
        for (std::size_t i = 0; i < made; ++i)
            names[_pendingNames[i].first] = _pendingNames[i].second;
        // Everything or nothing may be left as well.
        const std::size_t luck = random() % 4;
        Files files;
        for (const auto& [path, number] : names) {
            if (number != no_file)
                files[path] = whatIsLeft(_files[number], luck, random);
        }
        return files;
    }

private:
    struct Change {
        std::size_t offset;
        std::string bytes;
        bool truncates; // to the offset
    };

    struct File {
        std::string synced;
        std::vector<Change> pending;
    };

    typedef std::pair<std::string, int> Name; // and the number of its file

    static const int no_file = -1;

    static std::size_t offsetOf(const FileAccess& access)
    {
        return static_cast<std::size_t>(access.offset);
    }

    static std::string bytesOf(const FileAccess& access)
    {
        return {static_cast<const char*>(access.bytes), static_cast<std::size_t>(access.count)};
    }

    void open(const std::string& path, int flags)
    {
        if ((flags & SQLITE_OPEN_CREATE) == 0)
            return;
        // As SQLite's own file systems do, with the first sync of such a file.
        if ((flags & (SQLITE_OPEN_MAIN_JOURNAL | SQLITE_OPEN_WAL)) != 0)
            _nameToSync.insert(path);
        const auto found = _names.find(path);
        if (found != _names.end() && found->second != no_file)
            return;
        _files.emplace_back();
        rename(path, static_cast<int>(_files.size()) - 1);
    }

    void rename(const std::string& path, int number)
    {
        _names[path] = number;
        _pendingNames.emplace_back(path, number);
    }

    File& fileOf(const std::string& path)
    {
        return _files.at(_names.at(path));
    }

    void sync(const std::string& path)
    {
        File& file = fileOf(path);
        for (const Change& change : file.pending)
            make(change, file.synced);
        file.pending.clear();
        if (_nameToSync.erase(path) > 0)
            syncNames();
    }

    void syncNames()
    {
        _syncedNames = _names;
        _pendingNames.clear();
    }

    static void put(const char* from, std::size_t count, std::size_t offset, std::string& bytes)
    {
        bytes.resize(std::max(bytes.size(), offset + count));
        bytes.replace(offset, count, from, count);
    }

    static void make(const Change& change, std::string& bytes)
    {
        if (change.truncates)
            bytes.resize(change.offset);
        else
            put(change.bytes.data(), change.bytes.size(), change.offset, bytes);
    }

    std::string whatIsLeft(const File& file, std::size_t luck, std::mt19937& random) const
    {
        std::string bytes = file.synced;
        for (const Change& change : file.pending) {
            const std::size_t fate = luck < 2 ? luck : random() % 3;
            if (fate == 1)
                make(change, bytes);
            else if (fate == 2 && !change.truncates)
                tear(change, bytes, random);
        }
        return bytes;
    }

    // Of each sector that is written, what was there before, what is to be there, or anything.
    void tear(const Change& change, std::string& bytes, std::mt19937& random) const
    {
        const std::size_t size = _kind.sectorSize;
        const std::size_t start = change.offset;
        const std::size_t end = start + change.bytes.size();
        for (std::size_t sector = start / size * size; sector < end; sector += size) {
            const std::size_t from = std::max(sector, start);
            const std::size_t to = std::min(sector + size, end);
            const std::size_t fate = random() % 3;
            if (fate == 1)
                put(change.bytes.data() + (from - start), to - from, from, bytes);
            else if (fate == 2 && _kind.sparesNeighbours)
                spoil(from, to, bytes, random);
            else if (fate == 2)
                spoil(sector, sector + size, bytes, random);
        }
    }

    static void spoil(std::size_t from, std::size_t to, std::string& bytes, std::mt19937& random)
    {
        std::string anything(to - from, '\0');
        for (char& byte : anything)
            byte = static_cast<char>(random() & 0xff);
        put(anything.data(), anything.size(), from, bytes);
    }

    const DiskKind _kind;
    std::vector<File> _files;
    std::map<std::string, int> _names;
    std::map<std::string, int> _syncedNames;
    std::vector<Name> _pendingNames;
    std::set<std::string> _nameToSync;
};

// --- The work

// How SQLite is told to keep its promises.
struct Journal : test::Case {
    const char* setting;
    // The journal's end is a commit, and may be lost: the last transaction then is taken back.
    bool losesLastCommit;
};

struct PowerLoss {
    int call;         // into the file system, before which the power fails
    std::size_t done; // changes acknowledged before
    bool maySlip;     // the journal may be there again
    Files files;
};

int lossesTried = 0;
int lastCommitsLost = 0;

struct PrintFigures : testing::Environment {
    void TearDown() override
    {
        std::printf("power losses: %d tried, %d of them took the last commit back\n", lossesTried,
                    lastCommitsLost);
    }
};

testing::Environment* const printFigures = testing::AddGlobalTestEnvironment(new PrintFigures);

class PowerLossTest : public testing::TestWithParam<std::tuple<Journal, DiskKind, std::string>> {
protected:
    PowerLossTest() : _file(_directory.file("shop.db"))
    {
    }

    // Makes all changes, and lets the power fail before every nth call that changes something.
    std::vector<PowerLoss> workWithLosses(unsigned int seed, int stride)
    {
        const auto& [journal, kind, pages] = GetParam();
        removeFiles();
        std::vector<PowerLoss> losses;
        Disk disk(kind);
        std::mt19937 random(seed);
        std::size_t done = 0;
        int calls = static_cast<int>(random() % stride);
        const auto lose = [&, slips = journal.losesLastCommit] {
            losses.push_back(
                {calls, done, slips && disk.hasRemovalsPending(), disk.afterPowerLoss(random)});
        };
        test::FaultVfs vfs;
        vfs.pretendDisk(kind.sectorSize,
                        kind.sparesNeighbours ? SQLITE_IOCAP_POWERSAFE_OVERWRITE : 0);
        vfs.before = [&](const FileAccess& access) {
            if (changes(access) && ++calls % stride == 0)
                lose();
            return SQLITE_OK;
        };
        vfs.after = [&](const FileAccess& access) {
            disk.take(access);
        };
        work({pages, journal.setting}, done);
        lose();
        return losses;
    }

    // Starts again with what is left.
    void startAgain(const PowerLoss& loss)
    {
        removeFiles();
        for (const auto& [path, bytes] : loss.files)
            test::writeFile(path, bytes);
        const std::vector<std::string> rows = readByLibrary();
        const std::string there = test::contents(_file);
        const std::string& before = after(loss.done - loss.maySlip);
        EXPECT_THAT(there, AnyOf(after(loss.done), after(loss.done + 1), before));
        EXPECT_EQ(rows, rowsIn(there));
        ++lossesTried;
        lastCommitsLost += loss.maySlip && there == before;
    }

private:
    void removeFiles() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            std::filesystem::remove(entry.path());
    }

    static bool changes(const FileAccess& access)
    {
        return access.call == FileCall::write || access.call == FileCall::truncate
               || access.call == FileCall::sync || access.call == FileCall::remove
               || (access.call == FileCall::open && (access.flags & SQLITE_OPEN_CREATE) != 0);
    }

    void work(const std::vector<std::string>& settings, std::size_t& done)
    {
        test::Shop shop(_file);
        ASSERT_TRUE(shop.open());
        for (const std::string& pragma : settings)
            EXPECT_TRUE(shop.query(pragma));
        for (const test::Change& change : _changes) {
            for (const test::Step& step : change.steps)
                EXPECT_EQ(step.library(shop), "true") << step.name;
            ++done;
        }
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
    }

    // What the file holds after so many changes.
    const std::string& after(std::size_t changes) const
    {
        static const std::string nothing = test::contents(*std::make_unique<test::Connection>());
        return changes == 0 ? nothing : _changes[std::min(changes, _changes.size()) - 1].after;
    }

    std::vector<std::string> readByLibrary()
    {
        test::Shop shop(_file);
        EXPECT_TRUE(shop.open() && shop.query("pragma synchronous = off")); // it stays on now
        EXPECT_TRUE(!shop.product.exists() || shop.product.open("", "id"));
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
        return test::held(shop.product);
    }

    // The rows of products in the contents of a file.
    static std::vector<std::string> rowsIn(const std::string& contents)
    {
        test::Connection db;
        db.run(contents);
        test::TwinShop shop;
        shop.use(db);
        return shop.product.open("", "id") ? shop.product.held() : std::vector<std::string>();
    }

    const std::vector<test::Change> _changes = test::changesOf(
        test::filling(19) + test::changing() + test::backingUp() + test::changing()
        + test::changingByStatements() + test::changingInTransactions() + test::backingUp()
        + test::changingInBulk(4) + test::removing());
    test::Diagnostics _diagnostics;
    const test::TemporaryDirectory _directory;
    const std::string _file;
};

TEST_P(PowerLossTest, AcknowledgedTransactionsAreThereAndNoneIsHalfThere)
{
    const unsigned int seeds = test::longRun() ? 5 : 1;
    const int stride = test::stride(9);
    for (unsigned int seed = 1; seed <= seeds && !HasFailure(); ++seed) {
        for (const PowerLoss& loss : workWithLosses(seed, stride)) {
            startAgain(loss);
            if (HasFailure()) {
                std::printf("with seed %u before call %d\n", seed, loss.call);
                break;
            }
        }
    }
}

// A removed journal that is back takes back the last transaction unless the removal is synced.
const Journal journals[] = {
    {"RemovedJournal", "pragma journal_mode = delete", true},
    {"RemovedAndSyncedJournal", "pragma synchronous = extra", false},
    {"CutJournal", "pragma journal_mode = truncate", false},
    {"KeptJournal", "pragma journal_mode = persist", false},
    {"WriteAheadLog", "pragma journal_mode = wal; pragma wal_autocheckpoint = 12", false},
};

const DiskKind disks[] = {
    {"SmallSectors", 512, true},
    {"SmallSectorsAsAWhole", 512, false},
    {"LargeSectorsAsAWhole", 4096, false},
};

const char large_pages[] = "pragma page_size = 4096";
const char small_pages[] = "pragma page_size = 1024; pragma cache_size = 1";

std::string nameOfCase(const testing::TestParamInfo<PowerLossTest::ParamType>& chosen)
{
    const auto& [journal, kind, setting] = chosen.param;
    return journal.name + kind.name + (setting == small_pages ? "SmallPages" : "");
}

INSTANTIATE_TEST_SUITE_P(Journals, PowerLossTest,
                         testing::Combine(testing::ValuesIn(journals), testing::ValuesIn(disks),
                                          testing::Values(large_pages, small_pages)),
                         nameOfCase);

} // namespace
