// Copies with progress and verification, and the digests they verify with.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>

#include "support/TestSupport.h"
#include "Foundation/SystemLog.h"
#include "tq/TQFileManager.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;

namespace {

constexpr size_t MiB = 1 << 20;

// Records every delegate call; the progress calls may come from other threads.
struct Recorder {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<uint64_t> progress;
    int questions = 0;
    bool answer = true;
    std::vector<std::string> failedFiles;
    std::vector<std::string> failedChecksums;
    int finished = 0;
    corvina::Value finalSettings;
    std::promise<void> answeredNo;

    std::shared_ptr<TQCopyDelegate> delegate()
    {
        auto d = std::make_shared<TQCopyDelegate>();
        d->fileCopyBytesWritten = [this](uint64_t n, TQCopySettings&) {
            std::lock_guard lock(mutex);
            progress.push_back(n);
            changed.notify_all();
        };
        d->fileCopyShouldContinue = [this](TQCopySettings&) {
            std::lock_guard lock(mutex);
            ++questions;
            if (!answer && questions == 1) answeredNo.set_value();
            changed.notify_all();
            return answer;
        };
        d->fileCopyVerificationFailed = [this](TQCopySettings& s, const std::string& file) {
            std::lock_guard lock(mutex);
            failedFiles.push_back(file);
            failedChecksums.push_back(s.objectForKey("destChecksum").stringValue());
        };
        d->fileCopyFinished = [this](TQCopySettings& s) {
            std::lock_guard lock(mutex);
            ++finished;
            finalSettings = s.dictionary();
        };
        return d;
    }
    // Waits (bounded) until the asynchronous calls have arrived.
    void waitFor(size_t progressCalls, int questionCalls)
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, std::chrono::seconds(30),
                         [&] { return progress.size() >= progressCalls && questions >= questionCalls; });
    }
};

struct HookReset {
    ~HookReset() { TQFileManager::setCopyBlockHookForTesting(nullptr); }
};

// The coreutils tool for each verification type, none for None.
const char* const kTools[] = {nullptr, "md5sum", "sha1sum", "sha256sum", "sha512sum"};

std::vector<std::string> strings(const corvina::Value& array)
{
    std::vector<std::string> out;
    for (size_t i = 0; i < array.count(); ++i) out.push_back(array[i].stringValue());
    return out;
}

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

TEST(TQFileManagerCopy, RefusesWhatItCannotCopyAndNeverTruncatesTheSource)
{
    TempDir scratch;
    const std::string source = makeFile(scratch / "take.mov", 100000);
    const std::string original = readFile(source);
    struct Row {
        std::string source;
        std::vector<std::string> destinations;
        uint64_t type;
        std::string message;
    } rows[] = {
        {scratch / "missing.mov",
         {scratch / "out.mov"},
         0,
         "Error: File " + scratch / "missing.mov" + " doesn't exist. Aborting copy process..."},
        {source, {}, 0, "Error: You must have at least one destination. Aborting copy process..."},
        {source, {scratch / "out.mov"}, 5, "Error: Unknown verification type 5. Aborting copy process..."},
        {source,
         {scratch / "out.mov", source},
         3,
         "Error: Unable to open destination file " + source + ". Aborting copy process..."},
        {source,
         {scratch / "take.mov/inside"},
         0,
         "Unable to copy file " + source + " - destination directory " + source +
             " doesn't exist. Aborting copy process..."},
    };
    for (const auto& row : rows) {
        corvina::ScopedSystemLogCapture log;
        EXPECT_FALSE(TQFileManager::copyFileWithProgress(row.source, row.destinations,
                                                         static_cast<TQVerificationType>(row.type), nullptr))
            << row.message;
        EXPECT_EQ(log.messages(), std::vector<std::string>{row.message});
    }
    EXPECT_EQ(readFile(source), original);
    EXPECT_FALSE(fs::exists(scratch / "out.mov")) << "a refused copy leaves nothing it made";
}

TEST(TQFileManagerCopy, EveryVerificationTypeCopiesIntoNewFoldersAndCarriesTheDate)
{
    TempDir scratch;
    const size_t size = 3 * MiB + 17;
    const std::string source = makeFile(scratch / "take.mov", size);
    ASSERT_TRUE(TQFileManager::setModificationDate(corvina::Date(std::chrono::seconds(1000000000)), source));
    for (uint64_t type = 0; type <= 4; ++type) {
        SCOPED_TRACE(type);
        const std::vector<std::string> destinations = {scratch / ("a" + std::to_string(type) + "/x/copy.mov"),
                                                       scratch / ("b" + std::to_string(type) + "/copy.mov")};
        Recorder rec;
        ASSERT_TRUE(TQFileManager::copyFileWithProgress(source, destinations, static_cast<TQVerificationType>(type),
                                                        rec.delegate()));
        for (const auto& d : destinations) {
            EXPECT_TRUE(readFile(d) == readFile(source)) << d;
            EXPECT_EQ(mtimeSeconds(d), 1000000000);
        }
        EXPECT_EQ(rec.progress, std::vector<uint64_t>{size}) << "only the final report below 20 MiB";
        EXPECT_EQ(rec.finished, 1);
        EXPECT_TRUE(rec.failedFiles.empty());
        const corvina::Value& s = rec.finalSettings;
        EXPECT_TRUE(s["destChecksum"].isNone());
        if (const char* tool = kTools[type]) {
            const std::string expected = toolDigest(tool, source);
            EXPECT_EQ(s["sourceChecksum"].stringValue(), expected);
            EXPECT_EQ(strings(s["destChecksums"]), (std::vector<std::string>{expected, expected}));
        } else {
            EXPECT_TRUE(s["sourceChecksum"].isNone());
            EXPECT_TRUE(s["destChecksums"].isNone());
        }
    }
    // An empty source empties an existing destination, reports 0 once and verifies.
    writeFile(scratch / "old.mov", "previous contents");
    Recorder rec;
    ASSERT_TRUE(TQFileManager::copyFileWithProgress(makeFile(scratch / "empty.mov", 0), {scratch / "old.mov"},
                                                    TQVerificationType::MD5, rec.delegate()));
    EXPECT_EQ(fileSize(scratch / "old.mov"), 0);
    EXPECT_EQ(rec.progress, std::vector<uint64_t>{0});
    EXPECT_EQ(rec.finalSettings["sourceChecksum"].stringValue(), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(TQFileManagerCopy, ThirtyMebibytesReportOnceOnTheQueueThenTheFinalCount)
{
    TempDir scratch;
    const std::string source = makeFile(scratch / "take.mov", 30 * MiB);
    Recorder rec;
    ASSERT_TRUE(TQFileManager::copyFileWithProgress(source, scratch / "copy.mov", rec.delegate()));
    rec.waitFor(2, 1);
    std::lock_guard lock(rec.mutex);
    ASSERT_EQ(rec.progress.size(), 2u);
    EXPECT_EQ(rec.questions, 1);
    // The queued report may arrive after the final one.
    std::sort(rec.progress.begin(), rec.progress.end());
    EXPECT_EQ(rec.progress, (std::vector<uint64_t>{20 * MiB, 30 * MiB}));
}

TEST(TQFileManagerCopy, MismatchOnOneDestinationIsReportedAndTheCopyStillSucceeds)
{
    TempDir scratch;
    HookReset reset;
    const std::string source = makeFile(scratch / "take.mov", 2 * MiB + 5);
    const std::vector<std::string> destinations = {scratch / "1.mov", scratch / "2.mov", scratch / "3.mov"};
    // The second destination reads back one changed byte in its second block.
    TQFileManager::setCopyBlockHookForTesting([&](const std::string& d, uint64_t position, std::span<uint8_t> bytes) {
        if (d == destinations[1] && position == MiB && !bytes.empty()) bytes[100] ^= 0x40;
    });
    ASSERT_TRUE(TQFileManager::setModificationDate(corvina::Date(std::chrono::seconds(1500000000)), source));
    Recorder rec;
    EXPECT_TRUE(TQFileManager::copyFileWithProgress(source, destinations, TQVerificationType::SHA256, rec.delegate()));
    const std::string good = toolDigest("sha256sum", source);
    ASSERT_EQ(rec.failedFiles, std::vector<std::string>{destinations[1]});
    ASSERT_EQ(rec.failedChecksums.size(), 1u);
    EXPECT_NE(rec.failedChecksums[0], good);
    EXPECT_EQ(rec.failedChecksums[0].size(), 64u);
    EXPECT_EQ(rec.finalSettings["destChecksum"].stringValue(), rec.failedChecksums[0]);
    EXPECT_EQ(strings(rec.finalSettings["destChecksums"]),
              (std::vector<std::string>{good, rec.failedChecksums[0], good}));
    EXPECT_EQ(rec.finished, 1);
    for (const auto& d : destinations) EXPECT_EQ(mtimeSeconds(d), 1500000000) << d;
}

TEST(TQFileManagerCopy, NoFromTheDelegateStopsMidCopyAndKeepsThePrefix)
{
    TempDir scratch;
    HookReset reset;
    const size_t size = 48 * MiB;
    const std::string source = makeFile(scratch / "take.mov", size);
    Recorder rec;
    rec.answer = false;
    auto answered = rec.answeredNo.get_future().share();
    // Once past the first question, the writers wait until the "no" has been given, so the
    // copy cannot run to the end before it hears it. The copy raises its flag on the queue
    // just after the answer returns: every later block waits a little, so that the 27 blocks
    // left give a busy queue seconds to raise it while a prompt one ends the copy at once.
    TQFileManager::setCopyBlockHookForTesting([answered](const std::string&, uint64_t position, std::span<uint8_t>) {
        if (position < 21 * MiB) return;
        answered.wait_for(std::chrono::seconds(30));
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    });
    const std::vector<std::string> destinations = {scratch / "1.mov", scratch / "2.mov"};
    EXPECT_FALSE(TQFileManager::copyFileWithProgress(source, destinations, TQVerificationType::MD5, rec.delegate()));
    const std::string whole = readFile(source);
    for (const auto& d : destinations) {
        const std::string part = readFile(d);
        EXPECT_GE(part.size(), 20 * MiB);
        EXPECT_LT(part.size(), size);
        EXPECT_TRUE(whole.compare(0, part.size(), part) == 0) << d << " holds a prefix of the source";
    }
    std::lock_guard lock(rec.mutex);
    EXPECT_EQ(rec.finished, 0);
    EXPECT_TRUE(rec.failedFiles.empty());
    for (const uint64_t p : rec.progress) EXPECT_LT(p, size) << "no final report";
}

TEST(TQFileManagerCopy, FullFileSystemFailsTheCopyAndRemovesTheShortFile)
{
    TempDir scratch;
    ScopedMount smallMount(scratch / "small", "tmpfs", "size=1m");
    MOUNT_OR_SKIP(smallMount);
    const std::string small = smallMount.path();
    const std::string source = makeFile(scratch / "take.mov", 3 * MiB);
    ASSERT_TRUE(TQFileManager::setModificationDate(corvina::Date(std::chrono::seconds(1000000000)), source));
    // The other destination is copied whole, but nothing that follows a complete copy happens.
    for (const auto type : {TQVerificationType::SHA1, TQVerificationType::None}) {
        Recorder rec;
        corvina::ScopedSystemLogCapture log;
        EXPECT_FALSE(TQFileManager::copyFileWithProgress(source, {scratch / "ok.mov", small + "/full.mov"}, type,
                                                         rec.delegate()));
        EXPECT_TRUE(rec.progress.empty() && rec.failedFiles.empty() && rec.finished == 0);
        EXPECT_TRUE(readFile(scratch / "ok.mov") == readFile(source)) << "the whole copy stays";
        EXPECT_NE(mtimeSeconds(scratch / "ok.mov"), 1000000000);
        EXPECT_FALSE(fs::exists(small + "/full.mov")) << "the short copy is removed";
        const auto messages = log.messages();
        EXPECT_GE(std::ranges::count(messages, "Error writing file " + small + "/full.mov: 28"), 1);
        EXPECT_EQ(messages.back(), "Error: copied file size does not match original source " + source);
        fs::remove(scratch / "ok.mov");
    }
}

TEST(TQFileManagerHash, FilesAgreeWithCoreutilsAroundEveryBlockBoundary)
{
    TempDir scratch;
    // Either side of the digest blocks (64, 128) and the read blocks (64 KiB, 1 MiB).
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

TEST(TQFileManagerHash, NoFromTheDelegateCancels)
{
    TempDir scratch;
    const std::string path = sparseFile(scratch / "zeros", off_t(4) << 30);
    std::atomic<int> asked{0};
    EXPECT_FALSE(TQFileManager::sha1HashForFile(path, countingDelegate(asked, false)).has_value());
    EXPECT_GE(asked.load(), 1);
}

}  // namespace corvina::tq
