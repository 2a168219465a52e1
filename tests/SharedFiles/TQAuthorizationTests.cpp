#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <grp.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <string>

#include "Foundation/SystemLog.h"
#include "support/PrivilegedTools.h"
#include "Process/Process.h"
#include "tq/TQAuthorization.h"
#include "tq/TQFileManager.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"

namespace fs = std::filesystem;

namespace corvina::tq {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::StartsWith;
using namespace corvina::test;
using Call = Tools::Call;

namespace {
TQAuthorization& auth() { return TQAuthorization::sharedController(); }
}  // namespace

TEST(TQAuthorizationExec, MissingToolIsReportedWithoutAskingForRights)
{
    Tools tools;
    corvina::ScopedSystemLogCapture capture;
    EXPECT_EQ(TQAuthorization::sharedController().authExecTask("/nonexistent/tool", {"x"}), -2);
    EXPECT_THAT(capture.messages(), Contains("Unable to execute task: path /nonexistent/tool doesn't exist"));
    EXPECT_TRUE(tools.calls().empty());
}

TEST(TQAuthorizationExec, RootRunsToolsDirectlyAndGetsTheirStatus)
{
    if (::getuid() != 0) GTEST_SKIP() << "needs root";
    auto& auth = TQAuthorization::sharedController();
    EXPECT_TRUE(auth.isAuthorized() && auth.canAuthorize() && auth.authStart());
    EXPECT_TRUE(auth.authStartWithUser("anyone", "anything"));
    TempDir scratch;
    writeFile(scratch / "tree/a/b/file", "x");
    EXPECT_EQ(auth.authExecTask("/bin/rm", {"-Rdf", scratch / "tree"}, false), 0);
    EXPECT_FALSE(std::filesystem::exists(scratch / "tree")) << "waited for the tool";
    EXPECT_EQ(auth.authExecTask("/bin/sh", {"-c", "exit 3"}, false), 3) << "a failing tool is not a success";
}

// As nobody on a terminal with no display: sudo must not ask, and every privileged step fails
// and leaves things as they were.
TEST(TQAuthorizationChild, DISABLED_UnprivilegedUserIsRefusedWithoutAPrompt)
{
    const std::string home = childHome();
    const std::string target = home + "/keep.txt";
    writeFile(target, "data");
    ASSERT_EQ(::chown(home.c_str(), 65534, 65534), 0);
    ASSERT_EQ(::chown(target.c_str(), 0, 0), 0);
    ASSERT_EQ(::setgroups(0, nullptr), 0);
    ASSERT_EQ(::setgid(65534), 0);
    ASSERT_EQ(::setuid(65534), 0);
    TQLog::createNewLog("Services");
    TQLog::sharedController().setNoPrinting(true);

    auto& auth = TQAuthorization::sharedController(true);
    corvina::ScopedSystemLogCapture capture;
    EXPECT_TRUE(auth.canAuthorize());
    EXPECT_FALSE(auth.authStart());
    EXPECT_EQ(auth.authExecTask("/bin/touch", {home + "/made-async"}), -1);
    EXPECT_EQ(auth.authExecTask("/bin/touch", {home + "/made"}, false), -1);
    EXPECT_FALSE(auth.authRemoveFile(target));

    // Rights that were there once and have lapsed are noticed before anything is run.
    auth.setAuthRef(TQAuthorization::AuthRef{"nobody"});
    EXPECT_TRUE(auth.isAuthorized());
    EXPECT_EQ(auth.authExecTask("/bin/touch", {home + "/made"}, false), -1);
    EXPECT_FALSE(auth.isAuthorized());
    auth.setAuthRef(TQAuthorization::AuthRef{"nobody"});
    EXPECT_FALSE(auth.authRemoveFile(target));

    EXPECT_THAT(capture.messages(), Contains(StartsWith("Authorization lapsed: ")));
    EXPECT_THAT(capture.messages(), Contains(StartsWith("Authorization refused: ")));
    TQLog::finishWriting();
    EXPECT_THAT(logEntries(childLogPath()), Contains(StartsWith("Authorization refused: ")))
        << "the reason is in the program's log too";
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // an asynchronous start would have run by now
    EXPECT_TRUE(fs::exists(target) && !fs::exists(home + "/made") && !fs::exists(home + "/made-async"));
}

TEST(TQAuthorizationUnprivileged, RefusesCleanlyWithoutAnyPrompt)
{
    if (::getuid() != 0) GTEST_SKIP() << "needs root to become another user";
    if (!corvina::isExecutablePath("/usr/bin/sudo")) GTEST_SKIP() << "sudo is not installed";
    TempDir home;
    const auto run = runTestOnTerminal("TQAuthorizationChild.DISABLED_UnprivilegedUserIsRefusedWithoutAPrompt",
                                       home.path(), {}, std::chrono::seconds(120));
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output.find("assword"), std::string::npos) << "asked on the terminal:\n" << run.output;
}

TEST(TQAuthorizationFiles, ProtectedFoldersAndMissingPathsAreRefusedWithoutRunningATool)
{
    Tools tools;
    corvina::ScopedSystemLogCapture capture;
    const std::string apps = TQLocalPaths::applicationDirectory(false).value();
    EXPECT_FALSE(auth().authRemoveFile("/") || auth().authRemoveFile(apps) || auth().authRemoveFile("/usr"));
    EXPECT_FALSE(auth().authTrashFile("/"));
    EXPECT_FALSE(auth().authTrashFile(apps + "/", true));
    EXPECT_FALSE(auth().authTrashFolderContents("/usr"));
    EXPECT_FALSE(auth().authMoveFolderContents("/bin", "/tmp"));
    EXPECT_FALSE(auth().authMoveFile("/System", "/tmp/x"));
    EXPECT_FALSE(auth().authMoveFile("", "/tmp/x") || auth().authMoveFile("/tmp/x", ""));
    EXPECT_FALSE(auth().authCopyFile("", "/tmp/x") || auth().authCopyFile("/tmp/x", ""));
    EXPECT_FALSE(auth().authMoveFile("/nonexistent/a", "/tmp/x") || auth().authCopyFile("/nonexistent/a", "/tmp/x"));
    const std::string refusal = " because it is a system directory.";
    EXPECT_THAT(capture.messages(),
                ElementsAre("Unable to delete path /" + refusal, "Unable to delete path " + apps + refusal,
                            "Unable to delete path /usr" + refusal, "Unable to trash path /" + refusal,
                            "Unable to trash path " + apps + "/" + refusal,
                            "Unable to trash folder contents of path /usr" + refusal,
                            "Unable to move contents of path /bin" + refusal, "Unable to move path /System" + refusal,
                            "Error in authMoveFile: old path is null", "Error in authMoveFile: new path is null",
                            "Error in authCopyFile: old path is null", "Error in authCopyFile: new path is null"));
    EXPECT_TRUE(tools.calls().empty());
}

TEST(TQAuthorizationFiles, TrashMoveCopyAndFolderTools)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = childHome();
    const std::string trash = TQLocalPaths::trashDirectory().value();
    const std::string info = fs::path(trash).parent_path().string() + "/info/";
    for (const char* f : {"/report.txt", "/Notes/n.txt", "/in/a.mov", "/lost.mov", "/more/m.mov", "/more/sub/s"})
        writeFile(h + f, "x");
    writeFile(trash + "/report.txt", "older");
    writeFile(trash + "/Notes/n.txt", "older");
    fs::create_directories(h + "/empty");
    fs::create_directories(h + "/out");
    {
        Tools tools(Tools::run);  // the tools run, with this process's own rights
        EXPECT_TRUE(auth().authTrashFile(h + "/report.txt"));
        EXPECT_TRUE(auth().authTrashFile(h + "/Notes", false));
        EXPECT_TRUE(auth().authCopyFile("/bin", h + "/bin-copy")) << "protected folders may be copied";
        EXPECT_TRUE(auth().authCreateDir(h + "/new/deep"));
        EXPECT_TRUE(auth().authMoveFolderContents(h + "/empty", h + "/out"));
        EXPECT_TRUE(auth().authMoveFolderContents(h + "/in", h + "/out"));
        const auto c = tools.calls();
        ASSERT_EQ(c.size(), 5u);
        const auto mv = [](const std::string& from, const auto& to) {
            return ElementsAre("/bin/mv", "-n", "-T", "--", from, to);
        };
        EXPECT_THAT(c[0], mv(h + "/report.txt", ::testing::MatchesRegex(trash + "/report_[0-9]{14}\\.txt")));
        EXPECT_THAT(c[1], mv(h + "/Notes", ::testing::MatchesRegex(trash + "/Notes_[0-9]{14}\\.")));
        EXPECT_TRUE(fs::exists(info + fs::path(c[0][5]).filename().string() + ".trashinfo"));
        EXPECT_EQ(readFile(c[0][5]), "x");
        EXPECT_EQ(c[2], (Call{"/bin/cp", "-n", "-T", "-p", "-R", "--", "/bin", h + "/bin-copy"}));
        EXPECT_EQ(c[3], (Call{"/bin/mkdir", "-p", "--", h + "/new/deep"}));
        EXPECT_THAT(c[4], mv(h + "/in/a.mov", h + "/out/a.mov"));
        EXPECT_TRUE(fs::is_directory(h + "/new/deep") && fs::exists(h + "/out/a.mov"));
    }
    {
        Tools failing(1);
        EXPECT_FALSE(auth().authCreateDir(h + "/x"));
        EXPECT_FALSE(auth().authRemoveFile(h + "/lost.mov")) << "a tool that fails is a failure";
        EXPECT_FALSE(auth().authTrashFile(h + "/lost.mov"));
        EXPECT_FALSE(fs::exists(info + "lost.mov.trashinfo")) << "a move that failed leaves no record";
        EXPECT_FALSE(auth().authMoveFolderContents(h + "/more", h + "/out"));
        EXPECT_EQ(failing.calls().size(), 5u) << "every entry is tried after a failure";
    }
    if (::getuid() != 0) return;
    Tools tools(Tools::run);  // as root: removal when asked for, else the trash
    EXPECT_TRUE(auth().authTrashFile(h + "/lost.mov", true));
    EXPECT_TRUE(auth().authTrashFolderContents(h + "/more", true));
    EXPECT_TRUE(auth().authTrashFolderContents(h + "/missing", true));
    EXPECT_TRUE(auth().authTrashFolderContents(h + "/out"));
    EXPECT_TRUE(fs::is_empty(h + "/more") && fs::is_empty(h + "/out") && !fs::exists(h + "/lost.mov"));
    const auto c = tools.calls();
    ASSERT_EQ(c.size(), 4u);
    EXPECT_EQ(c[0], (Call{"/bin/rm", "-Rdf", "--one-file-system", "--", h + "/lost.mov"}));
    EXPECT_THAT(c[1], ElementsAre("/bin/rm", "-Rdf", "--one-file-system", "--", ::testing::StartsWith(h + "/more/")));
    EXPECT_EQ(c[3][0] + " " + fs::path(c[3][5]).parent_path().string(), "/bin/mv " + trash);
    // A root process's ordinary removal is a privileged one: it refuses protected folders too.
    fs::create_directories(h + "/Library/Preferences");
    EXPECT_FALSE(TQFileManager::removeFile(h + "/Library/Preferences") || TQFileManager::trashFile(h + "/Library"));
    EXPECT_TRUE(fs::is_directory(h + "/Library/Preferences") && tools.calls().size() == 4u);
}

}  // namespace corvina::tq
