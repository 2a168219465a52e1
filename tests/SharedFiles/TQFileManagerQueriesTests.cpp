#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>

#include "support/TestSupport.h"
#include "tq/TQFileManager.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;

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
