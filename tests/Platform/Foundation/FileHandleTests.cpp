#include <gtest/gtest.h>

#include <fcntl.h>

#include <string>

#include "Foundation/Exception.h"
#include "Foundation/FileHandle.h"
#include "support/TestSupport.h"

using corvina::FileHandle;
using corvina::PlatformException;
namespace test = corvina::test;

// What the callers use: opening for reading (refused for what cannot be read), the log's handle
// on its own descriptor writing at the end, and raising once closed or when it cannot write.
TEST(FileHandle, OpensWritesAtTheEndAndRaisesWhenItCannot)
{
    test::TempDir folder;
    EXPECT_FALSE(FileHandle::forReadingAtPath("/no/such/file"));
    EXPECT_FALSE(FileHandle::forReadingAtPath(folder.path()));
    EXPECT_FALSE(FileHandle::forUpdatingDescriptor(-1));
    const std::string path = folder / "log";
    test::writeFile(path, "0123456789");
    auto handle = FileHandle::forUpdatingDescriptor(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(handle);
    handle->writeData(std::string_view("tail"));
    EXPECT_EQ(test::readFile(path), "0123456789tail");
    handle->closeFile();
    EXPECT_TRUE(handle->isClosed());
    try {
        handle->writeData(std::string_view("x"));
        FAIL() << "no exception";
    } catch (const PlatformException& e) {
        EXPECT_EQ(e.name(), corvina::kFileHandleOperationException);
        EXPECT_NE(e.reason().find("Bad file descriptor"), std::string::npos) << e.reason();
    }
    EXPECT_NO_THROW(handle->closeFile());
    auto reader = FileHandle::forReadingAtPath(path);
    ASSERT_TRUE(reader);
    EXPECT_THROW(reader->writeData(std::string_view("x")), PlatformException);
}
