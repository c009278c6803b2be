#ifndef SQLWRAPPER_TESTS_SUPPORT_CUTTEST_H
#define SQLWRAPPER_TESTS_SUPPORT_CUTTEST_H

#include "Cases.h"
#include "Diagnostics.h"
#include "Disk.h"
#include "Environment.h"
#include "FaultVfs.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace test {

struct Journal : Case {
    const char* setting;
};

// With these no power cut takes a commit back.
inline const Journal journals[] = {
    {"RemovedAndSyncedJournal", "pragma synchronous = extra"},
    {"CutJournal", "pragma journal_mode = truncate"},
    {"KeptJournal", "pragma journal_mode = persist"},
    {"WriteAheadLog", "pragma journal_mode = wal"},
};

// Work on a file with one of the journals, until the power fails or the process is killed.
class CutTest : public testing::TestWithParam<Journal> {
protected:
    virtual void fill() = 0; // before the work
    virtual bool work() = 0;

    // What a start after a cut at this moment has to do.
    virtual std::function<void()> startAgain() = 0;

    std::string file() const
    {
        return _directory.file("file.db");
    }

    // Returns how many were tried: before each call that changes something, and in the end. Unless all are,
    // every `usual`th is.
    int tryPowerCuts(int usual)
    {
        int tried = 0;
        const unsigned int seeds = longRun() ? 20 : 1;
        for (unsigned int seed = 1; seed <= seeds && !HasFailure(); ++seed) {
            const std::vector<Loss> losses = lossesOf(seed);
            EXPECT_GT(losses.size(), 20U);
            const std::size_t step = stride(usual);
            for (std::size_t i = 0; i < losses.size() && !HasFailure(); i += step) {
                removeFiles();
                for (const auto& [path, bytes] : losses[i].files)
                    writeFile(path, bytes);
                losses[i].startAgain();
                ++tried;
                if (HasFailure())
                    std::printf("with seed %u before call %zu\n", seed, i);
            }
        }
        return tried;
    }

    // Likewise, before each call into the file system.
    int tryKills(int usual)
    {
        const int step = stride(usual);
        int kills = 0;
        int nth = 1;
        for (bool isKilled = true; isKilled && !HasFailure(); nth += step) {
            isKilled = workAndKill(nth);
            startAgain()();
            kills += isKilled;
            if (HasFailure())
                std::printf("before call %d\n", nth);
        }
        EXPECT_GT(nth, 50);
        return kills;
    }

private:
    struct Loss {
        Files files;
        std::function<void()> startAgain;
    };

    void removeFiles() const
    {
        for (const auto& entry : std::filesystem::directory_iterator(_directory.path()))
            std::filesystem::remove(entry.path());
    }

    std::vector<Loss> lossesOf(unsigned int seed)
    {
        removeFiles();
        std::vector<Loss> losses;
        Disk disk({"", 512, true});
        std::mt19937 random(seed);
        bool isFilled = false;
        FaultVfs vfs;
        vfs.pretendDisk(512, SQLITE_IOCAP_POWERSAFE_OVERWRITE);
        vfs.before = [&](const FileAccess& access) {
            if (isFilled && changesDisk(access))
                losses.push_back({disk.afterPowerLoss(random), startAgain()});
            return SQLITE_OK;
        };
        vfs.after = [&](const FileAccess& access) {
            disk.take(access);
        };
        fill();
        isFilled = true;
        EXPECT_TRUE(work());
        losses.push_back({disk.afterPowerLoss(random), startAgain()});
        return losses;
    }

    // True when the program was killed before its nth call into the file system.
    bool workAndKill(int nth)
    {
        removeFiles();
        fill();
        const pid_t child = ::fork();
        if (child == 0) {
            FaultVfs vfs;
            vfs.before = [&nth](const FileAccess&) {
                return --nth == 0 ? ::kill(::getpid(), SIGKILL) : SQLITE_OK;
            };
            ::_exit(work() ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status) || status == 0);
        return WIFSIGNALED(status);
    }

    Diagnostics _diagnostics;
    const TemporaryDirectory _directory;
};

} // namespace test

#endif
