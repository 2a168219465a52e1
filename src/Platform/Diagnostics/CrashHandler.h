// Crash reports written by the program itself: a handler for the fatal signals (SIGSEGV,
// SIGBUS, SIGILL, SIGFPE, SIGABRT) writes "{program}_{YYYY-MM-DD-HHMMSS}_{host}.crash" into
// a report folder, then lets the signal end the process as it would have without it.
//
// The handler only uses async-signal-safe calls: everything it needs (names, the report
// folder opened as a descriptor, the user's ids, the local time offset, the host name) is
// prepared when it is installed; the backtrace machinery is loaded then as well.
//
// A root process acting for a user creates the report folder at installation and the report
// in the handler with that user's file-system identity, so both belong to the user; the
// folder is opened component by component without following links, and the report is
// created new (never through an existing name or link).
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "Foundation/UserIdentity.h"

namespace corvina {

struct CrashReportSettings {
    std::string program;               // report names begin with it
    std::string folder;                // created when missing
    std::string logPath;               // the last lines of this file go into the report; may be empty
    std::optional<UserIdentity> user;  // as root: the user the folder and reports belong to
};

// Installs (or re-installs with new settings) the handler on every fatal signal. Call it
// from the main thread before other threads start. Returns false when a setting is too long
// to be held for the handler, the report folder cannot be opened, or a signal could not be
// taken over.
bool installCrashHandler(const CrashReportSettings& settings);
// Gives the fatal signals back to the actions they had before the installation.
void removeCrashHandler();

// The report's file name for a time in seconds since the epoch, with the local time's offset
// from UTC in seconds. The handler forms its names with the same code.
std::string crashReportName(std::string_view program, std::time_t when, long utcOffset, std::string_view host);

}  // namespace corvina
