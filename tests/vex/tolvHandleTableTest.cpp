#include "tolv/vex/tolvHandleTable.hpp"

#include "support/assertion.hpp"
#include "support/privateMember.hpp"
#include "tolv/vex/tolvDispatcher.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>

#include <string>
#include <vector>

using namespace tolv;

TOLV_PRIVATE_MEMBER(HandlerCount, EventHandler, std::int32_t,
                    iv_ThreadRefCount);
TOLV_PRIVATE_MEMBER(HandlerRemoved, EventHandler, bool, iv_Removed);

namespace
{

struct Handler : EventHandler
{
    using EventHandler::EventHandler;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        return ACTION_CONTINUE;
    }
};

class HandleTableTest : public testing::Test
{
  protected:
    // The descriptors that a wait watches, which begins now.
    std::vector<OS_HANDLE> watched()
    {
        FdSet l_set;
        iv_Wait = iv_Table.startWait(l_set);
        std::vector<OS_HANDLE> l_handles;
        for (OS_HANDLE l_handle = l_set.next(0); l_handle != OS_INVALID;
             l_handle = l_set.next(l_handle + 1))
        {
            l_handles.push_back(l_handle);
        }
        return l_handles;
    }

    std::vector<OS_HANDLE> listed() const
    {
        std::vector<OS_HANDLE> l_handles;
        for (const HandleTable::Registration& l_registration : iv_Table.list())
        {
            l_handles.push_back(l_registration.iv_Handle);
        }
        return l_handles;
    }

    // What would be served when the last wait found these ready; to be asked
    // once for each wait.
    std::vector<OS_HANDLE> ready(const std::vector<OS_HANDLE>& i_handles)
    {
        const FdSet l_set = setOf(i_handles);
        std::vector<OS_HANDLE> l_served;
        const std::size_t l_count = iv_Table.findReady(l_set, iv_Wait);
        for (std::size_t l_index = 0; l_index != l_count; ++l_index)
        {
            l_served.push_back(
                iv_Table.ready(l_index).activeRecord().iv_Handle);
        }
        return l_served;
    }

    static FdSet setOf(const std::vector<OS_HANDLE>& i_handles)
    {
        FdSet l_set;
        for (const OS_HANDLE l_handle : i_handles)
        {
            l_set.set(l_handle);
        }
        return l_set;
    }

    std::int32_t count(const Handler& i_handler) const
    {
        return i_handler.*get(HandlerCount());
    }

    EventRecord& record(OS_HANDLE i_handle) const
    {
        return *iv_Table.find(i_handle);
    }

    Dispatcher iv_Dispatcher{false};
    Handler iv_First{iv_Dispatcher};
    Handler iv_Second{iv_Dispatcher};
    HandleTable iv_Table;
    std::uint64_t iv_Wait = 0;
};

using Handles = std::vector<OS_HANDLE>;

} // namespace

TEST_F(HandleTableTest, IsEmptyAtFirst)
{
    EXPECT_EQ(nullptr, iv_Table.find(0));
    EXPECT_EQ(nullptr, iv_Table.find(1023));
    EXPECT_EQ(nullptr, iv_Table.find(OS_INVALID));
    EXPECT_EQ(nullptr, iv_Table.find(iv_First));
    EXPECT_TRUE(iv_Table.entries().empty());
    EXPECT_EQ(Handles(), watched());
    EXPECT_EQ(Handles(), listed());
}

TEST_F(HandleTableTest, NewRecordIsEnabledAndUncounted)
{
    iv_Table.add(7, iv_First, 0xABCD);
    const EventRecord& l_record = record(7);
    EXPECT_EQ(7, l_record.iv_Handle);
    EXPECT_EQ(0, l_record.iv_ThreadRefCount);
    EXPECT_TRUE(l_record.iv_Enabled);
    EXPECT_FALSE(l_record.iv_Removed);
    EXPECT_EQ(0xABCDU, l_record.iv_Mask);
    EXPECT_EQ(&iv_First, &l_record.iv_Entry.handler());
    EXPECT_EQ((Handles{7}), watched());
}

TEST_F(HandleTableTest, HandlerHasOneEntryForAllItsRecords)
{
    iv_Table.add(9, iv_First, 0);
    iv_Table.add(3, iv_First, 0);
    EXPECT_EQ(1U, iv_Table.entries().size());
    EXPECT_EQ(&record(9).iv_Entry, &record(3).iv_Entry);
    EXPECT_EQ(iv_Table.find(iv_First), &record(3).iv_Entry);
}

TEST_F(HandleTableTest, ListsEntriesAndRecordsInOrderOfRegistration)
{
    iv_Table.add(9, iv_Second, 0);
    iv_Table.add(5, iv_First, 0);
    iv_Table.add(7, iv_Second, 0);
    iv_Table.add(3, iv_First, 0);
    EXPECT_EQ((Handles{9, 7, 5, 3}), listed());
}

TEST_F(HandleTableTest, EntryThatWentComesBackLast)
{
    iv_Table.add(1, iv_First, 0);
    iv_Table.add(2, iv_Second, 0);
    iv_Table.remove(record(1));
    iv_Table.add(1, iv_First, 0);
    EXPECT_EQ((Handles{2, 1}), listed());
}

TEST_F(HandleTableTest, EntryGoesWithItsLastRecord)
{
    iv_Table.add(1, iv_First, 0);
    iv_Table.add(2, iv_First, 0);
    iv_Table.remove(record(1));
    EXPECT_NE(nullptr, iv_Table.find(iv_First));
    EXPECT_EQ(nullptr, iv_Table.find(1));
    iv_Table.remove(record(2));
    EXPECT_EQ(nullptr, iv_Table.find(iv_First));
    EXPECT_TRUE(iv_Table.entries().empty());
    EXPECT_EQ(Handles(), watched());
}

TEST_F(HandleTableTest, PinnedEntryStaysWithoutRecords)
{
    iv_Table.add(1, iv_First, 0);
    EventProperties& l_entry = *iv_Table.find(iv_First);
    l_entry.pin();
    iv_Table.remove(record(1));
    EXPECT_EQ(&l_entry, iv_Table.find(iv_First));
    l_entry.unpin();
    iv_Table.eraseIfEmpty(l_entry);
    EXPECT_EQ(nullptr, iv_Table.find(iv_First));
}

TEST_F(HandleTableTest, EnteredRecordIsCountedDisabledAndNotWatched)
{
    iv_Table.add(1, iv_First, 0);
    iv_Table.add(2, iv_First, 0);
    iv_Table.enter(record(1));
    EXPECT_FALSE(record(1).iv_Enabled);
    EXPECT_EQ(1, record(1).iv_ThreadRefCount);
    EXPECT_EQ(1, count(iv_First));
    EXPECT_EQ((Handles{2}), watched());
    iv_Table.leave(record(1));
    EXPECT_EQ(0, record(1).iv_ThreadRefCount);
    EXPECT_EQ(0, count(iv_First));
    EXPECT_FALSE(record(1).iv_Enabled);
    EXPECT_EQ((Handles{2}), watched());
    iv_Table.enable(record(1));
    EXPECT_EQ((Handles{1, 2}), watched());
}

TEST_F(HandleTableTest, EnabledDuringItsCallbackIsWatchedAfterIt)
{
    iv_Table.add(1, iv_First, 0);
    iv_Table.enter(record(1));
    iv_Table.enable(record(1));
    EXPECT_TRUE(record(1).iv_Enabled);
    EXPECT_EQ(Handles(), watched());
    iv_Table.leave(record(1));
    EXPECT_EQ((Handles{1}), watched());
}

TEST_F(HandleTableTest, RecordRemovedWhileAThreadIsInsideStaysUntilItLeaves)
{
    iv_Table.add(1, iv_First, 0);
    EventRecord& l_record = record(1);
    iv_Table.enter(l_record);
    iv_Table.remove(l_record);
    EXPECT_EQ(nullptr, iv_Table.find(1));
    EXPECT_TRUE(l_record.iv_Removed);
    EXPECT_NE(nullptr, iv_Table.find(iv_First));
    EXPECT_EQ(Handles(), listed());
    iv_Table.leave(l_record);
    EXPECT_EQ(Handles(), watched());
    iv_Table.remove(l_record);
    EXPECT_EQ(nullptr, iv_Table.find(iv_First));
}

TEST_F(HandleTableTest, NumberOfARemovedBusyRecordCanBeAddedAgain)
{
    iv_Table.add(1, iv_First, 0);
    EventRecord& l_old = record(1);
    iv_Table.enter(l_old);
    iv_Table.remove(l_old);
    iv_Table.add(1, iv_Second, 0);
    EXPECT_EQ(&iv_Second, &record(1).iv_Entry.handler());
    EXPECT_EQ((Handles{1}), watched());
    iv_Table.leave(l_old);
    iv_Table.remove(l_old);
    EXPECT_EQ(nullptr, iv_Table.find(iv_First));
    EXPECT_EQ(&iv_Second, &record(1).iv_Entry.handler());
    EXPECT_EQ((Handles{1}), watched());
}

TEST_F(HandleTableTest, LastRecordIsTheOnlyRegisteredOne)
{
    iv_Table.add(1, iv_First, 0);
    iv_Table.add(2, iv_First, 0);
    EventProperties& l_entry = *iv_Table.find(iv_First);
    EventRecord& l_one = record(1);
    EXPECT_FALSE(l_entry.isLast(l_one));
    iv_Table.enter(l_one);
    iv_Table.remove(l_one);
    EXPECT_FALSE(l_entry.isLast(l_one));
    EXPECT_TRUE(l_entry.isLast(record(2)));
    iv_Table.remove(record(2));
    EXPECT_TRUE(l_entry.isLast(l_one));
    iv_Table.leave(l_one);
}

TEST_F(HandleTableTest, RemovedHandlerLosesAllItsRecords)
{
    iv_Table.add(1, iv_First, 0);
    iv_Table.add(2, iv_Second, 0);
    iv_Table.add(3, iv_First, 0);
    iv_Table.remove(iv_First);
    EXPECT_EQ((Handles{2}), listed());
    EXPECT_EQ((Handles{2}), watched());
    iv_Table.remove(iv_First); // has none
    EXPECT_EQ((Handles{2}), listed());
}

TEST_F(HandleTableTest, HiddenHandlerIsNotWatched)
{
    iv_Table.add(1, iv_First, 0);
    iv_Table.add(2, iv_Second, 0);
    iv_Table.add(3, iv_First, 0);
    iv_First.*get(HandlerRemoved()) = true;
    iv_Table.hide(iv_First);
    EXPECT_EQ((Handles{2}), watched());
    EXPECT_EQ((Handles{1, 3, 2}), listed());
    EXPECT_EQ((Handles{2}), ready({1, 2, 3}));
}

TEST_F(HandleTableTest, RegistrationIsNotTakenForItsSuccessor)
{
    iv_Table.add(1, iv_First, 0);
    const HandleTable::Registration l_registration = iv_Table.list().front();
    EXPECT_EQ(&record(1), iv_Table.find(l_registration));
    iv_Table.remove(record(1));
    EXPECT_EQ(nullptr, iv_Table.find(l_registration));
    iv_Table.add(1, iv_First, 0);
    EXPECT_EQ(nullptr, iv_Table.find(l_registration));
}

TEST_F(HandleTableTest, ReadyEntriesComeInOrderOfTheirFirstRegistration)
{
    iv_Table.add(30, iv_Second, 0);
    iv_Table.add(10, iv_First, 0);
    iv_Table.add(20, iv_Second, 0);
    EXPECT_EQ((Handles{10, 20, 30}), watched());
    EXPECT_EQ((Handles{30, 10}), ready({10, 20, 30}));
    watched();
    EXPECT_EQ((Handles{20, 10}), ready({10, 20}));
    watched();
    EXPECT_EQ((Handles{10}), ready({10}));
    watched();
    EXPECT_EQ(Handles(), ready({}));
}

TEST_F(HandleTableTest, FirstReadyIsTheFirstOfThem)
{
    iv_Table.add(30, iv_Second, 0);
    iv_Table.add(20, iv_Second, 0);
    iv_Table.add(10, iv_First, 0);
    watched();
    const EventProperties* const l_entry =
        iv_Table.firstReady(setOf({10, 20, 30}), iv_Wait);
    ASSERT_EQ(iv_Table.find(iv_Second), l_entry);
    EXPECT_EQ(30, l_entry->activeRecord().iv_Handle);
    EXPECT_EQ(30, l_entry->getActiveHandle(iv_Wait));
    EXPECT_EQ(OS_INVALID, l_entry->getActiveHandle(iv_Wait + 1));
    EXPECT_EQ(nullptr, iv_Table.firstReady(setOf({}), iv_Wait));
}

TEST_F(HandleTableTest, UnknownDescriptorIsNotReady)
{
    iv_Table.add(10, iv_First, 0);
    watched();
    EXPECT_EQ(Handles(), ready({9, 11, 1023}));
}

TEST_F(HandleTableTest, ReusedNumberIsNotReadyForTheWaitBefore)
{
    iv_Table.add(10, iv_First, 0);
    watched();
    iv_Table.remove(record(10));
    iv_Table.add(10, iv_Second, 0);
    EXPECT_EQ(Handles(), ready({10}));
    EXPECT_EQ(nullptr, iv_Table.firstReady(setOf({10}), iv_Wait));
    watched();
    EXPECT_EQ((Handles{10}), ready({10}));
}

TEST_F(HandleTableTest, RecordThatTheWaitDidNotWatchIsNotReady)
{
    iv_Table.add(10, iv_First, 0);
    iv_Table.enter(record(10));
    watched();
    iv_Table.leave(record(10));
    iv_Table.enable(record(10));
    EXPECT_EQ(Handles(), ready({10}));
}

TEST_F(HandleTableTest, EarlierWaitStillCountsWhileItIsWatched)
{
    iv_Table.add(10, iv_First, 0);
    watched();
    const std::uint64_t l_earlier = iv_Wait;
    watched();
    iv_Wait = l_earlier;
    EXPECT_EQ((Handles{10}), ready({10}));
}

TEST_F(HandleTableTest, VersionGrowsWithEveryChangeOfTheWatchedSetOnly)
{
    const std::uint64_t l_empty = iv_Table.version();
    iv_Table.add(10, iv_First, 0);
    const std::uint64_t l_added = iv_Table.version();
    EXPECT_LT(l_empty, l_added);
    iv_Table.enable(record(10));
    watched();
    EXPECT_EQ(l_added, iv_Table.version());
    iv_Table.enter(record(10));
    const std::uint64_t l_entered = iv_Table.version();
    EXPECT_LT(l_added, l_entered);
    iv_Table.leave(record(10));
    EXPECT_EQ(l_entered, iv_Table.version());
    iv_Table.remove(record(10));
    EXPECT_EQ(l_entered, iv_Table.version()); // was not watched any more
}

TEST_F(HandleTableTest, RecordsStayWhereTheyAre)
{
    iv_Table.add(0, iv_First, 0);
    const EventRecord* const l_record = &record(0);
    const EventProperties* const l_entry = iv_Table.find(iv_First);
    for (OS_HANDLE l_handle = 1; l_handle != FdSet::SIZE; ++l_handle)
    {
        iv_Table.add(l_handle, l_handle % 2 == 0 ? iv_First : iv_Second, 0);
    }
    EXPECT_EQ(l_record, &record(0));
    EXPECT_EQ(l_entry, iv_Table.find(iv_First));
    EXPECT_EQ(1024U, watched().size());
}

TEST(HandleTableDeathTest, LeavingARecordThatNobodyEnteredFails)
{
    Dispatcher l_dispatcher(false);
    Handler l_handler(l_dispatcher);
    HandleTable l_table;
    l_table.add(1, l_handler, 0);
    EXPECT_ASSERTION(l_table.leave(*l_table.find(1)),
                     "tolv/vex/tolvDispatcherImpl", 420,
                     "void tolv::MTDispatcher::ServiceEvents(tolv::FdSet&)",
                     "l_eItr->iv_ThreadRefCount >= 0");
}

TEST(HandleTableDeathTest, LeavingAHandlerThatNobodyEnteredFails)
{
    Dispatcher l_dispatcher(false);
    Handler l_handler(l_dispatcher);
    HandleTable l_table;
    l_table.add(1, l_handler, 0);
    l_table.find(1)->iv_ThreadRefCount = 1; // as if entered
    EXPECT_ASSERTION(l_table.leave(*l_table.find(1)),
                     "tolv/vex/tolvEventHandler", 150,
                     "void tolv::EventHandler::DecreaseThreadCount()",
                     "iv_ThreadRefCount >= 0");
}
