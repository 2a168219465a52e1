#include "FolderDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace corvina {

int openFolderNoFollow(const std::string& path, bool create, unsigned mode)
{
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    // Folders on the way are only passed through (O_PATH needs no read permission on them);
    // the last one is opened for reading, so that it can be listed and locked.
    const int through = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    const int last = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = ::open(path[0] == '/' ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    size_t at = 0;
    while (fd >= 0 && at < path.size()) {
        const size_t slash = path.find('/', at);
        const size_t end = slash == std::string::npos ? path.size() : slash;
        const std::string part = path.substr(at, end - at);
        at = end + 1;
        if (part.empty() || part == ".") continue;
        const bool isLast = path.find_first_not_of('/', at < path.size() ? at : path.size()) == std::string::npos;
        const int flags = isLast ? last : through;
        int child = ::openat(fd, part.c_str(), flags);
        if (child < 0 && errno == ENOENT && create) {
            if (::mkdirat(fd, part.c_str(), static_cast<mode_t>(mode)) == 0 || errno == EEXIST)
                child = ::openat(fd, part.c_str(), flags);
        }
        const int saved = errno;
        ::close(fd);
        errno = saved;
        fd = child;
    }
    return fd;
}

void UniqueFd::reset(int fd)
{
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
}

}  // namespace corvina
