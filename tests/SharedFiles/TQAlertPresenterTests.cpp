#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "ChildTest.h"
#include "Foundation/Exception.h"
#include "Foundation/SystemLog.h"
#include "Foundation/UserDefaults.h"
#include "Foundation/Value.h"
#include "TQAlert.h"

namespace fs = std::filesystem;
using namespace corvina::test;
using ::testing::Contains;

namespace {

class PresenterScope {
public:
    explicit PresenterScope(std::shared_ptr<corvina::AlertPresenter> p) { corvina::setAlertPresenterOverride(std::move(p)); }
    ~PresenterScope() { corvina::setAlertPresenterOverride(nullptr); }
};

// Answers at once like a person who sets the check box to `check` and presses `code`.
class PersonPresenter : public corvina::AlertPresenter {
public:
    PersonPresenter(int64_t code, bool check) : code_(code), check_(check) {}
    std::string name() const override { return "person"; }
    std::shared_ptr<corvina::AlertSession> present(const corvina::AlertContent& content, Completion completion) override
    {
        shown.push_back(content);
        if (content.suppressionBinding && content.suppressionChoice) content.suppressionChoice(check_);
        completion(code_);
        return nullptr;
    }
    std::vector<corvina::AlertContent> shown;

private:
    int64_t code_;
    bool check_;
};

class SaveSheet : public TQAlertDelegate {
public:
    void saveEnded(TQAlert&, int64_t code) { ended = code; }
    int64_t ended = 99;
};
class OtherDelegate : public TQAlertDelegate {};


std::string selfPath()
{
    return fs::read_symlink("/proc/self/exe").string();
}

// The child's answer: its return code and its stored check box, written where the parent
// can read them.
void reportResult(int64_t code)
{
    const auto quiet = corvina::UserDefaults("SharedFilesTests").valueForKeyPath("alerts.quiet");
    const std::string result = childHome() + "/result";
    std::ofstream(result + ".tmp") << code << " "
                                   << (quiet.isNone() ? "unset" : quiet.boolValue() ? "checked" : "unchecked") << "\n";
    fs::rename(result + ".tmp", result);
}

}  // namespace

TEST(TQAlertSelector, DelegateMustAnswerTheEndMessage)
{
    auto presenter = std::make_shared<PersonPresenter>(corvina::kAlertAlternateReturn, false);
    PresenterScope scope(presenter);
    corvina::ScopedSystemLogCapture capture;
    OtherDelegate other;
    const TQAlert::Selector saveEnded(&SaveSheet::saveEnded, "saveEnded:");
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Save?", "Save", "Discard", nullptr, nullptr, nullptr, &other,
                                                 saveEnded, true),
              -1);
    EXPECT_THAT(capture.messages(), Contains("Alert error: delegate does not respond to selector saveEnded:"));
    EXPECT_TRUE(presenter->shown.empty()) << "nothing shown";
    // Without a delegate the alert object is the receiver, and it is no SaveSheet either.
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Save?", "Save", "Discard", nullptr, nullptr, nullptr, nullptr,
                                                 saveEnded, false),
              -1);

    SaveSheet sheet;
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Save?", "Save", "Discard", nullptr, nullptr, nullptr, &sheet,
                                                 saveEnded, true),
              corvina::kAlertAlternateReturn);
    EXPECT_EQ(sheet.ended, corvina::kAlertAlternateReturn);
    EXPECT_EQ(presenter->shown.size(), 1u);
}

TEST(TQAlertSuppression, CheckBoxReadsAndStoresTheDefault)
{
    if (!inChild()) return expectChildPasses();
    auto person = std::make_shared<PersonPresenter>(corvina::kAlertDefaultReturn, true);
    PresenterScope scope(person);
    TQAlert::alertSheetWithMessageText("Unknown format", "OK", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, true,
                                       nullptr, "alerts.quiet");
    ASSERT_EQ(person->shown.size(), 1u);
    EXPECT_EQ(person->shown[0].suppressionBinding, "alerts.quiet");
    EXPECT_FALSE(person->shown[0].suppressionChecked) << "nothing stored yet";
    // Stored in the file at once, under the key path.
    corvina::UserDefaults onDisk("SharedFilesTests");
    EXPECT_TRUE(onDisk.valueForKeyPath("alerts.quiet").boolValue());

    TQAlert::alertSheetWithMessageText("Unknown format", "OK", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, true,
                                       nullptr, "alerts.quiet");
    ASSERT_EQ(person->shown.size(), 2u);
    EXPECT_TRUE(person->shown[1].suppressionChecked) << "read back";

    // Nobody to ask: the stored choice stays as it is.
    PresenterScope headless(corvina::makeHeadlessAlertPresenter());
    TQAlert::alertSheetWithMessageText("Unknown format", "OK", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, true,
                                       nullptr, "alerts.quiet");
    EXPECT_TRUE(corvina::UserDefaults("SharedFilesTests").valueForKeyPath("alerts.quiet").boolValue());
}

TEST(TQAlertPresenters, NobodyToAskLogsAndAnswersAtOnce)
{
    // The automatic choice in a child whose streams are pipes and which has no display.
    if (!inChild()) return expectChildPasses();
    ASSERT_EQ(std::getenv("DISPLAY"), nullptr);
    corvina::ScopedSystemLogCapture capture;
    EXPECT_EQ(TQAlert::timedAlertSheetWithMessageText("Nobody here", "Go", "Stop", nullptr, "Really?", nullptr,
                                                      std::chrono::seconds(600)),
              corvina::kAlertDefaultReturn);
    EXPECT_THAT(capture.messages(), Contains("Alert: Nobody here - Really?"));
}

// --- The terminal prompt under tmux --------------------------------------------------------

TEST(TQAlertChild, DISABLED_AsksOnTheTerminal)
{
    reportResult(TQAlert::alertSheetWithMessageText("Keep the partial movie?", "Keep", "Discard", nullptr,
                                                    "The session was cut short.", nullptr, nullptr, nullptr, true,
                                                    nullptr, "alerts.quiet"));
}

TEST(TQAlertPresenters, TerminalPromptAnsweredThroughTmux)
{
    if (!corvina::isExecutablePath("/usr/bin/tmux")) GTEST_SKIP() << "tmux is not installed";
    TempDir home;
    const std::string socket = home / "tmux.sock";
    const std::string command = "cd '" + home.path() + "' && env -u DISPLAY -u WAYLAND_DISPLAY HOME='" + home.path() +
                                "' TQ_LOCAL_ROOT='" + home.path() + "' TQ_CONSOLE_USER= '" + selfPath() +
                                "' --gtest_also_run_disabled_tests --gtest_filter=TQAlertChild.DISABLED_AsksOnTheTerminal"
                                ";"
                                " echo $? > status";
    ASSERT_EQ(runProgram({"/usr/bin/tmux", "-S", socket, "new-session", "-d", "-x", "100", "-y", "30", command}).status, 0);
    auto screen = [&] { return runProgram({"/usr/bin/tmux", "-S", socket, "capture-pane", "-p"}).out; };
    auto waitForScreen = [&](const std::string& wanted) {
        for (int i = 0; i < 300; ++i) {
            if (screen().find(wanted) != std::string::npos) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    };
    EXPECT_TRUE(waitForScreen("s) [ ] Do not show this message again")) << screen();
    runProgram({"/usr/bin/tmux", "-S", socket, "send-keys", "s", "Enter"});
    EXPECT_TRUE(waitForScreen("s) [x] Do not show this message again")) << screen();
    runProgram({"/usr/bin/tmux", "-S", socket, "send-keys", "2", "Enter"});
    const std::string result = waitForFile(home / "result", std::chrono::seconds(30));
    // The shell writes the status once the child has exited: only then may the server go.
    const std::string status = waitForFile(home / "status", std::chrono::seconds(30));
    runProgram({"/usr/bin/tmux", "-S", socket, "kill-server"});
    EXPECT_EQ(result, "0 checked\n") << "the alternate button, with the box checked";
    EXPECT_EQ(status, "0\n");
}

// --- The desktop dialog under Xvfb ---------------------------------------------------------

namespace {

// A private X display for one test; empty when none could be started.
class VirtualDisplay {
public:
    VirtualDisplay()
    {
        if (!corvina::isExecutablePath("/usr/bin/Xvfb")) return;
        for (int attempt = 0; attempt < 5 && name_.empty(); ++attempt) {
            const int number = 100 + static_cast<int>((::getpid() + attempt * 37) % 800);
            if (fs::exists("/tmp/.X" + std::to_string(number) + "-lock")) continue;
            server_ = std::make_unique<corvina::Process>();
            server_->setLaunchPath("/usr/bin/Xvfb");
            server_->setArguments({":" + std::to_string(number), "-screen", "0", "1024x768x24", "-nolisten", "tcp"});
            server_->setStandardOutput(corvina::Process::Stream::Null);
            server_->setStandardError(corvina::Process::Stream::Null);
            server_->launch();
            const std::string socket = "/tmp/.X11-unix/X" + std::to_string(number);
            for (int i = 0; i < 100 && server_->isRunning() && !fs::exists(socket); ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
            }
            if (server_->isRunning() && fs::exists(socket)) {
                name_ = ":" + std::to_string(number);
            } else {
                server_->terminate();
                server_->waitUntilExit();
            }
        }
    }
    ~VirtualDisplay()
    {
        if (server_) {
            server_->terminate();
            server_->waitUntilExit();
        }
    }
    const std::string& name() const { return name_; }

private:
    std::unique_ptr<corvina::Process> server_;
    std::string name_;
};

}  // namespace

TEST(TQAlertChild, DISABLED_AsksInADialog)
{
    const std::string binding = std::getenv("CORVINA_BINDING") ? std::getenv("CORVINA_BINDING") : "";
    reportResult(TQAlert::alertSheetWithMessageText("Replace the movie?", "Replace", "Keep", "Compare",
                                                    "A movie of that name exists.", nullptr, nullptr, nullptr, true,
                                                    nullptr, binding.empty() ? TQAlert::Text() : TQAlert::Text(binding)));
}

TEST(TQAlertPresenters, DialogAnsweredThroughXdotool)
{
    if (!corvina::isExecutablePath("/usr/bin/zenity") || !corvina::isExecutablePath("/usr/bin/xdotool")) {
        GTEST_SKIP() << "zenity or xdotool is not installed";
    }
    VirtualDisplay display;
    if (display.name().empty()) GTEST_SKIP() << "Xvfb could not start a display";
    const std::map<std::string, std::string> xenv = {{"DISPLAY", display.name()}, {"PATH", "/usr/bin:/bin"}};
    struct Case {
        const char* binding;
        std::vector<std::string> keys;
        const char* expected;
    } cases[] = {
        // Closing the question: the alternate button. (Return is not used: where the focus
        // lands in the dialog, on a button or on its text, varies from run to run.)
        {"", {"Escape"}, "0 unset"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keys.front());
        TempDir home;
        std::map<std::string, std::string> env = environmentWith(home.path(), {{"DISPLAY", display.name()}});
        env.erase("DBUS_SESSION_BUS_ADDRESS");
        if (*c.binding) env["CORVINA_BINDING"] = c.binding;
        corvina::Process child;
        child.setLaunchPath("/proc/self/exe");
        child.setArguments(childArguments("TQAlertChild.DISABLED_AsksInADialog"));
        child.setEnvironment(env);
        child.setStandardOutput(corvina::Process::Stream::Null);
        child.setStandardError(corvina::Process::Stream::Null);
        child.launch();
        const auto found = runProgram({"/usr/bin/timeout", "30", "/usr/bin/xdotool", "search", "--sync", "--onlyvisible",
                                    "--name", "Replace the movie"},
                                   xenv);
        ASSERT_EQ(found.status, 0) << "no dialog appeared";
        const std::string window = found.out.substr(0, found.out.find('\n'));
        // A dialog that is not ready for keys yet loses them: focus and press again until it
        // answers (a busy machine may take a while to draw it).
        std::string result;
        for (int attempt = 0; attempt < 10 && result.empty(); ++attempt) {
            runProgram({"/usr/bin/timeout", "10", "/usr/bin/xdotool", "windowfocus", "--sync", window}, xenv);
            for (const auto& key : c.keys) runProgram({"/usr/bin/xdotool", "key", key}, xenv);
            result = waitForFile(home / "result", std::chrono::seconds(3));
        }
        if (result.empty()) child.terminate();
        child.waitUntilExit();
        EXPECT_EQ(result, std::string(c.expected) + "\n");
    }
}

TEST(TQAlertPresenters, CheckBoxInDialogAndPromptFollowsTheStoredState)
{
    corvina::AlertContent content;
    content.messageText = "m";
    content.alternateButton = "Keep";
    EXPECT_THAT(corvina::dialogArguments(content), Contains("--question"));
    content.suppressionBinding = "quiet";
    content.suppressionChecked = true;
    const auto args = corvina::dialogArguments(content);
    EXPECT_THAT(args, Contains("--checklist"));
    ASSERT_GE(args.size(), 2u);
    EXPECT_EQ(args[args.size() - 2], "TRUE");
    EXPECT_EQ(args.back(), corvina::kSuppressionCheckBoxTitle);
    EXPECT_NE(corvina::terminalPrompt(content, true).find("s) [x] "), std::string::npos);
    EXPECT_TRUE(corvina::isSuppressionToggle(content, " S\r"));
    content.suppressionBinding.reset();
    EXPECT_FALSE(corvina::isSuppressionToggle(content, "s")) << "no box, no toggle";
}
