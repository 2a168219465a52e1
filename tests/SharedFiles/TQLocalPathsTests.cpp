#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <filesystem>

#include "tq/TQLocalPaths.h"
#include "support/TestSupport.h"

namespace corvina::tq {

using namespace corvina::test;
namespace fs = std::filesystem;

namespace {

// In a child of its own: its home, a local root of its own, no XDG or temporary folder set.
std::string privateHome()
{
    setenv("TQ_LOCAL_ROOT", (childHome() + "/root").c_str(), 1);
    for (const char* name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "TMPDIR"}) unsetenv(name);
    return childHome();
}

std::string passwdHome(const char* user)
{
    struct passwd* pw = getpwnam(user);
    return pw && pw->pw_dir ? pw->pw_dir : "";
}

}  // namespace

TEST(TQLocalPathsSlashes, EnsureAndStrip)
{
    using P = TQLocalPaths;
    const struct {
        std::optional<std::string> in, ensured, stripped;
    } rows[] = {
        {std::nullopt, std::nullopt, std::nullopt},
        {"", "", ""},
        {"/", "/", "/"},
        {"/a", "/a/", "/a"},
        {"/a/", "/a/", "/a"},
        {"/a//", "/a//", "/a/"},
        {"a", "a/", "a"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(P::ensureTrailingSlash(row.in), row.ensured) << row.in.value_or("(none)");
        EXPECT_EQ(P::stripTrailingSlash(row.in), row.stripped) << row.in.value_or("(none)");
    }
}

TEST(TQLocalPathsMisc, TimeMachineVolumes)
{
    const struct {
        const char* path;
        bool backup;
    } rows[] = {
        {"/Volumes/Backup/Backups.backupdb/mac", true},
        {"/Volumes/Backup/Backups.backupdb", true},
        {"/Volumes/Backup/Backups.backupdb2/x", false},
        {"/Backups.backupdb/mac", false},
        {"/Volumes/Backup/x", false},
        {"", false},
    };
    for (const auto& row : rows) EXPECT_EQ(TQLocalPaths::isPathOnTimeMachineVolume(row.path), row.backup) << row.path;
}

TEST(TQLocalPathsTest, TempFolderAndFile)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = privateHome();
    EXPECT_EQ(TQLocalPaths::tempDirectory(), "/tmp/");
    setenv("TMPDIR", h.c_str(), 1);
    EXPECT_EQ(TQLocalPaths::tempDirectory(), h + "/");
    const std::string a = TQLocalPaths::tempFile(), b = TQLocalPaths::tempFile();
    EXPECT_NE(a, b);
    EXPECT_EQ(a.rfind(h + "/", 0), 0u) << a;
    EXPECT_EQ(a.find("//"), std::string::npos) << a;
    EXPECT_FALSE(fs::exists(a));
}

TEST(TQLocalPathsTest, FolderMapping)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = privateHome(), root = h + "/root";
    using P = TQLocalPaths;
    // One or two of each way a folder is found, not every entry of the lists.
    const struct {
        const char* what;
        std::optional<std::string> actual, expected;
    } rows[] = {
        {"user library", P::libraryDirectory(true), h + "/Library"},
        {"local library", P::libraryDirectory(false), root + "/Library"},
        {"user prefs", P::prefsDirectory(true), h + "/Library/Preferences"},
        {"user documents", P::documentDirectory(true), h + "/Documents"},
        {"local documents", P::documentDirectory(false), std::nullopt},
        {"desktop", P::desktopDirectory(), h + "/Desktop"},
        {"movies", P::movieDirectory(), h + "/Videos"},
        {"downloads", P::downloadsDirectory(), h + "/Downloads"},
        {"system library", P::systemLibraryDirectory(), root + "/System/Library"},
        {"home", P::userDirectory(), h},
        {"trash", P::trashDirectory(), h + "/.local/share/Trash/files"},
        {"cache", P::darwinCacheDirectory(), h + "/.cache"},
        {"replay settings", P::replaySettingsPath(), h + "/Downloads/corvina.plist"},
        {"any domain", P::pathForDirectory(P::Directory::Library, P::AllDomainsMask), h + "/Library"},
        {"local or system", P::pathForDirectory(P::Directory::Library, P::LocalDomainMask | P::SystemDomainMask),
         root + "/Library"},
        {"movies local", P::pathForDirectory(P::Directory::Movies, P::LocalDomainMask), std::nullopt},
    };
    for (const auto& row : rows) EXPECT_EQ(row.actual, row.expected) << row.what;
}

TEST(TQLocalPathsTest, XdgUserDirsAndDataHome)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = privateHome();
    writeFile(h + "/.config/user-dirs.dirs",
              "# written by xdg-user-dirs-update\n"
              "XDG_DESKTOP_DIR=\"$HOME/Schreibtisch\"\n"
              "XDG_DOWNLOAD_DIR=\"/srv/incoming/\"\n"
              "XDG_DOCUMENTS_DIR=\"$HOME/\"\n"
              "XDG_VIDEOS_DIR=\"$HOME/Filme\"\n"
              "XDG_VIDEOS_DIR_EXTRA=\"$HOME/wrong\"\n");
    EXPECT_EQ(TQLocalPaths::desktopDirectory(), h + "/Schreibtisch");
    EXPECT_EQ(TQLocalPaths::downloadsDirectory(), "/srv/incoming");
    EXPECT_EQ(TQLocalPaths::documentDirectory(true), h + "/Documents");  // switched off: the default
    EXPECT_EQ(TQLocalPaths::movieDirectory(), h + "/Filme");
    EXPECT_EQ(TQLocalPaths::replaySettingsPath(), "/srv/incoming/corvina.plist");

    setenv("XDG_CONFIG_HOME", (h + "/elsewhere").c_str(), 1);
    EXPECT_EQ(TQLocalPaths::desktopDirectory(), h + "/Desktop");
    setenv("XDG_DATA_HOME", (h + "/data").c_str(), 1);
    EXPECT_EQ(TQLocalPaths::trashDirectory(), h + "/data/Trash/files");
    setenv("XDG_CACHE_HOME", (h + "/cache").c_str(), 1);
    EXPECT_EQ(TQLocalPaths::darwinCacheDirectory(), h + "/cache");
}

TEST(TQLocalPathsTest, ProtectedFolders)
{
    if (!inChild()) return expectChildPasses();
    const std::string h = privateHome();
    setenv("TQ_LOCAL_ROOT", "/", 1);
    const struct {
        std::string path;
        bool exact, loose;
    } rows[] = {
        {"/", true, true},
        {"ab", false, false},
        {"/Applications", true, true},
        {"/Applications/", true, true},
        {"/Applications/Tool.app", false, false},
        {"/usr", true, true},
        {"/usr/bin", false, true},
        {"/usr/local/bin", false, false},
        {"/usr/local", false, true},
        {"/private/var/tmp", false, true},
        {"/System/Other", false, true},
        {"/Library/Documentation", true, true},
        {h, true, true},
        {h + "/Library/Preferences", true, true},
        {h + "/Videos", false, false},
        {h + "/Library/preferences", false, false},
        // This system's own folders, however they are spelled, and where a link leads.
        {"/etc", true, true},
        {"/usr/.", true, true},
        {"//usr", true, true},
        {"/usr/bin/..", true, true},
        {"/lib64", true, true},
        {"/etc/passwd", false, true},
        {"/run/media/card", false, false},
        {"/srv/footage", false, false},
        {h + "/etc-link", false, false},
        {h + "/etc-link/", true, true},
        {h + "/etc-link/hosts", false, true},
    };
    std::filesystem::create_symlink("/etc", h + "/etc-link");
    for (const char* folder :
         {"/boot", "/dev", "/home", "/opt", "/proc", "/root", "/run", "/sbin", "/srv", "/sys", "/var"})
        EXPECT_TRUE(TQLocalPaths::isPathSystemDirectory(folder, true) &&
                    TQLocalPaths::isPathSystemDirectory(std::string(folder) + "/", true))
            << folder;
    for (const auto& row : rows) {
        EXPECT_EQ(TQLocalPaths::isPathSystemDirectory(row.path, true), row.exact) << row.path;
        EXPECT_EQ(TQLocalPaths::isPathSystemDirectory(row.path, false), row.loose) << row.path;
        EXPECT_EQ(TQLocalPaths::isPathSystemDirectory(row.path), row.loose) << row.path;
    }
}

// As root, the user domain belongs to the console user.
TEST(TQLocalPathsTest, RootUsesTheConsoleUsersFolders)
{
    if (getuid() != 0) GTEST_SKIP() << "needs root";
    if (!inChild()) return expectChildPasses();
    const std::string h = privateHome();
    const std::string nobodyHome = passwdHome("nobody");
    ASSERT_FALSE(nobodyHome.empty());
    setenv("TQ_CONSOLE_USER", "nobody", 1);
    EXPECT_EQ(TQLocalPaths::currentConsoleUser(), "nobody");
    EXPECT_EQ(TQLocalPaths::username(), "nobody");
    EXPECT_EQ(TQLocalPaths::userDirectory(), nobodyHome);
    EXPECT_EQ(TQLocalPaths::libraryDirectory(true), nobodyHome + "/Library");
    EXPECT_EQ(TQLocalPaths::trashDirectory(), nobodyHome + "/.local/share/Trash/files");
    EXPECT_EQ(TQLocalPaths::libraryDirectory(false), h + "/root/Library");
    EXPECT_TRUE(TQLocalPaths::isPathSystemDirectory(nobodyHome + "/Library", true));
    // The process's own cache folder is not the console user's.
    EXPECT_EQ(TQLocalPaths::darwinCacheDirectory(), h + "/.cache");

    setenv("TQ_CONSOLE_USER", "no-such-user-here", 1);
    EXPECT_EQ(TQLocalPaths::userDirectory(), std::nullopt);
    EXPECT_EQ(TQLocalPaths::libraryDirectory(true), std::nullopt);

    setenv("TQ_CONSOLE_USER", "", 1);
    EXPECT_EQ(TQLocalPaths::currentConsoleUser(), std::nullopt);
    EXPECT_EQ(TQLocalPaths::userDirectory(), h);
    EXPECT_EQ(TQLocalPaths::username(), "root");
}

// Unprivileged, the console user is ignored; with real and effective ids apart, the test variables.
TEST(TQLocalPathsPrivileges, UnprivilegedChildUsesItsOwnFolders)
{
    if (getuid() != 0) GTEST_SKIP() << "needs root to change user";
    if (inChild()) {
        const std::string home = childHome();
        if (childCase() == 0) {
            setenv("TQ_CONSOLE_USER", "root", 1);
            ASSERT_EQ(setresgid(65534, 65534, 65534), 0);
            ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
            EXPECT_EQ(TQLocalPaths::userDirectory(), home);
            EXPECT_EQ(TQLocalPaths::libraryDirectory(true), home + "/Library");
            EXPECT_EQ(TQLocalPaths::libraryDirectory(false), home + "/Library") << "TQ_LOCAL_ROOT honoured";
            EXPECT_EQ(TQLocalPaths::currentConsoleUser(), std::optional<std::string>("root"));
        } else {
            setenv("TQ_CONSOLE_USER", "nobody", 1);
            // Real user 65534, effective root: the test variables do not count.
            ASSERT_EQ(setresuid(65534, 0, 0), 0);
            EXPECT_EQ(TQLocalPaths::localRoot(), "/");
            EXPECT_EQ(TQLocalPaths::libraryDirectory(false), "/Library");
            EXPECT_EQ(TQLocalPaths::libraryDirectory(true), home + "/Library") << "not root: own home";
        }
        return;
    }
    TempDir dir;
    chmod(dir.path().c_str(), 0777);
    for (const char* row : {"0", "1"}) {
        const TestRun run = runTest({}, dir.path(), {{"CORVINA_CASE", row}});
        EXPECT_EQ(run.status, 0) << run.output;
    }
}

}  // namespace corvina::tq
