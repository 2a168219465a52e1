#include "TQFileManager.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <thread>

#include "Dispatch/Dispatch.h"
#include "TQAuthorization.h"
#include "TQLog.h"

namespace {

// Reads or changes the inode flags of the item the path leads to (the flag ioctls need a
// real descriptor, so a final symbolic link is followed).
struct FlagResult {
    bool ok = false;
    int err = 0;
    int flags = 0;
};

class FlagHandle {
public:
    explicit FlagHandle(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)), err_(errno) {}
    ~FlagHandle()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    FlagHandle(const FlagHandle&) = delete;
    FlagHandle& operator=(const FlagHandle&) = delete;

    FlagResult get() const
    {
        if (fd_ < 0) return {false, err_, 0};
        int flags = 0;
        if (::ioctl(fd_, FS_IOC_GETFLAGS, &flags) != 0) return {false, errno, 0};
        return {true, 0, flags};
    }
    FlagResult setImmutable(bool on) const
    {
        FlagResult r = get();
        if (!r.ok) return r;
        const int wanted = on ? (r.flags | FS_IMMUTABLE_FL) : (r.flags & ~FS_IMMUTABLE_FL);
        if (wanted == r.flags) return r;
        int value = wanted;
        if (::ioctl(fd_, FS_IOC_SETFLAGS, &value) != 0) return {false, errno, r.flags};
        return {true, 0, wanted};
    }

private:
    int fd_;
    int err_;
};

std::string errorDescription(int err)
{
    return std::strerror(err);
}

bool itemExists(const std::string& path)
{
    struct stat st {};
    return ::lstat(path.c_str(), &st) == 0;
}

}  // namespace

bool TQFileManager::isFileLocked(const std::string& path)
{
    const FlagResult r = FlagHandle(path).get();
    return r.ok && (r.flags & FS_IMMUTABLE_FL) != 0;
}

void TQFileManager::lockFile(const std::string& path)
{
    const FlagResult r = FlagHandle(path).setImmutable(true);
    if (!r.ok) TQLog::fastAppendLog("Unable to lock file %@: %@", path, errorDescription(r.err));
}

void TQFileManager::unlockFile(const std::string& path)
{
    const FlagResult r = FlagHandle(path).setImmutable(false);
    if (!r.ok) TQLog::fastAppendLog("Unable to unlock file %@: %@", path, errorDescription(r.err));
}

bool TQFileManager::removeFile(const std::string& path, bool shouldAuth)
{
    unlockFile(path);
    if (!itemExists(path)) return true;

    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    if (!ec) return true;

    TQLog::appendLog("Error removing file: %@. Authorizing...", ec.message());
    if (!shouldAuth) return false;
    return TQAuthorization::sharedController().authRemoveFile(path);
}

bool TQFileManager::removeFile(const std::string& path, std::chrono::seconds timeout)
{
    if (!removeFile(path)) return false;
    const auto gone = [&] { return !itemExists(path); };
    if (gone()) return true;
    const auto deadline = std::chrono::steady_clock::now() + std::max(timeout, std::chrono::seconds(0));
    while (!gone() && std::chrono::steady_clock::now() < deadline) {
        if (corvina::isMainThread()) {
            // Serve the main queue in short slices, looking at the file system between them.
            const auto slice = std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(10));
            corvina::runMainQueueUntil([] { return false; }, slice);
        } else {
            std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
                std::chrono::milliseconds(300), deadline - std::chrono::steady_clock::now()));
        }
    }
    return gone();
}
