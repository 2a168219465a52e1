#include "helper/StopSignals.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "helper/MovieDestination.h"
#include "tq/TQLog.h"
#include "Foundation/PosixIO.h"

namespace corvina::helper {
using namespace corvina::tq;

namespace stopsignals {

namespace {

int wakePipe[2] = {-1, -1};
std::atomic<int> received{0};

void onSignal(int number)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(number);
    [[maybe_unused]] const ssize_t ignored = ::write(wakePipe[1], &byte, 1);
    errno = savedErrno;
}

// Waits for the log writer, but not longer than the time left.
void finishLogWithin(std::chrono::milliseconds limit)
{
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread([done] {
        TQLog::finishWriting();
        done->store(true);
    }).detach();
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!done->load() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

}  // namespace

void install(std::function<void(int)> onStop, std::chrono::milliseconds grace)
{
    if (::pipe2(wakePipe, O_CLOEXEC) != 0) return;
    std::thread([onStop = std::move(onStop), grace] {
        unsigned char byte = 0;
        const ssize_t n = corvina::posix::retryInterrupted([&] { return ::read(wakePipe[0], &byte, 1); });
        if (n != 1) return;
        received.store(byte);
        if (onStop) onStop(byte);
        std::this_thread::sleep_for(grace);
        // Still running: make sure nothing half-written stays, then end.
        MovieDestination::abandonAll();
        TQLog::appendLog("Stopped by %s: the run did not end in time; its temporary movie file is removed.",
                         signalName(byte));
        finishLogWithin(std::chrono::milliseconds(150));
        ::_exit(1);
    }).detach();

    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(number, &action, nullptr);
}

bool stopRequested() { return received.load() != 0; }

int stopSignal() { return received.load(); }

const char* signalName(int number)
{
    switch (number) {
    case SIGTERM:
        return "SIGTERM";
    case SIGINT:
        return "SIGINT";
    case SIGHUP:
        return "SIGHUP";
    default:
        return "a signal";
    }
}

}  // namespace stopsignals

}  // namespace corvina::helper
