// Running the helper and the sample-job tool as a user would, in a private home folder.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Foundation/Value.h"
#include "support/TestSupport.h"

namespace corvina::test {

std::string helperPath();         // the built CorvinaAVFHelper
std::string sampleJobToolPath();  // the built make_sample_job

// A private home for one helper run: HOME points here, the replay settings document and the
// logs live below it, and TQ_CONSOLE_USER is empty so that a root run keeps to this home.
class HelperHome {
public:
    HelperHome();
    const std::string& path() const { return dir_.path(); }
    std::map<std::string, std::string> environment() const;
    std::string replaySettingsPath() const;  // ~/Downloads/corvina.plist
    std::string logPath() const;             // ~/Library/Logs/Brantwell/CorvinaAVFHelper.1.log
    // The log's entries with the date prefix removed, across the files the run rotated.
    std::vector<std::string> logEntries() const;
    bool writeSettings(const corvina::Value& settings) const;
    ProcessResult runHelper(const std::vector<std::string>& extraArgs = {}) const;

private:
    TempDir dir_;
};

// Makes a sample job in dir with the tool; returns its settings document (nullopt on failure).
std::optional<corvina::Value> makeSampleJob(const std::string& dir, const std::vector<std::string>& options);

// The settings document with key set to value, or removed when value is none.
corvina::Value withKey(const corvina::Value& settings, const std::string& key, corvina::Value value);

// The essence a movie must hold for a settings document: the video samples' bytes in
// offset-table order, and the audio frames' bytes run by run (whole frames only).
std::vector<uint8_t> expectedVideoBytes(const corvina::Value& settings);
std::vector<uint8_t> expectedAudioBytes(const corvina::Value& settings, uint64_t bytesPerFrame);

}  // namespace corvina::test
