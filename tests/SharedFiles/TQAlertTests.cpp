#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "Dispatch/Dispatch.h"
#include "Foundation/SystemLog.h"
#include "TQAlert.h"

using ::testing::Contains;

namespace {

// Puts a presenter in charge for one test and restores the automatic choice afterwards.
class PresenterScope {
public:
    explicit PresenterScope(std::shared_ptr<corvina::AlertPresenter> p) { corvina::setAlertPresenterOverride(std::move(p)); }
    ~PresenterScope() { corvina::setAlertPresenterOverride(nullptr); }
};

class ManualSession : public corvina::AlertSession {
public:
    void dismiss() override { dismissed = true; }
    std::atomic<bool> dismissed{false};
};

// An alert nobody answers until the test does; remembers what it was asked to show.
class ManualPresenter : public corvina::AlertPresenter {
public:
    std::string name() const override { return "manual"; }
    std::shared_ptr<corvina::AlertSession> present(const corvina::AlertContent& content, Completion completion) override
    {
        std::lock_guard lock(mutex_);
        shown_ = content;
        completion_ = std::move(completion);
        shownOnMain_ = corvina::isMainThread();
        session_ = std::make_shared<ManualSession>();
        return session_;
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
    bool shown()
    {
        std::lock_guard lock(mutex_);
        return session_ != nullptr;
    }
    corvina::AlertContent content()
    {
        std::lock_guard lock(mutex_);
        return shown_;
    }
    std::shared_ptr<ManualSession> session()
    {
        std::lock_guard lock(mutex_);
        return session_;
    }
    bool shownOnMain()
    {
        std::lock_guard lock(mutex_);
        return shownOnMain_;
    }

private:
    std::mutex mutex_;
    corvina::AlertContent shown_;
    Completion completion_;
    std::shared_ptr<ManualSession> session_;
    bool shownOnMain_ = false;
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

}  // namespace

TEST(TQAlertHeadless, ShortestFormLogsAndReturnsAtOnce)
{
    PresenterScope scope(corvina::makeHeadlessAlertPresenter());
    corvina::ScopedSystemLogCapture capture;
    TQAlert::alertSheetWithMessageText("Unknown video format", "The video format 'abcd' is not supported.", nullptr);
    EXPECT_THAT(capture.messages(),
                Contains("Alert: Unknown video format - The video format 'abcd' is not supported."));
}

TEST(TQAlertHeadless, WaitingFormsReturnTheDefaultButton)
{
    PresenterScope scope(corvina::makeHeadlessAlertPresenter());
    corvina::ScopedSystemLogCapture capture;
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Replace?", "Replace", "Keep", nullptr, "50% done %@ %d", nullptr, true),
              1);
    EXPECT_THAT(capture.messages(), Contains("Alert: Replace? - 50% done %@ %d"));
    EXPECT_EQ(TQAlert::alertSheetWithMessageText(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, true), 1);
    EXPECT_THAT(capture.messages(), Contains("Alert: "));
}

TEST(TQAlertDelegates, NotWaitingReturnsMinusOneAndTheDelegateHearsTheEnd)
{
    PresenterScope scope(corvina::makeHeadlessAlertPresenter());
    RecordingDelegate delegate;
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("m", nullptr, nullptr, nullptr, "i", nullptr, &delegate, nullptr, false),
              -1);
    EXPECT_EQ(delegate.calls, 1);
    EXPECT_EQ(delegate.code, 1);

    RecordingDelegate waited;
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("m", nullptr, nullptr, nullptr, "i", nullptr, &waited, nullptr, true), 1);
    EXPECT_EQ(waited.calls, 1);
}

TEST(TQAlertDelegates, EndHandlerReplacesTheDelegatesCallback)
{
    PresenterScope scope(corvina::makeHeadlessAlertPresenter());
    RecordingDelegate delegate;
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
    EXPECT_EQ(delegate.calls, 0);
    EXPECT_TRUE(object.alertEnded());
    EXPECT_EQ(object.returnCode(), 1);
    EXPECT_EQ(object.alert(), nullptr) << "cleared after a waited-for alert";
}

TEST(TQAlertDelegates, GivenAlertObjectCarriesTheStateAndTexts)
{
    auto presenter = std::make_shared<ManualPresenter>();
    PresenterScope scope(presenter);
    TQAlert object;
    int parent = 0;
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("Message", "Go", "Stop", "Later", "Info", &parent, nullptr, nullptr,
                                                 false, &object, "suppressUnknownFormat"),
              -1);
    EXPECT_FALSE(object.alertEnded());
    EXPECT_EQ(object.parentWindow(), &parent);
    EXPECT_EQ(object.delegate(), &object) << "its own delegate";
    ASSERT_TRUE(presenter->shown());
    EXPECT_TRUE(presenter->shownOnMain());
    const auto content = presenter->content();
    EXPECT_EQ(content.messageText, "Message");
    EXPECT_EQ(content.defaultButton, "Go");
    EXPECT_EQ(content.alternateButton, "Stop");
    EXPECT_EQ(content.otherButton, "Later");
    EXPECT_EQ(content.informativeText, "Info");
    EXPECT_EQ(content.suppressionBinding, "suppressUnknownFormat");
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
    EXPECT_TRUE(presenter->shownOnMain());
    std::thread answerer([&] { presenter->answer(corvina::kAlertAlternateReturn); });
    answerer.join();
    corvina::runMainQueueUntil([&] { return done.load(); });
    caller.join();
    EXPECT_EQ(result, corvina::kAlertAlternateReturn);
    EXPECT_TRUE(presenter->session()->dismissed) << "ordered out after the wait";
}

TEST(TQAlertConcurrency, WaitingMainThreadGetsAnAnswerFromAnotherThread)
{
    auto presenter = std::make_shared<ManualPresenter>();
    PresenterScope scope(presenter);
    std::thread answerer([&] {
        while (!presenter->shown()) std::this_thread::yield();
        presenter->answer(corvina::kAlertDefaultReturn);
    });
    EXPECT_EQ(TQAlert::alertSheetWithMessageText("m", nullptr, nullptr, nullptr, nullptr, nullptr, true), 1);
    answerer.join();
}

TEST(TQAlertConcurrency, TimedAlertAnswersItselfWithTheDefaultButton)
{
    auto presenter = std::make_shared<ManualPresenter>();
    PresenterScope scope(presenter);
    EXPECT_EQ(TQAlert::timedAlertSheetWithMessageText("Continuing shortly", nullptr, "Stop", nullptr, nullptr, nullptr,
                                                      std::chrono::seconds(1)),
              corvina::kAlertDefaultReturn);
    ASSERT_TRUE(presenter->shown());
    EXPECT_TRUE(presenter->session()->dismissed) << "the alert's window goes away";
    presenter->answer(0);  // too late: changes nothing and reaches nobody
}

TEST(TQAlertConcurrency, TimedAlertAnsweredFirstKeepsTheAnswer)
{
    auto presenter = std::make_shared<ManualPresenter>();
    PresenterScope scope(presenter);
    std::thread answerer([&] {
        while (!presenter->shown()) std::this_thread::yield();
        presenter->answer(corvina::kAlertAlternateReturn);
    });
    EXPECT_EQ(TQAlert::timedAlertSheetWithMessageText("m", "Go", "Stop", nullptr, nullptr, nullptr,
                                                      std::chrono::seconds(30)),
              corvina::kAlertAlternateReturn);
    answerer.join();
}
