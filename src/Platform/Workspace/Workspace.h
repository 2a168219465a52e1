// The shared workspace's file facilities on Linux: mounted volumes (/proc/self/mountinfo),
// packages (folders with a bundle extension) and recycling into the freedesktop.org trash.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Foundation/Error.h"
#include "Foundation/Result.h"

namespace corvina {

struct MountEntry {
    std::string mountPoint;
    std::string source;          // the device node for block devices, else the file system's own name
    std::string fileSystemType;  // "ext4", "tmpfs", "fuse.sshfs", ...
    std::string mountOptions;    // per mount: "rw,relatime"
    unsigned major = 0;
    unsigned minor = 0;
};

// Every mount of this process's mount namespace, in the kernel's order.
std::vector<MountEntry> mountTable();
// A volume that holds people's files on this machine: a block device, or a local file system
// held in memory (tmpfs, ramfs). Kernel interfaces (proc, sysfs, cgroups, ...) and network
// file systems are not; nor is anything mounted below /proc, /sys or /dev.
bool isLocalVolume(const MountEntry& entry);
std::vector<std::string> mountedLocalVolumePaths();

// A folder (links followed) with a bundle extension (the process layer's package list).
bool isFilePackageAtPath(const std::string& path);

// The freedesktop.org trash. filesDir is a trash's files/ folder; its records live in the
// sibling info/ folder as NAME.trashinfo.
namespace trash {

// Chooses the item's name in the trash and writes its record, which reserves the name.
// The name is the item's own; when that is taken, the name less its extension, "_", the
// local date and time as %Y%m%d%H%M%S, "." and the extension; when that is taken too, " 2",
// " 3", ... before the extension. Creates the trash folders when they are missing. Returns
// the path in files/ to move the item to.
Result<std::string> reserve(const std::string& item, const std::string& filesDir);
// Removes the record written for a destination that reserve returned.
void release(const std::string& destination);
// The record's path for a destination in files/.
std::string infoPathFor(const std::string& destination);
// Moves the item into the trash with its record; the destination, or the Error that stopped it.
Result<std::string> recycle(const std::string& item, const std::string& filesDir);

}  // namespace trash

}  // namespace corvina
