#include "support/HelperRun.h"

#include <unistd.h>

#include <filesystem>

namespace corvina::test {

namespace fs = std::filesystem;

std::string helperPath() { return std::string(CORVINA_BINARY_DIR) + "/CorvinaAVFHelper"; }

std::string sampleJobToolPath() { return std::string(CORVINA_BINARY_DIR) + "/tools/make_sample_job/make_sample_job"; }

HelperHome::HelperHome() { fs::create_directories(dir_.path() + "/Downloads"); }

std::map<std::string, std::string> HelperHome::environment() const
{
    return {{"HOME", path()},
            {"TQ_CONSOLE_USER", ""},
            {"TQ_LOCAL_ROOT", path() + "/root"},
            {"XDG_CONFIG_HOME", path() + "/.config"}};
}

std::string HelperHome::replaySettingsPath() const { return path() + "/Downloads/corvina.plist"; }

std::string HelperHome::logPath() const
{
    // A root run writes the machine-wide log below TQ_LOCAL_ROOT; others write the user's.
    const std::string local = path() + "/root/Library/Logs/Brantwell/CorvinaAVFHelper.1.log";
    if (::getuid() == 0 && fs::exists(local)) return local;
    return path() + "/Library/Logs/Brantwell/CorvinaAVFHelper.1.log";
}

std::vector<std::string> HelperHome::logEntries() const
{
    // A fresh home holds one run: its files from the oldest (.5) to the current one (.1).
    const std::string current = logPath();
    const std::string stem = current.substr(0, current.size() - std::string("1.log").size());
    std::vector<std::string> entries;
    for (int n = 5; n >= 1; --n) {
        const auto more = test::logEntries(stem + std::to_string(n) + ".log");
        entries.insert(entries.end(), more.begin(), more.end());
    }
    return entries;
}

bool HelperHome::writeSettings(const corvina::Value& settings) const
{
    return settings.writeToFile(replaySettingsPath(), true);
}

ProcessResult HelperHome::runHelper(const std::vector<std::string>& extraArgs) const
{
    std::vector<std::string> argv{helperPath()};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    return runProgram(argv, environment());
}

std::optional<corvina::Value> makeSampleJob(const std::string& dir, const std::vector<std::string>& options)
{
    std::vector<std::string> argv{sampleJobToolPath(), "--out", dir};
    argv.insert(argv.end(), options.begin(), options.end());
    if (runProgram(argv).status != 0) return std::nullopt;
    auto settings = corvina::Value::fromPropertyListFile(dir + "/settings.plist");
    if (!settings) return std::nullopt;
    return std::move(*settings);
}

corvina::Value withKey(const corvina::Value& settings, const std::string& key, corvina::Value value)
{
    corvina::Value::DictionaryType d = *settings.asDictionary();
    if (value.isNone())
        d.erase(key);
    else
        d[key] = std::move(value);
    return corvina::Value(std::move(d));
}

namespace {

void appendRange(std::vector<uint8_t>& out, const std::vector<uint8_t>& file, uint64_t offset, uint64_t length)
{
    if (offset >= file.size()) return;
    const uint64_t end = std::min<uint64_t>(file.size(), offset + length);
    out.insert(out.end(), file.begin() + static_cast<std::ptrdiff_t>(offset),
               file.begin() + static_cast<std::ptrdiff_t>(end));
}

}  // namespace

std::vector<uint8_t> expectedVideoBytes(const corvina::Value& settings)
{
    const auto file = readBytes(settings["tmpFilename"].stringValue());
    std::vector<uint8_t> out;
    const corvina::Value& offsets = settings["offsetArray"];
    for (size_t i = 0; i < offsets.count(); ++i)
        appendRange(out, file, offsets[i]["offset"].unsignedLongLongValue(),
                    offsets[i]["length"].unsignedLongLongValue());
    return out;
}

std::vector<uint8_t> expectedAudioBytes(const corvina::Value& settings, uint64_t bytesPerFrame)
{
    const auto file = readBytes(settings["tmpAudioFilename"].stringValue());
    std::vector<uint8_t> out;
    const corvina::Value& runs = settings["audioOffsetArray"];
    for (size_t i = 0; i < runs.count(); ++i) {
        const uint64_t length = runs[i]["length"].unsignedLongLongValue() / bytesPerFrame * bytesPerFrame;
        appendRange(out, file, runs[i]["offset"].unsignedLongLongValue(), length);
    }
    return out;
}

}  // namespace corvina::test
