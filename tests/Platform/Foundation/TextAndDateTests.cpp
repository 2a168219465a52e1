#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/Date.h"
#include "Foundation/Error.h"
#include "Foundation/Exception.h"
#include "Foundation/ProcessInfo.h"
#include "Foundation/StringUtils.h"
#include "Foundation/SystemLog.h"

using namespace corvina;

TEST(StringUtils, PathHelpers)
{
    struct Row {
        const char* path;
        const char* last;
        const char* deletingLast;
        const char* extension;
        const char* deletingExtension;
    };
    const Row rows[] = {
        {"/a/b/", "b", "/a", "", "/a/b"},
        {"/a/b.mov", "b.mov", "/a", "mov", "/a/b"},
        {"/", "/", "/", "", "/"},
        {"", "", "", "", ""},
        {"a.tar.gz", "a.tar.gz", "", "gz", "a.tar"},
        {".hidden", ".hidden", "", "", ".hidden"},
        {"/x/.hidden", ".hidden", "/x", "", "/x/.hidden"},
        {"/a", "a", "/", "", "/a"},
        {"name.", "name.", "", "", "name."},
        {"/dir.d/file", "file", "/dir.d", "", "/dir.d/file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_EQ(lastPathComponent(row.path), row.last);
        EXPECT_EQ(deletingLastPathComponent(row.path), row.deletingLast);
        EXPECT_EQ(pathExtension(row.path), row.extension);
        EXPECT_EQ(deletingPathExtension(row.path), row.deletingExtension);
    }
    EXPECT_EQ(appendPathComponent("/a/", "b"), "/a/b");
    EXPECT_EQ(appendPathComponent("/", "a"), "/a");
    EXPECT_EQ(appendPathComponent("/a", ""), "/a");
    EXPECT_EQ(appendPathComponent("", "a"), "a");
    EXPECT_EQ(appendPathComponent("/a", "/b/"), "/a/b");
    EXPECT_EQ(appendPathComponent("a", "b//c"), "a/b/c");
    EXPECT_EQ(pathComponents("/a/b"), (std::vector<std::string>{"/", "a", "b"}));
    EXPECT_EQ(pathComponents("a//b/"), (std::vector<std::string>{"a", "b", "/"}));
    EXPECT_TRUE(pathComponents("").empty());
}

TEST(StringUtils, TrimsLengthsAndReplacing)
{
    EXPECT_EQ(trimWhitespaceAndNewlines(" \t\r\n text \n"), "text");
    EXPECT_EQ(trimWhitespaceAndNewlines("\xC2\xA0\xE3\x80\x80x y\xE2\x80\xA8\xC2\x85"), "x y");
    EXPECT_EQ(trimWhitespaceAndNewlines("   "), "");
    EXPECT_EQ(trimWhitespaceAndNewlines(""), "");
    EXPECT_EQ(trimWhitespaceAndNewlines("caf\xC3\xA9"), "caf\xC3\xA9");  // é is not blank
    EXPECT_EQ(trimWhitespace("\t a b \n"), "a b \n");
    EXPECT_EQ(utf16Length("abc"), 3u);
    EXPECT_EQ(utf16Length("caf\xC3\xA9"), 4u);
    EXPECT_EQ(utf16Length("\xE2\x98\x95"), 1u);
    EXPECT_EQ(utf16Length("\xF0\x9F\x8E\xAC"), 2u);  // outside the BMP: a surrogate pair
    EXPECT_EQ(utf16Length("\xFF\xC3"), 2u);          // invalid bytes count one each
    EXPECT_EQ(replaceAll("a-b-c", "-", "--"), "a--b--c");
    EXPECT_EQ(replaceAll("aaa", "aa", "b"), "ba");
    EXPECT_EQ(replaceAll("abc", "", "x"), "abc");
}

TEST(Date, Descriptions)
{
    struct Row {
        long long seconds;
        const char* text;
    };
    const Row rows[] = {
        {0, "1970-01-01 00:00:00 +0000"},          {443779200, "1984-01-24 08:00:00 +0000"},
        {978307200, "2001-01-01 00:00:00 +0000"},  {-1, "1969-12-31 23:59:59 +0000"},
        {4102444799, "2099-12-31 23:59:59 +0000"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const Date d{std::chrono::seconds(row.seconds)};
        EXPECT_EQ(dateDescription(d), row.text);
        EXPECT_EQ(dateDescription(d + std::chrono::milliseconds(999)), row.text);
    }
}

TEST(Date, CachedFormatterFollowsTheSecond)
{
    CachedDateFormatter formatter;
    const Date base{std::chrono::seconds(443779200)};
    EXPECT_EQ(formatter.format(base), "1984-01-24 08:00:00 +0000");
    EXPECT_EQ(formatter.format(base + std::chrono::milliseconds(500)), "1984-01-24 08:00:00 +0000");
    EXPECT_EQ(formatter.format(base + std::chrono::seconds(1)), "1984-01-24 08:00:01 +0000");
    EXPECT_EQ(formatter.format(base - std::chrono::seconds(1)), "1984-01-24 07:59:59 +0000");
    EXPECT_EQ(formatter.now().size(), 25u);
    EXPECT_EQ(currentDateDescription().size(), 25u);
}

TEST(ErrorsAndExceptions, Descriptions)
{
    const Error e = Error::fromErrno(ENOENT, "/tmp/x");
    EXPECT_EQ(e.description(), "Error Domain=NSPOSIXErrorDomain Code=2 \"/tmp/x: No such file or directory\"");
    EXPECT_EQ(Error::fromErrno(EACCES).localizedDescription, "Permission denied");
    const PlatformException ex(kInvalidArgumentException, "bad value");
    EXPECT_EQ(ex.name(), "NSInvalidArgumentException");
    EXPECT_EQ(ex.description(), "bad value");
    EXPECT_NE(std::string(ex.what()).find("bad value"), std::string::npos);
}

TEST(ProcessInfo, Answers)
{
    EXPECT_EQ(processinfo::executablePath().front(), '/');
    EXPECT_EQ(processinfo::processName(), lastPathComponent(processinfo::executablePath()));
    EXPECT_TRUE(processinfo::version().has_value());
    EXPECT_EQ(processinfo::operatingSystemVersionString().rfind("Version ", 0), 0u);
    EXPECT_GE(processinfo::processorCount(), 1u);
    EXPECT_GT(processinfo::physicalMemory(), 0u);
    // 8-4-4-4-12 upper-case hex, version 4, RFC 4122 variant.
    auto isUuid = [](const std::string& s) {
        if (s.size() != 36 || s[14] != '4' || std::string("89AB").find(s[19]) == std::string::npos) return false;
        for (size_t i = 0; i < s.size(); ++i) {
            const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
            if (dash != (s[i] == '-')) return false;
            if (!dash && std::string("0123456789ABCDEF").find(s[i]) == std::string::npos) return false;
        }
        return true;
    };
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        const std::string s = processinfo::globallyUniqueString();
        EXPECT_TRUE(isUuid(s)) << s;
        seen.insert(s);
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(SystemLogConcurrency, NestedCapturesReceiveInnermostFromEveryThread)
{
    ScopedSystemLogCapture outer;
    systemLog("Crash reporter disabled");
    {
        ScopedSystemLogCapture inner;
        systemLog("Error reading settings %@: %d", std::string("/tmp/s.plist"), 2);
        EXPECT_EQ(inner.messages(), std::vector<std::string>{"Error reading settings /tmp/s.plist: 2"});
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) systemLog("thread %d line %d", t, i);
        });
    for (auto& th : threads) th.join();
    const auto messages = outer.messages();
    ASSERT_EQ(messages.size(), 201u);
    EXPECT_EQ(messages[0], "Crash reporter disabled");
}
