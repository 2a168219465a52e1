#include <gtest/gtest.h>

#include "Dispatch/Dispatch.h"

int main(int argc, char** argv)
{
    // The thread that runs main() is the platform's main thread; tests rely on that.
    corvina::markMainThread();
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
