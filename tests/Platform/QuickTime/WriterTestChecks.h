// Checks the movie-writer tests share beyond tests/support: the independent tools on a
// finished movie, and how the tracks' chunks take turns in the file.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "WriterSupport.h"

namespace corvina::test {

// ffmpeg reads the whole movie (a full decode, or a demux for synthetic essence that no
// decoder takes) and mediainfo recognises it.
inline void expectToolsAccept(const std::string& path, bool decode)
{
    std::string diagnostics;
    EXPECT_TRUE(decode ? ffmpegDecodesCleanly(path, &diagnostics) : ffmpegDemuxesCleanly(path, &diagnostics))
        << diagnostics;
    EXPECT_TRUE(mediainfoAccepts(path, &diagnostics)) << diagnostics;
}

// The chunks of every track in file order, one letter a track ('v' for the first); the
// longest run of one track's chunks in a row goes to longestRun.
inline std::string chunkOrder(const MovieSummary& m, int* longestRun)
{
    std::vector<std::pair<uint64_t, char>> chunks;
    for (size_t k = 0; k < m.tracks.size(); ++k)
        for (uint64_t o : m.tracks[k].chunkOffsets) chunks.emplace_back(o, k ? 'a' : 'v');
    std::sort(chunks.begin(), chunks.end());
    std::string order;
    int run = 0;
    *longestRun = 0;
    for (const auto& c : chunks) {
        run = !order.empty() && order.back() == c.second ? run + 1 : 1;
        *longestRun = std::max(*longestRun, run);
        order += c.second;
    }
    return order;
}

}  // namespace corvina::test
