// What the file browser shows about an item: the locked flag, permissions, extended
// attributes, the progress attribute and the colour label.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Foundation/FileOperations.h"
#include "Foundation/Format.h"
#include "Foundation/SystemLog.h"
#include "tq/TQFileManager.h"
#include "tq/TQLog.h"

namespace corvina::tq {

namespace {

constexpr const char* kProgressAttribute = "com.apple.progress.fractionCompleted";
constexpr const char* kFinderInfoAttribute = "com.apple.FinderInfo";
constexpr size_t kFinderInfoSize = 32;
constexpr size_t kLabelByte = 9;

std::string errorDescription(int err) { return corvina::Error::fromErrno(err).localizedDescription; }

// The item's immutable flag as statx reports it, without opening the item. `known` is
// false where the file system does not report the flag (it has none).
struct FlagState {
    int err = 0;
    bool known = false;
    bool immutable = false;
    bool link = false;
    mode_t type = 0;
};

FlagState flagState(const std::string& path)
{
    FlagState s;
    struct statx stx {};
    if (path.empty()) {
        s.err = ENOENT;
    } else if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &stx) != 0) {
        s.err = errno;
    } else {
        s.type = stx.stx_mode & S_IFMT;
        s.link = S_ISLNK(stx.stx_mode);
        s.known = (stx.stx_attributes_mask & STATX_ATTR_IMMUTABLE) != 0;
        s.immutable = (stx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
    }
    return s;
}

// Sets or clears the flag through the inode-flag ioctls, which need a descriptor. Only files
// and folders are opened: opening a device or a pipe could have effects of its own, and a
// link carries no flag.
int changeImmutable(const std::string& path, const FlagState& state, bool on)
{
    if (state.link || (!S_ISREG(state.type) && !S_ISDIR(state.type))) return EOPNOTSUPP;
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return errno;
    int err = 0;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
        err = errno;
    } else {
        const int wanted = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
        if (wanted != flags && ::ioctl(fd, FS_IOC_SETFLAGS, &wanted) != 0) err = errno;
    }
    ::close(fd);
    return err == ENOTTY ? EOPNOTSUPP : err;
}

bool isRealFolder(const std::string& path)
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

template <class OnFile>
void walkFiles(const std::string& folder, OnFile onFile)
{
    for (const auto& name : corvina::directoryContents(folder)) {
        const std::string entry = folder + "/" + name;
        if (isRealFolder(entry)) {
            walkFiles(entry, onFile);
        } else {
            onFile(entry);
        }
    }
}

// Linux attribute names need a namespace; a name without one lives under "user.".
std::string attributeName(const std::string& key)
{
    for (const char* ns : {"user.", "trusted.", "security.", "system."}) {
        if (key.rfind(ns, 0) == 0) return key;
    }
    return "user." + key;
}

bool validUtf8(const std::string& s)
{
    for (size_t i = 0; i < s.size();) {
        const auto c = static_cast<unsigned char>(s[i]);
        size_t extra = 0;
        uint32_t cp = 0;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            extra = 1;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            extra = 2;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            extra = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + extra >= s.size()) return false;
        for (size_t k = 1; k <= extra; ++k) {
            const auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        static constexpr uint32_t minimum[] = {0, 0x80, 0x800, 0x10000};
        if (cp < minimum[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += extra + 1;
    }
    return true;
}

std::array<uint8_t, kFinderInfoSize> readFinderInfo(const std::string& path, bool* present = nullptr)
{
    std::array<uint8_t, kFinderInfoSize> info{};
    const ssize_t n = ::getxattr(path.c_str(), attributeName(kFinderInfoAttribute).c_str(), info.data(), info.size());
    if (present) *present = n > 0;
    if (n < 0) info.fill(0);
    return info;
}

}  // namespace

bool TQFileManager::isFileLocked(const std::string& path)
{
    const FlagState s = flagState(path);
    return s.err == 0 && s.known && s.immutable;
}

void TQFileManager::lockFile(const std::string& path)
{
    const FlagState s = flagState(path);
    int err = s.err;
    if (!err && !(s.known && s.immutable)) err = changeImmutable(path, s, true);
    if (err) TQLog::fastAppendLog("Unable to lock file %@: %@", path, errorDescription(err));
}

void TQFileManager::unlockFile(const std::string& path)
{
    // Only a flag that is set is cleared: an unlocked item (or one on a file system without
    // the flag) is never opened, so an unreadable item is no failure.
    const FlagState s = flagState(path);
    int err = s.err;
    if (!err && s.known && s.immutable) {
        err = changeImmutable(path, s, false);
    } else if (!err && !s.known) {
        // A file system that does not report the flag may still keep it (some stacked file
        // systems): ask it. An item without the flag, or one this user may not open, is no
        // unlock failure; an operation that then fails reports that itself.
        err = changeImmutable(path, s, false);
        if (err == EOPNOTSUPP || err == EACCES) err = 0;
    }
    if (err) TQLog::fastAppendLog("Unable to unlock file %@: %@", path, errorDescription(err));
}

void TQFileManager::lockFolder(const std::string& folder)
{
    walkFiles(folder, [](const std::string& file) { lockFile(file); });
}

void TQFileManager::unlockFolder(const std::string& folder)
{
    walkFiles(folder, [](const std::string& file) { unlockFile(file); });
}

void TQFileManager::setPosixPermissions(mode_t mode, const std::string& path)
{
    if (::chmod(path.c_str(), mode & 07777) != 0)
        TQLog::appendLog("Error setting permissions for file %@: %@", path, errorDescription(errno));
}

void TQFileManager::disableFileSystemCachingForFile(const std::string&) {}

std::optional<std::string> TQFileManager::metadataValueForKey(const std::string& key, const std::string& path)
{
    const std::string name = attributeName(key);
    const ssize_t size = ::getxattr(path.c_str(), name.c_str(), nullptr, 0);
    const int err = errno;
    corvina::systemLog("buffer val: %i", static_cast<int>(size));
    if (size < 0) {
        corvina::systemLog("Error retrieving file attribute: %i", err);
        return std::nullopt;
    }
    if (size == 0) return std::nullopt;
    std::string value(static_cast<size_t>(size), '\0');
    const ssize_t got = ::getxattr(path.c_str(), name.c_str(), value.data(), value.size());
    if (got < 0) return std::nullopt;
    value.resize(static_cast<size_t>(got));
    if (!validUtf8(value)) return std::nullopt;
    return value;
}

bool TQFileManager::setMetadataValue(const std::string& value, const std::string& key, const std::string& path)
{
    const int result = ::setxattr(path.c_str(), attributeName(key).c_str(), value.data(), value.size(), 0);
    if (result == 0) return true;
    corvina::systemLog("Error setting extended attribute for file %@ - %i", path, result);
    return false;
}

void TQFileManager::setFinderProgress(float fraction, const std::string& path)
{
    // The file browser also wants a creation date of 1984-01-24 08:00:00 +0000 on a file in
    // progress (and the modification date back afterwards); creation dates cannot be set
    // here, so only the attribute is written.
    const std::string name = attributeName(kProgressAttribute);
    if (fraction < 0) {
        ::removexattr(path.c_str(), name.c_str());
        return;
    }
    const std::string text = corvina::format("%0.3f", fraction);
    ::setxattr(path.c_str(), name.c_str(), text.data(), text.size(), 0);
}

void TQFileManager::removeFinderProgressForFile(const std::string& path) { setFinderProgress(-1.0f, path); }

long TQFileManager::finderColorIndexForPath(const std::string& path)
{
    const auto info = readFinderInfo(path);
    return (info[kLabelByte] >> 1) & 7;
}

void TQFileManager::setFinderColorIndex(unsigned index, const std::string& path)
{
    if (path.empty()) return;
    bool present = false;
    auto info = readFinderInfo(path, &present);
    info[kLabelByte] = static_cast<uint8_t>((info[kLabelByte] & ~0x0E) | ((index & 7) << 1));
    const std::string name = attributeName(kFinderInfoAttribute);
    bool allZero = true;
    for (uint8_t b : info) allZero = allZero && b == 0;
    if (allZero) {
        // A record of nothing but zeros is no record: file servers leave none behind.
        if (present) ::removexattr(path.c_str(), name.c_str());
        return;
    }
    ::setxattr(path.c_str(), name.c_str(), info.data(), info.size(), 0);
}

std::optional<TQFileManager::Color> TQFileManager::finderColorForColorIndex(long index)
{
    static constexpr std::array<Color, 7> colors = {{
        {0.0, 0.0, 0.72, 1.0},
        {0.2056, 0.5, 0.85, 1.0},
        {0.7917, 0.26, 0.86, 1.0},
        {0.5789, 0.56, 0.98, 1.0},
        {0.1388, 0.54, 0.95, 1.0},
        {0.0083, 0.54, 1.0, 1.0},
        {0.0888, 0.52, 0.98, 1.0},
    }};
    if (index < 1 || index > 7) return std::nullopt;
    return colors[static_cast<size_t>(index - 1)];
}

std::optional<TQFileManager::Color> TQFileManager::finderColorForPath(const std::string& path)
{
    return finderColorForColorIndex(finderColorIndexForPath(path));
}

void TQFileManager::notifyFileSystemChanged(const std::string& path)
{
    const FSRef ref = stringToFSRef(path);
    SendFinderSyncEvent(&ref);
}

bool TQFileManager::registerApplicationWithLaunchServices(const std::string&) { return false; }

int32_t SendFinderSyncEvent(const TQFileManager::FSRef* ref)
{
    constexpr int32_t kParameterError = -50;
    constexpr int32_t kNotImplemented = -4;
    if (!ref || !ref->valid) return kParameterError;
    return kNotImplemented;
}

}  // namespace corvina::tq
