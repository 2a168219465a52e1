#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "FileTestSupport.h"
#include "Foundation/SystemLog.h"
#include "ServicesTestSupport.h"
#include "TQFileManager.h"
#include "TQLog.h"

namespace fs = std::filesystem;
using servicestest::Scratch;
using servicestest::writeFile;
using ::testing::ElementsAre;

namespace {

// The log's lines after the header it writes when it starts.
std::vector<std::string> loggedProblems()
{
    std::vector<std::string> out;
    for (const auto& line : servicestest::logEntries(servicestest::childLogPath()))
        if (line.rfind("Unable", 0) == 0 || line.rfind("Error", 0) == 0) out.push_back(line);
    return out;
}

}  // namespace

TEST(TQFileManagerLocks, FoldersOnFileSystemsWithAndWithoutTheFlag)
{
    if (!servicestest::inChild()) return servicestest::expectChildPasses();
    const std::string home = servicestest::childHome();
    filestest::ScopedMount withFlag(home + "/tmpfs", "tmpfs", "size=1m");
    filestest::ScopedMount withoutFlag(home + "/ramfs", "ramfs", "");
    MOUNT_OR_SKIP(withFlag);
    MOUNT_OR_SKIP(withoutFlag);
    TQLog::createNewLog("Services");

    writeFile(withFlag / "card/a.mov", "a");
    writeFile(withFlag / "card/sub/b.mov", "b");
    fs::create_symlink(withFlag / "outside.mov", withFlag / "card/link");
    writeFile(withFlag / "outside.mov", "o");
    TQFileManager::lockFolder(withFlag / "card");
    EXPECT_TRUE(TQFileManager::isFileLocked(withFlag / "card/a.mov"));
    EXPECT_TRUE(TQFileManager::isFileLocked(withFlag / "card/sub/b.mov"));
    EXPECT_FALSE(TQFileManager::isFileLocked(withFlag / "card"));
    EXPECT_FALSE(TQFileManager::isFileLocked(withFlag / "card/sub"));
    EXPECT_FALSE(TQFileManager::isFileLocked(withFlag / "outside.mov")) << "links are not followed";
    EXPECT_FALSE(fs::remove(withFlag / "card/a.mov", *std::make_unique<std::error_code>()));
    TQFileManager::unlockFolder(withFlag / "card");
    EXPECT_FALSE(TQFileManager::isFileLocked(withFlag / "card/sub/b.mov"));
    TQFileManager::unlockFolder(withFlag / "not-a-folder");

    writeFile(withoutFlag / "c.mov", "c");
    TQFileManager::lockFile(withoutFlag / "c.mov");
    EXPECT_FALSE(TQFileManager::isFileLocked(withoutFlag / "c.mov"));
    TQFileManager::unlockFile(withoutFlag / "c.mov");  // nothing to clear: no failure
    EXPECT_TRUE(TQFileManager::removeFile(withoutFlag / "c.mov", false));
    TQLog::finishWriting();
    const auto log = loggedProblems();
    EXPECT_THAT(log, ElementsAre("Unable to lock file " + withFlag.path() + "/card/link: Operation not supported",
                                 "Unable to lock file " + withoutFlag.path() + "/c.mov: Operation not supported"));
}

TEST(TQFileManagerLocks, UnlockingNeverNeedsToReadTheItem)
{
    if (!servicestest::inChild()) return servicestest::expectChildPasses();
    const std::string home = servicestest::childHome();
    writeFile(home + "/sealed.mov", "x");
    ::chmod((home + "/sealed.mov").c_str(), 0);
    ::chown((home + "/sealed.mov").c_str(), 65534, 65534);
    filestest::becomeNobody();
    TQLog::createNewLog("Services");
    TQFileManager::unlockFile(home + "/sealed.mov");
    EXPECT_TRUE(TQFileManager::removeFile(home + "/sealed.mov", false));
    TQLog::finishWriting();
    EXPECT_THAT(loggedProblems(), ElementsAre());
}

TEST(TQFileManagerMetadata, AttributesAsOtherToolsReadThem)
{
    Scratch s;
    const std::string file = s / "take.mov";
    writeFile(file, "x");
    EXPECT_TRUE(TQFileManager::setMetadataValue("Reel 7 \xc3\xa9", "com.example.reel", file));
    EXPECT_EQ(filestest::getfattr(file, "user.com.example.reel"), "Reel 7 \xc3\xa9");
    EXPECT_EQ(TQFileManager::metadataValueForKey("com.example.reel", file), "Reel 7 \xc3\xa9");
    EXPECT_TRUE(TQFileManager::setMetadataValue("named", "user.explicit", file));
    EXPECT_EQ(filestest::getfattr(file, "user.explicit"), "named") << "a namespace given is kept";

    corvina::ScopedSystemLogCapture capture;
    EXPECT_EQ(TQFileManager::metadataValueForKey("com.example.none", file), std::nullopt);
    EXPECT_THAT(capture.messages(), ElementsAre("buffer val: -1", "Error retrieving file attribute: 61"));
    filestest::toolOutput("/usr/bin/setfattr", {"-n", "user.bad", "-v", "0xff00fe", file});
    EXPECT_EQ(TQFileManager::metadataValueForKey("bad", file), std::nullopt) << "not UTF-8";
    EXPECT_FALSE(TQFileManager::setMetadataValue("v", "k", s / "missing"));
    EXPECT_THAT(capture.messages().back(), "Error setting extended attribute for file " + (s / "missing") + " - -1");

    TQFileManager::setFinderProgress(0.25f, file);
    EXPECT_EQ(filestest::getfattr(file, "user.com.apple.progress.fractionCompleted"), "0.250");
    TQFileManager::removeFinderProgressForFile(file);
    EXPECT_EQ(filestest::getfattr(file, "user.com.apple.progress.fractionCompleted"), "");
}

TEST(TQFileManagerMetadata, ColourLabelsInTheFinderInfoRecord)
{
    Scratch s;
    const std::string file = s / "take.mov";
    writeFile(file, "x");
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 0);
    TQFileManager::setFinderColorIndex(6, file);
    std::string info = filestest::getfattr(file, "user.com.apple.FinderInfo");
    ASSERT_EQ(info.size(), 32u);
    EXPECT_EQ(info[9], 6 << 1);
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 6);

    // A record written by someone else keeps its other bits.
    filestest::toolOutput("/usr/bin/setfattr", {"-n", "user.com.apple.FinderInfo", "-v",
        "0x544558545454545400F1000000000000000000000000000000000000000000AB", file});
    TQFileManager::setFinderColorIndex(3, file);
    info = filestest::getfattr(file, "user.com.apple.FinderInfo");
    ASSERT_EQ(info.size(), 32u);
    EXPECT_EQ(info.substr(0, 4), "TEXT");
    EXPECT_EQ(static_cast<unsigned char>(info[9]), 0xF7u);
    EXPECT_EQ(static_cast<unsigned char>(info[31]), 0xABu);
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(file), 3);

    const std::string plain = s / "plain.mov";
    writeFile(plain, "x");
    TQFileManager::setFinderColorIndex(4, plain);
    TQFileManager::setFinderColorIndex(0, plain);
    EXPECT_EQ(filestest::getfattr(plain, "user.com.apple.FinderInfo"), "") << "an all-zero record goes";
    TQFileManager::setFinderColorIndex(2, "");
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(s / "missing"), 0);

    EXPECT_EQ(TQFileManager::finderColorForColorIndex(0), std::nullopt);
    EXPECT_EQ(TQFileManager::finderColorForColorIndex(8), std::nullopt);
    EXPECT_EQ(TQFileManager::finderColorForColorIndex(6), (TQFileManager::Color{0.0083, 0.54, 1.0, 1.0}));
    EXPECT_EQ(TQFileManager::finderColorForColorIndex(1), (TQFileManager::Color{0.0, 0.0, 0.72, 1.0}));
    EXPECT_EQ(TQFileManager::finderColorForPath(file), TQFileManager::finderColorForColorIndex(3));
}

TEST(TQFileManagerMetadata, PermissionsAndWhatThisSystemLacks)
{
    if (!servicestest::inChild()) return servicestest::expectChildPasses();
    const std::string file = servicestest::childHome() + "/take.mov";
    writeFile(file, "x");
    TQLog::createNewLog("Services");
    TQFileManager::setPosixPermissions(0640, file);
    TQFileManager::setPosixPermissions(0644, file + ".missing");
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    const auto ref = TQFileManager::stringToFSRef(file);
    EXPECT_NE(SendFinderSyncEvent(&ref), 0);
    EXPECT_NE(SendFinderSyncEvent(nullptr), 0);
    EXPECT_FALSE(TQFileManager::registerApplicationWithLaunchServices("/Applications/Tool.app"));
    TQLog::finishWriting();
    EXPECT_THAT(loggedProblems(),
                ElementsAre("Error setting permissions for file " + file + ".missing: No such file or directory"));
}
