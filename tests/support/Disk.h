#ifndef SQLWRAPPER_TESTS_SUPPORT_DISK_H
#define SQLWRAPPER_TESTS_SUPPORT_DISK_H

#include "Cases.h"
#include "FaultVfs.h"

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct DiskKind : Case {
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

    // What happens without SQLite: a file is made, renamed, synced, and names are.
    void make(const std::string& path)
    {
        const auto found = _names.find(path);
        if (found != _names.end() && found->second != no_file)
            return;
        _files.emplace_back();
        rename(path, static_cast<int>(_files.size()) - 1);
    }
    void rename(const std::string& from, const std::string& to)
    {
        rename(to, _names.at(from));
        rename(from, no_file);
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
        make(path);
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

// Whether a call changes what is left when the power fails.
inline bool changesDisk(const FileAccess& access)
{
    return access.call == FileCall::write || access.call == FileCall::truncate
           || access.call == FileCall::sync || access.call == FileCall::remove
           || (access.call == FileCall::open && (access.flags & SQLITE_OPEN_CREATE) != 0);
}

inline const DiskKind disks[] = {
    {"SmallSectors", 512, true},
    {"SmallSectorsAsAWhole", 512, false},
    {"LargeSectorsAsAWhole", 4096, false},
};

} // namespace test

#endif
