#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>

#include "support/TestSupport.h"
#include "Foundation/SystemLog.h"
#include "tq/TQFileManager.h"

namespace corvina::tq {

using namespace corvina::test;

namespace {

// A file of the size whose content is zeros, without using the disk.
std::string sparseFile(const std::string& path, off_t size)
{
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_EQ(::ftruncate(fd, size), 0);
    ::close(fd);
    return path;
}

std::shared_ptr<TQHashDelegate> countingDelegate(std::atomic<int>& asked, bool answer)
{
    auto d = std::make_shared<TQHashDelegate>();
    d->checksumShouldContinue = [&asked, answer](const std::string&) {
        ++asked;
        return answer;
    };
    return d;
}

}  // namespace

TEST(TQFileManagerHash, FilesAgreeWithCoreutilsAroundEveryBlockBoundary)
{
    TempDir scratch;
    // Digest blocks (64 and 128 bytes), the 64 KiB and 1 MiB read blocks, either side of each;
    // the last is 3 MiB + 4097.
    const size_t sizes[] = {0,   1,   55,    56,    63,    64,      65,      111,     112,    127,
                            128, 129, 65535, 65536, 65537, 1048575, 1048576, 1048577, 3149825};
    for (const size_t size : sizes) {
        SCOPED_TRACE(size);
        const std::string path = makeFile(scratch / ("f" + std::to_string(size)), size, size + 3);
        EXPECT_EQ(TQFileManager::md5HashForFile(path).value_or(""), toolDigest("md5sum", path));
        EXPECT_EQ(TQFileManager::sha1HashForFile(path).value_or(""), toolDigest("sha1sum", path));
        EXPECT_EQ(TQFileManager::sha512HashForFile(path).value_or(""), toolDigest("sha512sum", path));

        // The same bytes fed from memory in uneven pieces.
        const std::string bytes = readFile(path);
        TQDigestState sha256(TQDigestAlgorithm::SHA256);
        for (size_t at = 0, piece = 1; at < bytes.size(); at += piece, piece = piece * 3 + 1)
            sha256.update(std::string_view(bytes).substr(at, piece));
        EXPECT_EQ(TQFileManager::sha256HashWithContext(sha256).value_or(""), toolDigest("sha256sum", path));
    }
}

TEST(TQFileManagerHash, StatesFinishWithoutChangingAndRefuseOtherAlgorithms)
{
    TQDigestState md5(TQDigestAlgorithm::MD5);
    md5.update("abc");
    const auto once = TQFileManager::md5HashWithContext(md5);
    EXPECT_EQ(once, TQFileManager::md5HashWithContext(md5));
    EXPECT_EQ(once.value_or(""), "900150983cd24fb0d6963f7d28e17f72");

    EXPECT_FALSE(TQFileManager::sha1HashWithContext(md5).has_value());
    EXPECT_FALSE(TQFileManager::sha256HashWithContext(md5).has_value());
    EXPECT_FALSE(TQFileManager::sha512HashWithContext(md5).has_value());
    EXPECT_EQ(TQFileManager::sha1HashWithContext(TQDigestState(TQDigestAlgorithm::SHA1)).value_or(""),
              "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(TQFileManager::sha512HashWithContext(TQDigestState(TQDigestAlgorithm::SHA512)).value_or("").size(), 128u);
}

TEST(TQFileManagerHash, DelegateIsAskedAfterEveryFiftyMebibytes)
{
    TempDir scratch;
    const struct {
        off_t size;
        int questions;
    } rows[] = {{0, 0}, {52428799, 0}, {52428800, 1}, {52428801, 1}, {104857600, 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.size);
        const std::string path = sparseFile(scratch / "zeros", row.size);
        std::atomic<int> asked{0};
        EXPECT_EQ(TQFileManager::md5HashForFile(path, countingDelegate(asked, true)), toolDigest("md5sum", path));
        // The questions run on the global queue; wait for them (bounded) before counting.
        for (int i = 0; i < 3000 && asked.load() < row.questions; ++i) ::usleep(10000);
        ::usleep(20000);
        EXPECT_EQ(asked.load(), row.questions);
    }
}

TEST(TQFileManagerHash, NoFromTheDelegateCancelsAndMissingFilesFail)
{
    TempDir scratch;
    const std::string path = sparseFile(scratch / "zeros", off_t(4) << 30);
    std::atomic<int> asked{0};
    EXPECT_FALSE(TQFileManager::sha1HashForFile(path, countingDelegate(asked, false)).has_value());
    EXPECT_GE(asked.load(), 1);

    corvina::ScopedSystemLogCapture log;
    EXPECT_FALSE(TQFileManager::md5HashForFile(scratch / "missing").has_value());
    EXPECT_FALSE(TQFileManager::sha512HashForFile(scratch.path()).has_value()) << "a folder is not opened";
    const std::string aborting = ". Aborting hash verification...";
    EXPECT_EQ(log.messages(),
              (std::vector<std::string>{"Error: Unable to open destination file " + scratch / "missing" + aborting,
                                        "Error: Unable to open destination file " + scratch.path() + aborting}));
}

}  // namespace corvina::tq
