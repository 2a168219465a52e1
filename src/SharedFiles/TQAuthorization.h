// Privileged operations: the standard tools ("/bin/rm", ...) run with administrator rights.
// A process running as root runs them directly; otherwise the rights come from sudo:
// obtaining them is `sudo -v` (asking through a desktop askpass helper only when a GUI is
// allowed and a display is present), with credentials `sudo -S -v` fed on standard input,
// running a tool is `sudo -n -- tool args`, and giving them up is `sudo -k`.
//
// One shared controller per process; the first call of sharedController decides whether it
// may ask the user.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace corvina::tq {

class TQAuthorization {
public:
    // The rights obtained: on this system a sudo ticket of the named user.
    struct AuthRef {
        std::string user;
    };

    static TQAuthorization& sharedController(bool withGUI = true);

    TQAuthorization(const TQAuthorization&) = delete;
    TQAuthorization& operator=(const TQAuthorization&) = delete;

    bool authStart();
    bool authStartWithUser(const std::optional<std::string>& user, const std::optional<std::string>& password);
    void authEnd();
    bool isAuthorized() const;
    bool canAuthorize() const;

    std::optional<AuthRef> authRef() const;
    void setAuthRef(std::optional<AuthRef> ref);
    bool hasGUI() const;
    void setHasGUI(bool hasGUI);
    const std::optional<std::string>& userDirectory() const { return userDirectory_; }

    // Removes the item with "/bin/rm" "-Rdf" "--one-file-system", waiting for it; true when
    // nothing is at the path afterwards. Protected system folders are refused, and so is
    // what rm refuses (a path ending in "." or "..", the root folder); a trailing slash is
    // dropped, so a link is removed and never the folder it leads to.
    bool authRemoveFile(const std::string& path);

    // --- Privileged file forms (TQAuthorizationFiles.cpp) -----------------------------------
    // Each refuses protected system folders (exact match) with a system-log line. Every tool
    // is waited for, and true means the file system shows the result asked for (the tool's
    // status alone does not say so: "mv -n" and "cp -n" end with 0 when they did nothing).
    // Nothing is ever replaced: an occupied destination is refused before a tool runs.
    //
    // Moves the item into the user's trash (as root the console user's) with its record, the
    // name made free as the ordinary trash does. As root with deleteOnRootAccount, removes it.
    bool authTrashFile(const std::string& path, bool deleteOnRootAccount = false);
    // Trashes (or, as root with deleteOnRootAccount, removes) each entry; true when all went.
    bool authTrashFolderContents(const std::string& folder, bool deleteOnRootAccount = false);
    // Moves each entry to the same name in the destination folder; true when all moves went.
    bool authMoveFolderContents(const std::string& folder, const std::string& destination);
    // "/bin/mv" "-n" "-T"; a missing source is false without a message. True when the source
    // is gone and the destination is there.
    bool authMoveFile(const std::string& source, const std::string& destination);
    // "/bin/cp" "-n" "-T" "-p" "-R"; protected folders may be copied. True when the copy is
    // there, of the source's kind (and size, for a file).
    bool authCopyFile(const std::string& source, const std::string& destination);
    // "/bin/mkdir" "-p"; true when the folder is there.
    bool authCreateDir(const std::string& path);

    // Runs the tool with the rights. 0: started (and, unless async, finished); -2: the tool
    // does not exist; -1: not authorized; other values: the tool could not be started.
    int32_t authExecTask(const std::string& tool, const std::vector<std::string>& parameters, bool async = true);

    // Tests replace the running of tools (after all checks) with their own. Null restores it.
    using ExecHook =
        std::function<int32_t(const std::string& tool, const std::vector<std::string>& parameters, bool async)>;
    static void setExecHookForTesting(ExecHook hook);

    // The tool could not be started.
    static constexpr int32_t kExecuteFailure = -60031;

private:
    explicit TQAuthorization(bool withGUI);
    ~TQAuthorization();

    static bool runningAsRoot();
    bool removeWithTool(const std::string& path);
    int32_t execAsRoot(const std::string& tool, const std::vector<std::string>& parameters, bool async);
    int32_t execWithSudo(const std::string& tool, const std::vector<std::string>& parameters, bool async);

    mutable std::mutex mutex_;
    std::optional<AuthRef> authRef_;
    bool hasGUI_ = true;
    std::optional<std::string> userDirectory_;
};

}  // namespace corvina::tq
