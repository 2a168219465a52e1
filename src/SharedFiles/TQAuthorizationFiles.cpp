// The privileged file forms: trash, move, copy and create folders with administrator rights.
// Every tool is waited for, and its result is what the file system shows afterwards: "mv -n"
// and "cp -n" end with 0 also when they left everything as it was.
#include <sys/stat.h>
#include <unistd.h>

#include "Foundation/FileOperations.h"
#include "Foundation/StringUtils.h"
#include "Foundation/SystemLog.h"
#include "tq/TQAuthorization.h"
#include "tq/TQLocalPaths.h"
#include "Workspace/Workspace.h"

namespace corvina::tq {

namespace {

bool refused(const std::string& path, const char* message)
{
    if (!TQLocalPaths::isPathSystemDirectory(path, true)) return false;
    corvina::systemLog(message, path);
    return true;
}

// Privileged moves and copies never replace anything: an occupied destination is refused
// before a tool runs ("-n" keeps to that should something appear meanwhile).
bool occupied(const std::string& destination, const char* message, const std::string& source)
{
    if (!corvina::itemExists(destination)) return false;
    corvina::systemLog(message, source, destination);
    return true;
}

// The copy is an item of the source's kind, a file of the source's size.
bool sameKind(const std::string& source, const std::string& copy)
{
    struct stat a {};
    struct stat b {};
    if (::lstat(source.c_str(), &a) != 0 || ::lstat(copy.c_str(), &b) != 0) return false;
    return (a.st_mode & S_IFMT) == (b.st_mode & S_IFMT) && (!S_ISREG(a.st_mode) || a.st_size == b.st_size);
}

}  // namespace

bool TQAuthorization::authTrashFile(const std::string& path, bool deleteOnRootAccount)
{
    if (refused(path, "Unable to trash path %@ because it is a system directory.")) return false;
    if (deleteOnRootAccount && runningAsRoot()) return authRemoveFile(path);
    if (const auto why = corvina::removalRefusal(path)) {
        corvina::systemLog("Unable to trash path %@: %@", path, *why);
        return false;
    }
    if (!corvina::itemExists(path)) return false;
    const auto trash = TQLocalPaths::trashDirectory();
    if (!trash) return false;
    // The record goes in first: it reserves the name, and the user's own trash folder needs
    // no rights to write it.
    const auto destination = corvina::trash::reserve(path, *trash);
    if (!destination) return false;
    if (authMoveFile(path, *destination)) return true;
    if (!corvina::itemExists(*destination)) corvina::trash::release(*destination);
    return false;
}

bool TQAuthorization::authTrashFolderContents(const std::string& folder, bool deleteOnRootAccount)
{
    if (refused(folder, "Unable to trash folder contents of path %@ because it is a system directory.")) return false;
    bool allWent = true;
    for (const auto& name : corvina::directoryContents(folder)) {
        const std::string entry = corvina::appendPathComponent(folder, name);
        if (runningAsRoot() && deleteOnRootAccount) {
            allWent = removeWithTool(entry) && allWent;
        } else {
            allWent = authTrashFile(entry) && allWent;
        }
    }
    return allWent;
}

bool TQAuthorization::authMoveFolderContents(const std::string& folder, const std::string& destination)
{
    if (refused(folder, "Unable to move contents of path %@ because it is a system directory.")) return false;
    bool allMoved = true;
    for (const auto& name : corvina::directoryContents(folder)) {
        allMoved =
            authMoveFile(corvina::appendPathComponent(folder, name), corvina::appendPathComponent(destination, name)) &&
            allMoved;
    }
    return allMoved;
}

bool TQAuthorization::authMoveFile(const std::string& source, const std::string& destination)
{
    if (source.empty()) {
        corvina::systemLog("Error in authMoveFile: old path is null");
        return false;
    }
    if (destination.empty()) {
        corvina::systemLog("Error in authMoveFile: new path is null");
        return false;
    }
    if (refused(source, "Unable to move path %@ because it is a system directory.")) return false;
    if (!corvina::itemExists(source)) return false;
    if (occupied(destination, "Unable to move path %@ to %@ because something is there already.", source)) return false;
    const int32_t status = authExecTask("/bin/mv", {"-n", "-T", "--", source, destination}, false);
    if (status == 0 && !corvina::itemExists(source) && corvina::itemExists(destination)) return true;
    corvina::systemLog("Error in authMoveFile: %@ was not moved to %@ (status %i)", source, destination, status);
    return false;
}

bool TQAuthorization::authCopyFile(const std::string& source, const std::string& destination)
{
    if (source.empty()) {
        corvina::systemLog("Error in authCopyFile: old path is null");
        return false;
    }
    if (destination.empty()) {
        corvina::systemLog("Error in authCopyFile: new path is null");
        return false;
    }
    if (!corvina::itemExists(source)) return false;
    if (occupied(destination, "Unable to copy path %@ to %@ because something is there already.", source)) return false;
    const int32_t status = authExecTask("/bin/cp", {"-n", "-T", "-p", "-R", "--", source, destination}, false);
    if (status == 0 && sameKind(source, destination)) return true;
    corvina::systemLog("Error in authCopyFile: %@ was not copied to %@ (status %i)", source, destination, status);
    return false;
}

bool TQAuthorization::authCreateDir(const std::string& path)
{
    struct stat st {};
    return authExecTask("/bin/mkdir", {"-p", "--", path}, false) == 0 && ::stat(path.c_str(), &st) == 0 &&
           S_ISDIR(st.st_mode);
}

}  // namespace corvina::tq
