#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "TestSupport.h"
#include "TQAuthorization.h"
#include "TQFileManager.h"
#include "TQLog.h"

namespace fs = std::filesystem;
using namespace corvina::test;

namespace {

// Locks the item, or skips the test where the file system (tmpfs, overlay) or the missing
// capability does not allow the flag.
#define LOCK_OR_SKIP(path)                                                                \
    do {                                                                                  \
        TQFileManager::lockFile(path);                                                    \
        if (!TQFileManager::isFileLocked(path)) GTEST_SKIP() << "no immutable flag here"; \
    } while (0)

// Clears a flag a test left set, so the scratch folder can go.
struct UnlockOnExit {
    std::string path;
    ~UnlockOnExit() { TQFileManager::unlockFile(path); }
};

}  // namespace

TEST(TQFileManagerRemove, MissingItemCountsAsRemoved)
{
    TempDir scratch;
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "never-there.mov"));
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "never-there.mov", false));
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "never-there.mov", std::chrono::seconds(1)));
}

TEST(TQFileManagerRemove, RemovesFilesFoldersAndLinks)
{
    TempDir scratch;
    writeFile(scratch / "single.mov", "movie");
    writeFile(scratch / "tree/a/b/c.raw", "frames");
    writeFile(scratch / "tree/a/d.pcm", "audio");
    writeFile(scratch / "target.txt", "kept");
    fs::create_symlink(scratch / "target.txt", scratch / "link");

    EXPECT_TRUE(TQFileManager::removeFile(scratch / "single.mov"));
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "tree", false));
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "link"));
    EXPECT_FALSE(fs::exists(scratch / "single.mov"));
    EXPECT_FALSE(fs::exists(scratch / "tree"));
    EXPECT_FALSE(fs::is_symlink(scratch / "link"));
    EXPECT_TRUE(fs::exists(scratch / "target.txt")) << "a link's target stays";
}

TEST(TQFileManagerRemove, WaitingFormReturnsOnceTheItemIsGone)
{
    TempDir scratch;
    writeFile(scratch / "tree/file", "x");
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "tree", std::chrono::seconds(2)));
    EXPECT_FALSE(fs::exists(scratch / "tree"));
}

TEST(TQFileManagerLock, LockUnlockRoundTrip)
{
    TempDir scratch;
    const std::string file = scratch / "locked.mov";
    writeFile(file, "x");
    UnlockOnExit cleanup{file};
    EXPECT_FALSE(TQFileManager::isFileLocked(file));
    LOCK_OR_SKIP(file);
    EXPECT_TRUE(TQFileManager::isFileLocked(file));
    TQFileManager::unlockFile(file);
    EXPECT_FALSE(TQFileManager::isFileLocked(file));
    EXPECT_FALSE(TQFileManager::isFileLocked(scratch / "missing"));
}

TEST(TQFileManagerLock, LockedItemIsUnlockedThenRemoved)
{
    TempDir scratch;
    const std::string file = scratch / "locked.mov";
    writeFile(file, "x");
    UnlockOnExit cleanup{file};
    LOCK_OR_SKIP(file);
    EXPECT_TRUE(TQFileManager::removeFile(file, false));
    EXPECT_FALSE(fs::exists(file));
}

TEST(TQFileManagerLog, MissingItemLogsTheUnlockFailure)
{
    if (!inChild()) return expectChildPasses();
    const std::string missing = childHome() + "/gone.mov";
    TQLog::createNewLog("Services");
    EXPECT_TRUE(TQFileManager::removeFile(missing));
    TQLog::finishWriting();
    EXPECT_EQ(std::ranges::count(logEntries(childLogPath()),
                                 "Unable to unlock file " + missing + ": No such file or directory"),
              1);
}

TEST(TQFileManagerLog, UnremovableItemFailsWithoutAuthorization)
{
    // A file inside a locked folder cannot be removed, not even by root: unlocking the file
    // itself does not help, the folder's entry cannot change.
    if (!inChild()) return expectChildPasses();
    const std::string folder = childHome() + "/sealed";
    const std::string file = folder + "/take.mov";
    writeFile(file, "x");
    UnlockOnExit cleanup{folder};
    LOCK_OR_SKIP(folder);
    {
        TQLog::createNewLog("Services");
        int privileged = 0;
        TQAuthorization::setExecHookForTesting([&](const std::string&, const std::vector<std::string>&, bool) {
            ++privileged;
            return 0;
        });
        EXPECT_FALSE(TQFileManager::removeFile(file, false));
        TQAuthorization::setExecHookForTesting(nullptr);
        EXPECT_EQ(privileged, 0);
        EXPECT_TRUE(fs::exists(file));
        TQLog::finishWriting();
        EXPECT_EQ(std::ranges::count(logEntries(childLogPath()),
                                     "Error removing file: Operation not permitted. Authorizing..."),
                  1);
    }
}

TEST(TQFileManagerLog, UnremovableItemFallsBackToPrivilegedRemoval)
{
    TempDir home;
    const std::string folder = home / "sealed";
    const std::string file = folder + "/take.mov";
    writeFile(file, "x");
    UnlockOnExit cleanup{folder};
    LOCK_OR_SKIP(folder);
    if (::getuid() != 0) GTEST_SKIP() << "without root the privileged removal would ask for rights";
    int calls = 0;
    TQAuthorization::setExecHookForTesting([&](const std::string& tool, const std::vector<std::string>& params, bool) {
        ++calls;
        EXPECT_EQ(tool, "/bin/rm");
        EXPECT_EQ(params, (std::vector<std::string>{"-Rdf", file}));
        return 0;
    });
    EXPECT_TRUE(TQFileManager::removeFile(file)) << "the privileged removal was started";
    TQAuthorization::setExecHookForTesting(nullptr);
    EXPECT_EQ(calls, 1);
}
