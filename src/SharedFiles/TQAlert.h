// Alert sheets: a message with up to three buttons, shown from any thread, optionally waited
// for. There are no windows in this program, so the parent window is an opaque handle that
// is only remembered. How an alert reaches a person is up to corvina::AlertPresenter; with
// nobody to ask, an alert ends at once with the default button (1).
//
// Return codes: 1 default button, 0 alternate, -1 other; -1 also when the call does not wait.
// A waiting caller on the main thread keeps serving the main queue; on other threads it sleeps.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "Alert/AlertPresenter.h"

namespace corvina::tq {

class TQAlert;

// Receives the end of an alert. Every callback is optional.
class TQAlertDelegate {
public:
    virtual ~TQAlertDelegate() = default;
    virtual void alertDidEnd(TQAlert& alert, int64_t returnCode)
    {
        (void)alert;
        (void)returnCode;
    }
};

class TQAlert : public TQAlertDelegate {
public:
    // A text argument that may be absent: a null C string, nullptr and std::nullopt all mean
    // "none".
    class Text {
    public:
        Text() = default;
        Text(std::nullopt_t) {}
        Text(std::nullptr_t) {}
        Text(const char* s) : value_(s ? std::optional<std::string>(s) : std::nullopt) {}
        Text(std::string s) : value_(std::move(s)) {}
        Text(std::string_view s) : value_(std::string(s)) {}
        Text(std::optional<std::string> s) : value_(std::move(s)) {}
        const std::optional<std::string>& value() const { return value_; }

    private:
        std::optional<std::string> value_;
    };

    // The end message in place of the delegate's alertDidEnd: a member function of the
    // delegate's class, named for the log (TQAlert::Selector(&Sheet::saveEnded, "saveEnded:")),
    // or a closure, which any delegate answers. A delegate that is not of the member's class
    // does not answer it: the alert is then refused.
    class Selector {
    public:
        Selector() = default;
        Selector(std::nullptr_t) {}
        template <class F>
        requires std::is_invocable_v<F&, TQAlert&, int64_t> &&
            (!std::is_same_v<std::decay_t<F>, Selector>)Selector(F closure)
            : name_("block"),
              send_([closure = std::move(closure)](TQAlertDelegate*, TQAlert& alert, int64_t code) mutable {
                  closure(alert, code);
                  return true;
              })
        {
        }
        template <class D>
        requires std::is_base_of_v<TQAlertDelegate, D> Selector(void (D::*method)(TQAlert&, int64_t), std::string name)
            : name_(std::move(name)),
              send_([method](TQAlertDelegate* delegate, TQAlert& alert, int64_t code) {
                  auto* receiver = dynamic_cast<D*>(delegate);
                  if (!receiver) return false;
                  (receiver->*method)(alert, code);
                  return true;
              }),
              answers_([](TQAlertDelegate* delegate) { return dynamic_cast<D*>(delegate) != nullptr; })
        {
        }
        explicit operator bool() const { return static_cast<bool>(send_); }
        const std::string& name() const { return name_; }
        bool isAnsweredBy(TQAlertDelegate* delegate) const { return !answers_ || answers_(delegate); }
        // False when the delegate does not answer the message.
        bool send(TQAlertDelegate* delegate, TQAlert& alert, int64_t code) const
        {
            return send_ && send_(delegate, alert, code);
        }

    private:
        std::string name_;
        std::function<bool(TQAlertDelegate*, TQAlert&, int64_t)> send_;
        std::function<bool(TQAlertDelegate*)> answers_;
    };
    using DidEnd = Selector;
    using Window = const void*;

    TQAlert();
    ~TQAlert() override;
    TQAlert(const TQAlert&) = delete;
    TQAlert& operator=(const TQAlert&) = delete;

    // Shows the alert and waits for it to end.
    static void alertSheetWithMessageText(const Text& messageText, const Text& informativeText, Window parentWindow);
    static int64_t alertSheetWithMessageText(const Text& messageText, const Text& defaultButton,
                                             const Text& alternateButton, const Text& otherButton,
                                             const Text& informativeText, Window parentWindow, bool block);
    // The full form. Without a delegate the alert object is its own delegate; a didEnd
    // selector replaces the delegate's alertDidEnd, and a delegate that does not answer it
    // gives -1 ("Alert error: delegate does not respond to selector %@" in the system log)
    // with nothing shown. Without an alert object a new one is made (kept alive until the
    // alert ends). A caller's alert object must outlive its alert. With a suppression binding
    // (a key path of the user defaults) the alert shows a check box that reads and stores
    // that default.
    static int64_t alertSheetWithMessageText(const Text& messageText, const Text& defaultButton,
                                             const Text& alternateButton, const Text& otherButton,
                                             const Text& informativeText, Window parentWindow,
                                             TQAlertDelegate* delegate, DidEnd didEnd, bool block,
                                             TQAlert* alertObject = nullptr, const Text& suppressionBinding = {});
    // Waits for the answer, or for the interval to pass (then the default button, 1).
    static int64_t timedAlertSheetWithMessageText(const Text& messageText, const Text& defaultButton,
                                                  const Text& alternateButton, const Text& otherButton,
                                                  const Text& informativeText, Window parentWindow,
                                                  std::chrono::seconds interval);

    // Shows the alert through the current presenter; runs on the main thread.
    void alertSheetWithContent(const corvina::AlertContent& content);
    // The default end message: records the code and marks the alert ended.
    void alertDidEnd(TQAlert& alert, int64_t returnCode) override;

    Window parentWindow() const;
    void setParentWindow(Window window);
    TQAlertDelegate* delegate() const;
    void setDelegate(TQAlertDelegate* delegate);
    bool alertEnded() const;
    void setAlertEnded(bool ended);
    int64_t returnCode() const;
    void setReturnCode(int64_t code);
    // The alert on screen, if any.
    std::shared_ptr<corvina::AlertSession> alert() const;
    void setAlert(std::shared_ptr<corvina::AlertSession> alert);

private:
    struct State;
    // The full form; afterShown runs once the alert is on screen (the timed alert starts its
    // timer there, so that the timer can never be undone by the alert's own start).
    static int64_t run(const Text& messageText, const Text& defaultButton, const Text& alternateButton,
                       const Text& otherButton, const Text& informativeText, Window parentWindow,
                       TQAlertDelegate* delegate, DidEnd didEnd, bool block, TQAlert* alertObject,
                       const Text& suppressionBinding, const std::function<void()>& afterShown);
    // Ends the alert with the code: tells the delegate, then wakes any waiter.
    static void finish(const std::shared_ptr<State>& state, int64_t code);
    // Waits on the calling thread until the alert has ended.
    void waitUntilEnded();

    std::shared_ptr<State> state_;
};

}  // namespace corvina::tq
