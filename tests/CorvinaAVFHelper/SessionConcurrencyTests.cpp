// The session in this process: both pumps feed their tracks at once on queues of their own.
#include <gtest/gtest.h>

#include "helper/AppController.h"
#include "support/HelperRun.h"
#include "support/MovieCheck.h"

namespace corvina::helper {

using namespace corvina;
using namespace corvina::test;

namespace {

// Both pumps feed their tracks at once, and a controller that ran one session runs the next.
TEST(HelperSessionConcurrency, OneControllerRunsSessionsOneAfterAnother)
{
    TempDir job;
    auto made = makeSampleJob(job.path(), {"--video", "1", "--audio", "6", "--seconds", "1.5"});
    ASSERT_TRUE(made);
    AppController controller;
    for (int run = 0; run < 2; ++run) {
        SCOPED_TRACE(run);
        const std::string movie = job / ("movie" + std::to_string(run) + ".mov");
        const Value settings = withKey(*made, "destFilename", movie);
        EXPECT_EQ(controller.createQuickTimeMovie(settings), 0);
        // Both tracks ran to their last entry.
        const RunSummary summary = controller.summary();
        EXPECT_EQ(summary.video.entriesRead, summary.video.entriesDescribed);
        EXPECT_EQ(summary.audio.entriesRead, summary.audio.entriesDescribed);
        EXPECT_TRUE(summary.video.firstError.empty() && summary.audio.firstError.empty());
        EXPECT_EQ(checkMovieStructure(movie), std::vector<std::string>{});
        const auto video = expectedVideoBytes(settings);
        const auto audio = expectedAudioBytes(settings, 4);
        expectToolsAccept(movie, true, &video, &audio);
    }
}

}  // namespace

}  // namespace corvina::helper
