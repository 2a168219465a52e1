// Item operations of the platform's file manager: existence, listing, copying, moving and
// removing files, folders and links. Failures come back as an Error with the system's text.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Error.h"
#include "Result.h"

namespace corvina {

// Something (a file, a folder, a link, dangling or not) is at the path.
bool itemExists(const std::string& path);

// Names in a folder, hidden ones included, in the order the file system lists them; empty
// when the path is no readable folder.
std::vector<std::string> directoryContents(const std::string& path);

// Opens a regular file without waiting on a pipe or a device: a path that is something else
// is refused before it is opened, and the open itself is non-blocking and checked with
// fstat, so an item swapped in between is refused too (closed again). Links are followed
// unless flags hold O_NOFOLLOW. The descriptor is blocking again when returned. -1 with
// errno on failure: EISDIR for a folder, EINVAL for pipes, devices and sockets.
int openRegularFile(const std::string& path, int flags, mode_t mode = 0);

// Copies an item: a folder with everything in it, links as links, keeping permission bits,
// modification times and user extended attributes (and owners, as root). Holes of sparse
// files stay holes. Fails when something is at the destination; a failed copy leaves
// nothing there.
Result<void> copyItem(const std::string& from, const std::string& to);

// Renames an item; fails when something is at the destination. Across file systems the item
// is copied (holes kept), and the original removed once the copy is complete.
Result<void> moveItem(const std::string& from, const std::string& to);

// Replaces the file at path with `bytes`: they go to a new file of a random name beside it
// (created exclusively, so nothing that is already there is opened) that is flushed and
// renamed over the path. The file keeps the mode of the one it replaces, else 0666 less the
// umask. A failure leaves the old file as it was and no new file behind.
bool writeFileAtomically(const std::string& path, std::string_view bytes);

// Why a removal of the path is refused before anything is looked at, in words, as `rm`
// refuses it: a path whose last component (trailing slashes aside) is "." or "..", and the
// root folder. None when the path may be removed.
std::optional<std::string> removalRefusal(const std::string& path);

// Removes an item, a folder with everything in it. Refuses what removalRefusal names
// (EINVAL). A link is removed, never its target, also when the path ends in "/". Below the
// item the walk holds each folder open (openat, O_NOFOLLOW | O_DIRECTORY), so it never
// follows a link, and it does not enter another mount (another device, or a mount root of
// the same one): such a folder stays, with its parents, and the removal fails (EXDEV) once
// everything else is gone, as `rm -r --one-file-system` does. Nothing at the path is success.
Result<void> removeItem(const std::string& path);

}  // namespace corvina
