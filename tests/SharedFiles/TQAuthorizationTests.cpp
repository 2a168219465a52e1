#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <grp.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>
#include <string>
#include <vector>

#include "Foundation/SystemLog.h"
#include "support/PrivilegedTools.h"
#include "Process/Process.h"
#include "tq/TQAuthorization.h"
#include "tq/TQLog.h"

namespace corvina::tq {

using ::testing::Contains;
using ::testing::StartsWith;
using namespace corvina::test;

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
    writeFile(scratch / "doomed/file", "x");
    EXPECT_TRUE(auth.authRemoveFile(scratch / "doomed"));
    EXPECT_FALSE(std::filesystem::exists(scratch / "doomed"));
}

// Runs in a child on its own terminal, dropped to an unprivileged user without sudo rights
// (nobody). The controller may ask (GUI allowed) but there is no display: sudo must not ask
// on the terminal, and every privileged operation must fail and leave things as they were.
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
    EXPECT_FALSE(auth.authRemoveFile("/"));
    EXPECT_THAT(capture.messages(), Contains("Unable to delete path / because it is a system directory."));

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
    EXPECT_TRUE(std::filesystem::exists(target));
    EXPECT_FALSE(std::filesystem::exists(home + "/made"));
    EXPECT_FALSE(std::filesystem::exists(home + "/made-async"));
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

}  // namespace corvina::tq
