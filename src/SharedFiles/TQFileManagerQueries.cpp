// Read-only questions about files, folders and volumes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <utility>

#include "Foundation/FileOperations.h"
#include "Foundation/Format.h"
#include "Foundation/StringUtils.h"
#include "tq/TQFileManager.h"
#include "Workspace/Workspace.h"

namespace corvina::tq {

using corvina::Value;

namespace {

using Identity = std::pair<dev_t, ino_t>;

corvina::Date toDate(int64_t seconds, uint32_t nanoseconds)
{
    return corvina::Date(std::chrono::duration_cast<corvina::Clock::duration>(std::chrono::seconds(seconds) +
                                                                              std::chrono::nanoseconds(nanoseconds)));
}

// A folder reached through links is only walked once, so a link back up the tree ends.
bool enterFolder(const std::string& path, std::set<Identity>& visited)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    return visited.insert({st.st_dev, st.st_ino}).second;
}

uint64_t sizeBelow(const std::string& path, std::set<Identity>& visited)
{
    if (TQFileManager::isDirectoryAtPath(path)) {
        if (!enterFolder(path, visited)) return 0;
        uint64_t total = 0;
        for (const auto& name : corvina::directoryContents(path)) total += sizeBelow(path + "/" + name, visited);
        return total;
    }
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return 0;
    return static_cast<uint64_t>(st.st_size);
}

bool emptyBelow(const std::string& path, std::set<Identity>& visited)
{
    const auto entries = corvina::directoryContents(path);
    if (entries.empty()) return true;
    const auto clutter = [](const std::string& n) { return n == ".DS_Store" || n == "Icon\r"; };
    if (entries.size() == 1 && clutter(entries[0])) return true;
    enterFolder(path, visited);
    for (const auto& name : entries) {
        if (clutter(name)) continue;
        const std::string entry = path + "/" + name;
        if (!TQFileManager::isDirectoryAtPath(entry)) return false;
        if (!enterFolder(entry, visited)) continue;  // walked already
        if (!emptyBelow(entry, visited)) return false;
    }
    return true;
}

bool underVolumes(const std::string& path, const std::string& prefix) { return path.rfind(prefix, 0) == 0; }

bool volumeOfPathExists(const std::string& path)
{
    const auto parts = corvina::pathComponents(path);
    if (parts.size() < 3) return true;
    return TQFileManager::fileExistsAtPath("/" + parts[1] + "/" + parts[2]);
}

// The name of the /dev/disk/by-* link that leads to the device, with its \xHH escapes undone.
std::optional<std::string> diskLinkName(const std::string& folder, const std::string& device)
{
    std::error_code ec;
    for (const auto& link : std::filesystem::directory_iterator(folder, ec)) {
        std::error_code ec2;
        if (std::filesystem::canonical(link.path(), ec2) != device || ec2) continue;
        const std::string raw = link.path().filename().string();
        std::string name;
        for (size_t i = 0; i < raw.size(); ++i) {
            if (raw.compare(i, 2, "\\x") == 0 && i + 3 < raw.size()) {
                name += static_cast<char>(std::strtol(raw.substr(i + 2, 2).c_str(), nullptr, 16));
                i += 3;
            } else {
                name += raw[i];
            }
        }
        return name;
    }
    return std::nullopt;
}

}  // namespace

bool TQFileManager::fileExistsAtPath(const std::string& path)
{
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0;
}

bool TQFileManager::isDirectoryAtPath(const std::string& path)
{
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool TQFileManager::isPackageAtPath(const std::string& path) { return corvina::isFilePackageAtPath(path); }

bool TQFileManager::isSymbolicLinkAtPath(const std::string& path)
{
    char target[1];
    return !path.empty() && ::readlink(path.c_str(), target, sizeof target) >= 0;
}

bool TQFileManager::isVolumeMountedForPath(const std::string& path)
{
    return !underVolumes(path, "/Volumes") || volumeOfPathExists(path);
}

bool TQFileManager::isDriveMountedForPath(const std::string& path)
{
    return !underVolumes(path, "/Volumes/") || volumeOfPathExists(path);
}

std::vector<std::string> TQFileManager::mountedLocalVolumePaths() { return corvina::mountedLocalVolumePaths(); }

std::optional<std::string> TQFileManager::volumeMountPointForPath(const std::string& path)
{
    // Mounts nest here, so the deepest mount point that holds the path is its volume.
    std::optional<std::string> best;
    for (const auto& volume : mountedLocalVolumePaths()) {
        if (volume == "/") continue;
        const bool inside =
            path == volume ||
            (path.size() > volume.size() && path.compare(0, volume.size(), volume) == 0 && path[volume.size()] == '/');
        if (inside && (!best || volume.size() > best->size())) best = volume;
    }
    if (best) return best;
    if (underVolumes(path, "/Volumes")) return std::nullopt;
    return std::string("/");
}

std::optional<corvina::Date> TQFileManager::modificationDateForFile(const std::string& path)
{
    struct stat st {};
    if (path.empty() || ::lstat(path.c_str(), &st) != 0) return std::nullopt;
    return toDate(st.st_mtim.tv_sec, static_cast<uint32_t>(st.st_mtim.tv_nsec));
}

std::optional<corvina::Date> TQFileManager::creationDateForFile(const std::string& path)
{
    struct statx stx {};
    if (path.empty() || ::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &stx) != 0)
        return std::nullopt;
    if (!(stx.stx_mask & STATX_BTIME)) return std::nullopt;
    return toDate(stx.stx_btime.tv_sec, stx.stx_btime.tv_nsec);
}

uint64_t TQFileManager::fileSize(const std::string& path)
{
    std::set<Identity> visited;
    return sizeBelow(path, visited);
}

bool TQFileManager::isFolderEmpty(const std::string& path)
{
    std::set<Identity> visited;
    return emptyBelow(path, visited);
}

std::string TQFileManager::uniqueFilename(const std::string& path)
{
    // Anything at a path makes it taken, a dangling link too: writing through one would land
    // somewhere else.
    if (!corvina::itemExists(path)) return path;
    const std::string stem = corvina::deletingPathExtension(path);
    const std::string ext = corvina::pathExtension(path);
    for (long k = 2;; ++k) {
        std::string candidate = stem + corvina::format(" %li", k);
        if (!ext.empty()) candidate += "." + ext;
        if (!corvina::itemExists(candidate)) return candidate;
    }
}

TQFileManager::FSRef TQFileManager::stringToFSRef(const std::string& path)
{
    FSRef ref;
    struct stat st {};
    if (path.empty() || ::stat(path.c_str(), &st) != 0) return ref;
    std::error_code ec;
    const auto absolute = std::filesystem::canonical(path, ec);
    if (ec) return ref;
    ref.valid = true;
    ref.path = absolute.string();
    ref.device = st.st_dev;
    ref.inode = st.st_ino;
    return ref;
}

std::optional<std::string> TQFileManager::stringWithFSRef(const FSRef* ref)
{
    if (!ref || !ref->valid) return std::nullopt;
    struct stat st {};
    if (::stat(ref->path.c_str(), &st) != 0 || st.st_dev != ref->device || st.st_ino != ref->inode) return std::nullopt;
    return ref->path;
}

std::optional<Value> TQFileManager::infoForDiskAtMountpoint(const std::string& mountPoint)
{
    if (mountPoint.empty()) return std::nullopt;
    std::string wanted = mountPoint;
    while (wanted.size() > 1 && wanted.back() == '/') wanted.pop_back();
    std::optional<corvina::MountEntry> found;
    for (auto& e : corvina::mountTable()) {
        if (e.mountPoint == wanted || e.source == wanted) found = std::move(e);  // the last mount on top wins
    }
    if (!found) return std::nullopt;
    struct statvfs vfs {};
    if (::statvfs(found->mountPoint.c_str(), &vfs) != 0) return std::nullopt;

    Value::DictionaryType info;
    info["MountPoint"] = found->mountPoint;
    info["FilesystemType"] = found->fileSystemType;
    info["FilesystemName"] = found->fileSystemType;
    info["TotalSize"] = static_cast<uint64_t>(vfs.f_blocks) * vfs.f_frsize;
    info["FreeSpace"] = static_cast<uint64_t>(vfs.f_bavail) * vfs.f_frsize;
    info["VolumeAllocationBlockSize"] = static_cast<uint64_t>(vfs.f_frsize);
    info["WritableVolume"] = (vfs.f_flag & ST_RDONLY) == 0;
    std::string volumeName = corvina::lastPathComponent(found->mountPoint);
    if (found->source.rfind("/dev/", 0) == 0) {
        std::error_code ec;
        const auto device = std::filesystem::canonical(found->source, ec);
        const std::string node = ec ? found->source : device.string();
        info["DeviceNode"] = node;
        info["DeviceIdentifier"] = corvina::lastPathComponent(node);
        if (!ec) {
            if (auto label = diskLinkName("/dev/disk/by-label", node)) volumeName = *label;
            if (auto uuid = diskLinkName("/dev/disk/by-uuid", node)) info["VolumeUUID"] = *uuid;
        }
    }
    info["VolumeName"] = volumeName;
    return Value(std::move(info));
}

}  // namespace corvina::tq
