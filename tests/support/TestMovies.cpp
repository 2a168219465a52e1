#include "support/TestMovies.h"

#include <filesystem>
#include <map>
#include <mutex>

#include "support/TestSupport.h"

namespace corvina::test {

namespace {

std::mutex moviesMutex;
std::map<std::string, std::string> made;

const TempDir& movieFolder()
{
    static const TempDir folder;
    return folder;
}

}  // namespace

std::string makeTestMovie(const std::string& name, const std::vector<std::string>& ffmpegArguments)
{
    std::lock_guard lock(moviesMutex);
    if (const auto found = made.find(name); found != made.end()) return found->second;
    const std::string path = movieFolder() / name;
    std::vector<std::string> argv = {"/usr/bin/ffmpeg", "-nostdin", "-v", "error", "-y"};
    argv.insert(argv.end(), ffmpegArguments.begin(), ffmpegArguments.end());
    argv.push_back(path);
    const ProcessResult result = runProgram(argv);
    const std::string madePath = result.status == 0 && std::filesystem::exists(path) ? path : std::string();
    if (madePath.empty()) std::fprintf(stderr, "ffmpeg could not make %s: %s\n", name.c_str(), result.err.c_str());
    made[name] = madePath;
    return madePath;
}

std::vector<std::string> join(std::vector<std::vector<std::string>> parts)
{
    std::vector<std::string> all;
    for (auto& p : parts) all.insert(all.end(), p.begin(), p.end());
    return all;
}

std::vector<std::string> lavfi(const std::string& spec) { return {"-f", "lavfi", "-i", spec}; }

std::string constantAudio(const std::vector<int>& values, int rate, double seconds)
{
    std::string all;
    for (int v : values) all += (all.empty() ? "" : "|") + std::to_string(v) + "/32768";
    return "aevalsrc=" + all + ":s=" + std::to_string(rate) + ":d=" + std::to_string(seconds);
}

}  // namespace corvina::test
