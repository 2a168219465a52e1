#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>

#include "Alert/AlertPresenter.h"
#include "Foundation/SystemLog.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using namespace corvina;
using ::testing::Contains;
using ::testing::Not;

namespace {

AlertContent content(std::string message, std::string info = {}, std::optional<std::string> def = std::nullopt,
                     std::optional<std::string> alt = std::nullopt, std::optional<std::string> other = std::nullopt)
{
    AlertContent c;
    c.messageText = std::move(message);
    c.informativeText = std::move(info);
    c.defaultButton = std::move(def);
    c.alternateButton = std::move(alt);
    c.otherButton = std::move(other);
    return c;
}

// Collects the one answer of an alert, from whichever thread gives it.
class Answer {
public:
    AlertPresenter::Completion completion()
    {
        return [this](int64_t code) {
            std::lock_guard lock(mutex_);
            ++calls_;
            code_ = code;
            cv_.notify_all();
        };
    }
    std::optional<int64_t> wait()
    {
        std::unique_lock lock(mutex_);
        cv_.wait(lock, [this] { return calls_ > 0; });
        return code_;
    }
    int calls()
    {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int calls_ = 0;
    std::optional<int64_t> code_;
};

class PipePair {
public:
    PipePair()
    {
        if (::pipe2(fds_, O_CLOEXEC) != 0) fds_[0] = fds_[1] = -1;
    }
    ~PipePair()
    {
        closeWrite();
        if (fds_[0] >= 0) ::close(fds_[0]);
    }
    int readEnd() const { return fds_[0]; }
    void write(const std::string& s) { ASSERT_EQ(::write(fds_[1], s.data(), s.size()), ssize_t(s.size())); }
    void closeWrite()
    {
        if (fds_[1] >= 0) ::close(fds_[1]);
        fds_[1] = -1;
    }
    std::string readAvailable()
    {
        ::fcntl(fds_[0], F_SETFL, O_NONBLOCK);
        std::string out;
        char buf[4096];
        ssize_t n;
        while ((n = ::read(fds_[0], buf, sizeof buf)) > 0) out.append(buf, size_t(n));
        return out;
    }
    int writeEnd() const { return fds_[1]; }

private:
    int fds_[2];
};

// A stand-in for the dialog program: a shell script in a folder of its own.
class FakeDialog {
public:
    explicit FakeDialog(const std::string& script)
    {
        test::writeFile(path(), "#!/bin/sh\n" + script + "\n", fs::perms::owner_all);
    }
    std::string path() const { return folder_ / "zenity"; }

private:
    test::TempDir folder_;
};

}  // namespace

TEST(AlertPresenterChoice, FirstPresenterThatCanReachSomeone)
{
    AlertEnvironment env;
    EXPECT_EQ(choosePresenterKind(env), AlertPresenterKind::Headless);

    env.inputIsTerminal = true;
    EXPECT_EQ(choosePresenterKind(env), AlertPresenterKind::Headless) << "output is not a terminal";
    env.outputIsTerminal = true;
    EXPECT_EQ(choosePresenterKind(env), AlertPresenterKind::Terminal);

    env.displayAvailable = true;
    EXPECT_EQ(choosePresenterKind(env), AlertPresenterKind::Terminal) << "display but no dialog program";
    env.zenityPath = "/usr/bin/zenity";
    EXPECT_EQ(choosePresenterKind(env), AlertPresenterKind::Dialog);
    env.displayAvailable = false;
    EXPECT_EQ(choosePresenterKind(env), AlertPresenterKind::Terminal) << "dialog program but no display";
}

TEST(AlertPresenterChoice, OverrideWinsUntilCleared)
{
    auto headless = makeHeadlessAlertPresenter();
    setAlertPresenterOverride(headless);
    EXPECT_EQ(currentAlertPresenter(), headless);
    setAlertPresenterOverride(nullptr);
    EXPECT_NE(currentAlertPresenter(), headless);
}

TEST(HeadlessAlertPresenter, LogsTheTextsAndAnswersWithTheDefaultButtonAtOnce)
{
    ScopedSystemLogCapture capture;
    Answer answer;
    auto session = makeHeadlessAlertPresenter()->present(content("Unknown video format", "Format code 99 (%@ 50%)"),
                                                         answer.completion());
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(answer.calls(), 1) << "answered before present returns";
    EXPECT_EQ(answer.wait(), kAlertDefaultReturn);
    EXPECT_THAT(capture.messages(), Contains("Alert: Unknown video format - Format code 99 (%@ 50%)"));
    session->dismiss();  // harmless afterwards
    EXPECT_EQ(answer.calls(), 1);

    ScopedSystemLogCapture second;
    makeHeadlessAlertPresenter()->present(content("Only a message"), nullptr);
    EXPECT_THAT(second.messages(), Contains("Alert: Only a message"));
}

TEST(DialogAlertArguments, ButtonsMapToDialogKinds)
{
    auto args = dialogArguments(content("Title", "Detail"));
    EXPECT_THAT(args, Contains("--info"));
    EXPECT_THAT(args, Contains("--no-markup"));
    EXPECT_THAT(args, Contains("--ok-label=OK"));
    EXPECT_THAT(args, Contains("--text=Title\n\nDetail"));
    EXPECT_THAT(args, Not(Contains("--question")));

    args = dialogArguments(content("Replace?", "", "Replace", "Keep", "Compare"));
    EXPECT_THAT(args, Contains("--question"));
    EXPECT_THAT(args, Contains("--ok-label=Replace"));
    EXPECT_THAT(args, Contains("--cancel-label=Keep"));
    EXPECT_THAT(args, Contains("--extra-button=Compare"));
    EXPECT_THAT(args, Contains("--text=Replace?"));
}

TEST(TerminalAlertAnswers, NumbersSelectOnlyButtonsThatExist)
{
    const auto one = content("m");
    EXPECT_EQ(terminalAnswer(one, ""), kAlertDefaultReturn);
    EXPECT_EQ(terminalAnswer(one, " 1 \r"), kAlertDefaultReturn);
    EXPECT_EQ(terminalAnswer(one, "2"), std::nullopt);
    EXPECT_EQ(terminalAnswer(one, "yes"), std::nullopt);

    const auto three = content("m", "", "Go", "Stop", "Later");
    EXPECT_EQ(terminalAnswer(three, "2"), kAlertAlternateReturn);
    EXPECT_EQ(terminalAnswer(three, "3"), kAlertOtherReturn);
    const std::string prompt = terminalPrompt(three);
    EXPECT_NE(prompt.find("1) Go"), std::string::npos);
    EXPECT_NE(prompt.find("2) Stop"), std::string::npos);
    EXPECT_NE(prompt.find("3) Later"), std::string::npos);
    EXPECT_EQ(terminalPrompt(one).find("2)"), std::string::npos);
}

// An alert on a terminal whose keyboard and screen are pipes.
class TerminalAlertPresenterConcurrency : public ::testing::Test {
protected:
    std::shared_ptr<AlertSession> present(const AlertContent& c)
    {
        return makeTerminalAlertPresenter(input.readEnd(), output.writeEnd())->present(c, answer.completion());
    }
    PipePair input, output;
    Answer answer;
};

TEST_F(TerminalAlertPresenterConcurrency, ReadsTheAnswerFromTheTerminal)
{
    auto session = present(content("Save?", "Unsaved changes", "Save", "Discard"));
    input.write("9\n2\n");
    EXPECT_EQ(answer.wait(), kAlertAlternateReturn);
    session.reset();
    const std::string shown = output.readAvailable();
    EXPECT_NE(shown.find("Unsaved changes"), std::string::npos);
    EXPECT_NE(shown.find("Please answer"), std::string::npos) << "9 is not a button";
}

TEST_F(TerminalAlertPresenterConcurrency, EndOfInputMeansTheDefaultButton)
{
    auto session = present(content("Go on?"));
    input.closeWrite();
    EXPECT_EQ(answer.wait(), kAlertDefaultReturn);
}

TEST_F(TerminalAlertPresenterConcurrency, DismissedAlertNeverAnswers)
{
    auto session = present(content("Wait"));
    session->dismiss();
    session.reset();  // joins the reader
    EXPECT_EQ(answer.calls(), 0);
}

TEST(DialogAlertPresenterConcurrency, ExitStatusAndPrintedLabelSelectTheButton)
{
    struct Case {
        const char* script;
        int64_t expected;
    } cases[] = {
        {"exit 0", kAlertDefaultReturn},
        {"exit 1", kAlertAlternateReturn},
        {"echo Compare; exit 1", kAlertOtherReturn},
    };
    for (const auto& c : cases) {
        FakeDialog dialog(c.script);
        Answer answer;
        auto session = makeDialogAlertPresenter(dialog.path())
                           ->present(content("Replace?", "", "Replace", "Keep", "Compare"), answer.completion());
        EXPECT_EQ(answer.wait(), c.expected) << c.script;
    }
    // With a single button, closing the dialog can only mean that button.
    FakeDialog closed("exit 1");
    Answer answer;
    auto session = makeDialogAlertPresenter(closed.path())->present(content("Done"), answer.completion());
    EXPECT_EQ(answer.wait(), kAlertDefaultReturn);
}

TEST(DialogAlertPresenterConcurrency, DismissTakesTheDialogAwayWithoutAnswer)
{
    FakeDialog dialog("exec sleep 30");
    Answer answer;
    auto session = makeDialogAlertPresenter(dialog.path())->present(content("Waiting"), answer.completion());
    session->dismiss();
    session.reset();
    EXPECT_EQ(answer.calls(), 0);
}

TEST(DialogAlertPresenterConcurrency, MissingDialogProgramFallsBackToNobody)
{
    ScopedSystemLogCapture capture;
    Answer answer;
    makeDialogAlertPresenter("/nonexistent/zenity")->present(content("Fallback"), answer.completion());
    EXPECT_EQ(answer.wait(), kAlertDefaultReturn);
    EXPECT_THAT(capture.messages(), Contains("Alert: Fallback"));
}
