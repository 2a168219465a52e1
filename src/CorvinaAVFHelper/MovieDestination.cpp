#include "helper/MovieDestination.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>

#include "Foundation/Format.h"
#include "Foundation/PosixIO.h"
#include "QuickTime/AssetWriter.h"

namespace corvina::helper {

using corvina::Error;
using corvina::format;
using corvina::Result;
using corvina::ScopedFileIdentity;
using corvina::UserIdentity;

namespace {

// What a lock file this program made holds, so that only such a file is ever removed.
constexpr char kLockMark[] = "CorvinaAVFHelper lock\n";

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

// A lock file this run created gets the mark; one that was there is this program's when it
// holds the mark.
bool markedAsOurs(int fd, bool created)
{
    if (created) {
        // A mark that cannot be written only means a later run will not remove this lock.
        [[maybe_unused]] const auto written = corvina::posix::writeFully(fd, std::string_view(kLockMark));
        return true;
    }
    uint8_t mark[sizeof kLockMark] = {};
    return corvina::posix::preadAll(fd, mark, 0).count == sizeof kLockMark - 1 &&
           std::memcmp(mark, kLockMark, sizeof kLockMark - 1) == 0;
}

// A refusal or failure whose description is the line the session logs.
Error problem(std::string line) { return Error{"CorvinaAVFHelper", 0, std::move(line)}; }

// Runs `step` with the acting user's rights. Should the identity not be taken (which only a
// broken user database makes possible), the step runs anyway: the steps given here remove
// nothing but files they have just checked to be this run's own.
template <class Step>
void withActorOrAnyway(const std::optional<UserIdentity>& actor, const Step& step) noexcept
{
    try {
        ScopedFileIdentity asUser(actor);
        step();
        return;
    } catch (...) {
    }
    step();
}

}  // namespace

bool MovieDestination::isTemporaryNameFor(const std::string& fileName, const std::string& destinationName)
{
    // NAME.incomplete-PID, or NAME.incomplete-PID-N
    const std::string prefix = destinationName + ".incomplete-";
    if (fileName.size() <= prefix.size() || fileName.compare(0, prefix.size(), prefix) != 0) return false;
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    size_t i = prefix.size();
    while (i < fileName.size() && isDigit(fileName[i])) ++i;
    if (i == prefix.size()) return false;
    if (i == fileName.size()) return true;
    if (fileName[i] != '-' || i + 1 == fileName.size()) return false;
    return std::all_of(fileName.begin() + std::ptrdiff_t(i) + 1, fileName.end(), isDigit);
}

Result<std::unique_ptr<MovieDestination>> MovieDestination::open(std::string destination,
                                                                 std::optional<UserIdentity> actor,
                                                                 std::span<const Input> inputs)
{
    std::unique_ptr<MovieDestination> made(new MovieDestination(std::move(destination), std::move(actor)));
    if (auto checked = made->check(inputs); !checked) return checked.error();
    return made;
}

MovieDestination::MovieDestination(std::string destination, std::optional<UserIdentity> actor)
    : destination_(std::move(destination)), actor_(std::move(actor))
{
    // The folder ("." for a bare name) and the name in it.
    const auto slash = destination_.find_last_of('/');
    folder_ = slash == std::string::npos ? "." : slash == 0 ? "/" : destination_.substr(0, slash);
    name_ = slash == std::string::npos ? destination_ : destination_.substr(slash + 1);
    lockName_ = "." + name_ + ".lock";
    std::lock_guard lock(registryMutex());
    registry().insert(this);
}

MovieDestination::~MovieDestination()
{
    std::lock_guard lock(registryMutex());
    withActorOrAnyway(actor_, [this] {
        removeTemporaryLocked();
        release();
    });
    if (folderFd_ >= 0) ::close(folderFd_);
    registry().erase(this);
}

bool MovieDestination::names(const std::string& name, const FileId& id) const
{
    struct stat info {};
    return !name.empty() && ::fstatat(folderFd_, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           FileId{info.st_dev, info.st_ino} == id;
}

Result<void> MovieDestination::check(std::span<const Input> inputs)
{
    if (destination_.empty())
        return problem(std::string("Error: the settings document names no destination (destFilename)."));
    const std::string refused = format("Error: destination %@ refused: ", destination_);
    if (destination_.back() == '/') return problem(refused + "it names a folder.");

    ScopedFileIdentity asUser(actor_);
    // The inputs as the user sees them: the destination may be none of them, and no killed
    // run's file is ever taken for one.
    std::vector<std::pair<const Input*, FileId>> seen;
    for (const auto& input : inputs) {
        struct stat info {};
        if (input.path.empty() || ::stat(input.path.c_str(), &info) != 0) continue;
        seen.emplace_back(&input, FileId{info.st_dev, info.st_ino});
        inputs_.push_back(seen.back().second);
    }

    if (folderFd_ < 0) {
        const int fd = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const int err = errno;
        if (fd < 0) {
            if (err == ENOENT)
                return problem(refused + format("its folder %@ does not exist (%@).", folder_, errnoText(err)));
            if (err == ENOTDIR) return problem(refused + format("%@ is not a folder.", folder_));
            return problem(refused + format("its folder %@ cannot be opened (%@).", folder_, errnoText(err)));
        }
        std::lock_guard lock(registryMutex());  // a stopping run may look at it from another thread
        folderFd_ = fd;
    }
    struct stat link {};
    if (::fstatat(folderFd_, name_.c_str(), &link, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return corvina::success();  // a new file
        return problem(refused + errnoText(errno) + ".");
    }
    struct stat target {};
    if (::fstatat(folderFd_, name_.c_str(), &target, 0) != 0)
        return problem(refused + "it is a symbolic link to nothing that can be replaced.");
    if (S_ISDIR(target.st_mode)) return problem(refused + "it is an existing folder.");
    for (const auto& [input, id] : seen)
        if (id == FileId{target.st_dev, target.st_ino})
            return problem(refused + format("it is the same file as the %s %@.", input->what, input->path));
    if (!S_ISREG(target.st_mode))
        return problem(refused + format("it is %s, not a movie file.", kindOf(target.st_mode)));
    // Renaming over a link would replace the link, not the file it names.
    if (S_ISLNK(link.st_mode)) return problem(refused + "it is a symbolic link; name the file itself.");
    return corvina::success();
}

std::optional<uint64_t> MovieDestination::freeBytes() const
{
    struct statvfs info {};
    if (folderFd_ < 0 || ::fstatvfs(folderFd_, &info) != 0) return std::nullopt;
    const uint64_t blocks = info.f_bavail;
    const uint64_t size = info.f_frsize ? info.f_frsize : info.f_bsize;
    if (size != 0 && blocks > UINT64_MAX / size) return UINT64_MAX;
    return blocks * size;
}

Result<void> MovieDestination::acquire()
{
    ScopedFileIdentity asUser(actor_);
    if (auto locked = takeLock(); !locked) return locked;
    removeStaleFiles();
    return corvina::success();
}

Result<void> MovieDestination::takeLock()
{
    const std::string lockPath = inFolder(lockName_);
    // The lock file may be removed by the run that held it between our open and our flock;
    // a lock is only ours when the name still gives the file we locked.
    for (int attempt = 0; attempt < 16 && lockFd_ < 0; ++attempt) {
        bool created = true;
        int fd = ::openat(folderFd_, lockName_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0 && errno == EEXIST) {
            // Somebody else's: read-only is enough for flock, and it is never written.
            created = false;
            fd = ::openat(folderFd_, lockName_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
            if (fd < 0 && errno == ENOENT) continue;
        }
        if (fd < 0) {
            const int err = errno;
            return problem(err == ELOOP
                               ? format("Error: cannot lock %@: %@ is a symbolic link.", destination_, lockPath)
                               : format("Error: cannot write in the folder of %@: %@.", destination_, errnoText(err)));
        }
        struct stat held {};
        if (::fstat(fd, &held) != 0 || !S_ISREG(held.st_mode)) {
            ::close(fd);
            return problem(format("Error: cannot lock %@: %@ is not a lock file.", destination_, lockPath));
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int err = errno;
            ::close(fd);
            return problem(err == EWOULDBLOCK
                               ? format("Error: another run is writing %@ now; this run stops.", destination_)
                               : format("Error: cannot lock %@: %@.", lockPath, errnoText(err)));
        }
        const FileId id{held.st_dev, held.st_ino};
        if (!names(lockName_, id)) {
            ::close(fd);
            continue;
        }
        const bool ours = markedAsOurs(fd, created);
        std::lock_guard lock(registryMutex());
        lockFd_ = fd;
        lock_ = id;
        lockIsOurs_ = ours;
        if (abandoned) {
            release();
            return problem("Error: the run was stopped before writing began.");
        }
    }
    if (lockFd_ < 0) return problem(format("Error: cannot lock %@: the lock file keeps changing.", destination_));
    return corvina::success();
}

void MovieDestination::removeStaleFiles()
{
    // Holding the lock, a file with a temporary name of this destination that starts with the
    // writer's headers is a killed run's, unless it is one of the job's inputs.
    std::vector<std::string> candidates;
    const int listFd = ::openat(folderFd_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (DIR* dir = listFd >= 0 ? ::fdopendir(listFd) : nullptr) {
        while (const dirent* entry = ::readdir(dir))
            if (isTemporaryNameFor(entry->d_name, name_)) candidates.emplace_back(entry->d_name);
        ::closedir(dir);
    } else if (listFd >= 0) {
        ::close(listFd);
    }
    for (const std::string& name : candidates) {
        const int fd = ::openat(folderFd_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat info {};
        const bool stale =
            ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
            std::find(inputs_.begin(), inputs_.end(), FileId{info.st_dev, info.st_ino}) == inputs_.end() &&
            corvina::AssetWriter::fileStartsAsWritten(fd);
        ::close(fd);
        if (stale && names(name, {info.st_dev, info.st_ino}) && ::unlinkat(folderFd_, name.c_str(), 0) == 0)
            ++staleRemoved_;
    }
}

Result<int> MovieDestination::createTemporary()
{
    ScopedFileIdentity asUser(actor_);
    // Never over an existing file, nor through a link: a taken name is passed over.
    const std::string base = name_ + ".incomplete-" + std::to_string(::getpid());
    for (int n = 0; n < 100; ++n) {
        const std::string name = n == 0 ? base : base + "-" + std::to_string(n);
        const int fd = ::openat(folderFd_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) return Error::fromErrno(errno, "cannot create " + inFolder(name));
        struct stat info {};
        ::fstat(fd, &info);
        std::lock_guard lock(registryMutex());
        temporaryName_ = name;
        temporary_ = {info.st_dev, info.st_ino};
        if (abandoned) {
            removeTemporaryLocked();
            ::close(fd);
            return Error{"NSPOSIXErrorDomain", ECANCELED, "the run was stopped before writing began"};
        }
        return fd;
    }
    return Error{"NSPOSIXErrorDomain", EEXIST, format("every temporary name for %@ is taken", destination_)};
}

Result<void> MovieDestination::commit()
{
    std::lock_guard lock(registryMutex());
    if (abandoned) return problem("Error: the run was stopped before the movie was put in place.");
    ScopedFileIdentity asUser(actor_);
    if (!names(temporaryName_, temporary_))
        return problem(format("Error: the temporary movie %@ was replaced by another file; nothing was put in place.",
                              temporaryPath()));
    if (::renameat(folderFd_, temporaryName_.c_str(), folderFd_, name_.c_str()) != 0)
        return problem(format("Error: cannot move the movie into place at %@: %@.", destination_, errnoText(errno)));
    committed_ = true;
    ::fsync(folderFd_);
    return corvina::success();
}

void MovieDestination::discard()
{
    std::lock_guard lock(registryMutex());
    withActorOrAnyway(actor_, [this] { removeTemporaryLocked(); });
}

// Called with registryMutex held: the temporary file goes only while its name still gives the
// file this run created.
void MovieDestination::removeTemporaryLocked()
{
    if (committed_ || temporaryName_.empty()) return;
    if (names(temporaryName_, temporary_)) ::unlinkat(folderFd_, temporaryName_.c_str(), 0);
    temporaryName_.clear();
}

// Called with registryMutex held.
void MovieDestination::release()
{
    if (lockFd_ < 0) return;
    // Removed while still held: a run that opened it meanwhile sees a changed name and retries.
    // A lock file that is not this program's stays.
    if (lockIsOurs_ && names(lockName_, lock_)) ::unlinkat(folderFd_, lockName_.c_str(), 0);
    ::close(lockFd_);
    lockFd_ = -1;
}

void MovieDestination::abandonAll()
{
    std::lock_guard lock(registryMutex());
    abandoned = true;
    for (MovieDestination* destination : registry())
        withActorOrAnyway(destination->actor_, [destination] {
            destination->removeTemporaryLocked();
            destination->release();
        });
}

}  // namespace corvina::helper
