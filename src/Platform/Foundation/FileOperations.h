// Item operations of the platform's file manager: existence, listing, copying, moving and
// removing files, folders and links. Failures come back as an Error with the system's text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Error.h"

namespace corvina {

// Something (a file, a folder, a link, dangling or not) is at the path.
bool itemExists(const std::string& path);

// Names in a folder, hidden ones included, in the order the file system lists them; empty
// when the path is no readable folder.
std::vector<std::string> directoryContents(const std::string& path);

// Copies an item: a folder with everything in it, links as links, keeping permission bits,
// modification times and user extended attributes (and owners, as root). Fails when
// something is at the destination; a failed copy leaves nothing there.
bool copyItem(const std::string& from, const std::string& to, Error* error = nullptr);

// Renames an item; fails when something is at the destination. Across file systems the item
// is copied, and the original removed once the copy is complete.
bool moveItem(const std::string& from, const std::string& to, Error* error = nullptr);

// Replaces the file at path with `bytes`: they go to a new file of a random name beside it
// (created exclusively, so nothing that is already there is opened) that is flushed and
// renamed over the path. The file keeps the mode of the one it replaces, else 0666 less the
// umask. A failure leaves the old file as it was and no new file behind.
bool writeFileAtomically(const std::string& path, std::string_view bytes);

// Removes an item, a folder with everything in it. A link is removed, never its target.
bool removeItem(const std::string& path, Error* error = nullptr);

}  // namespace corvina
