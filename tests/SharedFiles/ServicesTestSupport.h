// Helpers for the process, privilege, file and alert tests: scratch folders, log entries, and
// cases that run in a fresh process.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Process/Process.h"
#include "TQLog.h"

extern char** environ;

namespace servicestest {

class Scratch {
public:
    Scratch()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "corvina-services-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data()) ? pattern : std::string();
    }
    ~Scratch()
    {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

inline void writeFile(const std::string& path, const std::string& text)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Entries of a log file without their date prefix ("yyyy-MM-dd HH:mm:ss +0000 - ").
inline std::vector<std::string> logEntries(const std::string& path)
{
    std::vector<std::string> out;
    std::stringstream ss(readFile(path));
    for (std::string line; std::getline(ss, line);) out.push_back(line.size() >= 28 ? line.substr(28) : line);
    return out;
}

inline int countOf(const std::vector<std::string>& lines, const std::string& wanted)
{
    int n = 0;
    for (const auto& l : lines) n += l == wanted ? 1 : 0;
    return n;
}

// Some cases need a process of their own (the log controller exists once per process, and
// privileges dropped cannot be regained). Such a test runs itself again in a fresh copy of
// the test program, with only that test selected and its home (and local root) set to a
// scratch folder: the test body starts with
//
//     if (!servicestest::inChild()) return servicestest::expectChildPasses();
//
// and the rest of it runs in the child, whose log is $HOME/Library/Logs/Brantwell/Services.1.log.
inline bool inChild()
{
    const char* v = std::getenv("CORVINA_SERVICES_CHILD");
    return v && *v;
}

inline std::string childHome()
{
    const char* h = std::getenv("HOME");
    return h ? h : "";
}

inline void expectChildPasses()
{
    Scratch home;
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    corvina::Process::Environment env;
    for (char** e = environ; e && *e; ++e) {
        const std::string entry = *e;
        const auto eq = entry.find('=');
        if (eq != std::string::npos) env[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    env["HOME"] = home.path();
    env["TQ_LOCAL_ROOT"] = home.path();
    env["TQ_CONSOLE_USER"] = "";
    env["CORVINA_SERVICES_CHILD"] = "1";
    env.erase("GTEST_OUTPUT");
    corvina::Process child;
    child.setLaunchPath("/proc/self/exe");
    child.setArguments({std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name()});
    child.setEnvironment(env);
    child.launch();
    corvina::Process::Bytes out;
    corvina::Process::Bytes err;
    child.readToEnd(&out, &err);
    child.waitUntilExit();
    EXPECT_EQ(child.terminationStatus(), 0) << std::string(out.begin(), out.end());
}

inline std::string childLogPath()
{
    return childHome() + "/Library/Logs/Brantwell/Services.1.log";
}

}  // namespace servicestest
