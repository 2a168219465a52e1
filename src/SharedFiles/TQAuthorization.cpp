#include "tq/TQAuthorization.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Foundation/Exception.h"
#include "Foundation/FileOperations.h"
#include "Foundation/StringUtils.h"
#include "Foundation/SystemLog.h"
#include "Process/Process.h"
#include "tq/TQLocalPaths.h"
#include "tq/TQLog.h"
#include "tq/TQTaskEx.h"

namespace corvina::tq {

namespace {

constexpr const char* kSudo = "/usr/bin/sudo";

std::mutex& hookMutex()
{
    static std::mutex m;
    return m;
}

TQAuthorization::ExecHook& execHook()
{
    static TQAuthorization::ExecHook hook;
    return hook;
}

std::string currentUserName()
{
    if (passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_name) return pw->pw_name;
    return {};
}

bool displayPresent()
{
    const char* x = std::getenv("DISPLAY");
    const char* w = std::getenv("WAYLAND_DISPLAY");
    return (x && *x) || (w && *w);
}

// A desktop password helper for sudo -A: an ssh-askpass flavour when one is installed, else a
// small script around zenity's password dialog, written into a private folder of its own.
// The script's folder goes with the object.
class Askpass {
public:
    Askpass()
    {
        for (const char* p : {"/usr/bin/ssh-askpass", "/usr/lib/ssh/x11-ssh-askpass",
                              "/usr/lib/openssh/gnome-ssh-askpass", "/usr/bin/ksshaskpass"}) {
            if (corvina::isExecutablePath(p)) {
                path_ = p;
                return;
            }
        }
        const auto zenity = corvina::findProgramOnPath("zenity");
        if (!zenity) return;
        std::string pattern = TQLocalPaths::tempDirectory() + "corvina-askpass-XXXXXX";
        if (!::mkdtemp(pattern.data())) return;
        folder_ = pattern;
        const std::string script = folder_ + "/askpass";
        {
            std::ofstream out(script, std::ios::trunc);
            if (!out) return;
            out << "#!/bin/sh\nexec '" << *zenity << "' --password --title=\"$1\"\n";
        }
        if (::chmod(script.c_str(), 0700) == 0) path_ = script;
    }
    ~Askpass()
    {
        std::error_code ec;
        if (!folder_.empty()) std::filesystem::remove_all(folder_, ec);
    }
    Askpass(const Askpass&) = delete;
    Askpass& operator=(const Askpass&) = delete;
    const std::optional<std::string>& path() const { return path_; }

private:
    std::optional<std::string> path_;
    std::string folder_;
};

struct SudoResult {
    int status = -1;      // sudo's exit status; -1 when it could not be run
    std::string message;  // what it printed on its standard error, trimmed
};

// Runs sudo with the arguments and waits. Standard input is a pipe (fed with input when
// given), never the terminal.
SudoResult runSudo(const std::vector<std::string>& args, std::string input = {},
                   std::optional<corvina::Process::Environment> env = std::nullopt)
{
    SudoResult result;
    if (!corvina::isExecutablePath(kSudo)) {
        result.message = std::string(kSudo) + " is not available";
        return result;
    }
    try {
        corvina::Process p;
        p.setLaunchPath(kSudo);
        p.setArguments(args);
        p.setEnvironment(std::move(env));
        p.setStandardOutput(corvina::Process::Stream::Null);
        p.setStandardError(corvina::Process::Stream::Pipe);
        p.setStandardInputData(std::move(input));
        p.launch();
        corvina::Process::Bytes error;
        p.readToEnd(nullptr, &error);
        p.waitUntilExit();
        result.status = p.terminationStatus();
        const std::string text(error.begin(), error.end());
        result.message = std::string(corvina::trimWhitespaceAndNewlines(text));
    } catch (const corvina::PlatformException& e) {
        result.message = e.reason();
    }
    return result;
}

// Both sinks: the system log and the program's log.
void logRefusal(const char* what, const std::string& why)
{
    const std::string reason = why.empty() ? std::string("no reason given") : why;
    corvina::systemLog("%@: %@", what, reason);
    TQLog::appendLog("%@: %@", what, reason);
}

}  // namespace

TQAuthorization& TQAuthorization::sharedController(bool withGUI)
{
    static TQAuthorization instance(withGUI);  // created once, under the language's guard
    return instance;
}

TQAuthorization::TQAuthorization(bool withGUI) : hasGUI_(withGUI)
{
    // No privileged reference is ever handed over by a starting process here: a parent that
    // ran us with rights started us as root.
    if (!runningAsRoot()) userDirectory_ = TQLocalPaths::userDirectory();
}

TQAuthorization::~TQAuthorization() { authEnd(); }

bool TQAuthorization::runningAsRoot() { return ::getuid() == 0; }

bool TQAuthorization::isAuthorized() const
{
    std::lock_guard lock(mutex_);
    return runningAsRoot() || authRef_.has_value();
}

bool TQAuthorization::canAuthorize() const { return hasGUI() || runningAsRoot(); }

std::optional<TQAuthorization::AuthRef> TQAuthorization::authRef() const
{
    std::lock_guard lock(mutex_);
    return authRef_;
}

void TQAuthorization::setAuthRef(std::optional<AuthRef> ref)
{
    std::lock_guard lock(mutex_);
    authRef_ = std::move(ref);
}

bool TQAuthorization::hasGUI() const
{
    std::lock_guard lock(mutex_);
    return hasGUI_;
}

void TQAuthorization::setHasGUI(bool hasGUI)
{
    std::lock_guard lock(mutex_);
    hasGUI_ = hasGUI;
}

bool TQAuthorization::authStart()
{
    if (isAuthorized()) return true;
    if (!hasGUI()) {
        corvina::systemLog("Unable to authorize");
        return false;
    }
    // Asking is allowed only in a desktop dialog. Without a display (or without a dialog to
    // ask in) sudo may only confirm rights that need no password; it never reads the terminal.
    SudoResult result;
    Askpass askpass;
    if (displayPresent() && askpass.path()) {
        auto env = corvina::Process::currentEnvironment();
        env["SUDO_ASKPASS"] = *askpass.path();
        result = runSudo({"-A", "-v"}, {}, std::move(env));
    } else {
        result = runSudo({"-n", "-v"});
    }
    if (result.status == 0) {
        setAuthRef(AuthRef{currentUserName()});
        return true;
    }
    setAuthRef(std::nullopt);
    logRefusal("Authorization refused", result.message);
    return false;
}

bool TQAuthorization::authStartWithUser(const std::optional<std::string>& user,
                                        const std::optional<std::string>& password)
{
    if (runningAsRoot()) return true;
    if (!user || !password) return false;
    // sudo checks the credentials of the user who runs it; another user's password cannot
    // grant this process anything.
    // -k: the password is checked even while an earlier ticket is still valid.
    const bool granted = *user == currentUserName() && password->find('\n') == std::string::npos &&
                         runSudo({"-k", "-S", "-p", "", "-v"}, *password + "\n").status == 0;
    if (granted) {
        setAuthRef(AuthRef{*user});
        return true;
    }
    setAuthRef(std::nullopt);
    corvina::systemLog("Authorization failed. Invalid username or password");
    TQLog::appendLog("Authorization failed. Invalid username or password");
    return false;
}

void TQAuthorization::authEnd()
{
    bool hadTicket = false;
    {
        std::lock_guard lock(mutex_);
        hadTicket = authRef_.has_value();
        authRef_.reset();
    }
    if (hadTicket && !runningAsRoot()) runSudo({"-n", "-k"});
}

void TQAuthorization::setExecHookForTesting(ExecHook hook)
{
    std::lock_guard lock(hookMutex());
    execHook() = std::move(hook);
}

int32_t TQAuthorization::authExecTask(const std::string& tool, const std::vector<std::string>& parameters, bool async)
{
    std::error_code ec;
    if (!std::filesystem::exists(tool, ec)) {
        corvina::systemLog("Unable to execute task: path %@ doesn't exist", tool);
        return -2;
    }
    if (!runningAsRoot()) {
        // Rights obtained earlier may have lapsed (sudo's ticket times out): confirm them
        // without asking, and ask again (where asking is allowed) when they are gone.
        if (isAuthorized()) {
            const SudoResult check = runSudo({"-n", "-v"});
            if (check.status != 0) {
                setAuthRef(std::nullopt);
                logRefusal("Authorization lapsed", check.message);
            }
        }
        if (!isAuthorized()) authStart();
        if (!isAuthorized()) return -1;
    }
    ExecHook hook;
    {
        std::lock_guard lock(hookMutex());
        hook = execHook();
    }
    if (hook) return hook(tool, parameters, async);
    return runningAsRoot() ? execAsRoot(tool, parameters, async) : execWithSudo(tool, parameters, async);
}

int32_t TQAuthorization::execAsRoot(const std::string& tool, const std::vector<std::string>& parameters, bool async)
{
    try {
        if (async) return TQTaskEx::runTaskAndReturn(tool, parameters) ? 0 : kExecuteFailure;
        const int32_t status = TQTaskEx::terminationCodeFromTask(tool, parameters);
        return status < 0 ? kExecuteFailure : status;
    } catch (const corvina::PlatformException& e) {
        TQLog::appendLog("Exception running task %@: %@", tool, e.reason());
        return kExecuteFailure;
    }
}

int32_t TQAuthorization::execWithSudo(const std::string& tool, const std::vector<std::string>& parameters, bool async)
{
    std::vector<std::string> args = {"-n", "--", tool};
    args.insert(args.end(), parameters.begin(), parameters.end());
    try {
        if (async) return TQTaskEx::runTaskAndReturn(kSudo, args) ? 0 : kExecuteFailure;
        const SudoResult result = runSudo(args);
        if (result.status == 0) return 0;
        // sudo's own refusals begin with its name; anything else is the tool's status.
        if (result.status < 0 || result.message.rfind("sudo:", 0) == 0) {
            setAuthRef(std::nullopt);
            logRefusal("Authorization refused", result.message);
            return result.status < 0 ? kExecuteFailure : -1;
        }
        return result.status;
    } catch (const corvina::PlatformException& e) {
        TQLog::appendLog("Exception running task %@: %@", tool, e.reason());
        return kExecuteFailure;
    }
}

bool TQAuthorization::authRemoveFile(const std::string& path)
{
    if (TQLocalPaths::isPathSystemDirectory(path, true)) {
        corvina::systemLog("Unable to delete path %@ because it is a system directory.", path);
        return false;
    }
    if (const auto why = corvina::removalRefusal(path)) {
        corvina::systemLog("Unable to delete path %@: %@", path, *why);
        return false;
    }
    return removeWithTool(path);
}

bool TQAuthorization::removeWithTool(const std::string& path)
{
    // Without its trailing slashes: rm would otherwise empty the folder a link leads to.
    std::string item = path;
    while (item.size() > 1 && item.back() == '/') item.pop_back();
    // Waits for the tool, and it never leaves the item's device.
    const int32_t status = authExecTask("/bin/rm", {"-Rdf", "--one-file-system", "--", item}, false);
    if (status == 0 && !corvina::itemExists(item)) return true;
    corvina::systemLog("Error in authRemoveFile: %@ was not removed (status %i)", item, status);
    return false;
}

}  // namespace corvina::tq
