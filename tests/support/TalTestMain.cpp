#include <gtest/gtest.h>

#include "TalTestSupport.h"

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests fork; "threadsafe" re-executes the binary, which is safe
    // with the library's looper thread running.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    talmem_test::LogCapture::Install();
    return RUN_ALL_TESTS();
}
