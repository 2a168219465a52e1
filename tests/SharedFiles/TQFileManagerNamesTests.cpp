#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "support/PrivilegedTools.h"
#include "tq/TQFileManager.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;

namespace {

std::vector<std::string> sorted(std::vector<std::string> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

}  // namespace

TEST(TQFileManagerWildcards, PatternsAgainstARealTree)
{
    TempDir scratch;
    const std::string& s = scratch.path();
    for (const char* f : {"Volumes/A/Media", "Volumes/B/other", "Volumes/.hidden/Media", "clips/x.mov", "clips/y.mov",
                          "clips/A.MOV", "clips/sub/z.mov", "clips/?.mov", "clips/ab.mov"})
        writeFile(scratch / f, "x");
    fs::create_directories(scratch / "Volumes/C/Media");
    const std::string clips = scratch / "clips";
    const std::string relative = s.substr(1);  // taken from the root when no base is given

    struct Row {
        std::string pattern;
        std::optional<std::string> base;
        std::vector<std::string> expected;
    } rows[] = {
        {s + "/Volumes/*", {}, {s + "/Volumes/.hidden", s + "/Volumes/A", s + "/Volumes/B", s + "/Volumes/C"}},
        {s + "/Volumes/*/Media", {}, {s + "/Volumes/.hidden/Media", s + "/Volumes/A/Media", s + "/Volumes/C/Media"}},
        {s + "/Volumes/*/", {}, {s + "/Volumes/.hidden", s + "/Volumes/A", s + "/Volumes/B", s + "/Volumes/C"}},
        {relative + "/Volumes/[AB]*", {}, {}},
        {relative + "/Volumes/*/Media",
         {},
         {s + "/Volumes/.hidden/Media", s + "/Volumes/A/Media", s + "/Volumes/C/Media"}},
        {"*.mov", clips, {clips + "/?.mov", clips + "/ab.mov", clips + "/x.mov", clips + "/y.mov"}},
        {"?.mov*", clips, {clips + "/?.mov", clips + "/x.mov", clips + "/y.mov"}},
        {"a*b*.mov", clips, {clips + "/ab.mov"}},
        {"*/z.mov", clips, {clips + "/sub/z.mov"}},
        {"*/missing.mov", clips, {}},
        {"*.avi", clips, {}},
        {"x.mov/*", clips, {}},
        // Without "*" nothing is looked up, "?" included.
        {"a/b.mov", std::string("/x"), {"/x/a/b.mov"}},
        {"?.mov", clips, {clips + "/?.mov"}},
        {"q?.mov", clips, {clips + "/q?.mov"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.pattern);
        EXPECT_EQ(sorted(TQFileManager::filesMatchingWildcardPath(row.pattern, row.base)), sorted(row.expected));
        EXPECT_EQ(sorted(TQFileManager::filesMatchingWildcardPath(row.pattern, row.base, true)), sorted(row.expected))
            << "searchSubdirs never descends";
    }

    EXPECT_EQ(TQFileManager::decodeWildcardPath("*/z.mov", clips), clips + "/sub/z.mov");
    EXPECT_EQ(TQFileManager::decodeWildcardPath("*.avi", clips), clips + "/*.avi");
    EXPECT_EQ(TQFileManager::decodeWildcardPath(s + "/nothing/*", std::nullopt), std::nullopt);
    EXPECT_EQ(TQFileManager::decodeWildcardPath(s + "/Volumes/A*", std::nullopt), s + "/Volumes/A");
}

TEST(TQFileManagerNames, CleanedFileNames)
{
    const std::pair<std::string, std::string> rows[] = {
        {".hidden", "hidden"},
        {" .name:1/2", ".name12"},
        {"..", "."},
        {".", ""},
        {"  take 1.mov \n", "take 1.mov"},
        {". x ", "x"},
        {"\xC2\xA0"
         "clip"
         "\xE3\x80\x80",
         "clip"},
        {"caf\xC3\xA9?*.mov", "caf\xC3\xA9?*.mov"},
    };
    for (const auto& [in, out] : rows) EXPECT_EQ(TQFileManager::validateFilename(in), out) << in;
}

TEST(TQFileManagerNames, SizesForPeople)
{
    const std::pair<double, std::string> rows[] = {
        {0, "0 B"},
        {1023, "1023 B"},
        {1024, "1.00 KB"},
        {1048575, "1024.00 KB"},
        {1073741824, "1.00 GB"},
        {1125899906842624.0 * 3, "3072.00 TB"},
    };
    for (const auto& [bytes, text] : rows) EXPECT_EQ(TQFileManager::formatFileSize(bytes), text) << bytes;
}

TEST(TQFileManagerNames, EmptyFilesNeverReplaceAnything)
{
    TempDir scratch;
    EXPECT_TRUE(TQFileManager::createEmptyFile(scratch / "new.mov"));
    EXPECT_EQ(fileSize(scratch / "new.mov"), 0);
    writeFile(scratch / "footage.mov", "precious");
    EXPECT_FALSE(TQFileManager::createEmptyFile(scratch / "footage.mov"));
    EXPECT_EQ(readFile(scratch / "footage.mov"), "precious");
    EXPECT_FALSE(TQFileManager::createEmptyFile(scratch / "no/folder/new.mov"));
}

TEST(TQFileManagerNames, TouchAndModificationDates)
{
    TempDir scratch;
    const std::string file = scratch / "take.mov";
    writeFile(file, "x");
    const corvina::Date old(std::chrono::seconds(1234567890));
    ASSERT_TRUE(TQFileManager::setModificationDate(old, file));
    EXPECT_EQ(mtimeSeconds(file), 1234567890);
    EXPECT_FALSE(TQFileManager::setModificationDate(old, scratch / "missing"));

    const auto before =
        std::chrono::duration_cast<std::chrono::seconds>(corvina::Clock::now().time_since_epoch()).count();
    EXPECT_TRUE(TQFileManager::touchFile(file));
    EXPECT_GE(mtimeSeconds(file), before);

    // A missing file cannot be written, so the privileged branch runs "touch -c", which
    // creates nothing.
    Tools privileged;
    EXPECT_TRUE(TQFileManager::touchFile(scratch / "missing", true));
    EXPECT_FALSE(TQFileManager::touchFile(""));
    EXPECT_EQ(privileged.calls(), (std::vector<Tools::Call>{{"/usr/bin/touch", "-c", scratch / "missing"}}));
    EXPECT_EQ(privileged.async(), std::vector<bool>{false}) << "waited for";
    EXPECT_FALSE(fs::exists(scratch / "missing"));
}

}  // namespace corvina::tq
