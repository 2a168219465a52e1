#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "Dispatch/Dispatch.h"
#include "Foundation/SystemLog.h"
#include "Foundation/UserDefaults.h"
#include "Foundation/Value.h"
#include "Process/Process.h"
#include "tq/TQAlert.h"
#include "support/TestSupport.h"

namespace fs = std::filesystem;

namespace corvina::tq {
using namespace corvina::test;
using ::testing::Contains;

namespace {

// Puts a presenter in charge for one test and restores the automatic choice afterwards.
class PresenterScope {
public:
    explicit PresenterScope(std::shared_ptr<corvina::AlertPresenter> p)
    {
        corvina::setAlertPresenterOverride(std::move(p));
    }
    ~PresenterScope() { corvina::setAlertPresenterOverride(nullptr); }
};

class ManualSession : public corvina::AlertSession {
public:
    void dismiss() override { dismissed = true; }
    std::atomic<bool> dismissed{false};
};

// Answers when the test does, or at once with the check box set to `check`; records what it showed.
class ManualPresenter : public corvina::AlertPresenter {
public:
    ManualPresenter() = default;
    ManualPresenter(int64_t code, bool check) : atOnce_(code), check_(check) {}
    std::string name() const override { return "manual"; }
    std::shared_ptr<corvina::AlertSession> present(const corvina::AlertContent& content, Completion completion) override
    {
        std::unique_lock lock(mutex_);
        all_.push_back(content);
        shownOnMain = corvina::isMainThread();
        session_ = std::make_shared<ManualSession>();
        if (!atOnce_) {
            completion_ = std::move(completion);
            return session_;
        }
        lock.unlock();
        if (content.suppressionBinding && content.suppressionChoice) content.suppressionChoice(check_);
        if (completion) completion(*atOnce_);
        return nullptr;
    }
    void answer(int64_t code)
    {
        Completion c;
        {
            std::lock_guard lock(mutex_);
            c = std::move(completion_);
        }
        if (c) c(code);
    }
    std::vector<corvina::AlertContent> all()
    {
        std::lock_guard lock(mutex_);
        return all_;
    }
    std::shared_ptr<ManualSession> session()
    {
        std::lock_guard lock(mutex_);
        return session_;
    }
    bool shown() { return session() != nullptr; }
    std::atomic<bool> shownOnMain{false};

private:
    std::mutex mutex_;
    Completion completion_;
    std::shared_ptr<ManualSession> session_;
    std::vector<corvina::AlertContent> all_;
    std::optional<int64_t> atOnce_;
    bool check_ = false;
};

class RecordingDelegate : public TQAlertDelegate {
public:
    void alertDidEnd(TQAlert&, int64_t returnCode) override
    {
        ++calls;
        code = returnCode;
    }
    std::atomic<int> calls{0};
    std::atomic<int64_t> code{99};
};

class SaveSheet : public TQAlertDelegate {
public:
    void saveEnded(TQAlert&, int64_t code) { ended = code; }
    int64_t ended = 99;
};
class OtherDelegate : public TQAlertDelegate {};

// The child's return code and stored check box, for the parent to read.
void reportResult(int64_t code)
{
    const auto quiet = corvina::UserDefaults("SharedFilesTests").valueForKeyPath("alerts.quiet");
    const std::string result = childHome() + "/result";
    writeFile(result + ".tmp", std::to_string(code) +
                                   (quiet.isNone()      ? " unset"
                                    : quiet.boolValue() ? " checked"
                                                        : " unchecked") +
                                   "\n");
    fs::rename(result + ".tmp", result);
}

}  // namespace

// Nobody to ask: the default button; an end handler replaces the delegate; no wait gives -1.
TEST(TQAlertHeadless, DefaultButtonAndWhoHearsTheEnd)
{
    PresenterScope scope(corvina::makeHeadlessAlertPresenter());
    corvina::ScopedSystemLogCapture capture;
    TQAlert::alertSheetWithMessageText("Unknown video format", "The video format 'abcd' is not supported.", nullptr);
    EXPECT_THAT(capture.messages(),
                Contains("Alert: Unknown video format - The video format 'abcd' is not supported."));
    // Answered before its timer starts, the timed alert ends at once.
    EXPECT_EQ(TQAlert::timedAlertSheetWithMessageText("Nobody here", "Go", "Stop", nullptr, "Really?", nullptr,
                                                      std::chrono::seconds(600)),
              corvina::kAlertDefaultReturn);
    RecordingDelegate delegate;
    EXPECT_EQ(
        TQAlert::alertSheetWithMessageText("m", nullptr, nullptr, nullptr, "i", nullptr, &delegate, nullptr, false),
        -1);
    EXPECT_EQ(delegate.calls, 1);
    EXPECT_EQ(delegate.code, 1);

    int handled = 0;
    TQAlert* seen = nullptr;
    TQAlert object;
    const int64_t code = TQAlert::alertSheetWithMessageText(
        "m", "OK", nullptr, nullptr, nullptr, nullptr, &delegate,
        [&](TQAlert& alert, int64_t rc) {
            ++handled;
            seen = &alert;
            EXPECT_EQ(rc, 1);
        },
        true, &object);
    EXPECT_EQ(code, 1);
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(seen, &object);
    EXPECT_EQ(delegate.calls, 1) << "the end handler replaces the delegate's callback";
    EXPECT_TRUE(object.alertEnded());
    EXPECT_EQ(object.alert(), nullptr) << "cleared after a waited-for alert";
}

TEST(TQAlertDelegates, GivenAlertObjectShowsTheTextsOnTheMainThreadAndEndsWithTheAnswer)
{
    auto presenter = std::make_shared<ManualPresenter>();
    PresenterScope scope(presenter);
    TQAlert object;
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Message", "Go", "Stop", "Later", "Info 50% %@ %d", nullptr, nullptr,
                                                 nullptr, false, &object, "suppressUnknownFormat"),
              -1);
    EXPECT_FALSE(object.alertEnded());
    EXPECT_EQ(object.delegate(), &object) << "its own delegate";
    ASSERT_TRUE(presenter->shown());
    EXPECT_TRUE(presenter->shownOnMain);
    const auto content = presenter->all().back();
    EXPECT_EQ(std::vector<std::optional<std::string>>({content.messageText, content.defaultButton,
                                                       content.alternateButton, content.otherButton,
                                                       content.informativeText, content.suppressionBinding}),
              std::vector<std::optional<std::string>>(
                  {"Message", "Go", "Stop", "Later", "Info 50% %@ %d", "suppressUnknownFormat"}));
    presenter->answer(corvina::kAlertOtherReturn);
    EXPECT_TRUE(object.alertEnded());
    EXPECT_EQ(object.returnCode(), corvina::kAlertOtherReturn);
}

TEST(TQAlertDelegates, AlertObjectGoneBeforeTheAnswerIsHarmless)
{
    auto presenter = std::make_shared<ManualPresenter>();
    PresenterScope scope(presenter);
    RecordingDelegate delegate;
    {
        TQAlert object;
        TQAlert::alertSheetWithMessageText("m", nullptr, nullptr, nullptr, nullptr, nullptr, &delegate, nullptr, false,
                                           &object);
    }
    ASSERT_TRUE(presenter->shown());
    EXPECT_TRUE(presenter->session()->dismissed) << "taken off screen with its object";
    presenter->answer(1);
    EXPECT_EQ(delegate.calls, 0);
}

TEST(TQAlertConcurrency, WaitingCallerOnAnotherThreadGetsTheAnswer)
{
    auto presenter = std::make_shared<ManualPresenter>();
    PresenterScope scope(presenter);
    std::atomic<int64_t> result{99};
    std::atomic<bool> done{false};
    std::thread caller([&] {
        result = TQAlert::alertSheetWithMessageText("Keep?", "Keep", "Discard", nullptr, nullptr, nullptr, true);
        done = true;
        corvina::notifyMainThreadWaiters();
    });
    // The alert is shown on the main thread, which serves its queue here.
    corvina::runMainQueueUntil([&] { return presenter->shown(); });
    EXPECT_TRUE(presenter->shownOnMain);
    std::thread answerer([&] { presenter->answer(corvina::kAlertAlternateReturn); });
    answerer.join();
    corvina::runMainQueueUntil([&] { return done.load(); });
    caller.join();
    EXPECT_EQ(result, corvina::kAlertAlternateReturn);
    EXPECT_TRUE(presenter->session()->dismissed) << "ordered out after the wait";
}

// A presenter whose session answers from a reader thread of its own and, going, waits for
// that thread, as the terminal's does. The delegate ends the alert and holds the reader until
// the waiting caller lets the session go: the reader's last step then runs while the session
// goes, and must not need anything the caller holds meanwhile.
TEST(TQAlertConcurrency, SessionLetGoWhileItsReaderFinishesTheAnswer)
{
    struct ReaderSession : corvina::AlertSession {
        void dismiss() override {}
        ~ReaderSession() override
        {
            going.set_value();
            if (finished.wait_for(std::chrono::seconds(30)) == std::future_status::ready) {
                reader.join();
            } else {
                ADD_FAILURE() << "the reader never finished: the caller holds what it needs";
                reader.detach();
            }
        }
        std::promise<void> going;
        std::shared_future<void> goingFuture = going.get_future().share();
        std::future<void> finished;
        std::thread reader;
    };
    struct ReaderPresenter : corvina::AlertPresenter {
        std::string name() const override { return "reader"; }
        std::shared_ptr<corvina::AlertSession> present(const corvina::AlertContent&, Completion completion) override
        {
            auto session = std::make_shared<ReaderSession>();
            going = session->goingFuture;
            std::packaged_task<void()> read([completion] { completion(corvina::kAlertAlternateReturn); });
            session->finished = read.get_future();
            session->reader = std::thread(std::move(read));
            return session;
        }
        std::shared_future<void> going;
    };
    struct EndingDelegate : TQAlertDelegate {
        explicit EndingDelegate(ReaderPresenter& p) : presenter(p) {}
        void alertDidEnd(TQAlert& alert, int64_t code) override
        {
            alert.setReturnCode(code);
            alert.setAlertEnded(true);
            presenter.going.wait_for(std::chrono::seconds(30));
        }
        ReaderPresenter& presenter;
    };
    auto presenter = std::make_shared<ReaderPresenter>();
    PresenterScope scope(presenter);
    EndingDelegate delegate(*presenter);
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Keep?", "Keep", "Discard", nullptr, nullptr, nullptr, &delegate,
                                                 nullptr, true),
              corvina::kAlertAlternateReturn);
}

// A timed alert ends with the default button unless an answer (from another thread) comes first.
TEST(TQAlertConcurrency, TimedAlertEndsWithTheTimerOrTheFirstAnswer)
{
    auto presenter = std::make_shared<ManualPresenter>();
    PresenterScope scope(presenter);
    EXPECT_EQ(TQAlert::timedAlertSheetWithMessageText("Continuing shortly", nullptr, "Stop", nullptr, nullptr, nullptr,
                                                      std::chrono::seconds(1)),
              corvina::kAlertDefaultReturn);
    ASSERT_TRUE(presenter->shown());
    EXPECT_TRUE(presenter->session()->dismissed) << "the alert's window goes away";
    presenter->answer(0);  // too late: changes nothing and reaches nobody

    auto person = std::make_shared<ManualPresenter>();
    PresenterScope answered(person);
    std::thread answerer([&] {
        while (!person->shown()) std::this_thread::yield();
        person->answer(corvina::kAlertAlternateReturn);
    });
    EXPECT_EQ(
        TQAlert::timedAlertSheetWithMessageText("m", "Go", "Stop", nullptr, nullptr, nullptr, std::chrono::seconds(30)),
        corvina::kAlertAlternateReturn);
    answerer.join();
}

TEST(TQAlertSelector, DelegateMustAnswerTheEndMessage)
{
    auto presenter = std::make_shared<ManualPresenter>(corvina::kAlertAlternateReturn, false);
    PresenterScope scope(presenter);
    corvina::ScopedSystemLogCapture capture;
    OtherDelegate other;
    const TQAlert::Selector saveEnded(&SaveSheet::saveEnded, "saveEnded:");
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Save?", "Save", "Discard", nullptr, nullptr, nullptr, &other,
                                                 saveEnded, true),
              -1);
    EXPECT_THAT(capture.messages(), Contains("Alert error: delegate does not respond to selector saveEnded:"));
    EXPECT_FALSE(presenter->shown()) << "nothing shown";
    // Without a delegate the alert object is the receiver, and it is no SaveSheet either.
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Save?", "Save", "Discard", nullptr, nullptr, nullptr, nullptr,
                                                 saveEnded, false),
              -1);

    SaveSheet sheet;
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Save?", "Save", "Discard", nullptr, nullptr, nullptr, &sheet,
                                                 saveEnded, true),
              corvina::kAlertAlternateReturn);
    EXPECT_EQ(sheet.ended, corvina::kAlertAlternateReturn);
    EXPECT_EQ(presenter->all().size(), 1u);
}

TEST(TQAlertSuppression, CheckBoxReadsAndStoresTheDefault)
{
    if (!inChild()) return expectChildPasses();
    auto person = std::make_shared<ManualPresenter>(corvina::kAlertDefaultReturn, true);
    PresenterScope scope(person);
    const auto ask = [] {
        TQAlert::alertSheetWithMessageText("Unknown format", "OK", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                           true, nullptr, "alerts.quiet");
    };
    const auto stored = [] { return corvina::UserDefaults("SharedFilesTests").valueForKeyPath("alerts.quiet"); };
    ask();
    ASSERT_EQ(person->all().size(), 1u);
    EXPECT_EQ(person->all()[0].suppressionBinding, "alerts.quiet");
    EXPECT_FALSE(person->all()[0].suppressionChecked) << "nothing stored yet";
    EXPECT_TRUE(stored().boolValue()) << "stored in the file at once, under the key path";
    ask();
    ASSERT_EQ(person->all().size(), 2u);
    EXPECT_TRUE(person->all()[1].suppressionChecked) << "read back";
    // Nobody to ask: the stored choice stays as it is.
    PresenterScope headless(corvina::makeHeadlessAlertPresenter());
    ask();
    EXPECT_TRUE(stored().boolValue());
}

// A real dialog on a display nobody serves is no answer: the timed alert takes the fallback's, and
// its timer is far longer than a loaded machine takes to see the failure.
TEST(TQAlertPresenters, DialogOnADeadDisplayFallsBackToNobody)
{
    if (!corvina::isExecutablePath("/usr/bin/zenity")) GTEST_SKIP() << "zenity is not installed";
    TempDir dir;
    const std::string wrapper = dir / "zenity";
    writeFile(wrapper, "#!/bin/sh\nexec env DISPLAY=:187 NO_AT_BRIDGE=1 /usr/bin/zenity \"$@\"\n",
              fs::perms::owner_all);
    PresenterScope scope(corvina::makeDialogAlertPresenter(wrapper, corvina::makeHeadlessAlertPresenter()));
    corvina::ScopedSystemLogCapture capture;
    EXPECT_EQ(TQAlert::timedAlertSheetWithMessageText("Replace the movie?", "Replace", "Keep", nullptr, nullptr,
                                                      nullptr, std::chrono::seconds(120)),
              corvina::kAlertDefaultReturn);
    EXPECT_THAT(capture.messages(), Contains(testing::StartsWith("Alert dialog cannot be shown: ")));
    EXPECT_THAT(capture.messages(), Contains("Alert: Replace the movie?"));
}

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
    const std::string command =
        "cd '" + home.path() + "' && env -u DISPLAY -u WAYLAND_DISPLAY HOME='" + home.path() + "' TQ_LOCAL_ROOT='" +
        home.path() + "' TQ_CONSOLE_USER= '" + fs::read_symlink("/proc/self/exe").string() +
        "' --gtest_also_run_disabled_tests --gtest_filter=TQAlertChild.DISABLED_AsksOnTheTerminal"
        ";"
        " echo $? > status";
    ASSERT_EQ(runProgram({"/usr/bin/tmux", "-S", socket, "new-session", "-d", "-x", "100", "-y", "30", command}).status,
              0);
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

}  // namespace corvina::tq
