// Fuzzes the job's stream reader against the property-list reader: whatever the bytes, a job the
// helper's stream reads must be the job the tree reads, and bytes the tree refuses are no job.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "Foundation/Value.h"
#include "helper/MovieJob.h"

using namespace corvina::helper;

using corvina::Value;

namespace {

bool sameJob(const MovieJob& a, const MovieJob& b)
{
    const bool sameRate = a.frameRate == b.frameRate || (std::isnan(a.frameRate) && std::isnan(b.frameRate));
    return a.tmpFilename == b.tmpFilename && a.tmpAudioFilename == b.tmpAudioFilename &&
           a.destFilename == b.destFilename && a.formatType == b.formatType && a.audioFormat == b.audioFormat &&
           sameRate && a.fWidth == b.fWidth && a.fHeight == b.fHeight && *a.videoEntries == *b.videoEntries &&
           *a.audioEntries == *b.audioEntries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto job = MovieJob::readXMLDocument(text.data(), text.size());
    if (!job) return 0;  // left to the tree, which reads or refuses it itself
    const auto tree = Value::fromPropertyListData(data, size);
    if (!tree || !tree->asDictionary()) std::abort();  // the stream took what the tree refuses
    if (!sameJob(*job, MovieJob::fromSettings(*tree))) std::abort();
    return 0;
}
