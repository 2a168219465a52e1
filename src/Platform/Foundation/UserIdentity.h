// Acting on files with another user's rights.
//
// A program that runs as root on behalf of a user must open, create and remove files with
// that user's rights, so that it can do nothing the user could not do alone and whatever it
// creates belongs to the user. On Linux a thread's file-system identity (fsuid, fsgid and
// its supplementary groups) decides every permission check and the owner of new files, and
// the kernel keeps it per thread: switching it here changes nothing for the other threads
// (the system calls are made directly, since the C library would apply setgroups to every
// thread of the process).
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace corvina {

struct UserIdentity {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // supplementary groups, the primary one included
    std::string name;
    std::string home;

    // The user database's entry for a name or a uid (with its groups); none when unknown.
    static std::optional<UserIdentity> forName(const std::string& name);
    static std::optional<UserIdentity> forUid(uid_t uid);
};

// While it lives, the calling thread checks permissions and creates files as `user`; its
// own identity comes back when it ends. A thread started meanwhile inherits the user's
// identity for good, so start none inside the scope. Does nothing when there is no user, when the
// process is not root, or when the user is root.
class ScopedFileIdentity {
public:
    explicit ScopedFileIdentity(const std::optional<UserIdentity>& user);
    ~ScopedFileIdentity();
    ScopedFileIdentity(const ScopedFileIdentity&) = delete;
    ScopedFileIdentity& operator=(const ScopedFileIdentity&) = delete;

    // True while the thread acts as another user.
    bool active() const { return active_; }

private:
    bool active_ = false;
    uid_t savedUid_ = 0;
    gid_t savedGid_ = 0;
    std::vector<gid_t> savedGroups_;
};

}  // namespace corvina
