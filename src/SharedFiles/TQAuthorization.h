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

    // Removes the item with "/bin/rm" "-Rdf"; protected system folders are refused.
    bool authRemoveFile(const std::string& path);

    // --- Privileged file forms (TQAuthorizationFiles.cpp) -----------------------------------
    // Each refuses protected system folders (exact match) with a system-log line. The tools
    // are started with the rights without waiting, so true means the tool was started.
    //
    // Moves the item into the user's trash (as root the console user's) with its record, the
    // name made free as the ordinary trash does. As root with deleteOnRootAccount, removes it.
    bool authTrashFile(const std::string& path, bool deleteOnRootAccount = false);
    // Trashes (or, as root with deleteOnRootAccount, removes) each entry; true when all went.
    bool authTrashFolderContents(const std::string& folder, bool deleteOnRootAccount = false);
    // Moves each entry to the same name in the destination folder; true when all moves went.
    bool authMoveFolderContents(const std::string& folder, const std::string& destination);
    // "/bin/mv" "-f"; a missing source is false without a message.
    bool authMoveFile(const std::string& source, const std::string& destination);
    // "/bin/cp" "-f" "-p" "-R"; protected folders may be copied.
    bool authCopyFile(const std::string& source, const std::string& destination);
    // "/bin/mkdir" "-p".
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
    int32_t execAsRoot(const std::string& tool, const std::vector<std::string>& parameters, bool async);
    int32_t execWithSudo(const std::string& tool, const std::vector<std::string>& parameters, bool async);

    mutable std::mutex mutex_;
    std::optional<AuthRef> authRef_;
    bool hasGUI_ = true;
    std::optional<std::string> userDirectory_;
};
