#include "tq/TQLocalPaths.h"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>
#include <utmpx.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string_view>
#include <vector>

#include "Foundation/ProcessInfo.h"
#include "Foundation/StringUtils.h"

namespace corvina::tq {

namespace {

using corvina::appendPathComponent;

bool testVariablesHonoured() { return getuid() == geteuid(); }

std::optional<std::string> environment(const char* name)
{
    const char* v = std::getenv(name);
    if (!v) return std::nullopt;
    return std::string(v);
}

std::optional<passwd> lookupUser(uid_t uid, const char* name, std::string& buffer)
{
    passwd pw{};
    passwd* result = nullptr;
    buffer.assign(16384, '\0');
    int rc = name ? getpwnam_r(name, &pw, buffer.data(), buffer.size(), &result)
                  : getpwuid_r(uid, &pw, buffer.data(), buffer.size(), &result);
    if (rc != 0 || !result) return std::nullopt;
    return pw;
}

// The process's own home folder: $HOME, else the user database.
std::optional<std::string> ownHome()
{
    if (auto home = environment("HOME"); home && !home->empty()) return home;
    std::string buffer;
    if (auto pw = lookupUser(getuid(), nullptr, buffer); pw && pw->pw_dir && *pw->pw_dir)
        return std::string(pw->pw_dir);
    return std::nullopt;
}

std::optional<std::string> homeOfUser(const std::string& name)
{
    std::string buffer;
    if (auto pw = lookupUser(0, name.c_str(), buffer); pw && pw->pw_dir && *pw->pw_dir) return std::string(pw->pw_dir);
    return std::nullopt;
}

std::string ownUserName()
{
    std::string buffer;
    if (auto pw = lookupUser(getuid(), nullptr, buffer); pw && pw->pw_name) return pw->pw_name;
    if (auto user = environment("USER")) return *user;
    return std::to_string(getuid());
}

// Home folder the user-domain lookups are answered for (the root rule).
std::optional<std::string> effectiveHome()
{
    if (getuid() == 0) {
        if (auto console = TQLocalPaths::currentConsoleUser()) return homeOfUser(*console);
    }
    return ownHome();
}

bool isOwnHome(const std::string& home)
{
    auto own = ownHome();
    return own && *own == home;
}

// One entry of ~/.config/user-dirs.dirs (XDG_DOCUMENTS_DIR etc.), resolved against home.
std::optional<std::string> xdgUserDir(const std::string& home, std::string_view key)
{
    std::string config = appendPathComponent(home, ".config");
    if (isOwnHome(home)) {
        if (auto xdg = environment("XDG_CONFIG_HOME"); xdg && !xdg->empty() && (*xdg)[0] == '/') config = *xdg;
    }
    std::ifstream in(appendPathComponent(config, "user-dirs.dirs"));
    std::string line;
    std::optional<std::string> found;
    while (std::getline(in, line)) {
        std::string_view l = corvina::trimWhitespace(line);
        if (l.empty() || l[0] == '#' || l.substr(0, key.size()) != key || l.size() <= key.size() ||
            l[key.size()] != '=')
            continue;
        std::string_view value = l.substr(key.size() + 1);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
        std::string resolved;
        if (value.substr(0, 5) == "$HOME") {
            std::string_view rest = value.substr(5);
            if (!rest.empty() && rest[0] != '/') continue;
            resolved = home + std::string(rest);
        } else if (!value.empty() && value[0] == '/') {
            resolved = std::string(value);
        } else {
            continue;
        }
        while (resolved.size() > 1 && resolved.back() == '/') resolved.pop_back();
        // An entry pointing at the home folder itself means the folder is switched off.
        if (resolved == home || resolved.empty())
            found.reset();
        else
            found = resolved;
    }
    return found;
}

std::optional<std::string> userDomainPath(TQLocalPaths::Directory code, const std::string& home)
{
    using D = TQLocalPaths::Directory;
    auto xdgOr = [&](std::string_view key, const char* fallback) {
        if (auto dir = xdgUserDir(home, key)) return *dir;
        return appendPathComponent(home, fallback);
    };
    switch (code) {
    case D::Application:
        return appendPathComponent(home, "Applications");
    case D::AdminApplication:
        return appendPathComponent(home, "Applications/Utilities");
    case D::DemoApplication:
        return appendPathComponent(home, "Applications/Demos");
    case D::DeveloperApplication:
        return appendPathComponent(home, "Developer/Applications");
    case D::Developer:
        return appendPathComponent(home, "Developer");
    case D::Library:
        return appendPathComponent(home, "Library");
    case D::Documentation:
        return appendPathComponent(home, "Library/Documentation");
    case D::AutosavedInformation:
        return appendPathComponent(home, "Library/Autosave Information");
    case D::Caches:
        return appendPathComponent(home, "Library/Caches");
    case D::ApplicationSupport:
        return appendPathComponent(home, "Library/Application Support");
    case D::InputMethods:
        return appendPathComponent(home, "Library/Input Methods");
    case D::Document:
        return xdgOr("XDG_DOCUMENTS_DIR", "Documents");
    case D::Desktop:
        return xdgOr("XDG_DESKTOP_DIR", "Desktop");
    case D::Movies:
        return xdgOr("XDG_VIDEOS_DIR", "Videos");
    case D::Downloads:
        return xdgOr("XDG_DOWNLOAD_DIR", "Downloads");
    case D::Music:
        return xdgOr("XDG_MUSIC_DIR", "Music");
    case D::Pictures:
        return xdgOr("XDG_PICTURES_DIR", "Pictures");
    case D::User:
    case D::CoreService:
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<std::string> localDomainPath(TQLocalPaths::Directory code)
{
    using D = TQLocalPaths::Directory;
    const std::string root = TQLocalPaths::localRoot();
    const char* relative = nullptr;
    switch (code) {
    case D::Application:
        relative = "Applications";
        break;
    case D::AdminApplication:
        relative = "Applications/Utilities";
        break;
    case D::DemoApplication:
        relative = "Applications/Demos";
        break;
    case D::DeveloperApplication:
        relative = "Developer/Applications";
        break;
    case D::Developer:
        relative = "Developer";
        break;
    case D::Library:
        relative = "Library";
        break;
    case D::Documentation:
        relative = "Library/Documentation";
        break;
    case D::Caches:
        relative = "Library/Caches";
        break;
    case D::ApplicationSupport:
        relative = "Library/Application Support";
        break;
    case D::InputMethods:
        relative = "Library/Input Methods";
        break;
    case D::User:
        relative = "home";
        break;
    default:
        return std::nullopt;
    }
    return appendPathComponent(root, relative);
}

std::optional<std::string> systemDomainPath(TQLocalPaths::Directory code)
{
    using D = TQLocalPaths::Directory;
    const std::string root = TQLocalPaths::localRoot();
    switch (code) {
    case D::Library:
        return appendPathComponent(root, "System/Library");
    case D::CoreService:
        return appendPathComponent(root, "System/Library/CoreServices");
    case D::Application:
        return appendPathComponent(root, "System/Applications");
    default:
        return std::nullopt;
    }
}

std::optional<std::string> appended(const std::optional<std::string>& path, std::string_view component)
{
    if (!path) return std::nullopt;
    return appendPathComponent(*path, component);
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

bool processAlive(pid_t pid)
{
    if (pid <= 0) return true;
    return kill(pid, 0) == 0 || errno == EPERM;
}

}  // namespace

std::string TQLocalPaths::localRoot()
{
    if (testVariablesHonoured()) {
        if (auto root = environment("TQ_LOCAL_ROOT"); root && !root->empty()) return *root;
    }
    return "/";
}

std::optional<std::string> TQLocalPaths::pathForDirectory(Directory code, unsigned domainMask)
{
    if (domainMask & UserDomainMask) {
        // As root the user domain is the console user's; their own user-dirs apply.
        if (auto home = domainMask == UserDomainMask ? effectiveHome() : ownHome()) {
            if (auto path = userDomainPath(code, *home)) return path;
        } else if (domainMask == UserDomainMask) {
            return std::nullopt;
        }
    }
    if (domainMask & LocalDomainMask) {
        if (auto path = localDomainPath(code)) return path;
    }
    if (domainMask & SystemDomainMask) {
        if (auto path = systemDomainPath(code)) return path;
    }
    return std::nullopt;
}

static TQLocalPaths::DomainMask domainFor(bool user)
{
    return user ? TQLocalPaths::UserDomainMask : TQLocalPaths::LocalDomainMask;
}

std::optional<std::string> TQLocalPaths::applicationDirectory(bool user)
{
    return pathForDirectory(Directory::Application, domainFor(user));
}
std::optional<std::string> TQLocalPaths::adminApplicationDirectory(bool user)
{
    return pathForDirectory(Directory::AdminApplication, domainFor(user));
}
std::optional<std::string> TQLocalPaths::documentDirectory(bool user)
{
    return pathForDirectory(Directory::Document, domainFor(user));
}
std::optional<std::string> TQLocalPaths::libraryDirectory(bool user)
{
    return pathForDirectory(Directory::Library, domainFor(user));
}
std::optional<std::string> TQLocalPaths::prefsDirectory(bool user)
{
    return appended(libraryDirectory(user), "Preferences");
}
std::optional<std::string> TQLocalPaths::cacheDirectory(bool user)
{
    return pathForDirectory(Directory::Caches, domainFor(user));
}
std::optional<std::string> TQLocalPaths::appSupportDirectory(bool user)
{
    return pathForDirectory(Directory::ApplicationSupport, domainFor(user));
}
std::optional<std::string> TQLocalPaths::logDirectory(bool user) { return appended(libraryDirectory(user), "Logs"); }
std::optional<std::string> TQLocalPaths::movieDirectory()
{
    return pathForDirectory(Directory::Movies, UserDomainMask);
}
std::optional<std::string> TQLocalPaths::desktopDirectory()
{
    return pathForDirectory(Directory::Desktop, UserDomainMask);
}
std::optional<std::string> TQLocalPaths::downloadsDirectory()
{
    return pathForDirectory(Directory::Downloads, UserDomainMask);
}
std::optional<std::string> TQLocalPaths::systemLibraryDirectory()
{
    return pathForDirectory(Directory::Library, SystemDomainMask);
}
std::optional<std::string> TQLocalPaths::localDocumentationDirectory()
{
    return pathForDirectory(Directory::Documentation, LocalDomainMask);
}

std::optional<std::string> TQLocalPaths::userDirectory() { return effectiveHome(); }

std::string TQLocalPaths::username()
{
    if (getuid() == 0) {
        if (auto console = currentConsoleUser()) return *console;
    }
    return ownUserName();
}

std::optional<std::string> TQLocalPaths::trashDirectory()
{
    auto home = effectiveHome();
    if (!home) return std::nullopt;
    std::string data = appendPathComponent(*home, ".local/share");
    if (isOwnHome(*home)) {
        if (auto xdg = environment("XDG_DATA_HOME"); xdg && !xdg->empty() && (*xdg)[0] == '/') data = *xdg;
    }
    return appendPathComponent(data, "Trash/files");
}

std::string TQLocalPaths::tempDirectory()
{
    std::string dir = "/tmp";
    if (auto tmp = environment("TMPDIR"); tmp && !tmp->empty()) dir = *tmp;
    return *ensureTrailingSlash(dir);
}

std::optional<std::string> TQLocalPaths::darwinCacheDirectory()
{
    if (auto cache = environment("XDG_CACHE_HOME"); cache && !cache->empty()) return cache;
    if (auto home = ownHome()) return appendPathComponent(*home, ".cache");
    return std::nullopt;
}

std::string TQLocalPaths::tempFile() { return appendPathComponent(tempDirectory(), uuid() + randomString(8)); }

std::string TQLocalPaths::uuid() { return corvina::processinfo::globallyUniqueString(); }

std::string TQLocalPaths::randomString(size_t length)
{
    static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";
    srand(static_cast<unsigned>(static_cast<unsigned long long>(clock()) *
                                static_cast<unsigned long long>(time(nullptr))));
    std::string out;
    out.reserve(length);
    for (size_t i = 0; i < length; ++i) out += kAlphabet[rand() % 36];
    return out;
}

std::optional<std::string> TQLocalPaths::ensureTrailingSlash(const std::optional<std::string>& path)
{
    if (!path || path->empty() || path->back() == '/') return path;
    return *path + "/";
}

std::optional<std::string> TQLocalPaths::stripTrailingSlash(const std::optional<std::string>& path)
{
    if (!path || path->size() < 2 || path->back() != '/') return path;
    return path->substr(0, path->size() - 1);
}

namespace {

// Repeated slashes, "." components and trailing slashes gone, and ".." taken back over the
// name before it (the root's ".." is the root): "//usr/./bin/.." is "/usr".
std::string lexicallyNormal(std::string_view path)
{
    const bool absolute = !path.empty() && path.front() == '/';
    std::vector<std::string_view> parts;
    while (!path.empty()) {
        const auto slash = path.find('/');
        const std::string_view part = path.substr(0, slash);
        path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
        if (part.empty() || part == ".") continue;
        if (part != "..") {
            parts.push_back(part);
        } else if (!parts.empty() && parts.back() != "..") {
            parts.pop_back();
        } else if (!absolute) {
            parts.push_back(part);
        }
    }
    std::string out = absolute ? "/" : "";
    for (size_t i = 0; i < parts.size(); ++i) out.append(i ? "/" : "").append(parts[i]);
    return out.empty() ? "." : out;
}

// The item an operation on the path acts on, with every link on the way resolved: the
// path's folder resolved plus its own name (a link at the end is the item itself), or the
// whole path resolved when it ends in "/", "." or "..". None when that cannot be resolved.
std::optional<std::string> physicalPath(const std::string& path)
{
    const auto resolved = [](const std::string& p) -> std::optional<std::string> {
        char buffer[PATH_MAX];
        if (!::realpath(p.c_str(), buffer)) return std::nullopt;
        return std::string(buffer);
    };
    const auto slash = path.rfind('/');
    const std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    if (last.empty() || last == "." || last == "..") return resolved(path);
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const auto real = resolved(folder);
    if (!real) return std::nullopt;
    return *real == "/" ? "/" + last : *real + "/" + last;
}

// This system's own folders, protected themselves. A name beginning with "lib" at the top
// stands for /lib, /lib32, /lib64, /libx32 and the like.
constexpr std::string_view kSystemFolders[] = {"/",     "/bin", "/boot", "/dev", "/etc", "/home", "/opt", "/proc",
                                               "/root", "/run", "/sbin", "/srv", "/sys", "/usr",  "/var"};
// Everything below these is protected too, unless the test asks for an exact match.
constexpr std::string_view kSystemTrees[] = {"/usr/",  "/var/", "/bin/", "/sbin/", "/private/var/", "/System/",
                                             "/boot/", "/dev/", "/etc/", "/proc/", "/sys/"};

bool isTopLevelLibrary(std::string_view path, bool below)
{
    if (!startsWith(path, "/lib")) return false;
    const auto slash = path.find('/', 1);
    return below ? slash != std::string_view::npos && slash + 1 < path.size() : slash == std::string_view::npos;
}

}  // namespace

bool TQLocalPaths::isPathSystemDirectory(const std::string& input, bool exactMatch)
{
    if (input == "/") return true;
    if (input.size() < 3 && lexicallyNormal(input) != "/") return false;

    const std::optional<std::string> listed[] = {
        applicationDirectory(true),
        applicationDirectory(false),
        adminApplicationDirectory(true),
        adminApplicationDirectory(false),
        documentDirectory(true),
        documentDirectory(false),
        libraryDirectory(true),
        libraryDirectory(false),
        prefsDirectory(true),
        prefsDirectory(false),
        cacheDirectory(true),
        cacheDirectory(false),
        appSupportDirectory(true),
        appSupportDirectory(false),
        desktopDirectory(),
        userDirectory(),
        systemLibraryDirectory(),
        localDocumentationDirectory(),
        std::string("/Users/Shared"),
        std::string("/System"),
    };
    // Every spelling of the path counts: as written (less one trailing slash, as designed),
    // normalised, and where it leads on disk.
    std::string written = input;
    if (written.back() == '/') written.pop_back();
    const std::optional<std::string> spellings[] = {written, lexicallyNormal(input), physicalPath(input)};
    for (const auto& spelling : spellings) {
        if (!spelling) continue;
        const std::string& path = *spelling;
        if (std::ranges::find(kSystemFolders, path) != std::end(kSystemFolders) || isTopLevelLibrary(path, false))
            return true;
        for (const auto& dir : listed) {
            if (dir && (*dir == path || lexicallyNormal(*dir) == path)) return true;
        }
        if (exactMatch) continue;
        if (startsWith(path, "/usr/local/")) continue;
        if (isTopLevelLibrary(path, true)) return true;
        for (const auto prefix : kSystemTrees) {
            if (startsWith(path, prefix)) return true;
        }
    }
    return false;
}

bool TQLocalPaths::isPathOnTimeMachineVolume(const std::string& path)
{
    if (!startsWith(path, "/Volumes/")) return false;
    for (const auto& component : corvina::pathComponents(path)) {
        if (component == "Backups.backupdb") return true;
    }
    return false;
}

std::optional<corvina::UserIdentity> TQLocalPaths::actingUser()
{
    if (getuid() != 0) return std::nullopt;
    const auto console = currentConsoleUser();
    if (!console) return std::nullopt;
    auto user = corvina::UserIdentity::forName(*console);
    if (!user || user->uid == 0) return std::nullopt;
    return user;
}

std::optional<std::string> TQLocalPaths::currentConsoleUser()
{
    if (testVariablesHonoured()) {
        if (auto user = environment("TQ_CONSOLE_USER")) return user->empty() ? std::nullopt : user;
    }
    // Read the utmp file directly: the getutxent family keeps hidden state per process.
    FILE* f = std::fopen(_PATH_UTMPX, "rb");
    if (!f) return std::nullopt;
    std::optional<std::string> found;
    utmpx entry{};
    while (std::fread(&entry, sizeof entry, 1, f) == 1) {
        if (entry.ut_type != USER_PROCESS) continue;
        std::string line(entry.ut_line, strnlen(entry.ut_line, sizeof entry.ut_line));
        std::string host(entry.ut_host, strnlen(entry.ut_host, sizeof entry.ut_host));
        std::string user(entry.ut_user, strnlen(entry.ut_user, sizeof entry.ut_user));
        bool local = startsWith(line, "tty") || startsWith(line, ":") || startsWith(host, ":");
        if (local && !user.empty() && processAlive(entry.ut_pid)) {
            found = user;
            break;
        }
    }
    std::fclose(f);
    return found;
}

std::optional<std::string> TQLocalPaths::replaySettingsPath()
{
    return appended(downloadsDirectory(), "corvina.plist");
}

}  // namespace corvina::tq
