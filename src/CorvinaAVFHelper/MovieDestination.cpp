#include "MovieDestination.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>

#include "Foundation/Format.h"

using corvina::format;

namespace {

std::string errnoText(int err)
{
    char buf[256];
    return strerror_r(err, buf, sizeof buf);
}

const char* kindOf(mode_t mode)
{
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISSOCK(mode)) return "a socket";
    if (S_ISCHR(mode)) return "a character device";
    if (S_ISBLK(mode)) return "a block device";
    if (S_ISDIR(mode)) return "a folder";
    return "not a regular file";
}

// Every destination object of this process, so that a stopping run can remove its files.
std::mutex& registryMutex()
{
    static std::mutex mutex;
    return mutex;
}
std::set<MovieDestination*>& registry()
{
    static std::set<MovieDestination*> all;
    return all;
}
bool abandoned = false;  // guarded by registryMutex

// A file this program wrote: the movie's first bytes ('ftyp' of brand 'qt  ', then 'wide'),
// or an empty file from a run that died before its first write.
bool looksLikeOurPartialMovie(int folderFd, const char* name)
{
    const int fd = ::openat(folderFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    uint8_t head[28] = {};
    bool ours = false;
    if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode)) {
        if (st.st_size == 0) {
            ours = true;
        } else if (::pread(fd, head, sizeof head, 0) == static_cast<ssize_t>(sizeof head)) {
            ours = std::memcmp(head + 4, "ftypqt  ", 8) == 0 && std::memcmp(head + 20, "\0\0\0\x08wide", 8) == 0;
        }
    }
    ::close(fd);
    return ours;
}

}  // namespace

std::string MovieDestination::folderOf(const std::string& destination)
{
    const auto slash = destination.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return destination.substr(0, slash);
}

bool MovieDestination::isTemporaryNameFor(const std::string& fileName, const std::string& destinationName)
{
    const std::string prefix = destinationName + ".incomplete-";
    if (fileName.size() <= prefix.size() || fileName.compare(0, prefix.size(), prefix) != 0) return false;
    for (size_t i = prefix.size(); i < fileName.size(); ++i)
        if (fileName[i] < '0' || fileName[i] > '9') return false;
    return true;
}

std::optional<std::string> MovieDestination::problem(const std::string& destination, std::span<const Input> inputs)
{
    if (destination.empty()) return std::string("Error: the settings document names no destination (destFilename).");
    const std::string refused = format("Error: destination %@ refused: ", destination);
    if (destination.back() == '/') return refused + "it names a folder.";
    const std::string folder = folderOf(destination);
    struct stat folderInfo {};
    if (::stat(folder.c_str(), &folderInfo) != 0)
        return refused + format("its folder %@ does not exist (%@).", folder, errnoText(errno));
    if (!S_ISDIR(folderInfo.st_mode)) return refused + format("%@ is not a folder.", folder);

    struct stat link {};
    if (::lstat(destination.c_str(), &link) != 0) {
        if (errno == ENOENT) return std::nullopt;  // a new file
        return refused + errnoText(errno) + ".";
    }
    struct stat target {};
    if (::stat(destination.c_str(), &target) != 0)
        return refused + "it is a symbolic link to nothing that can be replaced.";
    if (S_ISDIR(target.st_mode)) return refused + "it is an existing folder.";
    for (const auto& input : inputs) {
        struct stat other {};
        if (input.path.empty() || ::stat(input.path.c_str(), &other) != 0) continue;
        if (other.st_dev == target.st_dev && other.st_ino == target.st_ino)
            return refused + format("it is the same file as the %s %@.", input.what, input.path);
    }
    if (!S_ISREG(target.st_mode)) return refused + format("it is %s, not a movie file.", kindOf(target.st_mode));
    // Renaming over a link would replace the link, not the file it names.
    if (S_ISLNK(link.st_mode)) return refused + "it is a symbolic link; name the file itself.";
    return std::nullopt;
}

std::optional<uint64_t> MovieDestination::freeBytes(const std::string& folder)
{
    struct statvfs info {};
    if (::statvfs(folder.c_str(), &info) != 0) return std::nullopt;
    const uint64_t blocks = info.f_bavail;
    const uint64_t size = info.f_frsize ? info.f_frsize : info.f_bsize;
    if (size != 0 && blocks > UINT64_MAX / size) return UINT64_MAX;
    return blocks * size;
}

MovieDestination::MovieDestination(std::string destination)
    : destination_(std::move(destination)), folder_(folderOf(destination_))
{
    const auto slash = destination_.find_last_of('/');
    name_ = slash == std::string::npos ? destination_ : destination_.substr(slash + 1);
    const std::string prefix = folder_ == "/" ? "/" : folder_ + "/";
    temporary_ = prefix + name_ + ".incomplete-" + std::to_string(::getpid());
    lockPath_ = prefix + "." + name_ + ".lock";
    std::lock_guard lock(registryMutex());
    registry().insert(this);
}

MovieDestination::~MovieDestination()
{
    std::lock_guard lock(registryMutex());
    if (!committed_) ::unlink(temporary_.c_str());
    release();
    registry().erase(this);
}

bool MovieDestination::acquire(std::string* problem)
{
    // The lock file may be removed by the run that held it between our open and our flock;
    // a lock is only ours when the path still names the file we locked.
    for (int attempt = 0; attempt < 16; ++attempt) {
        const int fd = ::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
        if (fd < 0) {
            *problem = format("Error: cannot write in the folder of %@: %@.", destination_, errnoText(errno));
            return false;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int err = errno;
            ::close(fd);
            *problem = err == EWOULDBLOCK
                           ? format("Error: another run is writing %@ now; this run stops.", destination_)
                           : format("Error: cannot lock %@: %@.", lockPath_, errnoText(err));
            return false;
        }
        struct stat held {
        }, named{};
        if (::fstat(fd, &held) == 0 && ::lstat(lockPath_.c_str(), &named) == 0 && held.st_dev == named.st_dev &&
            held.st_ino == named.st_ino) {
            std::lock_guard lock(registryMutex());
            lockFd_ = fd;
            if (abandoned) {
                release();
                *problem = "Error: the run was stopped before writing began.";
                return false;
            }
            break;
        }
        ::close(fd);
    }
    if (lockFd_ < 0) {
        *problem = format("Error: cannot lock %@: the lock file keeps changing.", destination_);
        return false;
    }

    // Holding the lock, every temporary file of this destination is a killed run's.
    if (DIR* dir = ::opendir(folder_.c_str())) {
        while (const dirent* entry = ::readdir(dir)) {
            if (!isTemporaryNameFor(entry->d_name, name_)) continue;
            if (looksLikeOurPartialMovie(::dirfd(dir), entry->d_name) &&
                ::unlinkat(::dirfd(dir), entry->d_name, 0) == 0)
                ++staleRemoved_;
        }
        ::closedir(dir);
    }
    return true;
}

bool MovieDestination::commit(std::string* problem)
{
    std::lock_guard lock(registryMutex());
    if (abandoned) {
        *problem = "Error: the run was stopped before the movie was put in place.";
        return false;
    }
    if (::rename(temporary_.c_str(), destination_.c_str()) != 0) {
        *problem = format("Error: cannot move the movie into place at %@: %@.", destination_, errnoText(errno));
        return false;
    }
    committed_ = true;
    const int dirFd = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
    return true;
}

void MovieDestination::discard()
{
    std::lock_guard lock(registryMutex());
    if (!committed_) ::unlink(temporary_.c_str());
}

// Called with registryMutex held.
void MovieDestination::release()
{
    if (lockFd_ < 0) return;
    // Removed while still held: a run that opened it meanwhile sees a changed path and retries.
    ::unlink(lockPath_.c_str());
    ::close(lockFd_);
    lockFd_ = -1;
}

void MovieDestination::abandonAll()
{
    std::lock_guard lock(registryMutex());
    abandoned = true;
    for (MovieDestination* destination : registry()) {
        if (!destination->committed_) ::unlink(destination->temporary_.c_str());
        destination->release();
    }
}
