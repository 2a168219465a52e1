// Standard folders and small path utilities shared by the log, the crash check, the
// privileged operations and the file service.
//
// User-domain folders live under the home folder ($HOME, else the user database), local-
// and system-domain folders under "/" (or under $TQ_LOCAL_ROOT for tests). When the process
// runs as root (real uid 0), every user-domain answer is given for the user at the console;
// with nobody at the console, root's own folders are used.
//
// Test variables, honoured only when the real and effective user ids are equal:
//   TQ_LOCAL_ROOT    a folder standing for "/" in local- and system-domain lookups
//   TQ_CONSOLE_USER  the console user's name; set but empty means nobody is logged in
#pragma once

#include "Foundation/UserIdentity.h"

#include <cstddef>
#include <optional>
#include <string>

namespace corvina::tq {

class TQLocalPaths {
public:
    // Directory codes and domain masks with the platform's numbers.
    enum class Directory : unsigned {
        Application = 1,
        DemoApplication = 2,
        DeveloperApplication = 3,
        AdminApplication = 4,
        Library = 5,
        Developer = 6,
        User = 7,
        Documentation = 8,
        Document = 9,
        CoreService = 10,
        AutosavedInformation = 11,
        Desktop = 12,
        Caches = 13,
        ApplicationSupport = 14,
        Downloads = 15,
        InputMethods = 16,
        Movies = 17,
        Music = 18,
        Pictures = 19,
    };
    enum DomainMask : unsigned {
        UserDomainMask = 1,
        LocalDomainMask = 2,
        NetworkDomainMask = 4,
        SystemDomainMask = 8,
        AllDomainsMask = 0x0ffff,
    };

    TQLocalPaths() = delete;

    // First path of the search over the domains in mask (user, local, network, system),
    // root-adjusted for the user domain alone; none when no domain has the folder.
    static std::optional<std::string> pathForDirectory(Directory code, unsigned domainMask);

    static std::optional<std::string> applicationDirectory(bool user);
    static std::optional<std::string> adminApplicationDirectory(bool user);
    static std::optional<std::string> documentDirectory(bool user);
    static std::optional<std::string> libraryDirectory(bool user);
    static std::optional<std::string> prefsDirectory(bool user);
    static std::optional<std::string> cacheDirectory(bool user);
    static std::optional<std::string> appSupportDirectory(bool user);
    static std::optional<std::string> logDirectory(bool user);
    static std::optional<std::string> movieDirectory();
    static std::optional<std::string> desktopDirectory();
    static std::optional<std::string> downloadsDirectory();
    static std::optional<std::string> systemLibraryDirectory();
    static std::optional<std::string> localDocumentationDirectory();
    // Home folder: as root the console user's (none when the user database does not know
    // them), else $HOME or the user database's entry.
    static std::optional<std::string> userDirectory();
    // Short user name: as root the console user's (root's own when nobody is there).
    static std::string username();
    // The files/ folder of the freedesktop trash of the user.
    static std::optional<std::string> trashDirectory();
    // $TMPDIR, else /tmp, always with a trailing slash.
    static std::string tempDirectory();
    // $XDG_CACHE_HOME, else ~/.cache; none when neither resolves.
    static std::optional<std::string> darwinCacheDirectory();
    // A fresh path in the temporary folder; nothing is created.
    static std::string tempFile();
    static std::string uuid();
    static std::string randomString(size_t length);

    static std::optional<std::string> ensureTrailingSlash(const std::optional<std::string>& path);
    static std::optional<std::string> stripTrailingSlash(const std::optional<std::string>& path);

    static bool isPathSystemDirectory(const std::string& path, bool exactMatch = false);
    static bool isPathOnTimeMachineVolume(const std::string& path);

    // Name of the user logged in on a local seat (a tty or an X display), or none.
    static std::optional<std::string> currentConsoleUser();
    // The user a root process acts for: the console user's identity when the real user is
    // root and somebody known to the user database other than root is at the console; none
    // otherwise (a process that is not root acts as itself anyway). Files in the user's
    // folders are opened and made under corvina::ScopedFileIdentity with it.
    static std::optional<corvina::UserIdentity> actingUser();

    // "corvina.plist" in the current user's Downloads folder (root rule applies).
    static std::optional<std::string> replaySettingsPath();

    // The folder standing for "/" in local- and system-domain lookups ("/" by default).
    static std::string localRoot();
};

}  // namespace corvina::tq
