#include "Workspace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Foundation/FileOperations.h"
#include "Foundation/Format.h"
#include "Foundation/PosixIO.h"
#include "Foundation/StringUtils.h"
#include "Process/Process.h"

namespace corvina {

namespace {

// mountinfo writes space, tab, newline and backslash as \ooo.
std::string unescapeMountField(const std::string& field)
{
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && std::isdigit(static_cast<unsigned char>(field[i + 1])) &&
            std::isdigit(static_cast<unsigned char>(field[i + 2])) &&
            std::isdigit(static_cast<unsigned char>(field[i + 3]))) {
            out += static_cast<char>(((field[i + 1] - '0') << 6) | ((field[i + 2] - '0') << 3) | (field[i + 3] - '0'));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

bool startsWithFolder(const std::string& path, const std::string& folder)
{
    return path == folder ||
           (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/');
}

// Percent-encodes a path for a trash record: everything but unreserved characters and "/".
std::string encodePath(const std::string& path)
{
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : path) {
        if (std::isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

std::string localStamp(const char* pattern)
{
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    ::localtime_r(&now, &tm);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, pattern, &tm));
}

// Creates a trash folder and its parents (0700, as the trash asks). Made by root on behalf
// of another user, the new folders go to the owner of the nearest folder that existed.
Result<void> makeTrashFolder(const std::string& dir)
{
    std::vector<std::string> created;
    std::string existing = dir;
    while (!existing.empty() && existing != "/" && !itemExists(existing)) {
        created.push_back(existing);
        existing = deletingLastPathComponent(existing);
    }
    for (auto it = created.rbegin(); it != created.rend(); ++it) {
        if (::mkdir(it->c_str(), 0700) != 0 && errno != EEXIST) return Error::fromErrno(errno);
    }
    struct stat owner {};
    if (::geteuid() == 0 && !created.empty() && ::stat(existing.c_str(), &owner) == 0) {
        for (const auto& d : created) ::lchown(d.c_str(), owner.st_uid, owner.st_gid);
    }
    return success();
}

std::string absolutePath(const std::string& path)
{
    std::error_code ec;
    auto abs = std::filesystem::absolute(path, ec);
    if (ec) return path;
    std::string s = abs.lexically_normal().string();
    if (s.size() > 1 && s.back() == '/') s.pop_back();
    return s;
}

}  // namespace

std::vector<MountEntry> mountTable()
{
    std::vector<MountEntry> table;
    std::ifstream in("/proc/self/mountinfo");
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string id, parent, device, root, mountPoint, options;
        if (!(fields >> id >> parent >> device >> root >> mountPoint >> options)) continue;
        std::string word;
        while (fields >> word && word != "-") {}
        MountEntry e;
        if (!(fields >> e.fileSystemType >> e.source)) continue;
        e.mountPoint = unescapeMountField(mountPoint);
        e.source = unescapeMountField(e.source);
        e.mountOptions = options;
        std::sscanf(device.c_str(), "%u:%u", &e.major, &e.minor);
        table.push_back(std::move(e));
    }
    return table;
}

bool isLocalVolume(const MountEntry& e)
{
    for (const char* kernel : {"/proc", "/sys", "/dev"}) {
        if (startsWithFolder(e.mountPoint, kernel)) return false;
    }
    static const std::array<const char*, 18> local = {"tmpfs",   "ramfs",   "ext2",  "ext3",  "ext4",    "xfs",
                                                      "btrfs",   "vfat",    "msdos", "exfat", "ntfs",    "ntfs3",
                                                      "fuseblk", "hfsplus", "f2fs",  "zfs",   "iso9660", "udf"};
    if (std::find(local.begin(), local.end(), e.fileSystemType) != local.end()) return true;
    struct stat st {};
    return e.source.rfind("/dev/", 0) == 0 && ::stat(e.source.c_str(), &st) == 0 && S_ISBLK(st.st_mode);
}

std::vector<std::string> mountedLocalVolumePaths()
{
    std::vector<std::string> paths;
    for (const auto& e : mountTable()) {
        if (isLocalVolume(e) && std::find(paths.begin(), paths.end(), e.mountPoint) == paths.end())
            paths.push_back(e.mountPoint);
    }
    return paths;
}

bool isFilePackageAtPath(const std::string& path) { return isPackagePath(path); }

namespace trash {

std::string infoPathFor(const std::string& destination)
{
    const std::string trashRoot = deletingLastPathComponent(deletingLastPathComponent(destination));
    return appendPathComponent(appendPathComponent(trashRoot, "info"), lastPathComponent(destination) + ".trashinfo");
}

Result<std::string> reserve(const std::string& item, const std::string& filesDir)
{
    const std::string infoDir = appendPathComponent(deletingLastPathComponent(filesDir), "info");
    if (auto made = makeTrashFolder(filesDir); !made) return made.error();
    if (auto made = makeTrashFolder(infoDir); !made) return made.error();

    const std::string original = absolutePath(item);
    const std::string name = lastPathComponent(original);
    const std::string record =
        format("[Trash Info]\nPath=%@\nDeletionDate=%@\n", encodePath(original), localStamp("%Y-%m-%dT%H:%M:%S"));
    const auto taken = [&](const std::string& n) {
        return itemExists(appendPathComponent(filesDir, n)) ||
               itemExists(appendPathComponent(infoDir, n + ".trashinfo"));
    };
    std::string candidate = name;
    std::string dated;
    for (int attempt = 0; attempt < 10000; ++attempt) {
        if (attempt == 0 && !taken(candidate)) {
            // the item's own name
        } else {
            if (dated.empty()) {
                dated = deletingPathExtension(name) + format("_%@.%@", localStamp("%Y%m%d%H%M%S"), pathExtension(name));
                candidate = dated;
            } else {
                const std::string ext = pathExtension(dated);
                candidate = deletingPathExtension(dated) + format(" %li", static_cast<long>(attempt + 1)) +
                            (ext.empty() ? std::string() : "." + ext);
            }
            if (taken(candidate)) continue;
        }
        const std::string infoPath = appendPathComponent(infoDir, candidate + ".trashinfo");
        const int fd = ::open(infoPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            return Error::fromErrno(errno);
        }
        const posix::Transfer written = posix::writeAll(fd, record);
        ::close(fd);
        if (written.failed()) {
            ::unlink(infoPath.c_str());
            return Error::fromErrno(written.error);
        }
        struct stat owner {};
        if (::geteuid() == 0 && ::stat(infoDir.c_str(), &owner) == 0)
            ::chown(infoPath.c_str(), owner.st_uid, owner.st_gid);
        return appendPathComponent(filesDir, candidate);
    }
    return Error::fromErrno(EEXIST);
}

void release(const std::string& destination) { ::unlink(infoPathFor(destination).c_str()); }

Result<std::string> recycle(const std::string& item, const std::string& filesDir)
{
    if (!itemExists(item)) return Error::fromErrno(ENOENT);
    auto destination = reserve(item, filesDir);
    if (!destination) return destination;
    if (auto moved = moveItem(item, *destination); !moved) {
        // A move across file systems that failed after copying keeps the copy, and so its record.
        if (!itemExists(*destination)) release(*destination);
        return moved.error();
    }
    return destination;
}

}  // namespace trash

}  // namespace corvina
