#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Alert/AlertPresenter.h"
#include "Foundation/SystemLog.h"
#include "support/TestSupport.h"

namespace fs = std::filesystem;
using namespace corvina;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;
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

// Collects the answers of an alert, from whichever thread gives them.
struct Answer {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<int64_t> codes;

    AlertPresenter::Completion completion()
    {
        return [this](int64_t code) {
            std::lock_guard lock(mutex);
            codes.push_back(code);
            cv.notify_all();
        };
    }
    int64_t wait()
    {
        std::unique_lock lock(mutex);
        cv.wait(lock, [this] { return !codes.empty(); });
        return codes[0];
    }
    size_t calls()
    {
        std::lock_guard lock(mutex);
        return codes.size();
    }
};

// Both ends of a pipe, closed at the end.
struct Pipe {
    int fd[2] = {-1, -1};
    Pipe() { EXPECT_EQ(::pipe2(fd, O_CLOEXEC), 0); }
    ~Pipe()
    {
        for (int f : fd)
            if (f >= 0) ::close(f);
    }
    void closeWrite()
    {
        ::close(fd[1]);
        fd[1] = -1;
    }
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

// The automatic choice, in a child whose streams are pipes and which has no display.
TEST(AlertPresenterChoice, NobodyToAskOnPipesWithoutADisplay)
{
    if (!test::inChild()) return test::expectChildPasses();
    ASSERT_EQ(std::getenv("DISPLAY"), nullptr);
    EXPECT_EQ(currentAlertPresenter()->name(), "headless");
}

TEST(HeadlessAlertPresenter, LogsTheTextsAndAnswersWithTheDefaultButtonAtOnce)
{
    ScopedSystemLogCapture capture;
    Answer answer;
    auto session = makeHeadlessAlertPresenter()->present(content("Unknown video format", "Format code 99 (%@ 50%)"),
                                                         answer.completion());
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(answer.calls(), 1u) << "answered before present returns";
    EXPECT_EQ(answer.wait(), kAlertDefaultReturn);
    EXPECT_THAT(capture.messages(), Contains("Alert: Unknown video format - Format code 99 (%@ 50%)"));
    session->dismiss();  // harmless afterwards
    EXPECT_EQ(answer.calls(), 1u);

    ScopedSystemLogCapture second;
    makeHeadlessAlertPresenter()->present(content("Only a message"), nullptr);
    EXPECT_THAT(second.messages(), Contains("Alert: Only a message"));
}

TEST(DialogAlertArguments, ButtonsMapToDialogKinds)
{
    EXPECT_THAT(dialogArguments(content("Title", "Detail")),
                AllOf(IsSupersetOf({"--info", "--no-markup", "--ok-label=OK", "--text=Title\n\nDetail"}),
                      Not(Contains("--question"))));
    EXPECT_THAT(dialogArguments(content("Replace?", "", "Replace", "Keep", "Compare")),
                IsSupersetOf({"--question", "--ok-label=Replace", "--cancel-label=Keep", "--extra-button=Compare",
                              "--text=Replace?"}));

    // A check box makes the question a one-row check list, in the stored state.
    auto boxed = content("Replace?", "", "Replace", "Keep");
    boxed.suppressionBinding = "quiet";
    boxed.suppressionChecked = true;
    const auto args = dialogArguments(boxed);
    EXPECT_THAT(args, Contains("--checklist"));
    ASSERT_GE(args.size(), 2u);
    EXPECT_EQ(args[args.size() - 2], "TRUE");
    EXPECT_EQ(args.back(), kSuppressionCheckBoxTitle);
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
    EXPECT_THAT(terminalPrompt(three), AllOf(HasSubstr("1) Go"), HasSubstr("2) Stop"), HasSubstr("3) Later")));
    EXPECT_THAT(terminalPrompt(one), Not(HasSubstr("2)")));

    // "s" toggles the check box, shown in its current state; without a box it is no answer.
    auto boxed = three;
    boxed.suppressionBinding = "quiet";
    EXPECT_THAT(terminalPrompt(boxed, true), HasSubstr("s) [x] "));
    EXPECT_TRUE(isSuppressionToggle(boxed, " S\r"));
    EXPECT_FALSE(isSuppressionToggle(three, "s"));
}

// An alert on a terminal whose keyboard and screen are pipes: an answer typed after one that
// is no button, the end of input, and an alert taken away before anyone answered.
TEST(TerminalAlertPresenterConcurrency, TypedAnswerEndOfInputAndDismissal)
{
    const struct {
        const char* typed;  // then the end of input; null: dismissed instead
        int64_t expected;
    } rows[] = {{"9\n2\n", kAlertAlternateReturn}, {"", kAlertDefaultReturn}, {nullptr, 0}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.typed ? row.typed : "dismissed");
        Pipe input, output;
        Answer answer;
        auto session = makeTerminalAlertPresenter(input.fd[0], output.fd[1])
                           ->present(content("Save?", "Unsaved changes", "Save", "Discard"), answer.completion());
        if (!row.typed) {
            session->dismiss();
            session.reset();  // joins the reader
            EXPECT_EQ(answer.calls(), 0u);
            continue;
        }
        const auto length = ssize_t(std::strlen(row.typed));
        ASSERT_EQ(::write(input.fd[1], row.typed, size_t(length)), length);
        input.closeWrite();
        EXPECT_EQ(answer.wait(), row.expected);
        session.reset();
        std::string shown(65536, '\0');
        ::fcntl(output.fd[0], F_SETFL, O_NONBLOCK);
        shown.resize(size_t(std::max(::read(output.fd[0], shown.data(), shown.size()), ssize_t(0))));
        EXPECT_NE(shown.find("Unsaved changes"), std::string::npos);
        EXPECT_EQ(shown.find("Please answer") != std::string::npos, *row.typed != 0) << "9 is not a button";
    }
}

// A dialog that never reached the screen is no answer: the fallback (nobody, here) answers
// instead, after a log line that says why. One taken away never answers.
TEST(DialogAlertPresenterConcurrency, ExitStatusAndPrintedLabelSelectTheButton)
{
    const auto three = content("Replace?", "", "Replace", "Keep", "Compare");
    const char* noDisplay = "echo '(zenity:7): Gtk-WARNING **: 02:54:31.446: cannot open display: :93' >&2; exit 1";
    const int64_t none = -99;
    struct Case {
        const char* script;  // null: no dialog program
        AlertContent content;
        int64_t expected;  // none: dismissed
        const char* why;   // the fallback's reason, or null for a person's answer
    } cases[] = {
        {"exit 0", three, kAlertDefaultReturn, nullptr},
        {"exit 1", three, kAlertAlternateReturn, nullptr},
        {"echo Compare; exit 1", three, kAlertOtherReturn, nullptr},
        {"echo 'Gtk-WARNING **: theme not found' >&2; exit 1", three, kAlertAlternateReturn, nullptr},
        {"exit 1", content("Done"), kAlertDefaultReturn, nullptr},  // closing a one-button dialog means that button
        {noDisplay, three, kAlertDefaultReturn, "cannot open display: :93"},
        {"exit 255", three, kAlertDefaultReturn, "the dialog program ended with status 255"},
        {"kill -USR1 $$", three, kAlertDefaultReturn, "the dialog program ended with status 138"},
        {nullptr, three, kAlertDefaultReturn, "launch path not accessible: No such file or directory"},
        {"exec sleep 30", three, none, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script ? c.script : "no dialog program");
        ScopedSystemLogCapture capture;
        FakeDialog dialog(c.script ? c.script : "");
        Answer answer;
        auto session =
            makeDialogAlertPresenter(c.script ? dialog.path() : "/nonexistent/zenity", makeHeadlessAlertPresenter())
                ->present(c.content, answer.completion());
        if (c.expected == none) {
            session->dismiss();
            session.reset();
            EXPECT_EQ(answer.calls(), 0u);
            continue;
        }
        EXPECT_EQ(answer.wait(), c.expected) << c.content.messageText;
        session.reset();
        const auto alertLine = Contains("Alert: " + c.content.messageText);
        if (c.why) {
            EXPECT_THAT(capture.messages(), Contains(std::string("Alert dialog cannot be shown: ") + c.why));
            EXPECT_THAT(capture.messages(), alertLine);
        } else {
            EXPECT_THAT(capture.messages(), Not(alertLine));
        }
    }
}
