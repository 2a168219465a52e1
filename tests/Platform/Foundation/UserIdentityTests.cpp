// A thread that takes a user's file-system identity: what it may open and who owns what it
// makes, while the other threads keep root's rights.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <thread>

#include "Foundation/UserIdentity.h"
#include "support/TestSupport.h"

using namespace corvina;

TEST(UserIdentity, AThreadActsWithTheUsersRightsAlone)
{
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    const auto nobody = UserIdentity::forName("nobody");
    ASSERT_TRUE(nobody);
    EXPECT_FALSE(UserIdentity::forName("no-such-user-here"));

    test::TempDir dir;
    ::chmod(dir.path().c_str(), 0777);
    const std::string secret = dir / "secret";
    test::writeFile(secret, "root only");
    ::chmod(secret.c_str(), 0600);
    const auto canOpen = [&] {
        const int fd = ::open(secret.c_str(), O_RDONLY);
        if (fd >= 0) ::close(fd);
        return fd >= 0;
    };
    // A thread that was running before keeps root's rights (one started inside the scope
    // would inherit the user's).
    std::promise<void> go;
    auto other = std::async(std::launch::async, [&, started = go.get_future()]() mutable {
        started.wait();
        return canOpen();
    });
    {
        ScopedFileIdentity as(nobody);
        EXPECT_TRUE(as.active());
        EXPECT_FALSE(canOpen());
        go.set_value();
        EXPECT_TRUE(other.get()) << "another thread lost root's rights";
        const int fd = ::open((dir / "made").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        EXPECT_GE(fd, 0);
        struct stat made {};
        ::fstat(fd, &made);
        ::close(fd);
        EXPECT_EQ(made.st_uid, nobody->uid);
        EXPECT_EQ(made.st_gid, nobody->gid);
    }
    EXPECT_TRUE(canOpen());
    // No user, or root itself: nothing changes.
    EXPECT_FALSE(ScopedFileIdentity(std::nullopt).active());
    EXPECT_FALSE(ScopedFileIdentity(UserIdentity::forUid(0)).active());
}
