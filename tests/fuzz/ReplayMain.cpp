// Runs a fuzz target over files and folders of inputs without libFuzzer, so that an ordinary
// build replays the checked-in corpus (every input that once crashed stays a test).
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) __attribute__((weak));

int main(int argc, char** argv)
{
    if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
    namespace fs = std::filesystem;
    int inputs = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<fs::path> files;
        if (fs::is_directory(argv[i])) {
            for (const auto& entry : fs::directory_iterator(argv[i]))
                if (entry.is_regular_file()) files.push_back(entry.path());
        } else {
            files.emplace_back(argv[i]);
        }
        for (const auto& file : files) {
            std::ifstream in(file, std::ios::binary);
            const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
            ++inputs;
        }
    }
    std::printf("%d inputs replayed\n", inputs);
    return inputs > 0 ? 0 : 1;
}
