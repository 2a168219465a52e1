#include <gtest/gtest.h>

#include "helper/AppController.h"

namespace corvina::helper {

using namespace corvina;

namespace {

TEST(VideoFormatTable, CodecTypeFrom4CCGivesTheFourCharacters)
{
    EXPECT_EQ(AppController::codecTypeFrom4CC(0x61706368), "apch");
    EXPECT_EQ(AppController::codecTypeFrom4CC(fourCC("dvc ")), "dvc ");   // spaces kept
    EXPECT_EQ(AppController::codecTypeFrom4CC(0xA9786D70), "\u00A9xmp");  // bytes above 127: U+0080-U+00FF
    EXPECT_EQ(AppController::codecTypeFrom4CC(0xFF000041), std::string("\u00FF\0\0A", 5));
}

}  // namespace

}  // namespace corvina::helper
