#include "FileHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Error.h"
#include "Exception.h"
#include "Format.h"
#include "PosixIO.h"

namespace corvina {

namespace {

// Opening never blocks (a FIFO without a writer would hold open() forever); reads on what
// was opened block as usual. With regularOnly, anything but a regular file is refused.
Result<int> openFile(const std::string& path, int flags, bool regularOnly = false)
{
    const int fd =
        posix::retryInterrupted([&] { return ::open(path.c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); });
    if (fd < 0) return Error::fromErrno(errno);
    struct stat st {};
    if (::fstat(fd, &st) != 0) {
        const Error error = Error::fromErrno(errno);
        ::close(fd);
        return error;
    }
    if (S_ISDIR(st.st_mode) || (regularOnly && !S_ISREG(st.st_mode))) {
        ::close(fd);
        if (S_ISDIR(st.st_mode)) return Error::fromErrno(EISDIR);
        return Error{"NSPOSIXErrorDomain", EINVAL,
                     S_ISFIFO(st.st_mode) ? "It is a FIFO, not a regular file."
                                          : "It is a device or a socket, not a regular file."};
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

}  // namespace

FileHandle::FileHandle(int fd, size_t readAhead) : fd_(fd), windowCapacity_(readAhead) {}

FileHandle::~FileHandle()
{
    if (fd_ >= 0) ::close(fd_);
}

std::unique_ptr<FileHandle> FileHandle::forReadingAtPath(const std::string& path, size_t readAheadBytes)
{
    const auto fd = openFile(path, O_RDONLY);
    if (!fd) return nullptr;
    return std::unique_ptr<FileHandle>(new FileHandle(*fd, readAheadBytes));
}

Result<std::unique_ptr<FileHandle>> FileHandle::forReadingRegularFileAtPath(const std::string& path,
                                                                            size_t readAheadBytes)
{
    const auto fd = openFile(path, O_RDONLY, true);
    if (!fd) return fd.error();
    return std::unique_ptr<FileHandle>(new FileHandle(*fd, readAheadBytes));
}

std::unique_ptr<FileHandle> FileHandle::forWritingAtPath(const std::string& path)
{
    const auto fd = openFile(path, O_WRONLY);
    if (!fd) return nullptr;
    return std::unique_ptr<FileHandle>(new FileHandle(*fd, 0));
}

std::unique_ptr<FileHandle> FileHandle::forUpdatingAtPath(const std::string& path)
{
    return forUpdatingDescriptor(openFile(path, O_RDWR).valueOr(-1));
}

std::unique_ptr<FileHandle> FileHandle::forUpdatingDescriptor(int fd)
{
    if (fd < 0) return nullptr;
    std::unique_ptr<FileHandle> handle(new FileHandle(fd, 0));
    struct stat st {};
    if (::fstat(fd, &st) == 0) handle->offset_ = static_cast<uint64_t>(st.st_size);
    return handle;
}

void FileHandle::raise(const char* operation, int err) const
{
    char buf[256];
    const char* text = strerror_r(err, buf, sizeof buf);
    throw PlatformException(kFileHandleOperationException, format("*** -[FileHandle %s]: %s", operation, text));
}

void FileHandle::seekToFileOffset(uint64_t offset)
{
    if (fd_ < 0) raise("seekToFileOffset:", EBADF);
    if (offset > static_cast<uint64_t>(INT64_MAX)) raise("seekToFileOffset:", EINVAL);
    offset_ = offset;
}

uint64_t FileHandle::seekToEndOfFile()
{
    if (fd_ < 0) raise("seekToEndOfFile", EBADF);
    struct stat st {};
    if (::fstat(fd_, &st) != 0) raise("seekToEndOfFile", errno);
    offset_ = static_cast<uint64_t>(st.st_size);
    return offset_;
}

uint64_t FileHandle::offsetInFile() const
{
    if (fd_ < 0) raise("offsetInFile", EBADF);
    return offset_;
}

size_t FileHandle::readInto(uint8_t* dst, size_t length)
{
    if (fd_ < 0) raise("readDataOfLength:", EBADF);
    size_t done = 0;
    while (done < length) {
        // From the window when the offset lies inside it.
        if (windowSize_ > 0 && offset_ >= windowStart_ && offset_ < windowStart_ + windowSize_) {
            const size_t at = static_cast<size_t>(offset_ - windowStart_);
            const size_t n = std::min(length - done, windowSize_ - at);
            std::memcpy(dst + done, window_.get() + at, n);
            done += n;
            offset_ += n;
            continue;
        }
        const size_t remaining = length - done;
        if (windowCapacity_ == 0 || remaining >= windowCapacity_) {
            // Large reads go straight to the file.
            const posix::Transfer t = posix::preadAll(fd_, std::span(dst + done, remaining), offset_);
            done += t.count;
            offset_ += t.count;
            if (t.failed()) raise("readDataOfLength:", t.error);
            break;  // all read, or the end of the file
        }
        if (!window_) window_ = std::make_unique_for_overwrite<uint8_t[]>(windowCapacity_);
        const ssize_t n = posix::retryInterrupted(
            [&] { return ::pread(fd_, window_.get(), windowCapacity_, static_cast<off_t>(offset_)); });
        if (n < 0) {
            windowSize_ = 0;
            raise("readDataOfLength:", errno);
        }
        windowStart_ = offset_;
        windowSize_ = static_cast<size_t>(n);
        if (n == 0) break;  // end of file
    }
    return done;
}

ByteBuffer FileHandle::readDataOfLength(uint64_t length)
{
    if (fd_ < 0) raise("readDataOfLength:", EBADF);
    uint64_t wanted = length;
    uint64_t firstBlock = 64u << 20;
    if (wanted > windowCapacity_) {
        // Never allocate beyond what the file still holds.
        struct stat st {};
        if (::fstat(fd_, &st) != 0) raise("readDataOfLength:", errno);
        const uint64_t size = static_cast<uint64_t>(st.st_size);
        const uint64_t left = size > offset_ ? size - offset_ : 0;
        // Files that grow or report no size (pipes, /proc) are read in bounded steps below.
        // (/proc files report a size of 0 and still have contents.)
        if (S_ISREG(st.st_mode) && st.st_size > 0)
            wanted = std::min(wanted, left);
        else
            firstBlock = 64u << 10;
    }
    if (wanted > static_cast<uint64_t>(SIZE_MAX / 2)) raise("readDataOfLength:", ENOMEM);
    ByteBuffer buffer(static_cast<size_t>(std::min<uint64_t>(wanted, firstBlock)));
    size_t filled = 0;
    while (filled < wanted) {
        if (filled == buffer.size())
            buffer.resize(static_cast<size_t>(std::min<uint64_t>(wanted, buffer.size() * 2 + 1)));
        const size_t n = readInto(buffer.data() + filled, buffer.size() - filled);
        filled += n;
        if (n == 0) break;
    }
    buffer.resize(filled);
    return buffer;
}

void FileHandle::writeData(std::span<const uint8_t> bytes)
{
    if (fd_ < 0) raise("writeData:", EBADF);
    windowSize_ = 0;  // what the window holds may be about to change
    const posix::Transfer t = posix::pwriteAll(fd_, bytes, offset_);
    offset_ += t.count;
    if (t.failed()) raise("writeData:", t.error);
}

void FileHandle::synchronizeFile()
{
    if (fd_ < 0) raise("synchronizeFile", EBADF);
    if (::fsync(fd_) != 0 && errno != EINVAL && errno != EROFS) raise("synchronizeFile", errno);
}

void FileHandle::closeFile()
{
    if (fd_ < 0) return;
    ::close(fd_);
    fd_ = -1;
    window_.reset();
    windowSize_ = 0;
}

}  // namespace corvina
