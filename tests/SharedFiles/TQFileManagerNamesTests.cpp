#include <fcntl.h>
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

TEST(TQFileManagerQueries, KindsOfItemsAndTheirDates)
{
    TempDir s;
    writeFile(s / "file.mov", "12345");
    fs::create_directories(s / "folder");
    fs::create_directories(s / "Tool.app/Contents");
    writeFile(s / "plain.app", "not a folder");
    fs::create_symlink(s / "file.mov", s / "fileLink");
    fs::create_symlink(s / "folder", s / "folderLink");
    fs::create_symlink(s / "gone", s / "dangling");
    struct Row {
        const char* name;
        bool exists, directory, package, link;
    } rows[] = {{"file.mov", 1, 0, 0, 0},  {"folder", 1, 1, 0, 0},   {"Tool.app", 1, 1, 1, 0},
                {"plain.app", 1, 0, 0, 0}, {"fileLink", 1, 0, 0, 1}, {"folderLink", 1, 1, 0, 1},
                {"dangling", 0, 0, 0, 1},  {"missing", 0, 0, 0, 0}};
    for (const auto& r : rows) {
        const std::string p = s / r.name;
        EXPECT_EQ(TQFileManager::fileExistsAtPath(p), r.exists) << r.name;
        EXPECT_EQ(TQFileManager::isDirectoryAtPath(p), r.directory) << r.name;
        EXPECT_EQ(TQFileManager::isPackageAtPath(p), r.package) << r.name;
        EXPECT_EQ(TQFileManager::isSymbolicLinkAtPath(p), r.link) << r.name;
        EXPECT_EQ(TQFileManager::modificationDateForFile(p).has_value(), r.link || r.exists) << "a link's own date";
    }
    const struct timespec times[2] = {{1000000000, 0}, {1234567890, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (s / "file.mov").c_str(), times, 0), 0);
    const auto modified = TQFileManager::modificationDateForFile(s / "file.mov").value();
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::milliseconds>(modified.time_since_epoch()).count(),
              1234567890500);
    EXPECT_FALSE(TQFileManager::creationDateForFile(s / "missing").has_value());
    if (const auto created = TQFileManager::creationDateForFile(s / "file.mov")) {
        EXPECT_GT(*created, modified) << "the birth time, not the modification time set above";
    }
}

TEST(TQFileManagerQueries, SizesAndEmptinessOfTrees)
{
    TempDir s;
    writeFile(s / "tree/a.raw", std::string(1000, 'a'));
    writeFile(s / "tree/sub/b.pcm", std::string(234, 'b'));
    writeFile(s / "tree/.hidden", "12");
    fs::create_symlink(s / "tree", s / "tree/sub/loop");  // a link back up ends the walk
    writeFile(s / "clutter/.DS_Store", "x");
    writeFile(s / "clutter/Icon\r", "x");
    writeFile(s / "clutter/sub/deeper/.DS_Store", "");
    writeFile(s / "deepfile/a/b/c/take.mov", "x");
    writeFile(s / "hidden/.anything", "x");
    EXPECT_EQ(TQFileManager::fileSize(s / "tree"), 1236u);
    EXPECT_EQ(TQFileManager::fileSize(s / "tree/a.raw"), 1000u);
    EXPECT_EQ(TQFileManager::fileSize(s / "clutter/sub"), 0u);
    EXPECT_EQ(TQFileManager::fileSize(s / "missing"), 0u);
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "clutter"));
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "clutter/sub/deeper"));
    EXPECT_FALSE(TQFileManager::isFolderEmpty(s / "deepfile"));
    EXPECT_FALSE(TQFileManager::isFolderEmpty(s / "hidden"));
    EXPECT_FALSE(TQFileManager::isFolderEmpty(s / "tree/sub"));
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "missing"));
}

TEST(TQFileManagerQueries, FreeNames)
{
    TempDir s;
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "clip.mov"), s / "clip.mov");
    for (const char* taken : {"clip.mov", "clip 2.mov", "notes", "a.tar.gz"}) writeFile(s / taken, "x");
    fs::create_symlink(s / "nowhere", s / "link.mov");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "clip.mov"), s / "clip 3.mov");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "notes"), s / "notes 2");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "a.tar.gz"), s / "a.tar 2.gz");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "link.mov"), s / "link 2.mov") << "a dangling link takes its name";
}

TEST(TQFileManagerQueries, VolumesFolderRules)
{
    for (const char* p : {"/Volumes", "/Users/x", "/", "relative/x"})
        EXPECT_TRUE(TQFileManager::isVolumeMountedForPath(p) && TQFileManager::isDriveMountedForPath(p)) << p;
    EXPECT_FALSE(TQFileManager::isVolumeMountedForPath("/Volumes/Gone/x") ||
                 TQFileManager::isDriveMountedForPath("/Volumes/Gone/x"));
    EXPECT_FALSE(TQFileManager::isVolumeMountedForPath("/VolumesX/a")) << "no slash needed after /Volumes";
    EXPECT_TRUE(TQFileManager::isDriveMountedForPath("/VolumesX/a"));
    EXPECT_EQ(TQFileManager::volumeMountPointForPath("/Volumes/Gone/x"), std::nullopt);
    EXPECT_EQ(TQFileManager::volumeMountPointForPath("/Users/x"), "/");
}

TEST(TQFileManagerQueries, MountedVolumesAndTheirDisks)
{
    TempDir s;
    ScopedMount memory(s / "Media Card");  // the kernel's table escapes the space
    MOUNT_OR_SKIP(memory);
    fs::create_directories(s / "Media Cardboard");
    const auto volumes = TQFileManager::mountedLocalVolumePaths();
    EXPECT_NE(std::find(volumes.begin(), volumes.end(), memory.path()), volumes.end());
    EXPECT_EQ(std::find(volumes.begin(), volumes.end(), "/proc"), volumes.end());
    EXPECT_EQ(TQFileManager::volumeMountPointForPath(memory / "DCIM/clip.mov"), memory.path());
    EXPECT_EQ(TQFileManager::volumeMountPointForPath(memory.path()), memory.path());
    EXPECT_NE(TQFileManager::volumeMountPointForPath(s / "Media Cardboard/x"), memory.path());
    writeFile(memory / "fill", std::string(1 << 20, 'x'));
    for (const std::string& asked : {memory.path(), memory.path() + "/"}) {
        const auto info = TQFileManager::infoForDiskAtMountpoint(asked).value_or(corvina::Value());
        EXPECT_EQ(info["MountPoint"].stringValue(), memory.path());
        EXPECT_EQ(info["VolumeName"].stringValue(), "Media Card");
        EXPECT_EQ(info["FilesystemType"].stringValue(), "tmpfs");
        EXPECT_EQ(info["TotalSize"].unsignedLongLongValue(), 4u << 20);
        EXPECT_LE(info["FreeSpace"].unsignedLongLongValue(), 3u << 20);
        EXPECT_TRUE(info["WritableVolume"].boolValue());
        EXPECT_TRUE(info["DeviceNode"].isNone()) << "memory has no device";
    }
    EXPECT_FALSE(TQFileManager::infoForDiskAtMountpoint(s / "Media Cardboard").has_value());
}

TEST(TQFileManagerQueries, FileSystemReferences)
{
    TempDir s;
    writeFile(s / "take.mov", "x");
    const auto ref = TQFileManager::stringToFSRef(s / "take.mov");
    EXPECT_EQ(TQFileManager::stringWithFSRef(&ref), fs::canonical(s / "take.mov").string());
    writeFile(s / "other", "y");
    fs::rename(s / "other", s / "take.mov");
    EXPECT_EQ(TQFileManager::stringWithFSRef(&ref), std::nullopt) << "another item under the same name";
    const auto missing = TQFileManager::stringToFSRef(s / "missing");
    EXPECT_FALSE(missing.valid || TQFileManager::stringWithFSRef(&missing) || TQFileManager::stringWithFSRef(nullptr));
}

}  // namespace corvina::tq
