// SIGTERM, SIGINT and SIGHUP stop a run in order instead of killing it mid-write.
//
// The handlers only write the signal's number to a pipe; a thread of its own reads it and
// calls the stop action, away from signal context. If the process has not ended `grace`
// after the signal, the thread removes the run's temporary movie files, notes it in the log
// and ends the process with status 1 itself, so a stop never takes longer than about a second.
#pragma once

#include <chrono>
#include <functional>

namespace corvina::helper {

namespace stopsignals {

void install(std::function<void(int signalNumber)> onStop, std::chrono::milliseconds grace);
bool stopRequested();
int stopSignal();                    // 0 until a signal arrived
const char* signalName(int number);  // "SIGTERM", ...

}  // namespace stopsignals

}  // namespace corvina::helper
