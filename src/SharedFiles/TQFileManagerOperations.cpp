// Operations that change the file system, each with a privileged fallback and a form that
// waits until the file system shows the result.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <thread>

#include "Dispatch/Dispatch.h"
#include "Foundation/FileOperations.h"
#include "Foundation/StringUtils.h"
#include "Foundation/SystemLog.h"
#include "tq/TQAuthorization.h"
#include "tq/TQFileManager.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"
#include "Workspace/Workspace.h"

namespace corvina::tq {

namespace {

using Seconds = std::chrono::seconds;

// Runs the plain step, then waits until the condition holds or the time-out has passed. The
// main thread serves its queue in slices of 10 ms meanwhile; other threads look every 0.3 s.
bool waitUntil(bool stepSucceeded, Seconds timeout, const std::function<bool()>& condition)
{
    if (!stepSucceeded) return false;
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = start + std::max(timeout, Seconds(0));
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        if (corvina::isMainThread()) {
            const auto slice = std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(10));
            corvina::runMainQueueUntil([] { return false; }, slice);
        } else {
            std::this_thread::sleep_for(std::min<std::chrono::steady_clock::duration>(
                std::chrono::milliseconds(300), deadline - std::chrono::steady_clock::now()));
        }
    }
    return condition();
}

bool equalIgnoringCase(const std::string& a, const std::string& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

// Walks the folder (packages included) and trashes each file the test picks.
std::vector<std::string> trashMatching(const std::string& folder, const std::function<bool(const std::string&)>& picks)
{
    std::vector<std::string> trashed;
    for (const auto& name : corvina::directoryContents(folder)) {
        const std::string entry = corvina::appendPathComponent(folder, name);
        if (TQFileManager::isDirectoryAtPath(entry) && !TQFileManager::isSymbolicLinkAtPath(entry)) {
            auto below = trashMatching(entry, picks);
            trashed.insert(trashed.end(), below.begin(), below.end());
        } else if (picks(name)) {
            TQFileManager::trashFile(entry);
            trashed.push_back(entry);
        }
    }
    return trashed;
}

// A root process's ordinary attempt is already a privileged one: it refuses the protected
// folders the privileged forms refuse, in their words.
bool refusedToRoot(const std::string& path, const char* message)
{
    if (::geteuid() != 0 || !TQLocalPaths::isPathSystemDirectory(path, true)) return false;
    corvina::systemLog(message, path);
    return true;
}

// What rm refuses (a path ending in "." or "..", the root folder) is refused before anything
// is touched, the locked flag included.
bool refusedRemoval(const std::string& path, const char* verb)
{
    const auto why = corvina::removalRefusal(path);
    if (!why) return false;
    TQLog::appendLog("Refusing to %@ %@: %@", verb, path, *why);
    return true;
}

}  // namespace

bool TQFileManager::removeFile(const std::string& path, bool shouldAuth)
{
    if (refusedRemoval(path, "remove") ||
        refusedToRoot(path, "Unable to delete path %@ because it is a system directory."))
        return false;
    unlockFile(path);
    if (!corvina::itemExists(path)) return true;
    const auto removed = corvina::removeItem(path);
    if (removed) return true;
    TQLog::appendLog("Error removing file: %@. Authorizing...", removed.error().localizedDescription);
    if (!shouldAuth) return false;
    return TQAuthorization::sharedController().authRemoveFile(path);
}

bool TQFileManager::removeFile(const std::string& path, Seconds timeout)
{
    return waitUntil(removeFile(path, true), timeout, [&] { return !corvina::itemExists(path); });
}

bool TQFileManager::trashFile(const std::string& path, bool shouldAuth)
{
    if (refusedRemoval(path, "trash") ||
        refusedToRoot(path, "Unable to trash path %@ because it is a system directory."))
        return false;
    unlockFile(path);
    if (!corvina::itemExists(path)) return true;
    if (const auto trash = TQLocalPaths::trashDirectory()) {
        if (corvina::trash::recycle(path, *trash)) return true;
    }
    if (!shouldAuth) return false;
    return TQAuthorization::sharedController().authTrashFile(path);
}

bool TQFileManager::trashFile(const std::string& path, Seconds timeout)
{
    return waitUntil(trashFile(path, true), timeout, [&] { return !corvina::itemExists(path); });
}

bool TQFileManager::createDirectory(const std::string& path, bool shouldAuth)
{
    if (!isDriveMountedForPath(path)) {
        corvina::systemLog("Unable to create directory. Drive is not mounted.");
        return false;
    }
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    if (!ec && isDirectoryAtPath(path)) return true;
    if (!ec) ec = std::make_error_code(std::errc::file_exists);
    TQLog::appendLog("Error creating folder: %@. Authorizing...",
                     corvina::Error::fromErrno(ec.value()).localizedDescription);
    if (!shouldAuth) return false;
    return TQAuthorization::sharedController().authCreateDir(path);
}

bool TQFileManager::createDirectory(const std::string& path, Seconds timeout)
{
    return waitUntil(createDirectory(path, true), timeout, [&] { return isDirectoryAtPath(path); });
}

bool TQFileManager::copyFile(const std::string& source, const std::string& destination, bool shouldAuth)
{
    if (source.empty()) {
        TQLog::appendLogAndPrint("Error copying file: source path is nil");
        return false;
    }
    if (destination.empty()) {
        TQLog::appendLogAndPrint("Error copying file %@: destination path is nil", source);
        return false;
    }
    unlockFile(corvina::deletingLastPathComponent(destination));
    const auto copied = corvina::copyItem(source, destination);
    if (copied) return true;
    TQLog::appendLog("Error copying file: %@. Authorizing...", copied.error().localizedDescription);
    if (!shouldAuth) return false;
    return TQAuthorization::sharedController().authCopyFile(source, destination);
}

bool TQFileManager::copyFile(const std::string& source, const std::string& destination, Seconds timeout)
{
    return waitUntil(copyFile(source, destination, true), timeout, [&] { return fileExistsAtPath(destination); });
}

bool TQFileManager::moveFile(const std::string& source, const std::string& destination, bool shouldAuth)
{
    if (refusedToRoot(source, "Unable to move path %@ because it is a system directory.")) return false;
    if (corvina::itemExists(destination)) unlockFile(destination);
    unlockFolder(corvina::appendPathComponent(destination, corvina::lastPathComponent(source)));

    if (equalIgnoringCase(source, destination)) {
        // A rename that only changes letter case, through a free name beside the destination.
        // Should the second step fail, the item goes back to where it was before the plain
        // move is tried.
        const std::string intermediate = uniqueFilename(destination);
        if (intermediate == destination) {
            if (corvina::moveItem(source, destination)) return true;
        } else if (corvina::moveItem(source, intermediate)) {
            if (corvina::moveItem(intermediate, destination)) return true;
            (void)corvina::moveItem(intermediate, source);
        }
    }

    const auto moved = corvina::moveItem(source, destination);
    if (moved) return true;
    TQLog::appendLog("Error moving file: %@.", moved.error().localizedDescription);
    if (!shouldAuth) return false;
    TQLog::appendLog("Authorizing...");
    return TQAuthorization::sharedController().authMoveFile(source, destination);
}

bool TQFileManager::moveFile(const std::string& source, const std::string& destination, Seconds timeout)
{
    if (equalIgnoringCase(source, destination)) {
        if (!moveFile(source, destination, true)) return false;
        ::usleep(500);
        return true;
    }
    return waitUntil(moveFile(source, destination, true), timeout, [&] { return !corvina::itemExists(source); });
}

bool TQFileManager::trashDirectoryContents(const std::string& folder, bool shouldAuth)
{
    bool allWent = true;
    for (const auto& name : corvina::directoryContents(folder))
        allWent = trashFile(corvina::appendPathComponent(folder, name), shouldAuth) && allWent;
    return allWent;
}

std::vector<std::string> TQFileManager::trashFilesOfType(const std::string& extension, const std::string& folder)
{
    return trashMatching(
        folder, [&](const std::string& name) { return equalIgnoringCase(corvina::pathExtension(name), extension); });
}

std::vector<std::string> TQFileManager::trashFilesNamed(const std::string& name, const std::string& folder)
{
    return trashMatching(folder, [&](const std::string& entry) { return entry == name; });
}

bool TQFileManager::copyContentsOfDirectory(const std::string& source, const std::string& destination, Seconds timeout)
{
    for (const auto& name : corvina::directoryContents(source)) {
        TQLog::fastAppendLog("File: %@", name);
        if (!copyFile(corvina::appendPathComponent(source, name), corvina::appendPathComponent(destination, name),
                      timeout))
            return false;
    }
    return true;
}

bool TQFileManager::removeFolderIfEmpty(const std::string& path)
{
    if (!isFolderEmpty(path)) return false;
    return removeFile(path);
}

std::string TQFileManager::createDirectoryStructure(const std::string& path, const std::string& destination)
{
    const std::string part =
        isDirectoryAtPath(path) && !isPackageAtPath(path) ? path : corvina::deletingLastPathComponent(path);
    const std::string mirrored = corvina::appendPathComponent(destination, part);
    if (!fileExistsAtPath(mirrored)) createDirectory(mirrored);
    return mirrored;
}

}  // namespace corvina::tq
