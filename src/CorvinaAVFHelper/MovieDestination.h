// Where a movie is written, and how it gets there without ever destroying anything.
//
// The destination is checked before anything is touched: an existing folder, something that
// is not a regular file, the very file of an input, or a path whose folder does not exist are
// refused. A run then takes a lock tied to the destination (a hidden ".NAME.lock" file in the
// destination's folder, held with flock and removed when the run ends), removes temporary
// files that killed runs left for the same destination, and writes the movie to
// "NAME.incomplete-PID" beside it. Only a complete, flushed movie is renamed over NAME; until
// then a previous file there is untouched, and after any failure the temporary file is gone.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

class MovieDestination {
public:
    struct Input {
        const char* what;  // "video data file", ...
        std::string path;
    };

    // The line that refuses the destination, or nothing when it may be written.
    static std::optional<std::string> problem(const std::string& destination, std::span<const Input> inputs);
    // Bytes an unprivileged writer may still use on the file system that holds the folder.
    static std::optional<uint64_t> freeBytes(const std::string& folder);
    // The folder a destination path lies in ("." for a bare name).
    static std::string folderOf(const std::string& destination);
    // True for a name that a run writing `destinationName` gives its temporary file.
    static bool isTemporaryNameFor(const std::string& fileName, const std::string& destinationName);

    explicit MovieDestination(std::string destination);
    ~MovieDestination();
    MovieDestination(const MovieDestination&) = delete;
    MovieDestination& operator=(const MovieDestination&) = delete;

    // Takes the lock and clears stale temporary files. False with the line that says why
    // (another run is writing this destination, the folder cannot be written).
    bool acquire(std::string* problem);
    const std::string& path() const { return destination_; }
    const std::string& temporaryPath() const { return temporary_; }
    int staleFilesRemoved() const { return staleRemoved_; }

    // Renames the complete movie over the destination and makes the rename durable.
    bool commit(std::string* problem);
    bool committed() const { return committed_; }
    // Removes the temporary file (nothing else) unless the movie was committed.
    void discard();

    // For a run that is being stopped: every temporary file of this process is removed and no
    // later commit succeeds. Safe to call from any thread, more than once.
    static void abandonAll();

private:
    void release();

    std::string destination_;
    std::string folder_;
    std::string name_;
    std::string temporary_;
    std::string lockPath_;
    int lockFd_ = -1;
    int staleRemoved_ = 0;
    bool committed_ = false;
};
