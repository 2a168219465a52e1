// The verified copy: one read of the source feeds every destination; each destination is
// written, read back and hashed by a thread of its own while the caller's thread hashes the
// source and reads the next block.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <thread>

#include "Dispatch/Dispatch.h"
#include "Foundation/FileOperations.h"
#include "Foundation/StringUtils.h"
#include "Foundation/SystemLog.h"
#include "tq/TQFileManager.h"
#include "tq/TQFileManagerSupport.h"
#include "tq/TQLog.h"

namespace corvina::tq {

// ---- Copy settings --------------------------------------------------------------------------

corvina::Value TQCopySettings::objectForKey(std::string_view key) const
{
    std::lock_guard lock(mutex_);
    const auto it = entries_.find(key);
    return it == entries_.end() ? corvina::Value() : it->second;
}

void TQCopySettings::setObject(const std::string& key, corvina::Value value)
{
    std::lock_guard lock(mutex_);
    entries_[key] = std::move(value);
}

corvina::Value TQCopySettings::dictionary() const
{
    std::lock_guard lock(mutex_);
    return corvina::Value(entries_);
}

std::shared_ptr<TQCopyDelegate> TQCopySettings::delegate() const
{
    std::lock_guard lock(mutex_);
    return delegate_;
}

void TQCopySettings::setDelegate(std::shared_ptr<TQCopyDelegate> delegate)
{
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

namespace {

using namespace std::chrono_literals;

constexpr uint64_t kMinimumProgressInterval = 20971520;  // 20 MiB
constexpr uint64_t kProgressDivisor = 500;

std::mutex gHookMutex;
TQFileManager::CopyBlockHook gBlockHook;

std::optional<TQDigestAlgorithm> algorithmFor(TQVerificationType type)
{
    switch (type) {
    case TQVerificationType::MD5:
        return TQDigestAlgorithm::MD5;
    case TQVerificationType::SHA1:
        return TQDigestAlgorithm::SHA1;
    case TQVerificationType::SHA256:
        return TQDigestAlgorithm::SHA256;
    case TQVerificationType::SHA512:
        return TQDigestAlgorithm::SHA512;
    default:
        return std::nullopt;
    }
}

std::optional<std::string> finishedText(const TQDigestState& state)
{
    switch (state.algorithm()) {
    case TQDigestAlgorithm::MD5:
        return TQFileManager::md5HashWithContext(state);
    case TQDigestAlgorithm::SHA1:
        return TQFileManager::sha1HashWithContext(state);
    case TQDigestAlgorithm::SHA256:
        return TQFileManager::sha256HashWithContext(state);
    case TQDigestAlgorithm::SHA512:
        return TQFileManager::sha512HashWithContext(state);
    }
    return std::nullopt;
}

// Creates a missing folder, waiting up to the time-out for it to appear.
bool createFolder(const std::string& folder, std::chrono::seconds timeout)
{
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!TQFileManager::isDirectoryAtPath(folder)) {
        if (ec || std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

struct Destination {
    std::string path;
    tqfiles::Descriptor file;
    bool created = false;  // nothing was at the path before this copy
    std::optional<TQDigestState> digest;
    tqfiles::AlignedBuffer readBack;
    bool shortWrite = false;  // some block did not reach the file whole
};

// Bytes [offset, offset + length) of the file.
struct Range {
    uint64_t offset = 0;
    uint64_t length = 0;
    uint64_t end() const { return offset + length; }
};

struct Block {
    const uint8_t* data = nullptr;
    size_t size = 0;
    uint64_t position = 0;
    const std::vector<Range>* ranges = nullptr;  // the parts that hold data; the rest are holes
};

bool allZero(const uint8_t* bytes, size_t size)
{
    return size == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

// Where the source holds data and where holes (SEEK_DATA and SEEK_HOLE), asked block by block
// with the last answer remembered, so a file without holes costs two calls in all. A hole is
// one only where the bytes read are zeros too; where the file system cannot tell, everything
// is data. The source is read with pread, so these seeks move nothing the copy relies on.
class SourceExtents {
public:
    explicit SourceExtents(int fd) : fd_(fd) {}

    void dataOf(const uint8_t* bytes, uint64_t position, size_t size, std::vector<Range>& out)
    {
        out.clear();
        const uint64_t end = position + size;
        for (uint64_t at = position; at < end;) {
            if (usable_ && (at < known_ || at >= dataEnd_)) look(at);
            if (!usable_) {
                add(out, at, end);
                break;
            }
            const uint64_t stop = std::min(end, at < dataStart_ ? dataStart_ : dataEnd_);
            if (at >= dataStart_ || !allZero(bytes + (at - position), stop - at)) add(out, at, stop);
            at = stop;
        }
    }

private:
    void look(uint64_t at)
    {
        known_ = at;
        const off_t data = ::lseek(fd_, static_cast<off_t>(at), SEEK_DATA);
        if (data < 0) {
            usable_ = errno == ENXIO;  // ENXIO: a hole from here to the end
            dataStart_ = dataEnd_ = UINT64_MAX;
            return;
        }
        const off_t hole = ::lseek(fd_, data, SEEK_HOLE);
        usable_ = hole >= data;
        dataStart_ = static_cast<uint64_t>(data);
        dataEnd_ = usable_ ? static_cast<uint64_t>(hole) : UINT64_MAX;
    }
    static void add(std::vector<Range>& out, uint64_t from, uint64_t to)
    {
        if (!out.empty() && out.back().end() == from) {
            out.back().length += to - from;
        } else {
            out.push_back({from, to - from});
        }
    }

    int fd_;
    bool usable_ = true;
    uint64_t known_ = 0;  // [known_, dataStart_) is a hole, [dataStart_, dataEnd_) data
    uint64_t dataStart_ = 0;
    uint64_t dataEnd_ = 0;
};

// One thread per destination. The caller hands every thread the same block and waits until
// all of them are done with it before it reuses the buffer.
class DestinationCrew {
public:
    DestinationCrew(std::vector<Destination>& destinations, const std::atomic<bool>& cancelled,
                    TQFileManager::CopyBlockHook hook)
        : destinations_(destinations), cancelled_(cancelled), hook_(std::move(hook))
    {
        threads_.reserve(destinations.size());
        for (size_t i = 0; i < destinations.size(); ++i) threads_.emplace_back([this, i] { run(i); });
    }
    ~DestinationCrew()
    {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        for (auto& t : threads_) t.join();
    }
    DestinationCrew(const DestinationCrew&) = delete;
    DestinationCrew& operator=(const DestinationCrew&) = delete;

    void start(Block block)
    {
        {
            std::lock_guard lock(mutex_);
            block_ = block;
            busy_ = threads_.size();
            ++generation_;
        }
        wake_.notify_all();
    }
    void wait()
    {
        std::unique_lock lock(mutex_);
        done_.wait(lock, [&] { return busy_ == 0; });
    }

private:
    void run(size_t index)
    {
        uint64_t seen = 0;
        for (;;) {
            Block block;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [&] { return stopping_ || generation_ != seen; });
                if (stopping_) return;
                seen = generation_;
                block = block_;
            }
            if (!cancelled_.load()) writeBlock(destinations_[index], block);
            bool last = false;
            {
                std::lock_guard lock(mutex_);
                last = --busy_ == 0;
            }
            if (last) done_.notify_one();
        }
    }

    void writeBlock(Destination& d, const Block& block)
    {
        // Only the parts that hold data are written; a hole at the block's end is made by
        // giving the file the block's length.
        int error = 0;
        for (const Range& r : *block.ranges) {
            const uint8_t* bytes = block.data + (r.offset - block.position);
            error = corvina::posix::pwriteAll(d.file.get(), std::span(bytes, r.length), r.offset).error;
            if (error) break;
        }
        const uint64_t end = block.position + block.size;
        if (!error && (block.ranges->empty() || block.ranges->back().end() < end) &&
            ::ftruncate(d.file.get(), static_cast<off_t>(end)) != 0)
            error = errno;
        if (error) {
            corvina::systemLog("Error writing file %@: %i", d.path, error);
            d.shortWrite = true;
        }
        std::span<uint8_t> readBack;
        if (d.digest && block.size) {
            // What the file holds now at the block's place, not the bytes we handed it.
            // Bytes read before a failure still count; a failure with none gives none.
            const auto got =
                corvina::posix::preadAll(d.file.get(), std::span(d.readBack.data(), block.size), block.position);
            readBack = std::span<uint8_t>(d.readBack.data(), got.count);
        }
        if (hook_) hook_(d.path, block.position, readBack);
        if (!readBack.empty()) d.digest->update(readBack.data(), readBack.size());
    }

    std::vector<Destination>& destinations_;
    const std::atomic<bool>& cancelled_;
    TQFileManager::CopyBlockHook hook_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable done_;
    Block block_;
    size_t busy_ = 0;
    uint64_t generation_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

bool sameFile(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// Removes a destination this copy wrote, while the path still names the file it has open.
void removeOwnOutput(const Destination& d)
{
    struct stat opened {};
    struct stat now {};
    if (::fstat(d.file.get(), &opened) == 0 && ::lstat(d.path.c_str(), &now) == 0 && sameFile(opened, now))
        ::unlink(d.path.c_str());
}

// Carries the source's modification date over. Creation dates cannot be set here, and the
// other attributes of the set (hidden extension, type and creator codes) do not exist.
void carryMetadata(const struct stat& source, const std::vector<Destination>& destinations)
{
    const struct timespec times[2] = {{0, UTIME_OMIT}, source.st_mtim};
    for (const auto& d : destinations) {
        if (::utimensat(AT_FDCWD, d.path.c_str(), times, 0) != 0)
            corvina::systemLog("Error setting metadata for file %@ - %@", d.path, std::strerror(errno));
    }
}

}  // namespace

void TQFileManager::setCopyBlockHookForTesting(CopyBlockHook hook)
{
    std::lock_guard lock(gHookMutex);
    gBlockHook = std::move(hook);
}

bool TQFileManager::copyFileWithProgress(const std::string& source, const std::string& destination,
                                         std::shared_ptr<TQCopyDelegate> delegate, const corvina::Value& object,
                                         const corvina::Value& object2)
{
    return copyFileWithProgress(source, std::vector<std::string>{destination}, TQVerificationType::None,
                                std::move(delegate), object, object2);
}

bool TQFileManager::copyFileWithProgress(const std::string& source, const std::vector<std::string>& destinations,
                                         TQVerificationType verificationType, std::shared_ptr<TQCopyDelegate> delegate,
                                         const corvina::Value& object, const corvina::Value& object2)
{
    if (!TQFileManager::fileExistsAtPath(source)) {
        corvina::systemLog("Error: File %@ doesn't exist. Aborting copy process...", source);
        return false;
    }
    if (destinations.empty()) {
        corvina::systemLog("Error: You must have at least one destination. Aborting copy process...");
        return false;
    }
    const auto algorithm = algorithmFor(verificationType);
    if (!algorithm && verificationType != TQVerificationType::None) {
        corvina::systemLog("Error: Unknown verification type %llu. Aborting copy process...",
                           static_cast<uint64_t>(verificationType));
        return false;
    }
    for (const auto& d : destinations) {
        const std::string folder = corvina::deletingLastPathComponent(d);
        if (!folder.empty() && !TQFileManager::isDirectoryAtPath(folder) && !createFolder(folder, 10s)) {
            corvina::systemLog(
                "Unable to copy file %@ - destination directory %@ doesn't exist. Aborting copy process...", source,
                folder);
            return false;
        }
    }

    const auto cancelled = std::make_shared<std::atomic<bool>>(false);
    const auto settings = std::make_shared<TQCopySettings>();
    {
        corvina::Value::ArrayType list(destinations.begin(), destinations.end());
        settings->setObject("source", source);
        settings->setObject("destinations", corvina::Value(std::move(list)));
        settings->setObject("operationtype", "copy");
        settings->setDelegate(delegate);
        if (!object.isNone()) settings->setObject("object", object);
        if (!object2.isNone()) settings->setObject("object2", object2);
    }

    // Only a regular file is read, and opening never waits on a pipe.
    tqfiles::Descriptor input(corvina::openRegularFile(source, O_RDONLY));
    if (!input) {
        corvina::systemLog("Error: Unable to read source file %@. Aborting copy process...", source);
        return false;
    }
    struct stat sourceInfo {};
    ::fstat(input.get(), &sourceInfo);
    const uint64_t expected = static_cast<uint64_t>(sourceInfo.st_size);
    const uint64_t interval = std::max<uint64_t>(expected / kProgressDivisor, kMinimumProgressInterval);
    ::posix_fadvise(input.get(), 0, 0, POSIX_FADV_SEQUENTIAL);

    // Every destination is opened (a regular file, without waiting on a pipe) and found not
    // to be the source before any of them is emptied, so a refused copy empties nothing. A
    // file this copy created is removed again when it is refused.
    std::vector<Destination> outputs;
    outputs.reserve(destinations.size());
    const auto refuse = [&](const std::string& d) {
        corvina::systemLog("Error: Unable to open destination file %@. Aborting copy process...", d);
        for (const auto& out : outputs) {
            if (out.created) removeOwnOutput(out);
        }
        return false;
    };
    for (const auto& d : destinations) {
        struct stat st {};
        Destination out;
        out.path = d;
        // Created here exactly when the exclusive create succeeds; a link at the name is never
        // followed, so a planted one is refused instead of written through.
        int fd = corvina::openRegularFile(d, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0666);
        out.created = fd >= 0;
        if (fd < 0 && errno == EEXIST) fd = corvina::openRegularFile(d, O_RDWR | O_NOFOLLOW, 0);
        out.file = tqfiles::Descriptor(fd);
        if (!out.file) return refuse(d);
        if (::fstat(out.file.get(), &st) != 0 || sameFile(st, sourceInfo)) {
            if (out.created) removeOwnOutput(out);
            return refuse(d);
        }
        if (algorithm) out.digest.emplace(*algorithm);
        outputs.push_back(std::move(out));
    }
    for (const auto& out : outputs) {
        if (::ftruncate(out.file.get(), 0) != 0) return refuse(out.path);
    }
    std::optional<TQDigestState> sourceDigest;
    if (algorithm) sourceDigest.emplace(*algorithm);

    tqfiles::AlignedBuffer buffers[2] = {tqfiles::AlignedBuffer(tqfiles::kCopyBlockSize),
                                         tqfiles::AlignedBuffer(tqfiles::kCopyBlockSize)};
    bool haveMemory = buffers[0] && buffers[1];
    for (auto& out : outputs) {
        if (algorithm) out.readBack = tqfiles::AlignedBuffer(tqfiles::kCopyBlockSize);
        haveMemory = haveMemory && (!algorithm || out.readBack);
    }
    if (!haveMemory) {
        TQLog::appendLogAndPrint("Error copying file %@ - out of memory", source);
        return false;
    }

    CopyBlockHook hook;
    {
        std::lock_guard lock(gHookMutex);
        hook = gBlockHook;
    }
    const bool reports = delegate && delegate->fileCopyBytesWritten;
    const bool asks = delegate && delegate->fileCopyShouldContinue;
    uint64_t copied = 0;
    uint64_t lastReported = 0;
    bool readFailed = false;
    {
        DestinationCrew crew(outputs, *cancelled, std::move(hook));
        SourceExtents extents(input.get());
        std::vector<Range> ranges;
        int current = 0;
        // A read that fails after some bytes gives those; the next read reports the failure.
        const auto readBlock = [&](int which, uint64_t at) {
            return corvina::posix::preadAll(input.get(), std::span(buffers[which].data(), tqfiles::kCopyBlockSize), at);
        };
        corvina::posix::Transfer n = readBlock(current, 0);
        while (!cancelled->load()) {
            if (n.count == 0) {
                readFailed = n.failed();
                break;
            }
            const size_t size = n.count;
            extents.dataOf(buffers[current].data(), copied, size, ranges);
            crew.start({buffers[current].data(), size, copied, &ranges});
            if (sourceDigest) sourceDigest->update(buffers[current].data(), size);
            // Read ahead while the destinations take this block.
            const corvina::posix::Transfer next = readBlock(1 - current, copied + size);
            crew.wait();
            copied += size;
            if (copied - lastReported >= interval) {
                lastReported = copied;
                if (reports) {
                    corvina::DispatchQueue::global().async(
                        [delegate, settings, count = copied] { delegate->fileCopyBytesWritten(count, *settings); });
                }
                if (asks) {
                    corvina::DispatchQueue::global().async([delegate, settings, cancelled] {
                        if (!delegate->fileCopyShouldContinue(*settings)) cancelled->store(true);
                    });
                }
            }
            current = 1 - current;
            n = next;
        }
    }
    if (readFailed) {
        TQLog::appendLogAndPrint("Error reading file %@ - aborting...", source);
        return false;
    }
    input.reset();
    if (cancelled->load()) return false;
    // A destination that missed bytes (a full disk, a failing device) did not receive the
    // whole file: the copy failed, and nothing of what follows a complete copy happens: no
    // final report, verification, dates or finished call. The short files are this copy's
    // own output and are removed; the complete ones stay as they are.
    const bool whole = std::ranges::none_of(outputs, [](const Destination& d) { return d.shortWrite; });
    if (copied < expected || !whole) {
        for (const auto& out : outputs) {
            if (out.shortWrite) removeOwnOutput(out);
        }
        corvina::systemLog("Error: copied file size does not match original source %@", source);
        return false;
    }
    for (auto& out : outputs) out.file.reset();
    if (reports) delegate->fileCopyBytesWritten(copied, *settings);

    if (sourceDigest) {
        const auto sourceText = finishedText(*sourceDigest);
        if (sourceText) settings->setObject("sourceChecksum", *sourceText);
        corvina::Value::ArrayType checksums;
        for (const auto& out : outputs) {
            const auto text = finishedText(*out.digest);
            if (text) checksums.emplace_back(*text);
            if (delegate && text != sourceText && delegate->fileCopyVerificationFailed) {
                settings->setObject("destChecksum", text ? corvina::Value(*text) : corvina::Value(""));
                delegate->fileCopyVerificationFailed(*settings, out.path);
            }
        }
        settings->setObject("destChecksums", corvina::Value(std::move(checksums)));
    }

    carryMetadata(sourceInfo, outputs);
    if (delegate && delegate->fileCopyFinished) delegate->fileCopyFinished(*settings);
    return true;
}

}  // namespace corvina::tq
