// File services: class-level operations on paths. No instances, no state.
//
// On this system: mounted volumes come from /proc/self/mountinfo, the trash is the
// freedesktop.org trash of the user, the locked flag is the inode's immutable flag, Finder
// metadata lives in user extended attributes, and the privileged fallback runs through the
// shared TQAuthorization controller. An empty path stands for "no path".
//
// Also: verified copies to several destinations, file digests, wildcard paths and file
// names, waiting on files, zip archives.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "Foundation/Date.h"
#include "Foundation/Value.h"

namespace corvina::tq {

// ---- Digests ------------------------------------------------------------------------------

enum class TQDigestAlgorithm { MD5, SHA1, SHA256, SHA512 };

// The running state of one digest (libcrypto's EVP interface underneath). Copying a state
// copies everything fed so far; finishing one (text()) leaves it as it was.
class TQDigestState {
public:
    explicit TQDigestState(TQDigestAlgorithm algorithm);
    ~TQDigestState();
    TQDigestState(const TQDigestState& other);
    TQDigestState& operator=(const TQDigestState& other);
    TQDigestState(TQDigestState&&) noexcept;
    TQDigestState& operator=(TQDigestState&&) noexcept;

    TQDigestAlgorithm algorithm() const { return algorithm_; }
    void update(const void* bytes, size_t length);
    void update(std::string_view bytes) { update(bytes.data(), bytes.size()); }
    // The digest of everything fed so far, each byte as two lowercase hexadecimal digits.
    std::string text() const;

private:
    struct Context;
    TQDigestAlgorithm algorithm_;
    std::unique_ptr<Context> context_;
};

// Asked after every 50 MiB hashed, on the global queue; a false answer cancels the hashing.
struct TQHashDelegate {
    std::function<bool(const std::string& path)> checksumShouldContinue;
};

// ---- Verified copies ----------------------------------------------------------------------

enum class TQVerificationType : uint64_t { None = 0, MD5 = 1, SHA1 = 2, SHA256 = 3, SHA512 = 4 };

struct TQCopyDelegate;

// The settings of one copy: one object per copy, handed to every delegate callback and filled
// in as the copy goes on ("source", "destinations", "operationtype", "object", "object2",
// "sourceChecksum", "destChecksum", "destChecksums"). Safe to read from the progress tasks
// while the copy adds to it.
class TQCopySettings {
public:
    // None when the key is missing.
    corvina::Value objectForKey(std::string_view key) const;
    void setObject(const std::string& key, corvina::Value value);
    // Every entry as one dictionary, taken at the moment of the call.
    corvina::Value dictionary() const;
    // The "delegate" entry: the copy's delegate, null when it has none.
    std::shared_ptr<TQCopyDelegate> delegate() const;
    void setDelegate(std::shared_ptr<TQCopyDelegate> delegate);

private:
    mutable std::mutex mutex_;
    corvina::Value::DictionaryType entries_;
    std::shared_ptr<TQCopyDelegate> delegate_;
};

// Every callback is optional (an empty function is one the delegate does not answer).
// Progress and continue questions arrive on the global queue, possibly after the copy has
// returned; the others on the copying thread.
struct TQCopyDelegate {
    std::function<void(uint64_t bytesWritten, TQCopySettings& settings)> fileCopyBytesWritten;
    std::function<bool(TQCopySettings& settings)> fileCopyShouldContinue;
    std::function<void(TQCopySettings& settings, const std::string& file)> fileCopyVerificationFailed;
    std::function<void(TQCopySettings& settings)> fileCopyFinished;
};

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

    // True when nothing is at the path any more. The locked flag is cleared first. What rm
    // refuses is refused before anything is touched: a path ending in "." or "..", the root
    // folder. The removal never follows a link (a trailing slash removes the link itself)
    // and never enters another mount below the item (it then fails). As root, protected
    // folders are refused as the privileged forms refuse them.
    static bool removeFile(const std::string& path, bool shouldAuth = true);
    static bool removeFile(const std::string& path, std::chrono::seconds timeout);
    // Moves the item into the user's trash, with the record desktop file managers read.
    static bool trashFile(const std::string& path, bool shouldAuth = true);
    static bool trashFile(const std::string& path, std::chrono::seconds timeout);
    // Creates the folder and any missing parents; refused for a path on an absent volume.
    static bool createDirectory(const std::string& path, bool shouldAuth = true);
    static bool createDirectory(const std::string& path, std::chrono::seconds timeout);
    // Copies a file or folder, holes of sparse files kept. Neither the ordinary copy nor the
    // privileged one replaces anything at the destination.
    static bool copyFile(const std::string& source, const std::string& destination, bool shouldAuth = true);
    static bool copyFile(const std::string& source, const std::string& destination, std::chrono::seconds timeout);
    // Moves a file or folder (across file systems too, holes kept); a rename that only
    // changes letter case goes through a free intermediate name. Nothing at the destination
    // is ever replaced, not even by the privileged move.
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

    // ---- Verified copies ------------------------------------------------------------------
    // Copies the source to every destination (full file paths) in one pass: each block is
    // read once and written to all of them. With a verification type, every destination is
    // then checked against the source's digest computed from the bytes read back from it;
    // a mismatch is reported to the delegate and does not change the result. The source's
    // modification date is carried over. True when every destination received the whole
    // file; a cancelled copy returns false and leaves the destinations as far as written.
    // A destination that missed bytes (a full disk) fails the copy: no final report,
    // verification, dates or finished call, and that short file is removed. Only regular
    // files are opened (never waiting on a pipe); holes of a sparse source stay holes.
    static bool copyFileWithProgress(const std::string& source, const std::vector<std::string>& destinations,
                                     TQVerificationType verificationType, std::shared_ptr<TQCopyDelegate> delegate,
                                     const corvina::Value& object = {}, const corvina::Value& object2 = {});
    static bool copyFileWithProgress(const std::string& source, const std::string& destination,
                                     std::shared_ptr<TQCopyDelegate> delegate, const corvina::Value& object = {},
                                     const corvina::Value& object2 = {});

    // Tests look at (and may change) the bytes of every block as each destination holds
    // them: called after the block was written (and read back, when verifying; the span
    // is then the read-back bytes, otherwise empty), on the thread that wrote it.
    using CopyBlockHook =
        std::function<void(const std::string& destination, uint64_t position, std::span<uint8_t> readBack)>;
    static void setCopyBlockHookForTesting(CopyBlockHook hook);

    // ---- Hashing --------------------------------------------------------------------------
    // The text of a finished state; none when the state is of another algorithm.
    static std::optional<std::string> md5HashWithContext(const TQDigestState& state);
    static std::optional<std::string> sha1HashWithContext(const TQDigestState& state);
    static std::optional<std::string> sha256HashWithContext(const TQDigestState& state);
    static std::optional<std::string> sha512HashWithContext(const TQDigestState& state);
    // The digest of a whole file; none when it cannot be opened or read, is no regular file
    // (a pipe is never waited on), or when the delegate cancelled.
    static std::optional<std::string> md5HashForFile(const std::string& path,
                                                     std::shared_ptr<TQHashDelegate> delegate = nullptr);
    static std::optional<std::string> sha1HashForFile(const std::string& path,
                                                      std::shared_ptr<TQHashDelegate> delegate = nullptr);
    static std::optional<std::string> sha512HashForFile(const std::string& path,
                                                        std::shared_ptr<TQHashDelegate> delegate = nullptr);

    // ---- Wildcards, names, sizes and dates --------------------------------------------------
    // Every existing path matching the pattern ("*" any run of characters, "?" one
    // character, in components that hold a "*"), component by component from the base
    // folder (or the root). A pattern without "*" is returned as it stands, appended to the
    // base. searchSubdirs is accepted and has no effect.
    static std::vector<std::string> filesMatchingWildcardPath(const std::string& pattern,
                                                              const std::optional<std::string>& basePath = std::nullopt,
                                                              bool searchSubdirs = false);
    // The first match, else the pattern appended to the base (none without a base).
    static std::optional<std::string> decodeWildcardPath(const std::string& pattern,
                                                         const std::optional<std::string>& basePath);
    // A name safe to use as a file name: no leading dot, no blanks at the ends, no "/" or ":".
    static std::string validateFilename(const std::string& name);
    // "1023 B", "1.00 KB", "1.50 MB", ... up to TB, base 1024.
    static std::string formatFileSize(double bytes);
    // Creates an empty file where nothing is; never replaces an existing item.
    static bool createEmptyFile(const std::string& path);
    // Sets the item's modification date to now with "touch -c" (never creating it), with
    // administrator rights when the user may not write it.
    static bool touchFile(const std::string& path, bool setCreationDate = false);
    static bool setModificationDate(corvina::Date date, const std::string& path);

    // ---- Waiting on files and archives ----------------------------------------------------
    // Returns once the file's modification date is more than 5 seconds old; an old file with
    // an existing lock file is waited for in the same way. A missing file ends the wait.
    static void waitForFileWrites(const std::string& path, const std::optional<std::string>& lockFile = std::nullopt);
    // True when any process (this one included) has the file open for writing.
    static bool fileIsOpenForWriting(const std::string& path);
    // Returns once something of non-zero size is at the path, or the time-out has passed.
    static void waitForFileCreation(const std::string& path, std::chrono::seconds timeout);
    // Packs the file or folder into a zip archive. With includeParent the entries of a
    // folder carry the folder's own name; without it they start below it. An existing
    // archive is moved to the trash first. True when the archive exists afterwards.
    static bool compressFile(const std::string& path, const std::string& archive, bool includeParent = true);
    // Unpacks the archive into the folder (an existing folder is moved to the trash first).
    // True when the folder exists afterwards. As unzip: nothing outside the folder or through
    // a link, no set-id or sticky bits, files owned by whoever unpacks, nothing replaced; and
    // no devices, pipes or sockets at all.
    static bool decompressFile(const std::string& archive, const std::string& destinationFolder);
};

// The file browser's update event: not available on this system. -50 for a missing or
// invalid reference, else -4 (not implemented); never 0.
int32_t SendFinderSyncEvent(const TQFileManager::FSRef* ref);

}  // namespace corvina::tq
