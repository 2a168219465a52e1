#include "TQAuthorization.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Foundation/Exception.h"
#include "Foundation/SystemLog.h"
#include "Process/Process.h"
#include "TQLocalPaths.h"
#include "TQLog.h"
#include "TQTaskEx.h"

extern char** environ;

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

std::optional<std::string> findOnPath(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::string all = path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    while (start <= all.size()) {
        const size_t end = all.find(':', start);
        const std::string dir = all.substr(start, end == std::string::npos ? std::string::npos : end - start);
        if (!dir.empty()) {
            const std::string candidate = dir + "/" + name;
            if (corvina::isExecutablePath(candidate)) return candidate;
        }
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return std::nullopt;
}

// A desktop password helper for sudo -A: an ssh-askpass flavour when one is installed, else a
// small script around zenity's password dialog.
std::optional<std::string> askpassHelper()
{
    for (const char* p : {"/usr/bin/ssh-askpass", "/usr/lib/ssh/x11-ssh-askpass", "/usr/lib/openssh/gnome-ssh-askpass",
                          "/usr/bin/ksshaskpass"}) {
        if (corvina::isExecutablePath(p)) return std::string(p);
    }
    const auto zenity = findOnPath("zenity");
    if (!zenity) return std::nullopt;
    std::error_code ec;
    const auto dir = std::filesystem::temp_directory_path(ec);
    if (ec) return std::nullopt;
    const std::string script = (dir / ("corvina-askpass-" + std::to_string(::getuid()))).string();
    {
        std::ofstream out(script, std::ios::trunc);
        if (!out) return std::nullopt;
        out << "#!/bin/sh\nexec '" << *zenity << "' --password --title=\"$1\"\n";
    }
    if (::chmod(script.c_str(), 0700) != 0) return std::nullopt;
    return script;
}

corvina::Process::Environment currentEnvironment()
{
    corvina::Process::Environment env;
    for (char** e = environ; e && *e; ++e) {
        const std::string entry = *e;
        const auto eq = entry.find('=');
        if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    return env;
}

// Runs sudo with the arguments and waits; the exit status, or -1 when it could not run.
int runSudo(const std::vector<std::string>& args, std::string input = {},
            std::optional<corvina::Process::Environment> env = std::nullopt)
{
    if (!corvina::isExecutablePath(kSudo)) return -1;
    try {
        corvina::Process p;
        p.setLaunchPath(kSudo);
        p.setArguments(args);
        p.setEnvironment(std::move(env));
        p.setStandardOutput(corvina::Process::Stream::Null);
        p.setStandardError(corvina::Process::Stream::Null);
        p.setStandardInputData(std::move(input));
        p.launch();
        p.waitUntilExit();
        return p.terminationStatus();
    } catch (const corvina::PlatformException&) {
        return -1;
    }
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

TQAuthorization::~TQAuthorization()
{
    authEnd();
}

bool TQAuthorization::runningAsRoot()
{
    return ::getuid() == 0;
}

bool TQAuthorization::isAuthorized() const
{
    std::lock_guard lock(mutex_);
    return runningAsRoot() || authRef_.has_value();
}

bool TQAuthorization::canAuthorize() const
{
    return hasGUI() || runningAsRoot();
}

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
    int status = -1;
    if (displayPresent()) {
        if (const auto askpass = askpassHelper()) {
            auto env = currentEnvironment();
            env["SUDO_ASKPASS"] = *askpass;
            status = runSudo({"-A", "-v"}, {}, std::move(env));
        } else {
            status = runSudo({"-v"});
        }
    } else {
        // No desktop: sudo asks on the controlling terminal when there is one, and fails
        // at once when there is none.
        status = runSudo({"-v"});
    }
    if (status == 0) {
        setAuthRef(AuthRef{currentUserName()});
        return true;
    }
    setAuthRef(std::nullopt);
    return false;
}

bool TQAuthorization::authStartWithUser(const std::optional<std::string>& user,
                                        const std::optional<std::string>& password)
{
    if (runningAsRoot()) return true;
    if (!user || !password) return false;
    // sudo checks the credentials of the user who runs it; another user's password cannot
    // grant this process anything.
    const bool granted = *user == currentUserName() && password->find('\n') == std::string::npos &&
                         runSudo({"-S", "-p", "", "-v"}, *password + "\n") == 0;
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
    if (hadTicket && !runningAsRoot()) runSudo({"-k"});
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
        if (async) {
            TQTaskEx::runTaskAndReturn(tool, parameters);
        } else {
            TQTaskEx::runTask(tool, parameters);
        }
        return 0;
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
        if (async) {
            return TQTaskEx::runTaskAndReturn(kSudo, args) ? 0 : kExecuteFailure;
        }
        return TQTaskEx::runTask(kSudo, args) ? 0 : kExecuteFailure;
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
    return authExecTask("/bin/rm", {"-Rdf", path}) == 0;
}
