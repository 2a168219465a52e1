#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "support/PrivilegedTools.h"
#include "tq/TQFileManager.h"
#include "tq/TQLog.h"

namespace fs = std::filesystem;

namespace corvina::tq {
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

TEST(TQFileManagerRemove, RemovesFilesFoldersAndLinksAndMissingItemsCount)
{
    TempDir scratch;
    writeFile(scratch / "single.mov", "movie");
    writeFile(scratch / "tree/a/b/c.raw", "frames");
    writeFile(scratch / "tree/a/d.pcm", "audio");
    writeFile(scratch / "target.txt", "kept");
    fs::create_symlink(scratch / "target.txt", scratch / "link");

    EXPECT_TRUE(TQFileManager::removeFile(scratch / "single.mov"));
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "tree", std::chrono::seconds(2)));
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "link", false));
    EXPECT_FALSE(fs::exists(scratch / "single.mov"));
    EXPECT_FALSE(fs::exists(scratch / "tree"));
    EXPECT_FALSE(fs::is_symlink(scratch / "link"));
    EXPECT_TRUE(fs::exists(scratch / "target.txt")) << "a link's target stays";
    EXPECT_TRUE(TQFileManager::removeFile(scratch / "never-there.mov", false));
}

TEST(TQFileManagerLock, LockedItemIsUnlockedThenRemoved)
{
    TempDir scratch;
    const std::string file = scratch / "locked.mov";
    writeFile(file, "x");
    UnlockOnExit cleanup{file};
    EXPECT_FALSE(TQFileManager::isFileLocked(file));
    EXPECT_FALSE(TQFileManager::isFileLocked(scratch / "missing"));
    LOCK_OR_SKIP(file);
    EXPECT_TRUE(TQFileManager::isFileLocked(file));
    TQFileManager::unlockFile(file);
    EXPECT_FALSE(TQFileManager::isFileLocked(file));
    TQFileManager::lockFile(file);
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

TEST(TQFileManagerLog, UnremovableItemFallsBackToPrivilegedRemovalOnlyWhenAllowed)
{
    // A file inside a locked folder cannot be removed, not even by root: unlocking the file
    // itself does not help, the folder's entry cannot change.
    if (!inChild()) return expectChildPasses();
    const std::string folder = childHome() + "/sealed";
    const std::string file = folder + "/take.mov";
    writeFile(file, "x");
    UnlockOnExit cleanup{folder};
    LOCK_OR_SKIP(folder);
    TQLog::createNewLog("Services");
    Tools tools;
    EXPECT_FALSE(TQFileManager::removeFile(file, false));
    EXPECT_TRUE(tools.calls().empty());
    EXPECT_TRUE(fs::exists(file));
    TQLog::finishWriting();
    EXPECT_EQ(
        std::ranges::count(logEntries(childLogPath()), "Error removing file: Operation not permitted. Authorizing..."),
        1);
    // Without root the privileged removal would ask for rights. The recorded tool removes
    // nothing, and the result says so.
    if (::getuid() != 0) return;
    EXPECT_FALSE(TQFileManager::removeFile(file));
    EXPECT_EQ(tools.calls(), (std::vector<Tools::Call>{{"/bin/rm", "-Rdf", "--one-file-system", "--", file}}));
}

}  // namespace corvina::tq
