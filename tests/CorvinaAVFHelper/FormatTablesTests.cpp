#include <gtest/gtest.h>

#include "AppController.h"

using namespace corvina;

namespace {

TEST(AudioFormatTable, CodesOutsideTheTableMeanNoAudio)
{
    for (int64_t code : {0, 19, -1, 100}) EXPECT_EQ(AppController::audioFormatForCode(code), nullptr) << code;
    // The LtRt layout is passed with its two descriptions: 12 + 2 x 20 bytes.
    EXPECT_EQ(AudioChannelLayout::byteSize(2), 52u);
    EXPECT_EQ(AudioChannelLayout::byteSize(0), 32u);
}

TEST(VideoFormatTable, CodesOutsideTheTableAreUnknown)
{
    for (int64_t code : {-1, 5, 7, 9, 13, 19, 21, 29, 36, 1000})
        EXPECT_EQ(AppController::videoFormatForType(code), nullptr) << code;
}

TEST(VideoFormatTable, CodecTypeFrom4CCGivesTheFourCharacters)
{
    EXPECT_EQ(AppController::codecTypeFrom4CC(0x61706368), "apch");
    EXPECT_EQ(AppController::codecTypeFrom4CC(fourCC("dvc ")), "dvc ");   // spaces kept
    EXPECT_EQ(AppController::codecTypeFrom4CC(0xA9786D70), "\u00A9xmp");  // bytes above 127: U+0080-U+00FF
    EXPECT_EQ(AppController::codecTypeFrom4CC(0xFF000041), std::string("\u00FF\0\0A", 5));
}

}  // namespace
