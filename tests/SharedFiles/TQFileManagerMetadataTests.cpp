#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "support/PrivilegedTools.h"
#include "Foundation/SystemLog.h"
#include "tq/TQFileManager.h"
#include "tq/TQLog.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;
using ::testing::ElementsAre;

namespace {

// The log's failure lines, without the header it writes when it starts.
std::vector<std::string> loggedProblems()
{
    TQLog::finishWriting();
    std::vector<std::string> out;
    for (const auto& line : logEntries(childLogPath()))
        if (line.rfind("Unable", 0) == 0 || line.rfind("Error", 0) == 0) out.push_back(line);
    return out;
}

}  // namespace

TEST(TQFileManagerLocks, FoldersOnFileSystemsWithAndWithoutTheFlag)
{
    if (!inChild()) return expectChildPasses();
    ScopedMount flags(childHome() + "/tmpfs", "tmpfs", "size=1m");
    ScopedMount none(childHome() + "/ramfs", "ramfs", "");
    MOUNT_OR_SKIP(flags);
    MOUNT_OR_SKIP(none);
    TQLog::createNewLog("Services");
    for (const char* f : {"card/a.mov", "card/sub/b.mov", "outside.mov"}) writeFile(flags / f, "x");
    fs::create_symlink(flags / "outside.mov", flags / "card/link");
    TQFileManager::lockFolder(flags / "card");
    EXPECT_TRUE(TQFileManager::isFileLocked(flags / "card/a.mov") &&
                TQFileManager::isFileLocked(flags / "card/sub/b.mov"));
    EXPECT_FALSE(TQFileManager::isFileLocked(flags / "card") || TQFileManager::isFileLocked(flags / "card/sub"));
    EXPECT_FALSE(TQFileManager::isFileLocked(flags / "outside.mov")) << "links are not followed";
    std::error_code ec;
    EXPECT_FALSE(fs::remove(flags / "card/sub/b.mov", ec));
    EXPECT_TRUE(TQFileManager::removeFile(flags / "card/a.mov", false)) << "a locked item is unlocked, then removed";
    EXPECT_FALSE(fs::exists(flags / "card/a.mov"));
    TQFileManager::unlockFolder(flags / "card");
    EXPECT_FALSE(TQFileManager::isFileLocked(flags / "card/sub/b.mov"));
    TQFileManager::unlockFolder(flags / "not-a-folder");

    writeFile(none / "c.mov", "c");
    TQFileManager::lockFile(none / "c.mov");
    EXPECT_FALSE(TQFileManager::isFileLocked(none / "c.mov"));
    EXPECT_TRUE(TQFileManager::removeFile(none / "c.mov", false)) << "nothing to unlock: no failure";
    TQFileManager::setPosixPermissions(0640, flags / "outside.mov");
    TQFileManager::setPosixPermissions(0644, flags / "missing");
    struct stat st {};
    EXPECT_EQ(::stat((flags / "outside.mov").c_str(), &st) == 0 ? st.st_mode & 07777 : 0, 0640u);
    EXPECT_THAT(loggedProblems(),
                ElementsAre("Unable to lock file " + flags / "card/link: Operation not supported",
                            "Unable to lock file " + none / "c.mov: Operation not supported",
                            "Error setting permissions for file " + flags / "missing: No such file or directory"));
}

TEST(TQFileManagerLocks, UnlockingNeverNeedsToReadTheItem)
{
    if (!inChild()) return expectChildPasses();
    const std::string file = childHome() + "/sealed.mov";
    writeFile(file, "x");
    ::chmod(file.c_str(), 0);
    ::chown(file.c_str(), 65534, 65534);
    becomeNobody();
    TQLog::createNewLog("Services");
    TQFileManager::unlockFile(file);
    EXPECT_TRUE(TQFileManager::removeFile(file, false));
    EXPECT_TRUE(TQFileManager::removeFile(file)) << "a missing item counts as removed";
    EXPECT_THAT(loggedProblems(), ElementsAre("Unable to unlock file " + file + ": No such file or directory"));
}

TEST(TQFileManagerLog, UnremovableItemFallsBackToPrivilegedRemovalOnlyWhenAllowed)
{
    // A file inside a locked folder cannot be removed, not even by root: unlocking the file
    // itself does not help, the folder's entry cannot change.
    if (!inChild()) return expectChildPasses();
    const std::string folder = childHome() + "/sealed";
    const std::string file = folder + "/take.mov";
    writeFile(file, "x");
    struct Unlock {  // so that the folder can go
        std::string path;
        ~Unlock() { TQFileManager::unlockFile(path); }
    } unlock{folder};
    TQFileManager::lockFile(folder);
    if (!TQFileManager::isFileLocked(folder)) GTEST_SKIP() << "no immutable flag here";
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

TEST(TQFileManagerMetadata, AttributesAsOtherToolsReadThem)
{
    TempDir s;
    const std::string file = s / "take.mov";
    writeFile(file, "x");
    EXPECT_TRUE(TQFileManager::setMetadataValue("Reel 7 \xc3\xa9", "com.example.reel", file));
    EXPECT_EQ(getfattr(file, "user.com.example.reel"), "Reel 7 \xc3\xa9");
    EXPECT_EQ(TQFileManager::metadataValueForKey("com.example.reel", file), "Reel 7 \xc3\xa9");
    EXPECT_TRUE(TQFileManager::setMetadataValue("named", "user.explicit", file));
    EXPECT_EQ(getfattr(file, "user.explicit"), "named") << "a namespace given is kept";
    corvina::ScopedSystemLogCapture capture;
    EXPECT_EQ(TQFileManager::metadataValueForKey("com.example.none", file), std::nullopt);
    EXPECT_THAT(capture.messages(), ElementsAre("buffer val: -1", "Error retrieving file attribute: 61"));
    runProgram({"setfattr", "-n", "user.bad", "-v", "0xff00fe", file});
    EXPECT_EQ(TQFileManager::metadataValueForKey("bad", file), std::nullopt) << "not UTF-8";
    EXPECT_FALSE(TQFileManager::setMetadataValue("v", "k", s / "missing"));
    EXPECT_EQ(capture.messages().back(), "Error setting extended attribute for file " + (s / "missing") + " - -1");

    TQFileManager::setFinderProgress(0.25f, file);
    EXPECT_EQ(getfattr(file, "user.com.apple.progress.fractionCompleted"), "0.250");
    TQFileManager::removeFinderProgressForFile(file);
    EXPECT_EQ(getfattr(file, "user.com.apple.progress.fractionCompleted"), "");
}

TEST(TQFileManagerMetadata, ColourLabelsInTheFinderInfoRecord)
{
    TempDir s;
    const std::string file = s / "take.mov";
    const char* record = "user.com.apple.FinderInfo";
    writeFile(file, "x");
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 0);
    TQFileManager::setFinderColorIndex(6, file);
    EXPECT_EQ(getfattr(file, record), std::string(9, '\0') + '\x0c' + std::string(22, '\0'));
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 6);
    // A record written by someone else keeps its other bits.
    runProgram({"setfattr", "-n", record, "-v",
                "0x54455854545454540"
                "0F1" +
                    std::string(42, '0') + "AB",
                file});
    TQFileManager::setFinderColorIndex(3, file);
    const std::string info = getfattr(file, record);
    EXPECT_EQ(info.substr(0, 4) + info.substr(9, 1) + info.substr(31), "TEXT\xF7\xAB");
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 3);
    EXPECT_EQ(TQFileManager::finderColorForPath(file), TQFileManager::finderColorForColorIndex(3));
    TQFileManager::setFinderColorIndex(4, s / "plain");
    writeFile(s / "plain", "x");
    TQFileManager::setFinderColorIndex(4, s / "plain");
    TQFileManager::setFinderColorIndex(0, s / "plain");
    EXPECT_EQ(getfattr(s / "plain", record), "") << "an all-zero record goes";
    EXPECT_EQ(TQFileManager::finderColorForColorIndex(0), std::nullopt);
    EXPECT_EQ(TQFileManager::finderColorForColorIndex(8), std::nullopt);
}

}  // namespace corvina::tq
