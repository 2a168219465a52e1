// Where a movie is written, and how it gets there without ever destroying anything.
//
// The destination's folder is opened once and every later step goes through that descriptor
// (openat, renameat, unlinkat), so a path swapped between a check and its use changes
// nothing. The destination is checked first: an existing folder, something that is not a
// regular file, the very file of an input, or a folder that cannot be opened are refused. A
// run then takes a lock tied to the destination (a hidden ".NAME.lock" file in the folder,
// held with flock), removes temporary files that killed runs left for the same destination,
// and writes the movie to a file it creates exclusively, "NAME.incomplete-PID" (or
// "NAME.incomplete-PID-N" when that name is taken). Only a complete, flushed movie is renamed
// over NAME; until then a previous file there is untouched, and after any failure the
// temporary file is gone.
//
// Nothing is removed that does not carry this program's mark: the temporary file and the lock
// file this run created itself (checked to be the same file before each removal), a lock file
// that holds the lock mark, and a killed run's temporary file that starts with the movie
// writer's own headers (AssetWriter::fileStartsAsWritten) and is none of the job's inputs.
//
// With an acting user (a root process working for the console user) every one of these file
// operations is made with that user's rights, so the run can do nothing the user could not do
// alone and what it creates belongs to the user.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Foundation/Error.h"
#include "Foundation/Result.h"
#include "Foundation/UserIdentity.h"

namespace corvina::helper {

class MovieDestination {
public:
    struct Input {
        const char* what;  // "video data file", ...
        std::string path;
    };

    // Opens the destination's folder and checks the destination in it: the destination, or
    // the line that refuses it (as the error's description). The inputs are remembered, so
    // that no input is ever taken for a killed run's file.
    static corvina::Result<std::unique_ptr<MovieDestination>> open(std::string destination,
                                                                   std::optional<corvina::UserIdentity> actor,
                                                                   std::span<const Input> inputs);
    // True for a name that a run writing `destinationName` gives its temporary file.
    static bool isTemporaryNameFor(const std::string& fileName, const std::string& destinationName);

    ~MovieDestination();
    MovieDestination(const MovieDestination&) = delete;
    MovieDestination& operator=(const MovieDestination&) = delete;

    // Bytes an unprivileged writer may still use on the destination's file system.
    std::optional<uint64_t> freeBytes() const;
    // Takes the lock and clears stale temporary files; the error's description says why it
    // could not (another run is writing this destination, the folder cannot be written).
    corvina::Result<void> acquire();
    // Creates the temporary file, never over an existing name: a descriptor open for writing
    // that the caller owns.
    corvina::Result<int> createTemporary();

    const std::string& path() const { return destination_; }
    std::string temporaryPath() const { return inFolder(temporaryName_); }
    int staleFilesRemoved() const { return staleRemoved_; }

    // Renames the complete movie over the destination and makes the rename durable.
    corvina::Result<void> commit();
    bool committed() const { return committed_; }
    // Removes the temporary file (nothing else) unless the movie was committed.
    void discard();

    // For a run that is being stopped: every temporary file of this process is removed and no
    // later commit succeeds. Safe to call from any thread, more than once.
    static void abandonAll();

private:
    struct FileId {
        dev_t dev = 0;
        ino_t ino = 0;
        bool operator==(const FileId&) const = default;
    };
    MovieDestination(std::string destination, std::optional<corvina::UserIdentity> actor);
    corvina::Result<void> check(std::span<const Input> inputs);
    // The path of a file of the destination's folder, as the lines show it.
    std::string inFolder(const std::string& name) const { return (folder_ == "/" ? "/" : folder_ + "/") + name; }
    // True when `name` in the folder is (still) the file `id`, links not followed.
    bool names(const std::string& name, const FileId& id) const;
    corvina::Result<void> takeLock();
    void removeStaleFiles();
    void removeTemporaryLocked();
    void release();

    std::string destination_;
    std::string folder_;
    std::string name_;
    std::string lockName_;
    std::optional<corvina::UserIdentity> actor_;
    int folderFd_ = -1;
    std::vector<FileId> inputs_;
    std::string temporaryName_;
    FileId temporary_;
    int lockFd_ = -1;
    FileId lock_;
    bool lockIsOurs_ = false;
    int staleRemoved_ = 0;
    bool committed_ = false;
};

}  // namespace corvina::helper
