#include "FileOperations.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string_view>

#include "PosixIO.h"

namespace corvina {

namespace {

struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd()
    {
        if (fd >= 0) ::close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

// The error carries the system's text alone, as the callers' log lines name the path.
Error fail(int err) { return Error::fromErrno(err); }

// Copies the bytes from..to (to may lie past the end) to the same place in out: copy_file_range
// lets the file system share or clone extents; plain reads and writes take over where it is
// not available (older kernels, some pairs of file systems), for this and every later range.
int copyRange(int in, int out, off_t from, off_t to, bool& plain)
{
    off_t inPos = from;
    off_t outPos = from;
    while (inPos < to) {
        const size_t want = static_cast<size_t>(std::min<off_t>(to - inPos, off_t(1) << 30));
        if (!plain) {
            const ssize_t n = ::copy_file_range(in, &inPos, out, &outPos, want, 0);
            if (n > 0) continue;
            if (n == 0) return 0;
            if (errno == EINTR) continue;
            if (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP && errno != EBADF)
                return errno;
            plain = true;
        }
        uint8_t buffer[1 << 16];
        const ssize_t n =
            posix::retryInterrupted([&] { return ::pread(in, buffer, std::min(want, sizeof buffer), inPos); });
        if (n == 0) return 0;
        if (n < 0) return errno;
        const posix::Transfer w = posix::pwriteAll(out, std::span(buffer, size_t(n)), uint64_t(outPos));
        if (w.failed()) return w.error;
        inPos += n;
        outPos += n;
    }
    return 0;
}

// Copies the data of in to out and leaves its holes as holes: only the ranges SEEK_DATA and
// SEEK_HOLE name are written, and a hole at the end becomes the copy's length. A file system
// without them has its whole file copied.
int copyBytes(int in, int out)
{
    constexpr off_t kEnd = std::numeric_limits<off_t>::max();
    bool plain = false;
    for (off_t pos = 0;;) {
        const off_t data = ::lseek(in, pos, SEEK_DATA);
        if (data < 0) {
            if (errno == ENXIO) break;  // nothing but a hole from here to the end
            return copyRange(in, out, pos, kEnd, plain);
        }
        off_t hole = ::lseek(in, data, SEEK_HOLE);
        if (hole < 0) hole = kEnd;
        if (const int err = copyRange(in, out, data, hole, plain)) return err;
        if (hole == kEnd) break;
        pos = hole;
    }
    struct stat from {};
    struct stat to {};
    if (::fstat(in, &from) != 0 || ::fstat(out, &to) != 0) return errno;
    if (to.st_size < from.st_size && ::ftruncate(out, from.st_size) != 0) return errno;
    return 0;
}

// User attributes carry labels and progress; the other namespaces need privileges or belong
// to the file system.
void copyUserAttributes(int in, int out)
{
    const ssize_t size = ::flistxattr(in, nullptr, 0);
    if (size <= 0) return;
    std::string names(static_cast<size_t>(size), '\0');
    const ssize_t got = ::flistxattr(in, names.data(), names.size());
    if (got <= 0) return;
    names.resize(static_cast<size_t>(got));
    for (size_t pos = 0; pos < names.size();) {
        const std::string name = names.c_str() + pos;
        pos += name.size() + 1;
        if (name.rfind("user.", 0) != 0) continue;
        const ssize_t len = ::fgetxattr(in, name.c_str(), nullptr, 0);
        if (len < 0) continue;
        std::string value(static_cast<size_t>(len), '\0');
        const ssize_t vlen = ::fgetxattr(in, name.c_str(), value.data(), value.size());
        if (vlen >= 0) ::fsetxattr(out, name.c_str(), value.data(), static_cast<size_t>(vlen), 0);
    }
}

void keepMetadata(int out, const struct stat& st)
{
    ::fchmod(out, st.st_mode & 07777);
    if (::geteuid() == 0) {
        if (::fchown(out, st.st_uid, st.st_gid) == 0) ::fchmod(out, st.st_mode & 07777);
    }
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::futimens(out, times);
}

// Returns 0 or the errno of the first failure. Whatever was created stays for the caller to
// remove.
int copyTree(const std::string& from, const std::string& to)
{
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) return errno;
    if (S_ISLNK(st.st_mode)) {
        std::string target(static_cast<size_t>(st.st_size > 0 ? st.st_size : 4096) + 1, '\0');
        const ssize_t n = ::readlink(from.c_str(), target.data(), target.size());
        if (n < 0) return errno;
        target.resize(static_cast<size_t>(n));
        if (::symlink(target.c_str(), to.c_str()) != 0) return errno;
        if (::geteuid() == 0) ::lchown(to.c_str(), st.st_uid, st.st_gid);
        return 0;
    }
    if (S_ISDIR(st.st_mode)) {
        if (::mkdir(to.c_str(), 0700) != 0) return errno;
        Fd in(::open(from.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (in.fd < 0) return errno;
        for (const auto& name : directoryContents(from)) {
            if (const int err = copyTree(from + "/" + name, to + "/" + name)) return err;
        }
        Fd out(::open(to.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (out.fd < 0) return errno;
        copyUserAttributes(in.fd, out.fd);
        keepMetadata(out.fd, st);
        return 0;
    }
    if (S_ISFIFO(st.st_mode)) {
        if (::mkfifo(to.c_str(), st.st_mode & 07777) != 0) return errno;
        return 0;
    }
    if (!S_ISREG(st.st_mode)) return ENOTSUP;
    Fd in(openRegularFile(from, O_RDONLY | O_NOFOLLOW));
    if (in.fd < 0) return errno;
    Fd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (out.fd < 0) return errno;
    if (const int err = copyBytes(in.fd, out.fd)) return err;
    copyUserAttributes(in.fd, out.fd);
    keepMetadata(out.fd, st);
    if (::close(out.fd) != 0) {
        out.fd = -1;
        return errno;
    }
    out.fd = -1;
    return 0;
}

// ---- Removal --------------------------------------------------------------------------------

std::string withoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// The folder at name in parent is the root of a mount (bind mounts of the same device too).
bool isMountRoot(int parent, const char* name)
{
    struct statx sx {};
    if (::statx(parent, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &sx) != 0) return false;
    return (sx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) && (sx.stx_attributes & STATX_ATTR_MOUNT_ROOT);
}

int removeEntry(int parent, const std::string& name, const dev_t* device);

// Removes everything in the folder open at dir, going on after a failure as rm does; the
// first failure is the result.
int removeContents(int dir, dev_t device)
{
    std::vector<std::string> names;
    {
        const int listing = ::dup(dir);
        if (listing < 0) return errno;
        std::unique_ptr<DIR, int (*)(DIR*)> d(::fdopendir(listing), ::closedir);
        if (!d) {
            const int err = errno;
            ::close(listing);
            return err;
        }
        while (const dirent* e = ::readdir(d.get())) {
            const std::string_view n = e->d_name;
            if (n != "." && n != "..") names.emplace_back(n);
        }
    }
    int first = 0;
    for (const auto& name : names) {
        const int err = removeEntry(dir, name, &device);
        if (err && !first) first = err;
    }
    return first;
}

// Removes the entry name of the folder open at parent. device: the device the walk keeps to,
// none for the item the caller named (whose own device it then is).
int removeEntry(int parent, const std::string& name, const dev_t* device)
{
    struct stat st {};
    if (::fstatat(parent, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? 0 : errno;
    if (!S_ISDIR(st.st_mode)) return ::unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
    if (device && (st.st_dev != *device || isMountRoot(parent, name.c_str()))) return EXDEV;
    int err = 0;
    {
        Fd dir(::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
        if (dir.fd < 0) {
            // A folder that cannot be read may still be empty.
            const int openError = errno;
            return ::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0 ? 0 : openError;
        }
        struct stat opened {};
        if (::fstat(dir.fd, &opened) != 0) return errno;
        // Something else was put in its place meanwhile: leave it alone.
        if (opened.st_dev != st.st_dev || opened.st_ino != st.st_ino) return EAGAIN;
        err = removeContents(dir.fd, st.st_dev);
    }
    if (::unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT && !err) err = errno;
    return err;
}

bool isInside(const std::string& inner, const std::string& outer)
{
    std::error_code ec;
    const auto a = std::filesystem::weakly_canonical(inner, ec).string();
    if (ec) return false;
    const auto b = std::filesystem::weakly_canonical(outer, ec).string();
    if (ec) return false;
    return a == b || (a.size() > b.size() && a.compare(0, b.size(), b) == 0 && (b == "/" || a[b.size()] == '/'));
}

}  // namespace

bool itemExists(const std::string& path)
{
    struct stat st {};
    return !path.empty() && ::lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> directoryContents(const std::string& path)
{
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(path.c_str()), ::closedir);
    if (!dir) return names;
    while (const dirent* e = ::readdir(dir.get())) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    return names;
}

Result<void> copyItem(const std::string& from, const std::string& to)
{
    if (!itemExists(from)) return fail(ENOENT);
    if (itemExists(to)) return fail(EEXIST);
    if (isInside(to, from)) return fail(EINVAL);
    if (const int err = copyTree(from, to)) {
        // Nothing was at the destination before: what is there now is this copy's own.
        std::error_code ec;
        std::filesystem::remove_all(to, ec);
        return fail(err);
    }
    return success();
}

Result<void> moveItem(const std::string& from, const std::string& to)
{
    if (!itemExists(from)) return fail(ENOENT);
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return success();
    int err = errno;
    if (err == EINVAL || err == ENOSYS || err == ENOTSUP) {
        // A file system without the no-replace rename: test first, then rename.
        if (itemExists(to)) return fail(EEXIST);
        if (isInside(to, from)) return fail(EINVAL);
        if (::rename(from.c_str(), to.c_str()) == 0) return success();
        err = errno;
    }
    if (err != EXDEV) return fail(err);
    if (auto copied = copyItem(from, to); !copied) return copied;
    // The copy is complete: only now may the original go. Should that fail half-way, the
    // copy stays, since the original may be partly gone.
    return removeItem(from);
}

namespace {

mode_t currentUmask()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("Umask:", 0) == 0) return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
    return 022;
}

}  // namespace

bool writeFileAtomically(const std::string& path, std::string_view bytes)
{
    if (path.empty()) return false;
    const auto slash = path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string temp = (folder == "/" ? "/" : folder + "/") + "." + name + ".XXXXXX";
    const int fd = ::mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    const mode_t mode = ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : (0666 & ~currentUmask());
    bool ok = ::fchmod(fd, mode) == 0 && posix::writeFully(fd, bytes);
    ok = ok && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok) ok = ::rename(temp.c_str(), path.c_str()) == 0;
    if (!ok) {
        ::unlink(temp.c_str());
        return false;
    }
    // Make the rename itself durable.
    const int dirfd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd >= 0) {
        ::fsync(dirfd);
        ::close(dirfd);
    }
    return true;
}

std::optional<std::string> removalRefusal(const std::string& path)
{
    const std::string p = withoutTrailingSlashes(path);
    if (p == "/") return std::string("it is the root folder");
    const auto slash = p.rfind('/');
    const std::string last = slash == std::string::npos ? p : p.substr(slash + 1);
    if (last == "." || last == "..") return std::string("a path ending in \".\" or \"..\" is refused");
    struct stat item {};
    struct stat root {};
    if (::lstat(p.c_str(), &item) == 0 && ::stat("/", &root) == 0 && item.st_dev == root.st_dev &&
        item.st_ino == root.st_ino)
        return std::string("it is the root folder");
    return std::nullopt;
}

Result<void> removeItem(const std::string& path)
{
    if (path.empty()) return fail(ENOENT);
    if (removalRefusal(path)) return fail(EINVAL);
    const std::string p = withoutTrailingSlashes(path);
    const auto slash = p.rfind('/');
    const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : p.substr(0, slash);
    const std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
    Fd dir(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.fd < 0) return errno == ENOENT || errno == ENOTDIR ? success() : fail(errno);
    if (const int err = removeEntry(dir.fd, name, nullptr)) return fail(err);
    return success();
}

int openRegularFile(const std::string& path, int flags, mode_t mode)
{
    struct stat st {};
    const bool noFollow = (flags & O_NOFOLLOW) != 0;
    const int looked = noFollow ? ::lstat(path.c_str(), &st) : ::stat(path.c_str(), &st);
    const auto refuse = [](const struct stat& s) {
        errno = S_ISDIR(s.st_mode) ? EISDIR : EINVAL;
        return -1;
    };
    if (looked == 0 && !S_ISREG(st.st_mode)) return refuse(st);
    const int fd = ::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, mode);
    if (fd < 0) return -1;
    if (::fstat(fd, &st) != 0) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        ::close(fd);
        return refuse(st);
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

}  // namespace corvina
