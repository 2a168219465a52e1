#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "support/WriterSupport.h"

namespace corvina {
namespace {

using namespace test;

size_t findType(const std::vector<uint8_t>& bytes, const char* type)
{
    for (size_t i = 4; i + 4 <= bytes.size(); ++i)
        if (std::memcmp(&bytes[i], type, 4) == 0) return i - 4;
    return std::string::npos;
}

void put32(std::vector<uint8_t>& b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i) b[at + size_t(i)] = uint8_t(v >> (24 - 8 * i));
}

std::string smallMovie(const TempDir& dir)
{
    std::string path = dir / "small.mov";
    OpenWriter w(path, false);
    auto f = videoFormat(fourCC("dvc "), 720, 480);
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(
            w.video->appendSampleBuffer(*oneSample(f, randomBytes(1000 + size_t(i), uint32_t(i)),
                                                   MediaTime::make(1001 * i, 30000), MediaTime::make(1001, 30000))));
    EXPECT_TRUE(w.writer->finishWriting());
    return path;
}

// The checker must notice broken movies, or its silence proves nothing.
TEST(MovieCheck, ReportsCorruptedMovies)
{
    TempDir dir;
    std::string path = smallMovie(dir);
    const auto good = readBytes(path);
    ASSERT_TRUE(checkMovieStructure(path).empty());
    struct Row {
        const char* name;
        std::function<void(std::vector<uint8_t>&)> damage;
    } rows[] = {
        {"truncated file", [](auto& b) { b.resize(b.size() - 10); }},
        {"stsz count off by one", [](auto& b) { put32(b, findType(b, "stsz") + 16, 11); }},
        {"stts sum differs from mdhd", [](auto& b) { put32(b, findType(b, "stts") + 20, 1000); }},
        {"chunk outside mdat", [](auto& b) { put32(b, findType(b, "stco") + 16, uint32_t(b.size())); }},
        {"tkhd duration wrong", [](auto& b) { put32(b, findType(b, "tkhd") + 28, 7); }},
        {"mdat size too large", [](auto& b) { put32(b, 28, 0x7FFFFFFF); }},
    };
    for (const auto& r : rows) {
        auto bytes = good;
        r.damage(bytes);
        std::string broken = dir / "broken.mov";
        writeFile(broken, std::string(bytes.begin(), bytes.end()));
        EXPECT_FALSE(checkMovieStructure(broken).empty()) << r.name;
    }
}

}  // namespace
}  // namespace corvina
