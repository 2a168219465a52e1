// Fuzzes the stream readers against the property-list reader: whatever the bytes, a job the
// helper's stream reads must be the job the tree reads, a root the property-list stream reads
// must be the value the tree reads, and bytes the tree refuses must read as neither.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "Foundation/PropertyListStream.h"
#include "Foundation/Value.h"
#include "helper/MovieJob.h"

using namespace corvina::helper;

using corvina::PropertyListStream;
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

// Equal values, a NaN equal to a NaN.
bool sameValue(const Value& a, const Value& b)
{
    if (a.type() != b.type()) return false;
    if (a.type() == Value::Type::Real) {
        const double x = a.doubleValue(), y = b.doubleValue();
        return x == y || (std::isnan(x) && std::isnan(y));
    }
    if (const auto* items = a.asArray()) {
        if (items->size() != b.count()) return false;
        for (size_t i = 0; i < items->size(); ++i)
            if (!sameValue((*items)[i], b[i])) return false;
        return true;
    }
    if (const auto* entries = a.asDictionary()) {
        if (entries->size() != b.count()) return false;
        for (const auto& [key, item] : *entries) {
            const Value* other = b.objectForKey(key);
            if (!other || !sameValue(item, *other)) return false;
        }
        return true;
    }
    return a == b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto job = MovieJob::readXMLDocument(text.data(), text.size());
    const auto root = PropertyListStream::readRootDictionary(text);
    if (!job && !root) return 0;  // left to the tree, which reads or refuses it itself
    const auto tree = Value::fromPropertyListData(data, size);
    if (!tree || !tree->asDictionary()) std::abort();  // a stream took what the tree refuses
    if (job && !sameJob(*job, MovieJob::fromSettings(*tree))) std::abort();
    if (root && !sameValue(*root, *tree)) std::abort();
    return 0;
}
