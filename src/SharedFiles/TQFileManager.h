// File services: class-level operations on paths. No instances, no state.
//
// On this system: mounted volumes come from /proc/self/mountinfo, the trash is the
// freedesktop.org trash of the user, the locked flag is the inode's immutable flag, Finder
// metadata lives in user extended attributes, and the privileged fallback runs through the
// shared TQAuthorization controller. An empty path stands for "no path".
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "Foundation/Date.h"
#include "Foundation/Value.h"

class TQFileManager {
public:
    TQFileManager() = delete;

    // ---------------------------------------------------------------------------------------
    // Queries: files, folders and volumes (TQFileManagerQueries.cpp)
    // ---------------------------------------------------------------------------------------

    // A reference to an existing item: its path and its identity (device and inode) at the
    // time it was made. Invalid when the item did not exist.
    struct FSRef {
        bool valid = false;
        std::string path;
        dev_t device = 0;
        ino_t inode = 0;
    };

    // Anything at the path; links are followed, so a dangling link is nothing.
    static bool fileExistsAtPath(const std::string& path);
    // An existing folder, links followed.
    static bool isDirectoryAtPath(const std::string& path);
    // A folder with a bundle extension (app, bundle, framework, plugin, kext, pkg, mpkg,
    // prefPane, xpc, appex).
    static bool isPackageAtPath(const std::string& path);
    // A link whose destination can be read (dangling links too).
    static bool isSymbolicLinkAtPath(const std::string& path);
    // Whether the volume a path under "/Volumes" lies on is there; true for any other path.
    static bool isVolumeMountedForPath(const std::string& path);
    static bool isDriveMountedForPath(const std::string& path);
    // The mounted local volume holding the path (the innermost mount); none for a path under
    // "/Volumes" on no mounted volume; "/" otherwise.
    static std::optional<std::string> volumeMountPointForPath(const std::string& path);
    // The mount points of real block devices and local file systems, in the kernel's order.
    static std::vector<std::string> mountedLocalVolumePaths();
    // Dates of the item itself (a link's own); none when it cannot be read. The creation date
    // is the birth time, none where the file system does not keep one.
    static std::optional<corvina::Date> modificationDateForFile(const std::string& path);
    static std::optional<corvina::Date> creationDateForFile(const std::string& path);
    // A folder's size is the sum of everything below it; a file's (or link's) its own size;
    // 0 for a missing item.
    static uint64_t fileSize(const std::string& path);
    // True for a folder holding nothing but ".DS_Store", "Icon\r" and folders that are empty
    // in the same sense, and for a path that cannot be listed.
    static bool isFolderEmpty(const std::string& path);
    // The path when nothing is there, else the first free "name k.ext" (k = 2, 3, ...).
    static std::string uniqueFilename(const std::string& path);
    static FSRef stringToFSRef(const std::string& path);
    // The path of the referenced item while it is still the same item; none otherwise.
    static std::optional<std::string> stringWithFSRef(const FSRef* ref);
    // Facts about the volume mounted at the mount point (or on the device node), under the
    // disk utility's key names: MountPoint, VolumeName, FilesystemType, FilesystemName,
    // DeviceNode, DeviceIdentifier, TotalSize, FreeSpace, VolumeAllocationBlockSize,
    // WritableVolume, VolumeUUID (when known). None when nothing is mounted there.
    static std::optional<corvina::Value> infoForDiskAtMountpoint(const std::string& mountPoint);

    // ---------------------------------------------------------------------------------------
    // Operations with a privileged fallback (TQFileManagerOperations.cpp)
    //
    // The shouldAuth forms try the ordinary operation and, when it fails and shouldAuth is
    // true, the privileged one of TQAuthorization. The time-out forms run the plain form, then
    // wait up to the time-out (whole seconds) until the file system shows the result; the
    // main thread keeps serving its queue while it waits, other threads sleep.
    // ---------------------------------------------------------------------------------------

    // True when nothing is at the path any more, or when the privileged removal was started.
    // The locked flag is cleared first.
    static bool removeFile(const std::string& path, bool shouldAuth = true);
    static bool removeFile(const std::string& path, std::chrono::seconds timeout);
    // Moves the item into the user's trash, with the record desktop file managers read.
    static bool trashFile(const std::string& path, bool shouldAuth = true);
    static bool trashFile(const std::string& path, std::chrono::seconds timeout);
    // Creates the folder and any missing parents; refused for a path on an absent volume.
    static bool createDirectory(const std::string& path, bool shouldAuth = true);
    static bool createDirectory(const std::string& path, std::chrono::seconds timeout);
    // Copies a file or folder; the ordinary copy fails when the destination exists.
    static bool copyFile(const std::string& source, const std::string& destination, bool shouldAuth = true);
    static bool copyFile(const std::string& source, const std::string& destination, std::chrono::seconds timeout);
    // Moves a file or folder (across file systems too); a rename that only changes letter
    // case goes through a free intermediate name.
    static bool moveFile(const std::string& source, const std::string& destination, bool shouldAuth = true);
    static bool moveFile(const std::string& source, const std::string& destination, std::chrono::seconds timeout);
    // Trashes every entry of the folder (the folder stays); true when every entry went.
    static bool trashDirectoryContents(const std::string& folder, bool shouldAuth = true);
    // Trashes every file below the folder whose extension matches (ignoring case) / whose
    // name matches (exactly); folders, packages included, are searched, never trashed.
    // Returns the paths handed to trashFile.
    static std::vector<std::string> trashFilesOfType(const std::string& extension, const std::string& folder);
    static std::vector<std::string> trashFilesNamed(const std::string& name, const std::string& folder);
    // Copies each entry of the source folder into the existing destination folder, stopping
    // at the first failure.
    static bool copyContentsOfDirectory(const std::string& source, const std::string& destination,
                                        std::chrono::seconds timeout);
    static bool removeFolderIfEmpty(const std::string& path);
    // The path's folder (the path itself when it is a folder and no package, else its parent)
    // mirrored below the destination, created when missing. Returns that path.
    static std::string createDirectoryStructure(const std::string& path, const std::string& destination);

    // ---------------------------------------------------------------------------------------
    // Metadata, locks and permissions (TQFileManagerMetadata.cpp)
    // ---------------------------------------------------------------------------------------

    // A colour as calibrated hue, saturation and brightness (0...1).
    struct Color {
        double hue = 0;
        double saturation = 0;
        double brightness = 0;
        double alpha = 1;
        bool operator==(const Color&) const = default;
    };

    // The locked flag is the inode's immutable flag; links carry none. Lock failures (a
    // missing item, a file system without the flag, missing rights) are logged. Unlocking
    // an item that is not locked changes nothing and never opens it.
    static bool isFileLocked(const std::string& path);
    static void lockFile(const std::string& path);
    static void unlockFile(const std::string& path);
    // Every file below the folder, at any depth; folders themselves are not locked and links
    // are not followed.
    static void lockFolder(const std::string& folder);
    static void unlockFolder(const std::string& folder);
    static void setPosixPermissions(mode_t mode, const std::string& path);
    static void disableFileSystemCachingForFile(const std::string& path);
    // Extended attributes; a name without a namespace ("com.example.x") is kept under "user.".
    static std::optional<std::string> metadataValueForKey(const std::string& key, const std::string& path);
    static bool setMetadataValue(const std::string& value, const std::string& key, const std::string& path);
    // The progress attribute "com.apple.progress.fractionCompleted" ("%0.3f"); a negative
    // fraction removes it.
    static void setFinderProgress(float fraction, const std::string& path);
    static void removeFinderProgressForFile(const std::string& path);
    // The colour label (0-7) in byte 9 of the "com.apple.FinderInfo" attribute.
    static long finderColorIndexForPath(const std::string& path);
    static void setFinderColorIndex(unsigned index, const std::string& path);
    static std::optional<Color> finderColorForColorIndex(long index);
    static std::optional<Color> finderColorForPath(const std::string& path);
    // No file browser listens for change notes here: nothing is sent.
    static void notifyFileSystemChanged(const std::string& path);
    // No application registry here: false, nothing changes.
    static bool registerApplicationWithLaunchServices(const std::string& path);
};

// The file browser's update event: not available on this system. -50 for a missing or
// invalid reference, else -4 (not implemented); never 0.
int32_t SendFinderSyncEvent(const TQFileManager::FSRef* ref);
