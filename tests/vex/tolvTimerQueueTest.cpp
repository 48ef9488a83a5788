#include "tolv/vex/tolvTimerQueue.hpp"

#include "support/privateMember.hpp"
#include "support/scriptedHandler.hpp"
#include "tolv/vex/tolvDispatcher.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

#include <algorithm>
#include <new>
#include <random>
#include <vector>

using namespace tolv;

TOLV_PRIVATE_MEMBER(HandlerRemoved, EventHandler, bool, iv_Removed);
TOLV_PRIVATE_MEMBER(HandlerThreads, EventHandler, std::int32_t,
                    iv_ThreadRefCount);

namespace
{

std::size_t g_allocations = 0;

const TimeValue NOW(1000, 0);

using Ids = std::vector<Timer_t>;

class TimerQueueTest : public testing::Test
{
  protected:
    TimerQueueTest() :
        iv_None(true), iv_Handler(iv_None), iv_Other(iv_None), iv_Queue()
    {
    }

    void add(Timer_t i_id, unsigned int i_seconds)
    {
        iv_Queue.add(i_id, iv_Handler, TimeValue(i_seconds), NOW);
    }

    TimerProperties& timer(Timer_t i_id)
    {
        return *iv_Queue.find(i_id);
    }

    void update(Timer_t i_id, unsigned int i_seconds)
    {
        iv_Queue.update(timer(i_id), TimeValue(i_seconds), NOW);
    }

    void leave(Timer_t i_id)
    {
        timer(i_id).DecreaseThreadCount();
    }

    Timer_t first() const
    {
        const TimerProperties* const l_first = iv_Queue.first();
        return l_first != nullptr ? l_first->getId() : 0;
    }

    // Takes the armed timers out in the order in which they fire.
    Ids drain()
    {
        Ids l_order;
        while (iv_Queue.first() != nullptr)
        {
            l_order.push_back(first());
            iv_Queue.cancel(timer(first()));
        }
        return l_order;
    }

    Dispatcher iv_None;
    ScriptedHandler iv_Handler;
    ScriptedHandler iv_Other;
    TimerQueue iv_Queue;
};

} // namespace

// Counts what the queue allocates. Inlined, the pairs would look mismatched to
// the compiler.
[[gnu::noinline]] void* operator new(std::size_t i_size)
{
    ++g_allocations;
    void* const l_block = std::malloc(i_size);
    if (l_block == nullptr)
    {
        throw std::bad_alloc();
    }
    return l_block;
}

[[gnu::noinline]] void operator delete(void* io_block) noexcept
{
    std::free(io_block);
}

[[gnu::noinline]] void operator delete(void* io_block, std::size_t) noexcept
{
    std::free(io_block);
}

TEST_F(TimerQueueTest, IsEmptyAtFirst)
{
    EXPECT_EQ(nullptr, iv_Queue.first());
    EXPECT_EQ(nullptr, iv_Queue.find(1));
    EXPECT_FALSE(iv_Queue.contains(1));
    EXPECT_FALSE(iv_Queue.owns(iv_Handler));
    EXPECT_EQ(Ids(), iv_Queue.list());
}

TEST_F(TimerQueueTest, FindsATimerByItsIdentifier)
{
    add(4, 10);
    add(5, 20);
    EXPECT_TRUE(iv_Queue.contains(4));
    EXPECT_FALSE(iv_Queue.contains(6));
    EXPECT_EQ(4U, timer(4).getId());
    EXPECT_EQ(&iv_Handler, timer(4).getHandler());
    EXPECT_EQ(TimeValue(1010), timer(4).getExpiry());
    EXPECT_EQ(nullptr, iv_Queue.find(6));
}

TEST_F(TimerQueueTest, OrdersByExpiry)
{
    add(1, 30);
    add(2, 10);
    add(3, 20);
    EXPECT_EQ((Ids{2, 3, 1}), drain());
}

TEST_F(TimerQueueTest, MicrosecondsCountInTheOrder)
{
    iv_Queue.add(1, iv_Handler, TimeValue(5, 2), NOW);
    iv_Queue.add(2, iv_Handler, TimeValue(5, 1), NOW);
    iv_Queue.add(3, iv_Handler, TimeValue(4, 999999), NOW);
    EXPECT_EQ((Ids{3, 2, 1}), drain());
}

TEST_F(TimerQueueTest, EqualExpiriesKeepTheOrderOfInsertion)
{
    add(9, 10);
    add(2, 10);
    add(7, 5);
    add(5, 10);
    EXPECT_EQ((Ids{7, 9, 2, 5}), drain());
}

TEST_F(TimerQueueTest, UpdateMovesATimer)
{
    add(1, 10);
    add(2, 20);
    update(1, 30);
    EXPECT_EQ(TimeValue(1030), timer(1).getExpiry());
    EXPECT_EQ((Ids{2, 1}), drain());
}

TEST_F(TimerQueueTest, UpdatedTimerGoesBehindItsEquals)
{
    add(1, 10);
    add(2, 10);
    update(1, 10);
    EXPECT_EQ((Ids{2, 1}), drain());
}

TEST_F(TimerQueueTest, UpdateKeepsTheAddress)
{
    add(1, 10);
    const TimerProperties* const l_timer = &timer(1);
    update(1, 30);
    EXPECT_EQ(l_timer, &timer(1));
}

TEST_F(TimerQueueTest, EnteredTimerIsNotArmedAndCountsItsThread)
{
    add(1, 10);
    add(2, 20);
    iv_Queue.enter(timer(1));
    EXPECT_TRUE(timer(1).isBusy());
    EXPECT_EQ(1, iv_Handler.*get(HandlerThreads()));
    EXPECT_FALSE(timer(1).isArmed());
    EXPECT_EQ(2U, first());
    leave(1);
}

TEST_F(TimerQueueTest, UpdateKeepsFlagsAndCount)
{
    add(1, 10);
    iv_Queue.enter(timer(1));
    update(1, 5);
    EXPECT_TRUE(timer(1).isBusy());
    EXPECT_FALSE(timer(1).isArmed());
    EXPECT_EQ(0U, first());
    iv_Queue.cancel(timer(1));
    update(1, 5);
    EXPECT_TRUE(timer(1).isRemoved());
    EXPECT_EQ(0U, first());
    leave(1);
}

TEST_F(TimerQueueTest, EnablePutsATimerAtItsOrderedPlace)
{
    add(1, 10);
    add(2, 20);
    add(3, 30);
    iv_Queue.enter(timer(1));
    leave(1);
    update(1, 25);
    iv_Queue.enable(timer(1));
    EXPECT_EQ((Ids{2, 1, 3}), drain());
}

TEST_F(TimerQueueTest, EnableOfAnArmedTimerChangesNothing)
{
    add(1, 10);
    add(2, 10);
    iv_Queue.enable(timer(1));
    EXPECT_EQ((Ids{1, 2}), drain());
}

TEST_F(TimerQueueTest, EnableDoesNotBringBackACancelledTimer)
{
    add(1, 10);
    iv_Queue.enter(timer(1));
    iv_Queue.cancel(timer(1));
    iv_Queue.enable(timer(1));
    EXPECT_EQ(0U, first());
    leave(1);
}

TEST_F(TimerQueueTest, RearmCountsTheIntervalFromNow)
{
    add(1, 10);
    iv_Queue.enter(timer(1));
    leave(1);
    iv_Queue.rearm(timer(1), TimeValue(2000, 5));
    EXPECT_EQ(TimeValue(2010, 5), timer(1).getExpiry());
    EXPECT_EQ(1U, first());
}

TEST_F(TimerQueueTest, RearmedTimerGoesBehindItsEquals)
{
    add(1, 0);
    add(2, 10);
    iv_Queue.enter(timer(1));
    leave(1);
    iv_Queue.rearm(timer(1), TimeValue(1010));
    EXPECT_EQ((Ids{2, 1}), drain());
}

TEST_F(TimerQueueTest, CancelErasesAnIdleTimer)
{
    add(1, 10);
    iv_Queue.cancel(timer(1));
    EXPECT_FALSE(iv_Queue.contains(1));
    EXPECT_FALSE(iv_Queue.owns(iv_Handler));
    EXPECT_EQ(0U, first());
}

TEST_F(TimerQueueTest, CancelLeavesABusyTimerToTheThreadInside)
{
    add(1, 10);
    iv_Queue.enter(timer(1));
    iv_Queue.cancel(timer(1));
    EXPECT_TRUE(iv_Queue.contains(1));
    EXPECT_TRUE(timer(1).isRemoved());
    EXPECT_EQ(0U, first());
    leave(1);
    iv_Queue.cancel(timer(1));
    EXPECT_FALSE(iv_Queue.contains(1));
}

TEST_F(TimerQueueTest, KnowsWhichHandlersOwnTimers)
{
    add(1, 10);
    add(2, 10);
    EXPECT_TRUE(iv_Queue.owns(iv_Handler));
    EXPECT_FALSE(iv_Queue.owns(iv_Other));
    iv_Queue.cancel(timer(1));
    EXPECT_TRUE(iv_Queue.owns(iv_Handler));
    iv_Queue.cancel(timer(2));
    EXPECT_FALSE(iv_Queue.owns(iv_Handler));
}

TEST_F(TimerQueueTest, ErasesAllTimersOfOneHandler)
{
    add(1, 10);
    iv_Queue.add(2, iv_Other, TimeValue(20), NOW);
    add(3, 30);
    iv_Queue.enter(timer(3));
    leave(3);
    iv_Queue.erase(iv_Handler);
    EXPECT_FALSE(iv_Queue.contains(1));
    EXPECT_FALSE(iv_Queue.contains(3));
    EXPECT_FALSE(iv_Queue.owns(iv_Handler));
    EXPECT_EQ((Ids{2}), drain());
}

TEST_F(TimerQueueTest, HidesTheTimersOfAHandlerToBeRemoved)
{
    add(1, 10);
    iv_Queue.add(2, iv_Other, TimeValue(20), NOW);
    iv_Handler.*get(HandlerRemoved()) = true;
    iv_Queue.hide(iv_Handler);
    EXPECT_EQ(2U, first());
    EXPECT_TRUE(iv_Queue.contains(1));
    iv_Queue.rearm(timer(1), NOW);
    iv_Queue.enable(timer(1));
    EXPECT_EQ(2U, first());
    iv_Queue.erase(iv_Handler);
    EXPECT_FALSE(iv_Queue.contains(1));
}

TEST_F(TimerQueueTest, ListsAllInOrderOfExpiryArmedOrNot)
{
    add(1, 40);
    add(2, 30);
    add(3, 20);
    add(4, 10);
    iv_Queue.add(5, iv_Other, TimeValue(25), NOW);
    iv_Queue.enter(timer(2));
    iv_Other.*get(HandlerRemoved()) = true;
    iv_Queue.hide(iv_Other);
    EXPECT_EQ((Ids{4, 3, 5, 2, 1}), iv_Queue.list());
    leave(2);
}

TEST_F(TimerQueueTest, OnlyAddingAllocates)
{
    add(1, 10);
    add(2, 20);
    const std::size_t l_before = g_allocations;
    iv_Queue.enter(timer(1));
    leave(1);
    iv_Queue.rearm(timer(1), NOW);
    update(1, 30);
    iv_Queue.enter(timer(2));
    leave(2);
    iv_Queue.enable(timer(2));
    iv_Queue.cancel(timer(1));
    const std::size_t l_after = g_allocations;
    EXPECT_EQ(l_before, l_after);
}

namespace
{

// The order as a plain list keeps it: a timer is inserted before the first
// one that expires strictly later.
class PlainList
{
  public:
    struct Entry
    {
        Timer_t iv_Id;
        unsigned int iv_Expiry;
    };

    void insert(Timer_t i_id, unsigned int i_expiry)
    {
        remove(i_id);
        iv_Entries.insert(std::find_if(iv_Entries.begin(), iv_Entries.end(),
                                       [&](const Entry& i_entry) {
                                           return i_entry.iv_Expiry > i_expiry;
                                       }),
                          Entry{i_id, i_expiry});
    }

    void remove(Timer_t i_id)
    {
        iv_Entries.erase(std::remove_if(iv_Entries.begin(), iv_Entries.end(),
                                        [&](const Entry& i_entry)
                                        { return i_entry.iv_Id == i_id; }),
                         iv_Entries.end());
    }

    Ids ids() const
    {
        Ids l_ids;
        for (const Entry& l_entry : iv_Entries)
        {
            l_ids.push_back(l_entry.iv_Id);
        }
        return l_ids;
    }

  private:
    std::vector<Entry> iv_Entries;
};

} // namespace

TEST_F(TimerQueueTest, KeepsTheOrderOfAPlainListUnderRandomChanges)
{
    std::mt19937 l_random(20001); // NOLINT(cert-msc32-c,cert-msc51-cpp)
    const auto l_below = [&l_random](unsigned int i_limit)
    { return static_cast<unsigned int>(l_random() % i_limit); };
    PlainList l_list;
    for (int l_step = 0; l_step != 3000; ++l_step)
    {
        const Timer_t l_id = l_below(60);
        const unsigned int l_seconds = l_below(12);
        if (!iv_Queue.contains(l_id))
        {
            add(l_id, l_seconds);
            l_list.insert(l_id, l_seconds);
        }
        else if (l_below(3) == 0)
        {
            iv_Queue.cancel(timer(l_id));
            l_list.remove(l_id);
        }
        else
        {
            update(l_id, l_seconds);
            l_list.insert(l_id, l_seconds);
        }
        ASSERT_EQ(l_list.ids(), iv_Queue.list()) << "step " << l_step;
    }
}

TEST_F(TimerQueueTest, KeepsTheOrderOfAHundredThousand)
{
    constexpr Timer_t COUNT = 100000;
    for (Timer_t l_id = 1; l_id <= COUNT; ++l_id)
    {
        add(l_id, l_id * 7919 % 1000);
    }
    for (Timer_t l_id = 1; l_id <= COUNT; l_id += 3)
    {
        update(l_id, l_id * 104729 % 1000);
    }
    for (Timer_t l_id = 2; l_id <= COUNT; l_id += 3)
    {
        iv_Queue.cancel(timer(l_id));
    }
    Timer_t l_drained = 0;
    TimeValue l_last;
    while (iv_Queue.first() != nullptr)
    {
        TimerProperties& l_first = timer(first());
        ASSERT_LE(l_last, l_first.getExpiry());
        l_last = l_first.getExpiry();
        iv_Queue.cancel(l_first);
        ++l_drained;
    }
    EXPECT_EQ(COUNT - COUNT / 3, l_drained);
}
