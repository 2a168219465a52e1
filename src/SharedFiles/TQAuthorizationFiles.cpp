// The privileged file forms: trash, move, copy and create folders with administrator rights.
#include <unistd.h>

#include "Foundation/FileOperations.h"
#include "Foundation/StringUtils.h"
#include "Foundation/SystemLog.h"
#include "TQAuthorization.h"
#include "TQLocalPaths.h"
#include "Workspace/Workspace.h"

namespace {

bool refused(const std::string& path, const char* message)
{
    if (!TQLocalPaths::isPathSystemDirectory(path, true)) return false;
    corvina::systemLog(message, path);
    return true;
}

}  // namespace

bool TQAuthorization::authTrashFile(const std::string& path, bool deleteOnRootAccount)
{
    if (refused(path, "Unable to trash path %@ because it is a system directory.")) return false;
    if (deleteOnRootAccount && runningAsRoot()) return authRemoveFile(path);
    if (!corvina::itemExists(path)) return false;
    const auto trash = TQLocalPaths::trashDirectory();
    if (!trash) return false;
    // The record goes in first: it reserves the name, and the user's own trash folder needs
    // no rights to write it.
    const auto destination = corvina::trash::reserve(path, *trash);
    if (!destination) return false;
    if (authMoveFile(path, *destination)) return true;
    corvina::trash::release(*destination);
    return false;
}

bool TQAuthorization::authTrashFolderContents(const std::string& folder, bool deleteOnRootAccount)
{
    if (refused(folder, "Unable to trash folder contents of path %@ because it is a system directory.")) return false;
    bool allWent = true;
    for (const auto& name : corvina::directoryContents(folder)) {
        const std::string entry = corvina::appendPathComponent(folder, name);
        if (runningAsRoot() && deleteOnRootAccount) {
            allWent = authExecTask("/bin/rm", {"-R", "-f", entry}) == 0 && allWent;
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
    return authExecTask("/bin/mv", {"-f", source, destination}) == 0;
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
    return authExecTask("/bin/cp", {"-f", "-p", "-R", source, destination}) == 0;
}

bool TQAuthorization::authCreateDir(const std::string& path)
{
    if (authExecTask("/bin/mkdir", {"-p", path}) != 0) return false;
    // Give the tool a moment to create the folder.
    if (!runningAsRoot()) ::usleep(500);
    return true;
}
