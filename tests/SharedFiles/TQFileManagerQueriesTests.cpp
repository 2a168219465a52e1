#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "FileTestSupport.h"
#include "ServicesTestSupport.h"
#include "TQFileManager.h"

namespace fs = std::filesystem;
using servicestest::Scratch;
using servicestest::writeFile;

TEST(TQFileManagerQueries, KindsOfItems)
{
    Scratch s;
    writeFile(s / "file.mov", "12345");
    fs::create_directories(s / "folder");
    fs::create_directories(s / "Tool.app/Contents");
    writeFile(s / "plain.app", "not a folder");
    fs::create_symlink(s / "file.mov", s / "fileLink");
    fs::create_symlink(s / "folder", s / "folderLink");
    fs::create_symlink(s / "gone", s / "dangling");
    struct Row {
        std::string name;
        bool exists, directory, package, link;
    } rows[] = {
        {"file.mov", true, false, false, false},  {"folder", true, true, false, false},
        {"Tool.app", true, true, true, false},    {"plain.app", true, false, false, false},
        {"fileLink", true, false, false, true},   {"folderLink", true, true, false, true},
        {"dangling", false, false, false, true},  {"missing", false, false, false, false},
    };
    for (const auto& r : rows) {
        const std::string p = s / r.name;
        EXPECT_EQ(TQFileManager::fileExistsAtPath(p), r.exists) << r.name;
        EXPECT_EQ(TQFileManager::isDirectoryAtPath(p), r.directory) << r.name;
        EXPECT_EQ(TQFileManager::isPackageAtPath(p), r.package) << r.name;
        EXPECT_EQ(TQFileManager::isSymbolicLinkAtPath(p), r.link) << r.name;
    }
    EXPECT_FALSE(TQFileManager::fileExistsAtPath(""));
}

TEST(TQFileManagerQueries, DatesOfItemsAndLinks)
{
    Scratch s;
    writeFile(s / "clip.mov", "x");
    fs::create_symlink(s / "gone", s / "dangling");
    const struct timespec times[2] = {{1000000000, 0}, {1234567890, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, (s / "clip.mov").c_str(), times, 0), 0);
    const auto modified = TQFileManager::modificationDateForFile(s / "clip.mov");
    ASSERT_TRUE(modified.has_value());
    EXPECT_EQ(std::chrono::duration_cast<std::chrono::milliseconds>(modified->time_since_epoch()).count(),
              1234567890500);
    EXPECT_TRUE(TQFileManager::modificationDateForFile(s / "dangling").has_value()) << "the link's own date";
    EXPECT_FALSE(TQFileManager::modificationDateForFile(s / "missing").has_value());
    EXPECT_FALSE(TQFileManager::creationDateForFile(s / "missing").has_value());
    if (const auto created = TQFileManager::creationDateForFile(s / "clip.mov")) {
        // The birth time is the file's, not the modification time set above.
        EXPECT_GT(*created, *modified);
        EXPECT_LE(*created, corvina::Clock::now());
    }
}

TEST(TQFileManagerQueries, SizesOfTrees)
{
    Scratch s;
    writeFile(s / "tree/a.raw", std::string(1000, 'a'));
    writeFile(s / "tree/sub/b.pcm", std::string(234, 'b'));
    writeFile(s / "tree/.hidden", "12");
    fs::create_directories(s / "empties/x/y");
    fs::create_symlink(s / "tree", s / "tree/sub/loop");  // a link back up ends the walk
    EXPECT_EQ(TQFileManager::fileSize(s / "tree"), 1236u);
    EXPECT_EQ(TQFileManager::fileSize(s / "tree/a.raw"), 1000u);
    EXPECT_EQ(TQFileManager::fileSize(s / "empties"), 0u);
    EXPECT_EQ(TQFileManager::fileSize(s / "missing"), 0u);
}

TEST(TQFileManagerQueries, EmptyFoldersIgnoreClutter)
{
    Scratch s;
    writeFile(s / "dsstore/.DS_Store", "x");
    writeFile(s / "clutter/.DS_Store", "x");
    writeFile(s / "clutter/Icon\r", "x");
    fs::create_directories(s / "clutter/sub/deeper");
    writeFile(s / "clutter/sub/.DS_Store", "x");
    writeFile(s / "deepfile/a/b/c/take.mov", "x");
    writeFile(s / "hidden/.anything", "x");
    fs::create_directories(s / "looping");
    fs::create_symlink(s / "looping", s / "looping/self");
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "dsstore"));
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "clutter"));
    EXPECT_FALSE(TQFileManager::isFolderEmpty(s / "deepfile"));
    EXPECT_FALSE(TQFileManager::isFolderEmpty(s / "hidden"));
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "looping"));
    EXPECT_TRUE(TQFileManager::isFolderEmpty(s / "missing"));
}

TEST(TQFileManagerQueries, FreeNames)
{
    Scratch s;
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "clip.mov"), s / "clip.mov");
    writeFile(s / "clip.mov", "x");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "clip.mov"), s / "clip 2.mov");
    writeFile(s / "clip 2.mov", "x");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "clip.mov"), s / "clip 3.mov");
    writeFile(s / "notes", "x");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "notes"), s / "notes 2");
    writeFile(s / "a.tar.gz", "x");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "a.tar.gz"), s / "a.tar 2.gz");
    fs::create_symlink(s / "nowhere", s / "link.mov");
    EXPECT_EQ(TQFileManager::uniqueFilename(s / "link.mov"), s / "link 2.mov") << "a dangling link takes its name";
}

TEST(TQFileManagerQueries, VolumesFolderRules)
{
    for (const char* p : {"/Volumes", "/Users/x", "/", "relative/x"}) {
        EXPECT_TRUE(TQFileManager::isVolumeMountedForPath(p)) << p;
        EXPECT_TRUE(TQFileManager::isDriveMountedForPath(p)) << p;
    }
    EXPECT_FALSE(TQFileManager::isVolumeMountedForPath("/Volumes/Gone/x"));
    EXPECT_FALSE(TQFileManager::isDriveMountedForPath("/Volumes/Gone/x"));
    EXPECT_FALSE(TQFileManager::isVolumeMountedForPath("/VolumesX/a")) << "no slash needed after /Volumes";
    EXPECT_TRUE(TQFileManager::isDriveMountedForPath("/VolumesX/a"));
    EXPECT_EQ(TQFileManager::volumeMountPointForPath("/Volumes/Gone/x"), std::nullopt);
    EXPECT_EQ(TQFileManager::volumeMountPointForPath("/Users/x"), "/");
}

TEST(TQFileManagerQueries, MountedVolumesAndTheirDisks)
{
    Scratch s;
    // A space in the mount point: the kernel escapes it in its table.
    filestest::ScopedMount memory(s / "Media Card", "tmpfs", "size=4m");
    MOUNT_OR_SKIP(memory);
    fs::create_directories(s / "Media Cardboard");
    const auto volumes = TQFileManager::mountedLocalVolumePaths();
    EXPECT_NE(std::find(volumes.begin(), volumes.end(), memory.path()), volumes.end());
    EXPECT_EQ(std::find(volumes.begin(), volumes.end(), "/proc"), volumes.end());
    EXPECT_EQ(TQFileManager::volumeMountPointForPath(memory / "DCIM/clip.mov"), memory.path());
    EXPECT_EQ(TQFileManager::volumeMountPointForPath(memory.path()), memory.path());
    EXPECT_NE(TQFileManager::volumeMountPointForPath(s / "Media Cardboard/x"), memory.path());

    for (const std::string& asked : {memory.path(), memory.path() + "/"}) {
        const auto info = TQFileManager::infoForDiskAtMountpoint(asked);
        ASSERT_TRUE(info.has_value()) << asked;
        EXPECT_EQ((*info)["MountPoint"].stringValue(), memory.path());
        EXPECT_EQ((*info)["VolumeName"].stringValue(), "Media Card");
        EXPECT_EQ((*info)["FilesystemType"].stringValue(), "tmpfs");
        EXPECT_EQ((*info)["TotalSize"].unsignedLongLongValue(), 4u << 20);
        EXPECT_LE((*info)["FreeSpace"].unsignedLongLongValue(), 4u << 20);
        EXPECT_TRUE((*info)["WritableVolume"].boolValue());
        EXPECT_TRUE((*info)["DeviceNode"].isNone()) << "memory has no device";
    }
    writeFile(memory / "fill", std::string(1 << 20, 'x'));
    EXPECT_LE(TQFileManager::infoForDiskAtMountpoint(memory.path()).value()["FreeSpace"].unsignedLongLongValue(), 3u << 20);
    EXPECT_FALSE(TQFileManager::infoForDiskAtMountpoint(s / "Media Cardboard").has_value());
    EXPECT_FALSE(TQFileManager::infoForDiskAtMountpoint("").has_value());
}

TEST(TQFileManagerQueries, FileSystemReferences)
{
    Scratch s;
    writeFile(s / "take.mov", "x");
    const auto ref = TQFileManager::stringToFSRef(s / "take.mov");
    EXPECT_TRUE(ref.valid);
    EXPECT_EQ(TQFileManager::stringWithFSRef(&ref), fs::canonical(s / "take.mov").string());
    // Another item under the same name is not the referenced one.
    writeFile(s / "other", "y");
    fs::rename(s / "other", s / "take.mov");
    EXPECT_EQ(TQFileManager::stringWithFSRef(&ref), std::nullopt);
    const auto missing = TQFileManager::stringToFSRef(s / "missing");
    EXPECT_FALSE(missing.valid);
    EXPECT_EQ(TQFileManager::stringWithFSRef(&missing), std::nullopt);
    EXPECT_EQ(TQFileManager::stringWithFSRef(nullptr), std::nullopt);
}
