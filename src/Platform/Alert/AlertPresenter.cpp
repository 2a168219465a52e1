#include "Alert/AlertPresenter.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "Foundation/Exception.h"
#include "Foundation/Format.h"
#include "Foundation/PosixIO.h"
#include "Foundation/SystemLog.h"
#include "Process/Process.h"

namespace corvina {

namespace {

// A worker thread owned by a session: joined when the session goes, unless the session goes
// from inside that very thread (its completion released the last reference).
class OwnedThread {
public:
    OwnedThread() = default;
    explicit OwnedThread(std::thread t) : thread_(std::move(t)) {}
    ~OwnedThread()
    {
        if (!thread_.joinable()) return;
        if (thread_.get_id() == std::this_thread::get_id()) {
            thread_.detach();
        } else {
            thread_.join();
        }
    }
    OwnedThread(OwnedThread&&) = default;
    OwnedThread& operator=(OwnedThread&&) = delete;

private:
    std::thread thread_;
};

// --- Nobody to ask -------------------------------------------------------------------------

class NoSession final : public AlertSession {
public:
    void dismiss() override {}
};

class HeadlessPresenter final : public AlertPresenter {
public:
    std::string name() const override { return "headless"; }
    std::shared_ptr<AlertSession> present(const AlertContent& content, Completion completion) override
    {
        if (content.informativeText.empty()) {
            systemLog("Alert: %@", content.messageText);
        } else {
            systemLog("Alert: %@ - %@", content.messageText, content.informativeText);
        }
        if (completion) completion(kAlertDefaultReturn);
        return std::make_shared<NoSession>();
    }
};

// --- Terminal prompt -----------------------------------------------------------------------

class Pipe {
public:
    Pipe()
    {
        if (::pipe2(fds_, O_CLOEXEC) != 0) fds_[0] = fds_[1] = -1;
    }
    ~Pipe()
    {
        for (int fd : fds_) {
            if (fd >= 0) ::close(fd);
        }
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int readEnd() const { return fds_[0]; }
    int writeEnd() const { return fds_[1]; }

private:
    int fds_[2];
};

// A terminal that is gone takes nothing more; the alert carries on to its default answer.
void writeText(int fd, const std::string& text) { posix::writeAll(fd, text); }

class TerminalSession final : public AlertSession {
public:
    TerminalSession(AlertContent content, int in, int out, AlertPresenter::Completion completion)
        : content_(std::move(content)), in_(in), out_(out), completion_(std::move(completion))
    {
    }
    ~TerminalSession() override
    {
        dismiss();
        worker_.reset();  // joins before the members it uses go
    }

    void start()
    {
        worker_ = std::make_unique<OwnedThread>(std::thread([this] { run(); }));
    }

    void dismiss() override
    {
        dismissed_ = true;
        const char byte = 0;
        if (cancel_.writeEnd() >= 0) [[maybe_unused]]
            auto n = ::write(cancel_.writeEnd(), &byte, 1);
    }

private:
    void run()
    {
        bool checked = content_.suppressionChecked;
        writeText(out_, terminalPrompt(content_, checked));
        std::string line;
        int64_t code = kAlertDefaultReturn;
        bool answered = false;
        for (;;) {
            pollfd fds[2] = {{in_, POLLIN, 0}, {cancel_.readEnd(), POLLIN, 0}};
            const int ready = posix::retryInterrupted([&] { return ::poll(fds, cancel_.readEnd() >= 0 ? 2 : 1, -1); });
            if (ready < 0) break;  // cannot read: the default button
            if (dismissed_) return;
            char c = 0;
            const ssize_t n = ::read(in_, &c, 1);
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            if (n <= 0) break;  // end of input: the default button
            if (c != '\n') {
                if (line.size() < 4096) line += c;
                continue;
            }
            if (isSuppressionToggle(content_, line)) {
                checked = !checked;
                line.clear();
                writeText(out_, terminalPrompt(content_, checked));
                continue;
            }
            if (auto answer = terminalAnswer(content_, line)) {
                code = *answer;
                answered = true;
                break;
            }
            line.clear();
            writeText(out_, "Please answer with one of the numbers shown.\n");
        }
        finish(code, answered ? std::optional<bool>(checked) : std::nullopt);
    }

    // The completion may release the last reference to this session, so it is called from a
    // local and nothing of the session is touched afterwards.
    void finish(int64_t code, std::optional<bool> checked)
    {
        if (dismissed_) return;
        auto completion = std::move(completion_);
        auto choice = std::move(content_.suppressionChoice);
        if (checked && content_.suppressionBinding && choice) choice(*checked);
        if (completion) completion(code);
    }

    AlertContent content_;
    int in_;
    int out_;
    AlertPresenter::Completion completion_;
    Pipe cancel_;
    std::atomic<bool> dismissed_{false};
    std::unique_ptr<OwnedThread> worker_;
};

class TerminalPresenter final : public AlertPresenter {
public:
    TerminalPresenter(int in, int out) : in_(in), out_(out) {}
    std::string name() const override { return "terminal"; }
    std::shared_ptr<AlertSession> present(const AlertContent& content, Completion completion) override
    {
        auto session = std::make_shared<TerminalSession>(content, in_, out_, std::move(completion));
        session->start();
        return session;
    }

private:
    int in_;
    int out_;
};

// --- Desktop dialog ------------------------------------------------------------------------

class DialogSession final : public AlertSession, public std::enable_shared_from_this<DialogSession> {
public:
    DialogSession(AlertContent content, std::shared_ptr<Process> process, AlertPresenter::Completion completion,
                  std::shared_ptr<AlertPresenter> fallback)
        : content_(std::move(content)),
          process_(std::move(process)),
          completion_(std::move(completion)),
          fallback_(std::move(fallback))
    {
    }
    ~DialogSession() override
    {
        dismiss();
        worker_.reset();
    }
    void start()
    {
        worker_ = std::make_unique<OwnedThread>(std::thread([this] { run(); }));
    }
    void dismiss() override
    {
        dismissed_ = true;
        process_->terminate();
        std::lock_guard lock(mutex_);
        if (fallbackSession_) fallbackSession_->dismiss();
    }

private:
    void run()
    {
        Process::Bytes output;
        Process::Bytes error;
        process_->readToEnd(&output, &error);
        process_->waitUntilExit();
        if (dismissed_) return;
        std::string printed(output.begin(), output.end());
        while (!printed.empty() && (printed.back() == '\n' || printed.back() == '\r')) printed.pop_back();
        const int status = process_->terminationStatus();
        if (const auto failure = dialogFailure(status, std::string(error.begin(), error.end()))) {
            // Nobody saw the dialog: its status is no answer. Ask whoever else can be asked.
            systemLog("Alert dialog cannot be shown: %@", *failure);
            // A fallback that answers at once may release the last other reference to this
            // session; it then goes when `self` does, on this thread.
            const auto self = weak_from_this().lock();
            if (!self) return;
            auto fallback = fallback_->present(content_, std::move(completion_));
            std::lock_guard lock(mutex_);
            fallbackSession_ = std::move(fallback);
            if (dismissed_ && fallbackSession_) fallbackSession_->dismiss();
            return;
        }
        int64_t code = kAlertDefaultReturn;
        std::optional<bool> checked;
        if (status == 0 && content_.suppressionBinding) checked = printed == kSuppressionCheckBoxTitle;
        if (status == 1) {
            if (content_.otherButton && printed == *content_.otherButton) {
                code = kAlertOtherReturn;
            } else if (content_.alternateButton) {
                code = kAlertAlternateReturn;
            }
        }
        auto completion = std::move(completion_);
        auto choice = std::move(content_.suppressionChoice);
        if (checked && choice) choice(*checked);
        if (completion) completion(code);
    }

    AlertContent content_;
    std::shared_ptr<Process> process_;
    AlertPresenter::Completion completion_;
    std::shared_ptr<AlertPresenter> fallback_;
    std::mutex mutex_;
    std::shared_ptr<AlertSession> fallbackSession_;  // goes before the worker is joined
    std::atomic<bool> dismissed_{false};
    std::unique_ptr<OwnedThread> worker_;
};

class DialogPresenter final : public AlertPresenter {
public:
    DialogPresenter(std::string zenity, std::shared_ptr<AlertPresenter> fallback)
        : zenity_(std::move(zenity)), fallback_(std::move(fallback))
    {
    }
    std::string name() const override { return "dialog"; }
    std::shared_ptr<AlertSession> present(const AlertContent& content, Completion completion) override
    {
        auto process = std::make_shared<Process>();
        process->setLaunchPath(zenity_);
        process->setArguments(dialogArguments(content));
        process->setStandardOutput(Process::Stream::Pipe);
        process->setStandardError(Process::Stream::Pipe);
        // Without a session bus there is no accessibility bus either, and the dialog would
        // wait for one at exit long after it was answered.
        if (const char* bus = std::getenv("DBUS_SESSION_BUS_ADDRESS"); !bus || !*bus) {
            auto env = Process::currentEnvironment();
            env["NO_AT_BRIDGE"] = "1";
            process->setEnvironment(std::move(env));
        }
        try {
            process->launch();
        } catch (const PlatformException& e) {
            systemLog("Alert dialog cannot be shown: %@", e.reason());
            return fallback_->present(content, std::move(completion));
        }
        auto session = std::make_shared<DialogSession>(content, std::move(process), std::move(completion), fallback_);
        session->start();
        return session;
    }

private:
    std::string zenity_;
    std::shared_ptr<AlertPresenter> fallback_;
};

std::mutex& overrideMutex()
{
    static std::mutex m;
    return m;
}

std::shared_ptr<AlertPresenter>& overridePresenter()
{
    static std::shared_ptr<AlertPresenter> presenter;
    return presenter;
}

}  // namespace

std::shared_ptr<AlertPresenter> makeHeadlessAlertPresenter() { return std::make_shared<HeadlessPresenter>(); }

std::shared_ptr<AlertPresenter> makeTerminalAlertPresenter(int inputFd, int outputFd)
{
    return std::make_shared<TerminalPresenter>(inputFd, outputFd);
}

std::shared_ptr<AlertPresenter> makeDialogAlertPresenter(std::string zenityPath,
                                                         std::shared_ptr<AlertPresenter> fallback)
{
    if (!fallback) {
        AlertEnvironment env = AlertEnvironment::current();
        env.displayAvailable = false;
        fallback = choosePresenterKind(env) == AlertPresenterKind::Terminal
                       ? makeTerminalAlertPresenter(STDIN_FILENO, STDOUT_FILENO)
                       : makeHeadlessAlertPresenter();
    }
    return std::make_shared<DialogPresenter>(std::move(zenityPath), std::move(fallback));
}

std::optional<std::string> dialogFailure(int status, const std::string& printedError)
{
    // zenity answers with 0 (default button) or 1 (alternate, other, or closed); anything
    // else (an error, a signal: 128 + its number) is no answer. The toolkit
    // ends it with 1 as well when it cannot open the display, saying so on standard error.
    const auto lineWith = [&](const std::string& words) -> std::optional<std::string> {
        const auto at = printedError.find(words);
        if (at == std::string::npos) return std::nullopt;
        return printedError.substr(at, printedError.find('\n', at) - at);
    };
    if (auto line = lineWith("cannot open display")) return line;
    if (status == 0 || status == 1) return std::nullopt;
    return format("the dialog program ended with status %d", status);
}

AlertEnvironment AlertEnvironment::current()
{
    AlertEnvironment env;
    const char* x = std::getenv("DISPLAY");
    const char* w = std::getenv("WAYLAND_DISPLAY");
    env.displayAvailable = (x && *x) || (w && *w);
    env.zenityPath = findProgramOnPath("zenity");
    env.inputIsTerminal = ::isatty(STDIN_FILENO) == 1;
    env.outputIsTerminal = ::isatty(STDOUT_FILENO) == 1;
    return env;
}

AlertPresenterKind choosePresenterKind(const AlertEnvironment& env)
{
    if (env.displayAvailable && env.zenityPath) return AlertPresenterKind::Dialog;
    if (env.inputIsTerminal && env.outputIsTerminal) return AlertPresenterKind::Terminal;
    return AlertPresenterKind::Headless;
}

std::shared_ptr<AlertPresenter> currentAlertPresenter()
{
    {
        std::lock_guard lock(overrideMutex());
        if (overridePresenter()) return overridePresenter();
    }
    const AlertEnvironment env = AlertEnvironment::current();
    switch (choosePresenterKind(env)) {
    case AlertPresenterKind::Dialog:
        return makeDialogAlertPresenter(*env.zenityPath);
    case AlertPresenterKind::Terminal:
        return makeTerminalAlertPresenter(STDIN_FILENO, STDOUT_FILENO);
    case AlertPresenterKind::Headless:
        break;
    }
    return makeHeadlessAlertPresenter();
}

void setAlertPresenterOverride(std::shared_ptr<AlertPresenter> presenter)
{
    std::lock_guard lock(overrideMutex());
    overridePresenter() = std::move(presenter);
}

std::vector<std::string> dialogArguments(const AlertContent& content)
{
    std::string text = content.messageText;
    if (!content.informativeText.empty()) text += (text.empty() ? "" : "\n\n") + content.informativeText;
    std::vector<std::string> args;
    const bool question = content.alternateButton.has_value();
    const bool checkBox = content.suppressionBinding.has_value();
    if (checkBox) {
        args = {"--list", "--checklist", "--hide-header", "--column=", "--column="};
    } else {
        args.push_back(question ? "--question" : "--info");
        args.push_back("--no-markup");
    }
    args.push_back("--title=" + content.messageText);
    args.push_back("--text=" + text);
    args.push_back("--ok-label=" + content.defaultButtonTitle());
    if (question) args.push_back("--cancel-label=" + *content.alternateButton);
    if (content.otherButton) args.push_back("--extra-button=" + *content.otherButton);
    if (checkBox) {
        args.push_back(content.suppressionChecked ? "TRUE" : "FALSE");
        args.push_back(kSuppressionCheckBoxTitle);
    }
    return args;
}

std::string terminalPrompt(const AlertContent& content, bool checked)
{
    std::string text = "\n" + content.messageText + "\n";
    if (!content.informativeText.empty()) text += content.informativeText + "\n";
    text += "  1) " + content.defaultButtonTitle();
    if (content.alternateButton) text += "   2) " + *content.alternateButton;
    if (content.otherButton) text += "   3) " + *content.otherButton;
    if (content.suppressionBinding) {
        text += std::string("\n  s) [") + (checked ? "x" : " ") + "] " + kSuppressionCheckBoxTitle;
    }
    text += "\nChoice [1]: ";
    return text;
}

bool isSuppressionToggle(const AlertContent& content, const std::string& line)
{
    if (!content.suppressionBinding) return false;
    std::string answer;
    for (char c : line) {
        if (c != ' ' && c != '\t' && c != '\r') answer += c;
    }
    return answer == "s" || answer == "S";
}

std::optional<int64_t> terminalAnswer(const AlertContent& content, const std::string& line)
{
    std::string answer;
    for (char c : line) {
        if (c != ' ' && c != '\t' && c != '\r') answer += c;
    }
    if (answer.empty() || answer == "1") return kAlertDefaultReturn;
    if (answer == "2" && content.alternateButton) return kAlertAlternateReturn;
    if (answer == "3" && content.otherButton) return kAlertOtherReturn;
    return std::nullopt;
}

}  // namespace corvina
