// Formatting cost of the log's hottest lines.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "Foundation/Format.h"

static void BM_FormatTwoUnsigned(benchmark::State& state)
{
    unsigned index = 0;
    for (auto _ : state) {
        std::string s = corvina::format("Requesting next audio sample at sample index %u,%u...", index, index + 1);
        benchmark::DoNotOptimize(s);
        ++index;
    }
}
BENCHMARK(BM_FormatTwoUnsigned);

static void BM_FormatFrameSize(benchmark::State& state)
{
    for (auto _ : state) {
        std::string s = corvina::format("Video format is ProRes 422 %ix%i", 1920, 1080);
        benchmark::DoNotOptimize(s);
    }
}
BENCHMARK(BM_FormatFrameSize);

static void BM_AppendFormatReusedBuffer(benchmark::State& state)
{
    std::string out;
    unsigned index = 0;
    for (auto _ : state) {
        out.clear();
        corvina::appendFormat(out, "Requesting next audio sample at sample index %u,%u...", index, index + 1);
        benchmark::DoNotOptimize(out);
        ++index;
    }
}
BENCHMARK(BM_AppendFormatReusedBuffer);

static void BM_FormatObjectAndReal(benchmark::State& state)
{
    const std::string path = "/Users/editor/Movies/Recovered/clip0001.mov";
    for (auto _ : state) {
        std::string s = corvina::format("Writing %@ at %0.2f fps", path, 29.97);
        benchmark::DoNotOptimize(s);
    }
}
BENCHMARK(BM_FormatObjectAndReal);

// The C library's formatter on the same line, for comparison.
static void BM_SnprintfTwoUnsigned(benchmark::State& state)
{
    unsigned index = 0;
    char buf[128];
    for (auto _ : state) {
        int n =
            std::snprintf(buf, sizeof buf, "Requesting next audio sample at sample index %u,%u...", index, index + 1);
        std::string s(buf, static_cast<size_t>(n));
        benchmark::DoNotOptimize(s);
        ++index;
    }
}
BENCHMARK(BM_SnprintfTwoUnsigned);

BENCHMARK_MAIN();
