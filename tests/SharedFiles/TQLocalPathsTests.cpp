#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>

#include "tq/TQLocalPaths.h"
#include "support/TestSupport.h"

namespace corvina::tq {

using namespace corvina::test;
namespace fs = std::filesystem;

namespace {

// Sets environment variables for the life of the object and puts the old values back.
class ScopedEnv {
public:
    void set(const char* name, const std::optional<std::string>& value)
    {
        const char* old = std::getenv(name);
        if (!saved_.count(name)) saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
        put(name, value);
    }
    ~ScopedEnv()
    {
        for (const auto& [name, value] : saved_) put(name, value);
    }

private:
    static void put(const std::string& name, const std::optional<std::string>& value)
    {
        value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
    }
    std::map<std::string, std::optional<std::string>> saved_;
};

class TQLocalPathsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        env.set("HOME", home.path());
        env.set("TQ_LOCAL_ROOT", home.path() + "/root");
        env.set("TQ_CONSOLE_USER", std::string());
        env.set("XDG_CONFIG_HOME", std::nullopt);
        env.set("XDG_DATA_HOME", std::nullopt);
        env.set("XDG_CACHE_HOME", std::nullopt);
        env.set("TMPDIR", std::nullopt);
    }
    TempDir home;
    ScopedEnv env;
};

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

TEST_F(TQLocalPathsTest, TempFolderAndFile)
{
    EXPECT_EQ(TQLocalPaths::tempDirectory(), "/tmp/");
    env.set("TMPDIR", home.path());
    EXPECT_EQ(TQLocalPaths::tempDirectory(), home.path() + "/");
    const std::string a = TQLocalPaths::tempFile(), b = TQLocalPaths::tempFile();
    EXPECT_NE(a, b);
    EXPECT_EQ(a.rfind(home.path() + "/", 0), 0u) << a;
    EXPECT_EQ(a.find("//"), std::string::npos) << a;
    EXPECT_FALSE(fs::exists(a));
}

TEST_F(TQLocalPathsTest, FolderMapping)
{
    if (getuid() == 0)
        env.set("TQ_CONSOLE_USER", std::string());  // root with nobody at the console: root's own folders
    const std::string h = home.path(), root = home.path() + "/root";
    using P = TQLocalPaths;
    // One or two of each way a folder is found (user or local domain, a folder below
    // another, the user-dirs defaults, the domain masks), not every entry of the lists.
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

TEST_F(TQLocalPathsTest, XdgUserDirsAndDataHome)
{
    const std::string h = home.path();
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

    env.set("XDG_CONFIG_HOME", h + "/elsewhere");
    EXPECT_EQ(TQLocalPaths::desktopDirectory(), h + "/Desktop");
    env.set("XDG_DATA_HOME", h + "/data");
    EXPECT_EQ(TQLocalPaths::trashDirectory(), h + "/data/Trash/files");
    env.set("XDG_CACHE_HOME", h + "/cache");
    EXPECT_EQ(TQLocalPaths::darwinCacheDirectory(), h + "/cache");
}

TEST_F(TQLocalPathsTest, ProtectedFolders)
{
    env.set("TQ_LOCAL_ROOT", "/");
    const std::string h = home.path();
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
TEST_F(TQLocalPathsTest, RootUsesTheConsoleUsersFolders)
{
    if (getuid() != 0) GTEST_SKIP() << "needs root";
    const std::string nobodyHome = passwdHome("nobody");
    ASSERT_FALSE(nobodyHome.empty());
    env.set("TQ_CONSOLE_USER", std::string("nobody"));
    EXPECT_EQ(TQLocalPaths::currentConsoleUser(), "nobody");
    EXPECT_EQ(TQLocalPaths::username(), "nobody");
    EXPECT_EQ(TQLocalPaths::userDirectory(), nobodyHome);
    EXPECT_EQ(TQLocalPaths::libraryDirectory(true), nobodyHome + "/Library");
    EXPECT_EQ(TQLocalPaths::trashDirectory(), nobodyHome + "/.local/share/Trash/files");
    EXPECT_EQ(TQLocalPaths::libraryDirectory(false), home.path() + "/root/Library");
    EXPECT_TRUE(TQLocalPaths::isPathSystemDirectory(nobodyHome + "/Library", true));
    // The process's own cache folder is not the console user's.
    EXPECT_EQ(TQLocalPaths::darwinCacheDirectory(), home.path() + "/.cache");

    env.set("TQ_CONSOLE_USER", std::string("no-such-user-here"));
    EXPECT_EQ(TQLocalPaths::userDirectory(), std::nullopt);
    EXPECT_EQ(TQLocalPaths::libraryDirectory(true), std::nullopt);

    env.set("TQ_CONSOLE_USER", std::string());
    EXPECT_EQ(TQLocalPaths::currentConsoleUser(), std::nullopt);
    EXPECT_EQ(TQLocalPaths::userDirectory(), home.path());
    EXPECT_EQ(TQLocalPaths::username(), "root");
}

// An unprivileged process ignores the console user; one whose real and effective ids
// differ ignores the test variables altogether.
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
