// Digests through libcrypto's EVP interface, and whole-file digests with a cancelling delegate.
#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "Dispatch/Dispatch.h"
#include "Foundation/FileOperations.h"
#include "Foundation/SystemLog.h"
#include "tq/TQFileManager.h"
#include "tq/TQFileManagerSupport.h"
#include "tq/TQLog.h"

namespace corvina::tq {

namespace {

// The digest implementations are looked up once; every state shares them.
const EVP_MD* digestFor(TQDigestAlgorithm algorithm)
{
    static const EVP_MD* const digests[] = {
        EVP_MD_fetch(nullptr, "MD5", nullptr),
        EVP_MD_fetch(nullptr, "SHA1", nullptr),
        EVP_MD_fetch(nullptr, "SHA256", nullptr),
        EVP_MD_fetch(nullptr, "SHA512", nullptr),
    };
    const EVP_MD* md = digests[static_cast<int>(algorithm)];
    if (!md) throw std::runtime_error("digest implementation missing from libcrypto");
    return md;
}

constexpr uint64_t kHashQuestionInterval = 52428800;  // the delegate is asked every 50 MiB

}  // namespace

struct TQDigestState::Context {
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    Context() = default;
    ~Context() { EVP_MD_CTX_free(ctx); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
};

TQDigestState::TQDigestState(TQDigestAlgorithm algorithm) : algorithm_(algorithm), context_(std::make_unique<Context>())
{
    if (!context_->ctx || EVP_DigestInit_ex2(context_->ctx, digestFor(algorithm), nullptr) != 1) throw std::bad_alloc();
}

TQDigestState::~TQDigestState() = default;
TQDigestState::TQDigestState(TQDigestState&&) noexcept = default;
TQDigestState& TQDigestState::operator=(TQDigestState&&) noexcept = default;

TQDigestState::TQDigestState(const TQDigestState& other)
    : algorithm_(other.algorithm_), context_(std::make_unique<Context>())
{
    if (!context_->ctx || EVP_MD_CTX_copy_ex(context_->ctx, other.context_->ctx) != 1) throw std::bad_alloc();
}

TQDigestState& TQDigestState::operator=(const TQDigestState& other)
{
    if (this != &other) *this = TQDigestState(other);
    return *this;
}

void TQDigestState::update(const void* bytes, size_t length)
{
    if (length) EVP_DigestUpdate(context_->ctx, bytes, length);
}

std::string TQDigestState::text() const
{
    // Finishing consumes a state, so a copy is finished and this one goes on.
    Context finished;
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!finished.ctx || EVP_MD_CTX_copy_ex(finished.ctx, context_->ctx) != 1 ||
        EVP_DigestFinal_ex(finished.ctx, digest, &length) != 1)
        throw std::bad_alloc();
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out(length * 2, '0');
    for (unsigned int i = 0; i < length; ++i) {
        out[2 * i] = kHex[digest[i] >> 4];
        out[2 * i + 1] = kHex[digest[i] & 0xf];
    }
    return out;
}

namespace {

std::optional<std::string> textOf(const TQDigestState& state, TQDigestAlgorithm wanted)
{
    if (state.algorithm() != wanted) return std::nullopt;
    return state.text();
}

std::optional<std::string> hashFile(const std::string& path, TQDigestAlgorithm algorithm,
                                    const std::shared_ptr<TQHashDelegate>& delegate)
{
    // A pipe or a device would hold the hashing (or worse): only regular files are opened.
    tqfiles::Descriptor file(corvina::openRegularFile(path, O_RDONLY));
    if (!file) {
        corvina::systemLog("Error: Unable to open destination file %@. Aborting hash verification...", path);
        return std::nullopt;
    }
    ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    TQDigestState state(algorithm);
    tqfiles::AlignedBuffer buffers[2] = {tqfiles::AlignedBuffer(tqfiles::kHashBlockSize),
                                         tqfiles::AlignedBuffer(tqfiles::kHashBlockSize)};
    if (!buffers[0] || !buffers[1]) {
        TQLog::appendLogAndPrint("Error reading file %@ - out of memory", path);
        return std::nullopt;
    }

    // Shared with the questions on the global queue, which may answer after we returned.
    const auto cancelled = std::make_shared<std::atomic<bool>>(false);
    const bool asks = delegate && delegate->checksumShouldContinue;
    uint64_t hashed = 0;
    // The next block is read on the worker while this thread hashes the current one.
    tqfiles::BackgroundWorker reader;
    int current = 0;
    const auto readBlock = [&file](uint8_t* into) {
        return corvina::posix::readAll(file.get(), std::span(into, tqfiles::kHashBlockSize));
    };
    corvina::posix::Transfer ahead = readBlock(buffers[current].data());
    for (;;) {
        const corvina::posix::Transfer got = ahead;
        if (got.failed()) {
            TQLog::appendLogAndPrint("Error reading file %@ - aborting...", path);
            return std::nullopt;
        }
        if (got.count == 0) return state.text();
        // A short block is the end of the file.
        ahead = {};
        if (got.count == tqfiles::kHashBlockSize) {
            reader.start([&, next = buffers[1 - current].data()] { ahead = readBlock(next); });
        }
        state.update(buffers[current].data(), got.count);
        const uint64_t before = hashed;
        hashed += got.count;
        if (asks && hashed / kHashQuestionInterval != before / kHashQuestionInterval) {
            corvina::DispatchQueue::global().async([delegate, path, cancelled] {
                if (!delegate->checksumShouldContinue(path)) cancelled->store(true);
            });
        }
        reader.wait();
        if (cancelled->load()) return std::nullopt;
        current = 1 - current;
    }
}

}  // namespace

std::optional<std::string> TQFileManager::md5HashWithContext(const TQDigestState& state)
{
    return textOf(state, TQDigestAlgorithm::MD5);
}

std::optional<std::string> TQFileManager::sha1HashWithContext(const TQDigestState& state)
{
    return textOf(state, TQDigestAlgorithm::SHA1);
}

std::optional<std::string> TQFileManager::sha256HashWithContext(const TQDigestState& state)
{
    return textOf(state, TQDigestAlgorithm::SHA256);
}

std::optional<std::string> TQFileManager::sha512HashWithContext(const TQDigestState& state)
{
    return textOf(state, TQDigestAlgorithm::SHA512);
}

std::optional<std::string> TQFileManager::md5HashForFile(const std::string& path,
                                                         std::shared_ptr<TQHashDelegate> delegate)
{
    return hashFile(path, TQDigestAlgorithm::MD5, delegate);
}

std::optional<std::string> TQFileManager::sha1HashForFile(const std::string& path,
                                                          std::shared_ptr<TQHashDelegate> delegate)
{
    return hashFile(path, TQDigestAlgorithm::SHA1, delegate);
}

std::optional<std::string> TQFileManager::sha512HashForFile(const std::string& path,
                                                            std::shared_ptr<TQHashDelegate> delegate)
{
    return hashFile(path, TQDigestAlgorithm::SHA512, delegate);
}

}  // namespace corvina::tq
