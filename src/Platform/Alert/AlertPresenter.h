// Who shows an alert to a person. The helper has no window of its own, so an alert goes to
// the first presenter that can reach someone: a desktop dialog (zenity) when a display is
// available, a prompt on the controlling terminal when standard input and output are
// terminals, otherwise nobody: the alert is written to the system log and ends at once with
// the default button. A dialog that turns out not to reach the display hands its alert on to
// the terminal or to nobody.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace corvina {

// The return codes of the three buttons.
inline constexpr int64_t kAlertDefaultReturn = 1;
inline constexpr int64_t kAlertAlternateReturn = 0;
inline constexpr int64_t kAlertOtherReturn = -1;

struct AlertContent {
    std::string messageText;
    std::optional<std::string> defaultButton;  // none: the standard "OK"
    std::optional<std::string> alternateButton;
    std::optional<std::string> otherButton;
    std::string informativeText;  // shown literally
    // With a binding, the alert shows a "Do not show this message again" check box, first in
    // the state given here; a person's answer reports the box's final state to
    // suppressionChoice (before the completion). Nobody to ask: nothing is reported.
    std::optional<std::string> suppressionBinding;
    bool suppressionChecked = false;
    std::function<void(bool checked)> suppressionChoice;

    std::string defaultButtonTitle() const { return defaultButton.value_or("OK"); }
};

// One alert on screen. Dismissing it takes it away without calling its completion.
class AlertSession {
public:
    virtual ~AlertSession() = default;
    virtual void dismiss() = 0;
};

class AlertPresenter {
public:
    using Completion = std::function<void(int64_t returnCode)>;
    virtual ~AlertPresenter() = default;
    virtual std::string name() const = 0;
    // Shows the alert. The completion runs once with the pressed button's return code, on
    // the calling thread (when the answer is known at once) or on the presenter's thread;
    // never after the session was dismissed.
    virtual std::shared_ptr<AlertSession> present(const AlertContent& content, Completion completion) = 0;
};

std::shared_ptr<AlertPresenter> makeHeadlessAlertPresenter();
// Asks on the given descriptors (the terminal's, normally 0 and 1).
std::shared_ptr<AlertPresenter> makeTerminalAlertPresenter(int inputFd, int outputFd);
// A dialog that cannot be shown (the program cannot be started, cannot open the display, or
// fails) is no answer: the system log gets "Alert dialog cannot be shown: <why>" and the
// alert goes to the fallback, by default the terminal prompt when standard input and output
// are terminals, else nobody.
std::shared_ptr<AlertPresenter> makeDialogAlertPresenter(std::string zenityPath,
                                                         std::shared_ptr<AlertPresenter> fallback = nullptr);
// Why a dialog that ended with this status and printed this on standard error was not seen
// by anyone; none when its status is a person's answer.
std::optional<std::string> dialogFailure(int status, const std::string& printedError);

// What the choice of presenter depends on.
struct AlertEnvironment {
    bool displayAvailable = false;  // DISPLAY or WAYLAND_DISPLAY set
    std::optional<std::string> zenityPath;
    bool inputIsTerminal = false;
    bool outputIsTerminal = false;

    static AlertEnvironment current();
};

enum class AlertPresenterKind { Dialog, Terminal, Headless };
AlertPresenterKind choosePresenterKind(const AlertEnvironment& env);

// The presenter for this process: the override when one is set, else the one the current
// environment allows.
std::shared_ptr<AlertPresenter> currentAlertPresenter();
// Tests (and embedding programs) choose the presenter; null goes back to the automatic choice.
void setAlertPresenterOverride(std::shared_ptr<AlertPresenter> presenter);

inline constexpr const char* kSuppressionCheckBoxTitle = "Do not show this message again";

// The zenity command line for an alert, without the program itself. An alert with a check
// box is a one-row check list, whose printed row tells that the box was checked.
std::vector<std::string> dialogArguments(const AlertContent& content);
// The prompt written on the terminal, and the code an answer line selects (none: ask again).
// With a check box, the answer "s" toggles it (checked tells its current state).
std::string terminalPrompt(const AlertContent& content, bool checked = false);
std::optional<int64_t> terminalAnswer(const AlertContent& content, const std::string& line);
bool isSuppressionToggle(const AlertContent& content, const std::string& line);

}  // namespace corvina
