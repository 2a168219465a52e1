#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>

#include "support/PrivilegedTools.h"
#include "Foundation/SystemLog.h"
#include "tq/TQFileManager.h"
#include "tq/TQLocalPaths.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;
using ::testing::UnorderedElementsAre;

namespace {
std::string trashFiles() { return TQLocalPaths::trashDirectory().value(); }
}  // namespace

TEST(TQFileManagerTrash, RoundTripThroughTheFreedesktopTrash)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = childHome();
    const char* items[] = {"/day1/my report.txt", "/day2/my report.txt", "/day3/my report.txt", "/a/Notes/n",
                           "/b/Notes/n"};
    for (const char* item : items) writeFile(h + item, item);
    for (const char* item :
         {"/day1/my report.txt", "/day2/my report.txt", "/day3/my report.txt", "/a/Notes", "/b/Notes"})
        ASSERT_TRUE(TQFileManager::trashFile(h + item, false)) << item;
    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(trashFiles())) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    ASSERT_EQ(names.size(), 5u);
    EXPECT_EQ(names[0], "Notes");
    EXPECT_TRUE(std::regex_match(names[1], std::regex(R"(Notes_\d{14}\.)"))) << names[1];
    EXPECT_EQ(names[2], "my report.txt");
    // The third one is trashed within the second of the second one, or not.
    EXPECT_TRUE(std::regex_match(names[3], std::regex(R"(my report_\d{14}( 2)?\.txt)"))) << names[3];
    EXPECT_TRUE(std::regex_match(names[4], std::regex(R"(my report_\d{14}( 2)?\.txt)"))) << names[4];
    // Each record names the original place, percent-encoded, and the local time of deletion;
    // following it back restores the item.
    for (const auto& name : names) {
        const std::string info =
            readFile(fs::path(trashFiles()).parent_path().string() + "/info/" + name + ".trashinfo");
        std::smatch m;
        ASSERT_TRUE(std::regex_match(info, m,
                                     std::regex("\\[Trash Info\\]\nPath=(/[A-Za-z0-9%/._~-]+)\n"
                                                "DeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n")))
            << info;
        const std::string original = std::regex_replace(m[1].str(), std::regex("%20"), " ");
        ASSERT_FALSE(fs::exists(original)) << original;
        fs::rename(trashFiles() + "/" + name, original);
    }
    for (const char* item : items) EXPECT_EQ(readFile(h + item), item);
}

TEST(TQFileManagerTrash, FolderWideTrashing)
{
    if (!inChild()) return expectChildPasses();
    const std::string c = childHome() + "/cards";
    for (const char* f :
         {"/a.mov", "/deep/er/b.Mov", "/Take.mov/c.MOV", "/readme.txt", "/deep/readme.txt", "/deep/README.txt"})
        writeFile(c + f, "x");
    EXPECT_THAT(TQFileManager::trashFilesOfType("MOV", c),
                UnorderedElementsAre(c + "/a.mov", c + "/deep/er/b.Mov", c + "/Take.mov/c.MOV"));
    EXPECT_TRUE(fs::is_directory(c + "/Take.mov")) << "a folder named like a movie is searched";
    EXPECT_THAT(TQFileManager::trashFilesNamed("readme.txt", c),
                UnorderedElementsAre(c + "/readme.txt", c + "/deep/readme.txt"));
    EXPECT_TRUE(fs::exists(c + "/deep/README.txt"));
    EXPECT_TRUE(TQFileManager::trashFilesOfType("mov", c + "/missing").empty());
    EXPECT_TRUE(TQFileManager::trashDirectoryContents(c) && fs::is_empty(c)) << "the folder itself stays";
    EXPECT_TRUE(TQFileManager::trashDirectoryContents(c + "/x") &&
                TQFileManager::trashFile(c + "/x", std::chrono::seconds(0)));
}

TEST(TQFileManagerMove, AcrossFileSystemsKeepsTreesWhole)
{
    TempDir s;
    ScopedMount card(s / "card");
    MOUNT_OR_SKIP(card);
    writeFile(card / "DCIM/clip.mov", "frames");
    writeFile(card / "DCIM/sub/audio.pcm", "pcm");
    ::chmod((card / "DCIM/clip.mov").c_str(), 0640);
    const struct timespec times[2] = {{1000000000, 0}, {1100000000, 0}};
    ::utimensat(AT_FDCWD, (card / "DCIM/clip.mov").c_str(), times, 0);
    fs::create_symlink("clip.mov", card / "DCIM/latest");
    TQFileManager::setFinderColorIndex(2, card / "DCIM/clip.mov");

    ASSERT_TRUE(TQFileManager::moveFile(card / "DCIM", s / "imported", false));
    EXPECT_TRUE(!fs::exists(card / "DCIM") && readFile(s / "imported/sub/audio.pcm") == "pcm");
    EXPECT_EQ(fs::read_symlink(s / "imported/latest"), "clip.mov");
    struct stat st {};
    ASSERT_EQ(::stat((s / "imported/clip.mov").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1100000000);
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(s / "imported/clip.mov"), 2);
    ASSERT_TRUE(TQFileManager::copyFile(s / "imported", card / "again", false));
    EXPECT_EQ(readFile(card / "again/clip.mov") + readFile(s / "imported/clip.mov"), "framesframes");
    // A copy that does not fit leaves nothing half-written.
    writeFile(s / "big.raw", std::string(5 << 20, 'x'));
    EXPECT_FALSE(TQFileManager::copyFile(s / "big.raw", card / "big.raw", false));
    EXPECT_FALSE(fs::exists(card / "big.raw"));
}

TEST(TQFileManagerMove, NothingIsOverwrittenOrLost)
{
    TempDir s;
    writeFile(s / "a.mov", "a");
    writeFile(s / "b.mov", "b");
    fs::create_directories(s / "folder");
    EXPECT_FALSE(TQFileManager::moveFile(s / "a.mov", s / "b.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "a.mov", s / "b.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "missing", s / "c.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile("", s / "c.mov", false) || TQFileManager::copyFile(s / "a.mov", "", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "folder", s / "folder/inside", false)) << "a folder into itself";
    EXPECT_EQ(readFile(s / "a.mov") + readFile(s / "b.mov"), "ab");
    // Letter case only: the rename goes through and ends at the new name.
    writeFile(s / "Movie.mov", "m");
    EXPECT_TRUE(TQFileManager::moveFile(s / "Movie.mov", s / "movie.mov", false));
    EXPECT_TRUE(TQFileManager::moveFile(s / "movie.mov", s / "MOVIE.mov", std::chrono::seconds(0)));
    EXPECT_EQ(readFile(s / "MOVIE.mov"), "m");
    EXPECT_FALSE(fs::exists(s / "Movie.mov") || fs::exists(s / "movie.mov"));
    // Two items that differ in case only: the move fails and both stay where they were.
    writeFile(s / "Take.mov", "upper");
    writeFile(s / "take.mov", "lower");
    EXPECT_FALSE(TQFileManager::moveFile(s / "Take.mov", s / "take.mov", false));
    EXPECT_EQ(readFile(s / "Take.mov") + readFile(s / "take.mov"), "upperlower");
    EXPECT_FALSE(fs::exists(s / "take 2.mov"));
}

TEST(TQFileManagerFolders, CreatingMirroringAndRemovingFolders)
{
    TempDir s;
    corvina::ScopedSystemLogCapture capture;
    Tools privileged;
    EXPECT_TRUE(TQFileManager::createDirectory(s / "a/b/c") && TQFileManager::createDirectory(s / "a/b/c", false));
    EXPECT_TRUE(TQFileManager::createDirectory(s / "d/e", std::chrono::seconds(0)));
    EXPECT_FALSE(TQFileManager::createDirectory("/Volumes/Gone/x"));
    EXPECT_THAT(capture.messages(), ::testing::Contains("Unable to create directory. Drive is not mounted."));
    writeFile(s / "file", "x");
    EXPECT_FALSE(TQFileManager::createDirectory(s / "file", false));
    EXPECT_TRUE(privileged.calls().empty());

    writeFile(s / "shoot/day1/clip.mov", "x");
    fs::create_directories(s / "shoot/Tool.app");
    const std::string mirror = s / "mirror" + s.path() + "/shoot";
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/day1/clip.mov", s / "mirror"), mirror + "/day1");
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/day1", s / "mirror"), mirror + "/day1");
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/Tool.app", s / "mirror"), mirror);
    EXPECT_TRUE(fs::is_directory(mirror + "/day1") && !fs::exists(mirror + "/Tool.app"));
    writeFile(s / "clutter/.DS_Store", "x");
    fs::create_directories(s / "clutter/empty");
    EXPECT_TRUE(TQFileManager::removeFolderIfEmpty(s / "clutter"));
    EXPECT_FALSE(fs::exists(s / "clutter"));
    EXPECT_FALSE(TQFileManager::removeFolderIfEmpty(s / "shoot") || !fs::exists(s / "shoot/day1/clip.mov"));
    EXPECT_TRUE(TQFileManager::removeFolderIfEmpty(s / "missing"));

    // Contents are copied until the first failure; here everything is there already.
    Tools refused(1);
    for (const char* f : {"src/1.mov", "src/2.mov", "src/sub/3.mov"}) writeFile(s / f, f);
    EXPECT_TRUE(TQFileManager::copyContentsOfDirectory(s / "src", s / "d", std::chrono::seconds(1)));
    EXPECT_EQ(readFile(s / "d/sub/3.mov"), "src/sub/3.mov");
    EXPECT_TRUE(TQFileManager::copyContentsOfDirectory(s / "empty", s / "d", std::chrono::seconds(1)));
    EXPECT_FALSE(TQFileManager::copyContentsOfDirectory(s / "src", s / "d", std::chrono::seconds(0)));
    EXPECT_TRUE(refused.calls().empty()) << "the privileged copy refuses an occupied destination itself";
}

TEST(TQFileManagerPrivileged, RefusedWithoutPromptForAnUnprivilegedUser)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = childHome();
    writeFile(h + "/rootonly/take.mov", "x");  // a folder of root's that nobody may change
    fs::create_directories(h + "/mine");
    becomeNobody();
    auto& auth = TQAuthorization::sharedController(false);  // may not ask
    ASSERT_FALSE(auth.isAuthorized());
    EXPECT_FALSE(auth.hasGUI() || auth.canAuthorize());
    EXPECT_FALSE(auth.authStartWithUser(std::nullopt, "pw") || auth.authStartWithUser("nobody", std::nullopt));
    corvina::ScopedSystemLogCapture capture;
    EXPECT_FALSE(TQFileManager::removeFile(h + "/rootonly/take.mov"));
    EXPECT_FALSE(TQFileManager::trashFile(h + "/rootonly/take.mov"));
    EXPECT_FALSE(TQFileManager::moveFile(h + "/rootonly/take.mov", h + "/mine/take.mov"));
    EXPECT_FALSE(TQFileManager::createDirectory(h + "/rootonly/new"));
    EXPECT_FALSE(TQFileManager::copyFile(h + "/mine", h + "/rootonly/copy"));
    EXPECT_EQ(auth.authExecTask("/bin/rm", {"-Rdf", h + "/rootonly/take.mov"}), -1) << "nothing asked or run";
    EXPECT_TRUE(fs::exists(h + "/rootonly/take.mov"));
    EXPECT_FALSE(fs::exists(h + "/mine/take.mov"));
    const auto messages = capture.messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Unable to authorize"), 6);
    const std::string info = fs::path(trashFiles()).parent_path().string() + "/info";
    EXPECT_TRUE(!fs::exists(info) || fs::is_empty(info)) << "nothing of the trash attempt is left";
}

}  // namespace corvina::tq
