// Movies made by ffmpeg for the tests of the asset layer: tiny (a few frames), made once per
// test program in a folder that lives until the program ends.
#pragma once

#include <string>
#include <vector>

namespace corvina::test {

// Runs ffmpeg with the arguments (after "-v error -y") and returns the path of `name` in the
// shared folder, or "" when ffmpeg failed. The same name is made only once.
std::string makeTestMovie(const std::string& name, const std::vector<std::string>& ffmpegArguments);

// The argument lists one after the other.
std::vector<std::string> join(std::vector<std::vector<std::string>> parts);

// A lavfi source argument list: "-f lavfi -i SPEC".
std::vector<std::string> lavfi(const std::string& spec);

// Constant audio: every sample of channel i has values[i] (16-bit scale).
std::string constantAudio(const std::vector<int>& values, int rate, double seconds);

}  // namespace corvina::test
