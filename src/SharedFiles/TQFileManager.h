// File services: operations that change the file system, with a privileged fallback, and
// the item's locked flag (the inode's immutable attribute); verified copies to several
// destinations, file digests, wildcard paths and file names, waiting on files, zip archives.
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
#include <vector>

#include "Foundation/Date.h"
#include "Foundation/Value.h"

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
    // Removes the item (a folder with everything in it). True when nothing is at the path
    // any more, or when the privileged removal was started. The locked flag is cleared
    // first. On failure the error is logged and, with shouldAuth, the removal is retried
    // with administrator rights.
    static bool removeFile(const std::string& path, bool shouldAuth = true);
    // removeFile(path), then waits up to the time-out (whole seconds) until the item is
    // gone; true when it is. The main thread keeps serving its queue while it waits.
    static bool removeFile(const std::string& path, std::chrono::seconds timeout);

    // The locked flag. Failures (a missing item, a file system without the flag, missing
    // rights) are logged; isFileLocked reports false for them.
    static bool isFileLocked(const std::string& path);
    static void lockFile(const std::string& path);
    static void unlockFile(const std::string& path);

    // ---- Verified copies ------------------------------------------------------------------
    // Copies the source to every destination (full file paths) in one pass: each block is
    // read once and written to all of them. With a verification type, every destination is
    // then checked against the source's digest computed from the bytes read back from it;
    // a mismatch is reported to the delegate and does not change the result. The source's
    // modification date is carried over. True when every destination received the whole
    // file; a cancelled copy returns false and leaves the destinations as far as written.
    static bool copyFileWithProgress(const std::string& source, const std::vector<std::string>& destinations,
                                     TQVerificationType verificationType,
                                     std::shared_ptr<TQCopyDelegate> delegate,
                                     const corvina::Value& object = {}, const corvina::Value& object2 = {});
    static bool copyFileWithProgress(const std::string& source, const std::string& destination,
                                     std::shared_ptr<TQCopyDelegate> delegate,
                                     const corvina::Value& object = {}, const corvina::Value& object2 = {});

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
    // The digest of a whole file; none when it cannot be opened or read, or when the
    // delegate cancelled.
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
    static void waitForFileWrites(const std::string& path,
                                  const std::optional<std::string>& lockFile = std::nullopt);
    // True when any process (this one included) has the file open for writing.
    static bool fileIsOpenForWriting(const std::string& path);
    // Returns once something of non-zero size is at the path, or the time-out has passed.
    static void waitForFileCreation(const std::string& path, std::chrono::seconds timeout);
    // Packs the file or folder into a zip archive. With includeParent the entries of a
    // folder carry the folder's own name; without it they start below it. An existing
    // archive is moved to the trash first. True when the archive exists afterwards.
    static bool compressFile(const std::string& path, const std::string& archive, bool includeParent = true);
    // Unpacks the archive into the folder (an existing folder is moved to the trash first).
    // True when the folder exists afterwards.
    static bool decompressFile(const std::string& archive, const std::string& destinationFolder);
};
