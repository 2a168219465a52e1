#include "QuickTime/MovieFile.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Foundation/PosixIO.h"
#include "QuickTime/AtomWriter.h"

namespace corvina::qt {

namespace {

Error posixError(int err, const std::string& what)
{
    return Error{"NSPOSIXErrorDomain", err, what + ": " + std::strerror(err)};
}

std::vector<uint8_t> fileHeaders()
{
    AtomWriter w;
    {
        ScopedAtom ftyp(w, fourCC("ftyp"));
        w.fourcc(fourCC("qt  "));
        w.u32(0x20050300);
        w.fourcc(fourCC("qt  "));
    }
    {
        ScopedAtom wide(w, fourCC("wide"));
    }
    w.u32(8);  // media data size, patched when the movie is finished
    w.fourcc(fourCC("mdat"));
    return w.take();
}

}  // namespace

Result<MovieFile> MovieFile::create(const std::string& path)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) return posixError(errno, "cannot create " + path);
    return createOnDescriptor(fd);
}

Result<MovieFile> MovieFile::createOnDescriptor(int fd)
{
    MovieFile file(fd);
    std::vector<uint8_t> headers = fileHeaders();
    Error failure;
    if (!file.writeAll(headers.data(), headers.size(), &failure)) return failure;
    file.end_ = file.written_ = headers.size();
    file.buffer_.reserve(kBufferSize);
    return file;
}

bool MovieFile::startsWithHeaders(int fd)
{
    static const std::vector<uint8_t> kHeaders = [] {
        std::vector<uint8_t> headers = fileHeaders();
        headers.resize(kMediaDataStart - 8);  // the media data size is patched later
        return headers;
    }();
    std::vector<uint8_t> head(kHeaders.size());
    return ::pread(fd, head.data(), head.size(), 0) == static_cast<ssize_t>(head.size()) && head == kHeaders;
}

MovieFile::MovieFile(MovieFile&& other) noexcept
    : fd_(other.fd_),
      end_(other.end_),
      written_(other.written_),
      writebackFrom_(other.writebackFrom_),
      buffer_(std::move(other.buffer_))
{
    other.fd_ = -1;
}

MovieFile::~MovieFile() { close(); }

void MovieFile::close()
{
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool MovieFile::writeAll(const uint8_t* data, size_t size, Error* error)
{
    const posix::Transfer t = posix::writeAll(fd_, std::span(data, size));
    written_ += t.count;
    if (t.failed()) *error = posixError(t.error, "cannot write the movie");
    return !t.failed();
}

bool MovieFile::writeBufferAnd(std::span<const uint8_t> bytes, Error* error)
{
    iovec parts[2] = {{buffer_.data(), buffer_.size()}, {const_cast<uint8_t*>(bytes.data()), bytes.size()}};
    const posix::Transfer t = posix::writevAll(fd_, parts);
    written_ += t.count;
    if (t.failed()) {
        *error = posixError(t.error, "cannot write the movie");
        return false;
    }
    startWriteback();
    buffer_.clear();
    return true;
}

bool MovieFile::writeAt(uint64_t offset, const uint8_t* data, size_t size, Error* error)
{
    const posix::Transfer t = posix::pwriteAll(fd_, std::span(data, size), offset);
    if (t.failed()) *error = posixError(t.error, "cannot write the movie");
    return !t.failed();
}

void MovieFile::startWriteback()
{
    // Asks the kernel to start writing what has piled up, without waiting for it: the disk
    // works while the samples are still being read, and the final fsync has little left.
    if (written_ - writebackFrom_ < kWritebackBytes) return;
    ::sync_file_range(fd_, off_t(writebackFrom_), off_t(written_ - writebackFrom_), SYNC_FILE_RANGE_WRITE);
    writebackFrom_ = written_;
}

bool MovieFile::flush(Error* error)
{
    if (buffer_.empty()) return true;
    bool ok = writeAll(buffer_.data(), buffer_.size(), error);
    buffer_.clear();
    if (ok) startWriteback();
    return ok;
}

bool MovieFile::append(std::span<const uint8_t> bytes, Error* error)
{
    if (fd_ < 0) {
        *error = posixError(EBADF, "cannot write the movie");
        return false;
    }
    end_ += bytes.size();
    // Large pieces (video chunks) go out with what is buffered in one call, uncopied.
    if (bytes.size() >= kDirectBytes) return writeBufferAnd(bytes, error);
    if (buffer_.size() + bytes.size() > kBufferSize && !flush(error)) return false;
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    return true;
}

bool MovieFile::finish(std::span<const uint8_t> movieAtom, Error* error)
{
    if (fd_ < 0) {
        *error = posixError(EBADF, "cannot write the movie");
        return false;
    }
    if (!flush(error)) return false;
    uint64_t mdatSize = end_ - (kWideAtomOffset + 8);
    AtomWriter header;
    uint64_t at;
    if (mdatSize <= 0xFFFFFFFFull) {
        header.u32(uint32_t(mdatSize));
        at = kWideAtomOffset + 8;
    } else {
        // The 'wide' atom's 8 bytes become the start of a 16-byte 64-bit header.
        header.u32(1);
        header.fourcc(fourCC("mdat"));
        header.u64(end_ - kWideAtomOffset);
        at = kWideAtomOffset;
    }
    if (!writeAll(movieAtom.data(), movieAtom.size(), error)) return false;
    end_ += movieAtom.size();
    if (!writeAt(at, header.bytes().data(), header.size(), error)) return false;
    if (::fsync(fd_) != 0 && errno != EINVAL && errno != EROFS) {
        *error = posixError(errno, "cannot write the movie");
        return false;
    }
    return true;
}

}  // namespace corvina::qt
