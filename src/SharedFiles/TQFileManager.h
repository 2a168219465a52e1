// File services: operations that change the file system, with a privileged fallback, and
// the item's locked flag (the inode's immutable attribute).
#pragma once

#include <chrono>
#include <string>

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
};
