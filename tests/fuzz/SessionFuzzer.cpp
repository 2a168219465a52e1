// Fuzzes a whole movie session over small essence files: the input chooses the document's
// numbers (formats, frame rate, frame size, offset entries, destination) and the essence.
// Whatever it holds, the session returns 0 or 1, the inputs and every other file stay as they
// were, nothing half-written is left, and status 0 means a movie with its atoms in place.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "helper/AppController.h"
#include "Foundation/Value.h"
#include "tq/TQLog.h"

using namespace corvina::tq;
using namespace corvina::helper;

using corvina::Value;
namespace fs = std::filesystem;

namespace {

// The input read front to back; past its end every byte reads as 0.
struct Bytes {
    const uint8_t* data;
    size_t size, at = 0;
    uint64_t take(unsigned n)
    {
        uint64_t v = 0;
        for (unsigned i = 0; i < n; ++i) v = v << 8 | (at < size ? data[at++] : 0);
        return v;
    }
    template <class T>
    T pick(std::initializer_list<T> values)
    {
        return values.begin()[take(1) % values.size()];
    }
};

std::string root;

std::string readAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// A number an offset entry might hold: small and near the data most of the time, now and
// then one at the edge of the 64-bit range.
Value entryNumber(Bytes& in)
{
    switch (in.take(1) % 5) {
    case 0:
        return Value(static_cast<int64_t>(in.take(8)));
    case 1:
        return Value(-static_cast<int64_t>(in.take(1)));
    case 2:
        return Value(in.pick<uint64_t>({UINT64_MAX, uint64_t(INT64_MIN), uint64_t(INT64_MAX), uint64_t(INT64_MAX) - 3,
                                        uint64_t(1) << 62, UINT64_MAX - 3}));
    default:
        return Value(static_cast<int64_t>(in.take(2)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    char pattern[] = "/tmp/corvina-session-fuzz-XXXXXX";
    if (!::mkdtemp(pattern)) std::abort();
    root = pattern;
    ::setenv("HOME", root.c_str(), 1);
    ::setenv("TQ_CONSOLE_USER", "", 1);
    ::setenv("TQ_LOCAL_ROOT", (root + "/root").c_str(), 1);
    ::unsetenv("DISPLAY");
    fs::create_directories(root + "/Downloads");
    TQLog::createNewLog(std::string("CorvinaSessionFuzzer"));
    TQLog::sharedController().setNoPrinting(true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (root.empty()) LLVMFuzzerInitialize(nullptr, nullptr);
    Bytes in{data, size};
    const std::string job = root + "/job";
    fs::remove_all(job);
    fs::create_directories(job + "/folder");
    std::ofstream(job + "/folder/kept") << "a user's file";
    std::ofstream(job + "/old.mov") << "the previous movie";

    Value::DictionaryType doc;
    doc["formatType"] = in.pick<int64_t>({0, 1, 4, 11, 20, 30, 31, 35, 7, 36, -1});
    doc["audioFormat"] = in.pick<int64_t>({0, 1, 2, 3, 8, 12, 13, 18, 19, -1});
    const uint32_t rateBits = static_cast<uint32_t>(in.take(4));
    float rawRate;
    std::memcpy(&rawRate, &rateBits, sizeof rawRate);
    doc["frameRate"] =
        in.take(1) % 2 ? Value(rawRate) : Value(in.pick<double>({25, 29.97, 0, 1, 1000, 1000.5, 23.976}));
    if (in.take(1) % 2) doc["fWidth"] = Value(static_cast<int64_t>(in.take(4)));
    if (in.take(1) % 2) doc["fHeight"] = Value(static_cast<int64_t>(in.take(4)));
    for (const char* key : {"offsetArray", "audioOffsetArray"}) {
        Value::ArrayType entries(in.take(1) % 6);
        for (auto& entry : entries) {
            Value::DictionaryType e{{"offset", entryNumber(in)}, {"length", entryNumber(in)}};
            if (in.take(1) % 3 == 0) e["frameCount"] = entryNumber(in);
            entry = Value(std::move(e));
        }
        doc[key] = Value(std::move(entries));
    }
    const std::string videoPath = job + "/video.raw", audioPath = job + "/audio.raw";
    doc["tmpFilename"] = videoPath;
    doc["tmpAudioFilename"] = audioPath;
    const std::string dest = in.pick<std::string>({job + "/new.mov", job + "/old.mov", job + "/folder", videoPath,
                                                   job + "/missing/new.mov", root + "/Downloads/corvina.plist"});
    doc["destFilename"] = dest;
    const std::string essence(reinterpret_cast<const char*>(data) + std::min(in.at, size),
                              size - std::min(in.at, size));
    std::ofstream(videoPath, std::ios::binary) << essence.substr(0, essence.size() / 2);
    std::ofstream(audioPath, std::ios::binary) << essence.substr(essence.size() / 2);

    const std::string videoBefore = readAll(videoPath), audioBefore = readAll(audioPath);
    int64_t status;
    {
        AppController controller;
        status = controller.createQuickTimeMovie(Value(std::move(doc)));
    }
    if (status != 0 && status != 1) std::abort();
    if (readAll(videoPath) != videoBefore || readAll(audioPath) != audioBefore) std::abort();
    if (readAll(job + "/folder/kept") != "a user's file") std::abort();
    if (!(status == 0 && dest == job + "/old.mov") && readAll(job + "/old.mov") != "the previous movie") std::abort();
    for (const auto& entry : fs::directory_iterator(job)) {
        const std::string name = entry.path().filename().string();
        if (name.find(".incomplete-") != std::string::npos || name.ends_with(".lock")) std::abort();
    }
    const std::string movie = status == 0 ? readAll(dest) : std::string();
    if (status == 0 &&
        (movie.size() < 8 || movie.compare(4, 4, "ftyp") != 0 || movie.find("moov") == std::string::npos))
        std::abort();
    return 0;
}
