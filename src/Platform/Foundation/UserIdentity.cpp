#include "UserIdentity.h"

#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "Exception.h"

namespace corvina {

namespace {

std::optional<UserIdentity> fromEntry(const char* name, uid_t uid)
{
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    const int rc = name ? ::getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found)
                        : ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    if (rc != 0 || !found) return std::nullopt;
    UserIdentity user;
    user.uid = found->pw_uid;
    user.gid = found->pw_gid;
    user.name = found->pw_name ? found->pw_name : "";
    user.home = found->pw_dir ? found->pw_dir : "";
    int count = 64;
    for (int tries = 0; tries < 4; ++tries) {
        user.groups.resize(size_t(count));
        int asked = count;
        if (::getgrouplist(user.name.c_str(), user.gid, user.groups.data(), &asked) >= 0) {
            user.groups.resize(size_t(asked));
            return user;
        }
        count = asked > count ? asked : count * 2;
    }
    user.groups = {user.gid};
    return user;
}

// The raw system calls: per thread, unlike the C library's wrappers for the group list.
long setThreadGroups(const std::vector<gid_t>& groups)
{
    return ::syscall(SYS_setgroups, groups.size(), groups.data());
}
uid_t setThreadFsuid(uid_t uid) { return static_cast<uid_t>(::syscall(SYS_setfsuid, uid)); }
gid_t setThreadFsgid(gid_t gid) { return static_cast<gid_t>(::syscall(SYS_setfsgid, gid)); }

}  // namespace

std::optional<UserIdentity> UserIdentity::forName(const std::string& name)
{
    if (name.empty()) return std::nullopt;
    return fromEntry(name.c_str(), 0);
}

std::optional<UserIdentity> UserIdentity::forUid(uid_t uid) { return fromEntry(nullptr, uid); }

ScopedFileIdentity::ScopedFileIdentity(const std::optional<UserIdentity>& user)
{
    if (!user || user->uid == 0 || ::geteuid() != 0) return;
    const int count = ::getgroups(0, nullptr);
    savedGroups_.resize(size_t(count > 0 ? count : 0));
    if (count > 0 && ::getgroups(count, savedGroups_.data()) != count) savedGroups_.clear();
    // setfs*id answer the previous value; asking with an impossible id changes nothing.
    savedGid_ = setThreadFsgid(gid_t(-1));
    savedUid_ = setThreadFsuid(uid_t(-1));
    // Groups first: once the fsuid is the user's, changing them is still allowed (the
    // capability to do so is kept), but doing it first leaves no moment with the user's
    // uid and root's groups.
    if (setThreadGroups(user->groups.empty() ? std::vector<gid_t>{user->gid} : user->groups) != 0)
        throw PlatformException("NSInternalInconsistencyException", std::string("cannot take the groups of user ") +
                                                                        user->name + ": " + std::strerror(errno));
    setThreadFsgid(user->gid);
    setThreadFsuid(user->uid);
    if (setThreadFsuid(uid_t(-1)) != user->uid || setThreadFsgid(gid_t(-1)) != user->gid) {
        setThreadFsuid(savedUid_);
        setThreadFsgid(savedGid_);
        setThreadGroups(savedGroups_);
        throw PlatformException("NSInternalInconsistencyException",
                                "cannot take the file-system identity of user " + user->name);
    }
    active_ = true;
}

ScopedFileIdentity::~ScopedFileIdentity()
{
    if (!active_) return;
    setThreadFsuid(savedUid_);
    setThreadFsgid(savedGid_);
    // Without its own identity back the thread would go on with the user's rights, or with
    // root's uid and the user's groups: neither may happen silently.
    if (setThreadGroups(savedGroups_) != 0 || setThreadFsuid(uid_t(-1)) != savedUid_) std::abort();
}

}  // namespace corvina
