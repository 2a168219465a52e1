#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Foundation/Exception.h"
#include "Foundation/FileHandle.h"
#include "support/TestSupport.h"

using corvina::FileHandle;
namespace test = corvina::test;
using corvina::PlatformException;

namespace {

// A file of `size` patterned bytes in a folder of its own, and those bytes.
struct PatternFile {
    test::TempDir folder;
    std::string path;
    std::vector<uint8_t> bytes;
    explicit PatternFile(size_t size) : path(test::makeFile(folder / "pattern", size)), bytes(test::readBytes(path)) {}
    std::vector<uint8_t> slice(size_t offset, size_t length) const
    {
        offset = std::min(offset, bytes.size());
        return std::vector<uint8_t>(bytes.begin() + static_cast<long>(offset),
                                    bytes.begin() + static_cast<long>(std::min(bytes.size(), offset + length)));
    }
};

std::vector<uint8_t> toVector(const corvina::ByteBuffer& b)
{
    return std::vector<uint8_t>(b.data(), b.data() + b.size());
}

}  // namespace

TEST(FileHandle, SeeksAndReadsAcrossTheWindow)
{
    PatternFile file(10000);
    // A small window makes every kind of move cross it.
    auto handle = FileHandle::forReadingAtPath(file.path, 64);
    ASSERT_TRUE(handle);
    struct Step {
        uint64_t offset;
        size_t length;
    };
    const Step steps[] = {
        {0, 4},      {4, 4},     {60, 10},  // crosses the first window's end
        {2, 2},                             // back inside an old window
        {5000, 100},                        // larger than the window: straight read
        {4990, 20},  {30, 1},               // backwards, far
        {9990, 100},                        // runs into the end of the file
        {10000, 5},  {20000, 5},            // at and after the end
        {0, 0},      {63, 2},    {9999, 1},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(testing::Message() << "offset " << step.offset << " length " << step.length);
        handle->seekToFileOffset(step.offset);
        EXPECT_EQ(handle->offsetInFile(), step.offset);
        const auto expected = file.slice(step.offset, step.length);
        EXPECT_EQ(toVector(handle->readDataOfLength(step.length)), expected);
        EXPECT_EQ(handle->offsetInFile(), step.offset + expected.size());
    }
    // Small reads from the start, through every window, to the end.
    handle->seekToFileOffset(0);
    std::vector<uint8_t> all;
    uint8_t frame[6];
    while (size_t n = handle->readInto(frame, sizeof frame)) all.insert(all.end(), frame, frame + n);
    EXPECT_EQ(all, file.bytes);
    EXPECT_EQ(handle->readInto(frame, sizeof frame), 0u);
}

TEST(FileHandle, LargeReadsAndEndOfFile)
{
    PatternFile file((3 << 20) + 5);
    auto handle = FileHandle::forReadingAtPath(file.path);
    ASSERT_TRUE(handle);
    handle->seekToFileOffset(100);
    EXPECT_EQ(toVector(handle->readDataOfLength(2 << 20)), file.slice(100, 2 << 20));
    // Asking for far more than is left gives the rest, without allocating what was asked.
    const auto rest = handle->readDataOfLength(UINT64_MAX / 4);
    EXPECT_EQ(toVector(rest), file.slice(100 + (2 << 20), 4 << 20));
    EXPECT_TRUE(handle->readDataOfLength(10).empty());
    EXPECT_EQ(handle->seekToEndOfFile(), (3u << 20) + 5);

    // Files that report no size still read to their end.
    auto proc = FileHandle::forReadingAtPath("/proc/self/status");
    ASSERT_TRUE(proc);
    const auto status = proc->readDataOfLength(UINT64_MAX / 4);
    EXPECT_NE(std::string(reinterpret_cast<const char*>(status.data()), status.size()).find("Pid:"), std::string::npos);
}

TEST(FileHandle, ClosedHandleRaises)
{
    PatternFile file(100);
    auto handle = FileHandle::forReadingAtPath(file.path);
    ASSERT_TRUE(handle);
    handle->closeFile();
    EXPECT_TRUE(handle->isClosed());
    try {
        handle->readDataOfLength(4);
        FAIL() << "no exception";
    } catch (const PlatformException& e) {
        EXPECT_EQ(e.name(), corvina::kFileHandleOperationException);
        EXPECT_NE(e.reason().find("Bad file descriptor"), std::string::npos) << e.reason();
    }
    EXPECT_THROW(handle->seekToFileOffset(0), PlatformException);
    EXPECT_NO_THROW(handle->closeFile());
}

TEST(FileHandle, WritingUpdatingAndTheirFailures)
{
    EXPECT_FALSE(FileHandle::forReadingAtPath("/no/such/file"));
    EXPECT_FALSE(FileHandle::forReadingAtPath(CORVINA_BINARY_DIR));
    EXPECT_FALSE(FileHandle::forWritingAtPath("/no/such/file"));
    EXPECT_FALSE(FileHandle::forUpdatingAtPath(CORVINA_BINARY_DIR));
    PatternFile file(10);
    {
        auto writer = FileHandle::forWritingAtPath(file.path);
        ASSERT_TRUE(writer);
        EXPECT_EQ(writer->offsetInFile(), 0u);
        writer->writeData(std::string_view("AB"));
        writer->synchronizeFile();
    }
    {
        auto updater = FileHandle::forUpdatingAtPath(file.path);
        ASSERT_TRUE(updater);
        EXPECT_EQ(updater->offsetInFile(), 10u);
        updater->writeData(std::string_view("tail"));
    }
    auto reader = FileHandle::forReadingAtPath(file.path);
    ASSERT_TRUE(reader);
    auto all = toVector(reader->readDataOfLength(100));
    ASSERT_EQ(all.size(), 14u);
    EXPECT_EQ(all[0], 'A');
    EXPECT_EQ(all[1], 'B');
    EXPECT_EQ(std::string(all.end() - 4, all.end()), "tail");
    // A read handle cannot write: the failure is raised, not ignored.
    EXPECT_THROW(reader->writeData(std::string_view("x")), PlatformException);
}
