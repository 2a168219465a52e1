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

Error writeError(int err) { return posixError(err, "cannot write the movie"); }

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
    if (auto written = file.writeAll(headers); !written) return written.error();
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

Result<void> MovieFile::writeAll(std::span<const uint8_t> bytes)
{
    const posix::Transfer t = posix::writeAll(fd_, bytes);
    written_ += t.count;
    if (t.failed()) return writeError(t.error);
    return success();
}

Result<void> MovieFile::writeBufferAnd(std::span<const uint8_t> bytes)
{
    iovec parts[2] = {{buffer_.data(), buffer_.size()}, {const_cast<uint8_t*>(bytes.data()), bytes.size()}};
    const posix::Transfer t = posix::writevAll(fd_, parts);
    written_ += t.count;
    if (t.failed()) return writeError(t.error);
    startWriteback();
    buffer_.clear();
    return success();
}

Result<void> MovieFile::writeAt(uint64_t offset, std::span<const uint8_t> bytes)
{
    const posix::Transfer t = posix::pwriteAll(fd_, bytes, offset);
    if (t.failed()) return writeError(t.error);
    return success();
}

void MovieFile::startWriteback()
{
    // Asks the kernel to start writing what has piled up, without waiting for it: the disk
    // works while the samples are still being read, and the final fsync has little left.
    if (written_ - writebackFrom_ < kWritebackBytes) return;
    ::sync_file_range(fd_, off_t(writebackFrom_), off_t(written_ - writebackFrom_), SYNC_FILE_RANGE_WRITE);
    writebackFrom_ = written_;
}

Result<void> MovieFile::flush()
{
    if (buffer_.empty()) return success();
    Result<void> written = writeAll(buffer_);
    buffer_.clear();
    if (written) startWriteback();
    return written;
}

Result<void> MovieFile::append(std::span<const uint8_t> bytes)
{
    if (fd_ < 0) return writeError(EBADF);
    end_ += bytes.size();
    // Large pieces (video chunks) go out with what is buffered in one call, uncopied.
    if (bytes.size() >= kDirectBytes) return writeBufferAnd(bytes);
    if (buffer_.size() + bytes.size() > kBufferSize) {
        if (auto flushed = flush(); !flushed) return flushed;
    }
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    return success();
}

Result<void> MovieFile::finish(std::span<const uint8_t> movieAtom)
{
    if (fd_ < 0) return writeError(EBADF);
    if (auto flushed = flush(); !flushed) return flushed;
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
    if (auto written = writeAll(movieAtom); !written) return written;
    end_ += movieAtom.size();
    if (auto patched = writeAt(at, header.bytes()); !patched) return patched;
    if (::fsync(fd_) != 0 && errno != EINVAL && errno != EROFS) return writeError(errno);
    return success();
}

}  // namespace corvina::qt
