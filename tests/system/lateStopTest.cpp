#include "support/countingHandler.hpp"
#include "support/engineOf.hpp"
#include "support/environment.hpp"
#include "support/fakeSleep.hpp"
#include "support/tempDir.hpp"
#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/vex/tolvDispatcher.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

// A shutdown whose threads do not stop in time, seen in the error log of the
// stock-Linux platform.

using namespace tolv;

namespace
{

std::string contentOf(const std::string& i_path)
{
    std::ifstream l_file(i_path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(l_file),
                       std::istreambuf_iterator<char>());
}

} // namespace

TEST(LateStopTest, EntryStandsInTheErrorLog)
{
    const TempDir l_log;
    setVariable("TOLV_ERRORLOG", l_log.path());
    fakeSleep::skip();
    Gate l_gate;
    CountingHandler l_handler;
    ShutDownDispatcher<> l_dispatcher(2, 2, false);
    l_handler.iv_OnTimer = [&](Timer_t)
    {
        l_gate.pass();
        return EventHandler::ACTION_UNREGISTER;
    };
    OS_TIMEOUT l_atOnce;
    l_dispatcher.AddTimer(l_handler, l_atOnce);
    ASSERT_TRUE(l_gate.waitForArrived(1));
    l_dispatcher.Shutdown(0);
    l_gate.open();

    const std::vector<std::string> l_names = namesIn(l_log.path());
    ASSERT_EQ(1U, l_names.size());
    const std::string l_bytes = contentOf(l_log.path(l_names[0]));
    ErrorLogEntry l_entry;
    ASSERT_TRUE(l_entry.unflatten(l_bytes.data(),
                                  static_cast<unsigned int>(l_bytes.size())));
    const unsigned int VALUES[] = {0x4400, 0,      1,      0xB1, 0,
                                   0x17,   0x43FF, 0x4424, 110,  0,
                                   0,      0,      0x81,   0,    0xF0};
    for (unsigned int l_index = 0; l_index != 15; ++l_index)
    {
        EXPECT_EQ(VALUES[l_index], l_entry.value(l_index)) << l_index;
    }
    EXPECT_TRUE(l_entry.isCommitted());
    const unsigned int COMMIT_VALUES[] = {0x4400, 0, 0xFF, 0};
    for (unsigned int l_index = 0; l_index != 4; ++l_index)
    {
        EXPECT_EQ(COMMIT_VALUES[l_index], l_entry.commitValue(l_index));
    }
    ASSERT_EQ(1U, l_entry.getTraceCount());
    EXPECT_STREQ("TOLV", l_entry.getTraceComponent(0));
    EXPECT_GE(256U, l_entry.getTraceLength(0));
}
