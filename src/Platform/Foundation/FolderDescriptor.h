// Folders opened as descriptors for the *at calls, for code that creates files where someone
// else could plant links: a folder reached through a descriptor cannot be swapped for a link
// between the check and the use.
#pragma once

#include <string>

namespace corvina {

// Opens a folder (O_DIRECTORY), creating what is missing with `mode` when `create` is set,
// without following a symbolic link at any component. -1 with errno set on failure.
int openFolderNoFollow(const std::string& path, bool create, unsigned mode);

// A descriptor closed when it goes out of scope.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other) reset(other.release());
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

}  // namespace corvina
