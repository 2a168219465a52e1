#include "FileHandle.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

FileHandle::~FileHandle()
{
    if (fd_ >= 0) ::close(fd_);
}

std::unique_ptr<FileHandle> FileHandle::forReadingAtPath(const std::string& path)
{
    const auto fd = openFile(path, O_RDONLY);
    if (!fd) return nullptr;
    return std::unique_ptr<FileHandle>(new FileHandle(*fd));
}

Result<std::unique_ptr<FileHandle>> FileHandle::forReadingRegularFileAtPath(const std::string& path)
{
    const auto fd = openFile(path, O_RDONLY, true);
    if (!fd) return fd.error();
    return std::unique_ptr<FileHandle>(new FileHandle(*fd));
}

std::unique_ptr<FileHandle> FileHandle::forUpdatingDescriptor(int fd)
{
    if (fd < 0) return nullptr;
    std::unique_ptr<FileHandle> handle(new FileHandle(fd));
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

void FileHandle::writeData(std::span<const uint8_t> bytes)
{
    if (fd_ < 0) raise("writeData:", EBADF);
    const posix::Transfer t = posix::pwriteAll(fd_, bytes, offset_);
    offset_ += t.count;
    if (t.failed()) raise("writeData:", t.error);
}

void FileHandle::closeFile()
{
    if (fd_ < 0) return;
    ::close(fd_);
    fd_ = -1;
}

}  // namespace corvina
