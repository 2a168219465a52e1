#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "Foundation/SystemLog.h"
#include "ServicesTestSupport.h"
#include "TQAuthorization.h"
#include "TQLocalPaths.h"

namespace fs = std::filesystem;
using servicestest::Scratch;
using servicestest::writeFile;
using ::testing::Contains;
using ::testing::ElementsAre;

namespace {

using Call = std::vector<std::string>;  // the tool, then its arguments

class Tools {
public:
    explicit Tools(int32_t status = 0)
    {
        TQAuthorization::setExecHookForTesting([this, status](const std::string& tool, const std::vector<std::string>& args, bool) {
            std::lock_guard lock(mutex_);
            calls_.push_back({tool});
            calls_.back().insert(calls_.back().end(), args.begin(), args.end());
            return status;
        });
    }
    ~Tools() { TQAuthorization::setExecHookForTesting(nullptr); }
    std::vector<Call> calls()
    {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    std::mutex mutex_;
    std::vector<Call> calls_;
};

TQAuthorization& auth()
{
    return TQAuthorization::sharedController();
}

}  // namespace

TEST(TQAuthorizationFiles, ProtectedFoldersAndMissingPathsAreRefused)
{
    Tools tools;
    corvina::ScopedSystemLogCapture capture;
    const std::string applications = TQLocalPaths::applicationDirectory(false).value();
    EXPECT_FALSE(auth().authTrashFile("/"));
    EXPECT_FALSE(auth().authTrashFile(applications + "/", true));
    EXPECT_FALSE(auth().authTrashFolderContents("/usr"));
    EXPECT_FALSE(auth().authMoveFolderContents("/bin", "/tmp"));
    EXPECT_FALSE(auth().authMoveFile("/System", "/tmp/x"));
    EXPECT_FALSE(auth().authMoveFile("", "/tmp/x"));
    EXPECT_FALSE(auth().authMoveFile("/tmp/x", ""));
    EXPECT_FALSE(auth().authCopyFile("", "/tmp/x"));
    EXPECT_FALSE(auth().authCopyFile("/tmp/x", ""));
    EXPECT_FALSE(auth().authMoveFile("/nonexistent/take.mov", "/tmp/x"));
    EXPECT_FALSE(auth().authCopyFile("/nonexistent/take.mov", "/tmp/x"));
    EXPECT_THAT(capture.messages(),
                ElementsAre("Unable to trash path / because it is a system directory.",
                            "Unable to trash path " + applications + "/ because it is a system directory.",
                            "Unable to trash folder contents of path /usr because it is a system directory.",
                            "Unable to move contents of path /bin because it is a system directory.",
                            "Unable to move path /System because it is a system directory.",
                            "Error in authMoveFile: old path is null", "Error in authMoveFile: new path is null",
                            "Error in authCopyFile: old path is null", "Error in authCopyFile: new path is null"));
    EXPECT_TRUE(tools.calls().empty());
}

TEST(TQAuthorizationFiles, ToolsAndTheirArguments)
{
    Scratch s;
    writeFile(s / "in/a.mov", "a");
    writeFile(s / "in/b.mov", "b");
    fs::create_directories(s / "empty");
    Tools tools;
    EXPECT_TRUE(auth().authMoveFile(s / "in/a.mov", s / "out.mov"));
    EXPECT_TRUE(auth().authCopyFile("/usr", s / "usr-copy")) << "protected folders may be copied";
    EXPECT_TRUE(auth().authCreateDir(s / "new/deep"));
    EXPECT_TRUE(auth().authMoveFolderContents(s / "empty", s / "out"));
    const auto before = tools.calls().size();
    EXPECT_TRUE(auth().authMoveFolderContents(s / "in", s / "out"));
    const auto calls = tools.calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0], (Call{"/bin/mv", "-f", s / "in/a.mov", s / "out.mov"}));
    EXPECT_EQ(calls[1], (Call{"/bin/cp", "-f", "-p", "-R", "/usr", s / "usr-copy"}));
    EXPECT_EQ(calls[2], (Call{"/bin/mkdir", "-p", s / "new/deep"}));
    EXPECT_EQ(before, 3u) << "an empty folder has nothing to move";
    EXPECT_THAT(std::vector<Call>(calls.begin() + 3, calls.end()),
                ::testing::UnorderedElementsAre(Call{"/bin/mv", "-f", s / "in/a.mov", s / "out/a.mov"},
                                                Call{"/bin/mv", "-f", s / "in/b.mov", s / "out/b.mov"}));

    Tools failing(1);
    EXPECT_FALSE(auth().authCreateDir(s / "x"));
    EXPECT_FALSE(auth().authMoveFolderContents(s / "in", s / "out"));
    EXPECT_EQ(failing.calls().size(), 3u) << "every entry is tried after a failure";
}

TEST(TQAuthorizationFiles, TrashingWithRightsKeepsTheTrashRecords)
{
    if (!servicestest::inChild()) return servicestest::expectChildPasses();
    const std::string home = servicestest::childHome();
    const std::string trash = TQLocalPaths::trashDirectory().value();
    const std::string info = fs::path(trash).parent_path().string() + "/info/";
    writeFile(home + "/report.txt", "new");
    writeFile(trash + "/report.txt", "older");
    writeFile(home + "/Notes/n.txt", "n");
    writeFile(trash + "/Notes/n.txt", "older");
    {
        Tools tools;
        EXPECT_TRUE(auth().authTrashFile(home + "/report.txt"));
        EXPECT_TRUE(auth().authTrashFile(home + "/Notes", false));
        const auto calls = tools.calls();
        ASSERT_EQ(calls.size(), 2u);
        EXPECT_EQ(calls[0][1], "-f");
        EXPECT_EQ(calls[0][2], home + "/report.txt");
        EXPECT_TRUE(std::regex_match(calls[0][3], std::regex(trash + R"(/report_\d{14}\.txt)"))) << calls[0][3];
        EXPECT_TRUE(std::regex_match(calls[1][3], std::regex(trash + R"(/Notes_\d{14}\.)"))) << calls[1][3];
        EXPECT_TRUE(fs::exists(info + fs::path(calls[0][3]).filename().string() + ".trashinfo"));
    }
    {
        // A move that could not be started leaves no record behind.
        Tools failing(1);
        writeFile(home + "/lost.mov", "x");
        EXPECT_FALSE(auth().authTrashFile(home + "/lost.mov"));
        EXPECT_FALSE(fs::exists(info + "lost.mov.trashinfo"));
    }
    if (::getuid() != 0) return;
    // As root: removal when asked for, else the trash; folder contents likewise.
    Tools tools;
    writeFile(home + "/box/1.mov", "1");
    writeFile(home + "/box/2.mov", "2");
    EXPECT_TRUE(auth().authTrashFile(home + "/box/1.mov", true));
    EXPECT_TRUE(auth().authTrashFolderContents(home + "/box", true));
    EXPECT_TRUE(auth().authTrashFolderContents(home + "/missing", true));
    auto calls = tools.calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0], (Call{"/bin/rm", "-Rdf", home + "/box/1.mov"}));
    EXPECT_THAT(calls[1], ElementsAre("/bin/rm", "-R", "-f", ::testing::StartsWith(home + "/box/")));
    EXPECT_TRUE(auth().authTrashFolderContents(home + "/box"));
    calls = tools.calls();
    EXPECT_EQ(calls[3][0], "/bin/mv");
    EXPECT_EQ(fs::path(calls[3][3]).parent_path(), trash);
}
