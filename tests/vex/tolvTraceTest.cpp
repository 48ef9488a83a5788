#include "tolv/vex/tolvTrace.hpp"

#include "support/fakePlatform.hpp"

#include <gtest/gtest.h>

// Built three times: with the library's objects, with the shared library and
// with the archive. Nothing here calls the library; it has been loaded.

TEST(TraceTest, BothBuffersAreMadeInOrderAtLoadTime)
{
    const auto l_calls = fakePlatform::calls();
    ASSERT_EQ(2U, l_calls.size());
    EXPECT_STREQ("TraceBufferInit", l_calls[0].service);
    EXPECT_STREQ("TOLV", l_calls[0].name);
    EXPECT_EQ(8192U, l_calls[0].values[0]);
    EXPECT_EQ(&g_TolvTraceDesc, l_calls[0].target);
    EXPECT_STREQ("TraceBufferInit", l_calls[1].service);
    EXPECT_STREQ("TOLV_DBG", l_calls[1].name);
    EXPECT_EQ(1024U, l_calls[1].values[0]);
    EXPECT_NE(nullptr, l_calls[1].target);
    EXPECT_NE(&g_TolvTraceDesc, l_calls[1].target);
}

TEST(TraceTest, ResultsAtLoadTimeAreIgnored)
{
    // Both calls have failed, and the descriptor is what the first one left.
    EXPECT_EQ(fakePlatform::FIRST_DESCRIPTOR, g_TolvTraceDesc);
    EXPECT_EQ(2U, fakePlatform::callsOf("TraceBufferInit").size());
}
