#include "tq/TQAlert.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Dispatch/Dispatch.h"
#include "Foundation/SystemLog.h"
#include "Foundation/UserDefaults.h"

namespace corvina::tq {

struct TQAlert::State {
    std::mutex mutex;
    std::condition_variable cv;
    TQAlert* owner = nullptr;  // cleared when the object goes; late answers then reach nobody
    TQAlertDelegate* delegate = nullptr;
    DidEnd didEnd;
    Window parentWindow = nullptr;
    std::shared_ptr<corvina::AlertSession> session;
    std::shared_ptr<TQAlert> keepAlive;  // an object made here for an alert nobody waits for
    std::atomic<bool> ended{false};
    std::atomic<int64_t> returnCode{0};

    void markEnded()
    {
        {
            std::lock_guard lock(mutex);
            ended = true;
        }
        cv.notify_all();
        corvina::notifyMainThreadWaiters();
    }
};

TQAlert::TQAlert() : state_(std::make_shared<State>())
{
    state_->owner = this;
    state_->delegate = this;
}

TQAlert::~TQAlert()
{
    std::shared_ptr<corvina::AlertSession> session;
    {
        std::lock_guard lock(state_->mutex);
        state_->owner = nullptr;
        state_->delegate = nullptr;
        state_->parentWindow = nullptr;
        state_->didEnd = nullptr;
        session = std::move(state_->session);
    }
    if (session) session->dismiss();
}

// --- Accessors -----------------------------------------------------------------------------

TQAlert::Window TQAlert::parentWindow() const
{
    std::lock_guard lock(state_->mutex);
    return state_->parentWindow;
}

void TQAlert::setParentWindow(Window window)
{
    std::lock_guard lock(state_->mutex);
    state_->parentWindow = window;
}

TQAlertDelegate* TQAlert::delegate() const
{
    std::lock_guard lock(state_->mutex);
    return state_->delegate;
}

void TQAlert::setDelegate(TQAlertDelegate* delegate)
{
    std::lock_guard lock(state_->mutex);
    state_->delegate = delegate;
}

bool TQAlert::alertEnded() const { return state_->ended; }

void TQAlert::setAlertEnded(bool ended)
{
    if (ended) {
        state_->markEnded();
    } else {
        state_->ended = false;
    }
}

int64_t TQAlert::returnCode() const { return state_->returnCode; }

void TQAlert::setReturnCode(int64_t code) { state_->returnCode = code; }

std::shared_ptr<corvina::AlertSession> TQAlert::alert() const
{
    std::lock_guard lock(state_->mutex);
    return state_->session;
}

void TQAlert::setAlert(std::shared_ptr<corvina::AlertSession> alert)
{
    {
        std::lock_guard lock(state_->mutex);
        std::swap(state_->session, alert);
    }
    // The session replaced is let go here, outside the lock: going, it waits for its reader,
    // which may still be reporting the answer through finish() and so needs the lock.
}

// --- Ending --------------------------------------------------------------------------------

void TQAlert::alertDidEnd(TQAlert& alert, int64_t returnCode)
{
    (void)alert;
    setReturnCode(returnCode);
    setAlertEnded(true);
}

void TQAlert::finish(const std::shared_ptr<State>& state, int64_t code)
{
    TQAlert* owner = nullptr;
    TQAlertDelegate* delegate = nullptr;
    DidEnd didEnd;
    std::shared_ptr<TQAlert> keepAlive;
    {
        std::lock_guard lock(state->mutex);
        owner = state->owner;
        delegate = state->delegate;
        didEnd = state->didEnd;
        keepAlive = std::move(state->keepAlive);
    }
    if (owner) {
        if (didEnd) {
            didEnd.send(delegate, *owner, code);
        } else if (delegate) {
            delegate->alertDidEnd(*owner, code);
        }
    }
    // Whoever received the end message, a caller waiting for this alert learns the answer.
    state->returnCode = code;
    state->markEnded();
    // keepAlive goes last: it may hold the only reference to the alert object.
}

void TQAlert::alertSheetWithContent(const corvina::AlertContent& given)
{
    corvina::AlertContent content = given;
    if (content.suppressionBinding && !content.suppressionBinding->empty()) {
        // The check box reads the default at the key path and stores the person's choice there.
        const std::string keyPath = *content.suppressionBinding;
        content.suppressionChecked = corvina::UserDefaults::standard().valueForKeyPath(keyPath).boolValue();
        content.suppressionChoice = [keyPath](bool checked) {
            auto& defaults = corvina::UserDefaults::standard();
            defaults.setValueForKeyPath(keyPath, corvina::Value(checked));
            defaults.synchronize();
        };
    } else {
        content.suppressionBinding.reset();
    }
    std::weak_ptr<State> weak = state_;
    auto session = corvina::currentAlertPresenter()->present(content, [weak](int64_t code) {
        if (auto state = weak.lock()) finish(state, code);
    });
    if (!alertEnded()) setAlert(std::move(session));
}

void TQAlert::waitUntilEnded()
{
    if (corvina::isMainThread()) {
        // Keep serving the main queue (other alerts, time-out checks) in short slices.
        while (!alertEnded()) {
            corvina::runMainQueueUntil([this] { return alertEnded(); },
                                       std::chrono::steady_clock::now() + std::chrono::milliseconds(10));
        }
        return;
    }
    std::unique_lock lock(state_->mutex);
    state_->cv.wait(lock, [this] { return state_->ended.load(); });
}

// --- Class forms ---------------------------------------------------------------------------

void TQAlert::alertSheetWithMessageText(const Text& messageText, const Text& informativeText, Window parentWindow)
{
    alertSheetWithMessageText(messageText, nullptr, nullptr, nullptr, informativeText, parentWindow, nullptr, nullptr,
                              true);
}

int64_t TQAlert::alertSheetWithMessageText(const Text& messageText, const Text& defaultButton,
                                           const Text& alternateButton, const Text& otherButton,
                                           const Text& informativeText, Window parentWindow, bool block)
{
    return alertSheetWithMessageText(messageText, defaultButton, alternateButton, otherButton, informativeText,
                                     parentWindow, nullptr, nullptr, block);
}

int64_t TQAlert::alertSheetWithMessageText(const Text& messageText, const Text& defaultButton,
                                           const Text& alternateButton, const Text& otherButton,
                                           const Text& informativeText, Window parentWindow, TQAlertDelegate* delegate,
                                           DidEnd didEnd, bool block, TQAlert* alertObject,
                                           const Text& suppressionBinding)
{
    return run(messageText, defaultButton, alternateButton, otherButton, informativeText, parentWindow, delegate,
               std::move(didEnd), block, alertObject, suppressionBinding, nullptr);
}

int64_t TQAlert::run(const Text& messageText, const Text& defaultButton, const Text& alternateButton,
                     const Text& otherButton, const Text& informativeText, Window parentWindow,
                     TQAlertDelegate* delegate, DidEnd didEnd, bool block, TQAlert* alertObject,
                     const Text& suppressionBinding, const std::function<void()>& afterShown)
{
    std::shared_ptr<TQAlert> made;
    if (!alertObject) {
        made = std::make_shared<TQAlert>();
        alertObject = made.get();
    }
    TQAlertDelegate* const receiver = delegate ? delegate : alertObject;
    if (didEnd && !didEnd.isAnsweredBy(receiver)) {
        corvina::systemLog("Alert error: delegate does not respond to selector %@", didEnd.name());
        return -1;
    }
    const std::shared_ptr<State> state = alertObject->state_;
    {
        std::lock_guard lock(state->mutex);
        state->parentWindow = parentWindow;
        state->delegate = receiver;
        state->didEnd = std::move(didEnd);
        state->ended = false;
        if (made && !block) state->keepAlive = made;  // released when the alert ends
    }

    corvina::AlertContent content;
    content.messageText = messageText.value().value_or("");
    content.defaultButton = defaultButton.value();
    content.alternateButton = alternateButton.value();
    content.otherButton = otherButton.value();
    content.informativeText = informativeText.value().value_or("");
    content.suppressionBinding = suppressionBinding.value();

    corvina::DispatchQueue::main().sync([&] { alertObject->alertSheetWithContent(content); });
    if (afterShown) afterShown();

    if (!block) return -1;
    alertObject->waitUntilEnded();
    if (auto session = alertObject->alert()) session->dismiss();
    alertObject->setAlert(nullptr);
    return alertObject->returnCode();
}

int64_t TQAlert::timedAlertSheetWithMessageText(const Text& messageText, const Text& defaultButton,
                                                const Text& alternateButton, const Text& otherButton,
                                                const Text& informativeText, Window parentWindow,
                                                std::chrono::seconds interval)
{
    TQAlert alert;
    // The timer answers with the default button unless the alert ended first; it is
    // cancelled and joined before the object goes.
    struct Timer {
        std::mutex mutex;
        std::condition_variable cv;
        bool cancelled = false;
        std::thread thread;
        ~Timer()
        {
            {
                std::lock_guard lock(mutex);
                cancelled = true;
            }
            cv.notify_all();
            if (thread.joinable()) thread.join();
        }
    } timer;
    const auto start = [&] {
        timer.thread = std::thread([&] {
            std::unique_lock lock(timer.mutex);
            if (timer.cv.wait_for(lock, interval, [&] { return timer.cancelled; })) return;
            lock.unlock();
            alert.setReturnCode(corvina::kAlertDefaultReturn);
            alert.setAlertEnded(true);
        });
    };
    return run(messageText, defaultButton, alternateButton, otherButton, informativeText, parentWindow, nullptr,
               nullptr, true, &alert, {}, start);
}

}  // namespace corvina::tq
