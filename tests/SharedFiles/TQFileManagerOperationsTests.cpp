#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <regex>
#include <string>

#include "FileTestSupport.h"
#include "Foundation/SystemLog.h"
#include "ServicesTestSupport.h"
#include "TQAuthorization.h"
#include "TQFileManager.h"
#include "TQLocalPaths.h"

namespace fs = std::filesystem;
using servicestest::readFile;
using servicestest::Scratch;
using servicestest::writeFile;
using ::testing::Contains;
using ::testing::UnorderedElementsAre;

namespace {

// Records privileged tools instead of running them; each call answers `status`.
struct PrivilegedCalls {
    std::mutex mutex;
    std::vector<std::vector<std::string>> calls;  // tool, then its arguments
    explicit PrivilegedCalls(int32_t status = 0)
    {
        TQAuthorization::setExecHookForTesting([this, status](const std::string& tool, const std::vector<std::string>& args, bool) {
            std::lock_guard lock(mutex);
            calls.push_back({tool});
            calls.back().insert(calls.back().end(), args.begin(), args.end());
            return status;
        });
    }
    ~PrivilegedCalls() { TQAuthorization::setExecHookForTesting(nullptr); }
};

std::string trashFiles()
{
    return TQLocalPaths::trashDirectory().value();
}

std::string trashInfo(const std::string& name)
{
    return readFile(fs::path(trashFiles()).parent_path().string() + "/info/" + name + ".trashinfo");
}

std::string decodePercent(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

}  // namespace

TEST(TQFileManagerTrash, RoundTripThroughTheFreedesktopTrash)
{
    if (!servicestest::inChild()) return servicestest::expectChildPasses();
    const std::string home = servicestest::childHome();
    writeFile(home + "/day1/my report.txt", "first");
    writeFile(home + "/day2/my report.txt", "second");
    writeFile(home + "/day3/my report.txt", "third");
    writeFile(home + "/a/Notes/n.txt", "n1");
    writeFile(home + "/b/Notes/n.txt", "n2");
    for (const char* item : {"/day1/my report.txt", "/day2/my report.txt", "/day3/my report.txt", "/a/Notes", "/b/Notes"})
        ASSERT_TRUE(TQFileManager::trashFile(home + item, false)) << item;
    EXPECT_FALSE(fs::exists(home + "/day1/my report.txt"));

    std::vector<std::string> names;
    for (const auto& e : fs::directory_iterator(trashFiles())) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    ASSERT_EQ(names.size(), 5u);
    // Sorted: "Notes", "Notes_<stamp>.", "my report.txt", "my report_<stamp> 2.txt" or the
    // dated name, depending on whether the second passed between the trashings.
    EXPECT_EQ(names[0], "Notes");
    EXPECT_TRUE(std::regex_match(names[1], std::regex(R"(Notes_\d{14}\.)"))) << names[1];
    EXPECT_EQ(names[2], "my report.txt");
    const std::regex dated(R"(my report_\d{14}( 2)?\.txt)");
    EXPECT_TRUE(std::regex_match(names[3], dated)) << names[3];
    EXPECT_TRUE(std::regex_match(names[4], dated)) << names[4];

    // Each record names the original place, percent-encoded, and the local time of deletion;
    // following it back restores the item.
    for (const auto& name : names) {
        const std::string info = trashInfo(name);
        std::smatch m;
        ASSERT_TRUE(std::regex_match(info, m, std::regex(
            "\\[Trash Info\\]\nPath=(/[A-Za-z0-9%/._~-]+)\nDeletionDate=\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\n")))
            << info;
        const std::string original = decodePercent(m[1]);
        EXPECT_EQ(original.find(' ') != std::string::npos, name.find(' ') != std::string::npos) << original;
        ASSERT_FALSE(fs::exists(original));
        fs::rename(trashFiles() + "/" + name, original);
    }
    EXPECT_EQ(readFile(home + "/day1/my report.txt"), "first");
    EXPECT_EQ(readFile(home + "/day3/my report.txt"), "third");
    EXPECT_EQ(readFile(home + "/b/Notes/n.txt"), "n2");
}

TEST(TQFileManagerTrash, FolderWideTrashing)
{
    if (!servicestest::inChild()) return servicestest::expectChildPasses();
    const std::string home = servicestest::childHome();
    writeFile(home + "/cards/a.mov", "a");
    writeFile(home + "/cards/deep/er/b.Mov", "b");
    writeFile(home + "/cards/Take.mov/c.MOV", "c");  // a folder named like a movie is searched
    writeFile(home + "/cards/readme.txt", "r");
    writeFile(home + "/cards/deep/readme.txt", "r");
    writeFile(home + "/cards/deep/README.txt", "R");
    EXPECT_THAT(TQFileManager::trashFilesOfType("MOV", home + "/cards"),
                UnorderedElementsAre(home + "/cards/a.mov", home + "/cards/deep/er/b.Mov", home + "/cards/Take.mov/c.MOV"));
    EXPECT_TRUE(fs::is_directory(home + "/cards/Take.mov"));
    EXPECT_THAT(TQFileManager::trashFilesNamed("readme.txt", home + "/cards"),
                UnorderedElementsAre(home + "/cards/readme.txt", home + "/cards/deep/readme.txt"));
    EXPECT_TRUE(fs::exists(home + "/cards/deep/README.txt"));
    EXPECT_TRUE(TQFileManager::trashFilesOfType("mov", home + "/missing").empty());

    EXPECT_TRUE(TQFileManager::trashDirectoryContents(home + "/cards"));
    EXPECT_TRUE(fs::is_empty(home + "/cards")) << "the folder itself stays";
    EXPECT_TRUE(TQFileManager::trashDirectoryContents(home + "/missing"));
    EXPECT_TRUE(TQFileManager::trashFile(home + "/missing", std::chrono::seconds(0)));
}

TEST(TQFileManagerMove, AcrossFileSystemsKeepsTreesWhole)
{
    Scratch s;
    filestest::ScopedMount card(s / "card");
    MOUNT_OR_SKIP(card);
    writeFile(card / "DCIM/clip.mov", "frames");
    writeFile(card / "DCIM/sub/audio.pcm", "pcm");
    ::chmod((card / "DCIM/clip.mov").c_str(), 0640);
    const struct timespec times[2] = {{1000000000, 0}, {1100000000, 0}};
    ::utimensat(AT_FDCWD, (card / "DCIM/clip.mov").c_str(), times, 0);
    fs::create_symlink("clip.mov", card / "DCIM/latest");
    TQFileManager::setFinderColorIndex(2, card / "DCIM/clip.mov");

    ASSERT_TRUE(TQFileManager::moveFile(card / "DCIM", s / "imported", false));
    EXPECT_FALSE(fs::exists(card / "DCIM"));
    EXPECT_EQ(readFile(s / "imported/clip.mov"), "frames");
    EXPECT_EQ(readFile(s / "imported/sub/audio.pcm"), "pcm");
    EXPECT_EQ(fs::read_symlink(s / "imported/latest"), "clip.mov");
    struct stat st {};
    ASSERT_EQ(::stat((s / "imported/clip.mov").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_mtim.tv_sec, 1100000000);
    EXPECT_EQ(TQFileManager::finderColorIndexForPath(s / "imported/clip.mov"), 2);

    // And back as a copy: both stay.
    ASSERT_TRUE(TQFileManager::copyFile(s / "imported", card / "again", false));
    EXPECT_EQ(readFile(card / "again/sub/audio.pcm"), "pcm");
    EXPECT_EQ(readFile(s / "imported/sub/audio.pcm"), "pcm");
    // A copy that does not fit leaves nothing half-written.
    writeFile(s / "big.raw", std::string(5 << 20, 'x'));
    EXPECT_FALSE(TQFileManager::copyFile(s / "big.raw", card / "big.raw", false));
    EXPECT_FALSE(fs::exists(card / "big.raw"));
}

TEST(TQFileManagerMove, NothingIsOverwrittenOrLost)
{
    Scratch s;
    writeFile(s / "a.mov", "a");
    writeFile(s / "b.mov", "b");
    EXPECT_FALSE(TQFileManager::moveFile(s / "a.mov", s / "b.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "a.mov", s / "b.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "missing", s / "c.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile("", s / "c.mov", false));
    EXPECT_FALSE(TQFileManager::copyFile(s / "a.mov", "", false));
    EXPECT_EQ(readFile(s / "a.mov"), "a");
    EXPECT_EQ(readFile(s / "b.mov"), "b");
    fs::create_directories(s / "folder");
    EXPECT_FALSE(TQFileManager::copyFile(s / "folder", s / "folder/inside", false)) << "a folder into itself";

    // Letter case only: the rename goes through and ends at the new name.
    writeFile(s / "Movie.mov", "m");
    EXPECT_TRUE(TQFileManager::moveFile(s / "Movie.mov", s / "movie.mov", false));
    EXPECT_EQ(readFile(s / "movie.mov"), "m");
    EXPECT_FALSE(fs::exists(s / "Movie.mov"));
    EXPECT_TRUE(TQFileManager::moveFile(s / "movie.mov", s / "MOVIE.mov", std::chrono::seconds(0)));
    EXPECT_EQ(readFile(s / "MOVIE.mov"), "m");
    // Two items that differ in case only: the move fails and both stay where they were.
    writeFile(s / "Take.mov", "upper");
    writeFile(s / "take.mov", "lower");
    EXPECT_FALSE(TQFileManager::moveFile(s / "Take.mov", s / "take.mov", false));
    EXPECT_EQ(readFile(s / "Take.mov"), "upper");
    EXPECT_EQ(readFile(s / "take.mov"), "lower");
    EXPECT_FALSE(fs::exists(s / "take 2.mov"));
}

TEST(TQFileManagerFolders, CreatingMirroringAndRemovingFolders)
{
    Scratch s;
    corvina::ScopedSystemLogCapture capture;
    PrivilegedCalls privileged;
    EXPECT_TRUE(TQFileManager::createDirectory(s / "a/b/c"));
    EXPECT_TRUE(TQFileManager::createDirectory(s / "a/b/c", false)) << "an existing folder is fine";
    EXPECT_TRUE(TQFileManager::createDirectory(s / "d/e", std::chrono::seconds(0)));
    EXPECT_FALSE(TQFileManager::createDirectory("/Volumes/Gone/x"));
    EXPECT_THAT(capture.messages(), Contains("Unable to create directory. Drive is not mounted."));
    writeFile(s / "file", "x");
    EXPECT_FALSE(TQFileManager::createDirectory(s / "file", false));
    EXPECT_TRUE(privileged.calls.empty());

    writeFile(s / "shoot/day1/clip.mov", "x");
    fs::create_directories(s / "shoot/Tool.app");
    const std::string dest = s / "mirror";
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/day1/clip.mov", dest), dest + s.path() + "/shoot/day1");
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/day1", dest), dest + s.path() + "/shoot/day1");
    EXPECT_EQ(TQFileManager::createDirectoryStructure(s / "shoot/Tool.app", dest), dest + s.path() + "/shoot");
    EXPECT_TRUE(fs::is_directory(dest + s.path() + "/shoot/day1"));
    EXPECT_FALSE(fs::exists(dest + s.path() + "/shoot/Tool.app"));

    writeFile(s / "clutter/.DS_Store", "x");
    fs::create_directories(s / "clutter/empty");
    EXPECT_TRUE(TQFileManager::removeFolderIfEmpty(s / "clutter"));
    EXPECT_FALSE(fs::exists(s / "clutter"));
    EXPECT_FALSE(TQFileManager::removeFolderIfEmpty(s / "shoot"));
    EXPECT_TRUE(fs::exists(s / "shoot/day1/clip.mov"));
    EXPECT_TRUE(TQFileManager::removeFolderIfEmpty(s / "missing"));
}

TEST(TQFileManagerFolders, CopyingContentsStopsAtTheFirstFailure)
{
    Scratch s;
    PrivilegedCalls refused(1);
    writeFile(s / "src/1.mov", "1");
    writeFile(s / "src/2.mov", "2");
    writeFile(s / "src/sub/3.mov", "3");
    fs::create_directories(s / "dst");
    EXPECT_TRUE(TQFileManager::copyContentsOfDirectory(s / "src", s / "dst", std::chrono::seconds(1)));
    EXPECT_EQ(readFile(s / "dst/sub/3.mov"), "3");
    EXPECT_TRUE(TQFileManager::copyContentsOfDirectory(s / "empty", s / "dst", std::chrono::seconds(1)));
    // Everything is there already: the first copy fails, the privileged one too.
    EXPECT_FALSE(TQFileManager::copyContentsOfDirectory(s / "src", s / "dst", std::chrono::seconds(0)));
    EXPECT_EQ(refused.calls.size(), 1u);
}

TEST(TQFileManagerPrivileged, FallbackRunsTheToolsAsRoot)
{
    if (::getuid() != 0) GTEST_SKIP() << "needs root";
    Scratch s;
    {
        PrivilegedCalls calls;
        writeFile(s / "a.mov", "a");
        writeFile(s / "b.mov", "b");
        EXPECT_TRUE(TQFileManager::copyFile(s / "a.mov", s / "b.mov"));
        EXPECT_TRUE(TQFileManager::createDirectory(s / "b.mov/x"));
        ASSERT_EQ(calls.calls.size(), 2u);
        EXPECT_EQ(calls.calls[0], (std::vector<std::string>{"/bin/cp", "-f", "-p", "-R", s / "a.mov", s / "b.mov"}));
        EXPECT_EQ(calls.calls[1], (std::vector<std::string>{"/bin/mkdir", "-p", s / "b.mov/x"}));
    }
    // The real tool: a move onto an existing item is refused by the ordinary move and done by
    // "mv -f"; the waiting form returns once the source is gone.
    EXPECT_TRUE(TQFileManager::moveFile(s / "a.mov", s / "b.mov", std::chrono::seconds(30)));
    EXPECT_EQ(readFile(s / "b.mov"), "a");
}

TEST(TQFileManagerPrivileged, RefusedWithoutPromptForAnUnprivilegedUser)
{
    if (!servicestest::inChild()) return servicestest::expectChildPasses();
    const std::string home = servicestest::childHome();
    writeFile(home + "/rootonly/take.mov", "x");  // a folder of root's that nobody may change
    fs::create_directories(home + "/mine");
    filestest::becomeNobody();
    auto& auth = TQAuthorization::sharedController(false);
    ASSERT_FALSE(auth.isAuthorized());
    corvina::ScopedSystemLogCapture capture;
    EXPECT_FALSE(TQFileManager::removeFile(home + "/rootonly/take.mov"));
    EXPECT_FALSE(TQFileManager::trashFile(home + "/rootonly/take.mov"));
    EXPECT_FALSE(TQFileManager::moveFile(home + "/rootonly/take.mov", home + "/mine/take.mov"));
    EXPECT_FALSE(TQFileManager::createDirectory(home + "/rootonly/new"));
    EXPECT_FALSE(TQFileManager::copyFile(home + "/mine", home + "/rootonly/copy"));
    EXPECT_TRUE(fs::exists(home + "/rootonly/take.mov"));
    EXPECT_FALSE(fs::exists(home + "/mine/take.mov"));
    const auto messages = capture.messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "Unable to authorize"), 5);
    // Nothing of the trash attempt is left behind.
    const std::string info = fs::path(trashFiles()).parent_path().string() + "/info";
    EXPECT_TRUE(!fs::exists(info) || fs::is_empty(info));
}
