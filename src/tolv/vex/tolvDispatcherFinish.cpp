// The engine's teardown.
#include "tolv/vex/tolvDispatcherImpl.hpp"

#include "tolv/vex/tolvSleep.hpp"

#include <cstdint>

#include <utility>
#include <vector>

namespace tolv
{

void MTDispatcher::Finish()
{
    {
        const MutexLock l_lock(iv_RegLock);
        sendShutdown(iv_Handles);
        sendShutdown(iv_PendingHandles);
        sendShutdown(iv_Timers);
        sendShutdown(iv_PendingTimers);
    }
    forgetAll();
    closePipe();
    {
        const MutexLock l_lock(iv_FinishLock);
        iv_Finished = true;
        iv_FinishedCond.NotifyAll();
    }
    sleepFully(1);
}

// Calls the handlers of a table as it is now; what is added meanwhile is
// pending and has its turn later. A handler that asked to be removed before
// and that a thread is still inside is left to that thread.
void MTDispatcher::sendShutdown(HandleTable& io_table)
{
    for (const HandleTable::Registration& l_registration : io_table.list())
    {
        EventRecord* const l_record = io_table.find(l_registration);
        if (l_record == nullptr)
        {
            continue;
        }
        EventHandler& l_handler = l_record->iv_Entry.handler();
        if (!l_handler.isLive() && isBusy(l_handler))
        {
            continue;
        }
        io_table.enter(*l_record);
        const EventHandler::ACTION l_action = callBack(
            l_handler, l_registration.iv_Handle, EventHandler::EVENT_SHUTDOWN);
        io_table.leave(*l_record);
        if (l_record->iv_Removed)
        {
            io_table.remove(*l_record);
        }
        destroy(settleShutdown(l_handler, l_action));
    }
}

void MTDispatcher::sendShutdown(TimerQueue& io_queue)
{
    for (const Timer_t l_id : io_queue.list())
    {
        TimerProperties* const l_timer = io_queue.find(l_id);
        if (l_timer == nullptr || l_timer->isRemoved())
        {
            continue;
        }
        EventHandler& l_handler = *l_timer->getHandler();
        if (!l_handler.isLive() && isBusy(l_handler))
        {
            continue;
        }
        io_queue.enter(*l_timer);
        iv_RegLock.Unlock();
        const EventHandler::ACTION l_action =
            l_handler.TimerTick(l_id, EventHandler::EVENT_SHUTDOWN);
        iv_RegLock.Lock();
        l_timer->DecreaseThreadCount();
        if (l_timer->isRemoved())
        {
            io_queue.cancel(*l_timer);
        }
        destroy(settleShutdown(l_handler, l_action));
    }
}

// A handler that answers ACTION_REMOVE still gets the event for its other
// descriptors and timers; it goes at once only when it has none.
MTDispatcher::Doomed MTDispatcher::settleShutdown(EventHandler& io_handler,
                                                  EventHandler::ACTION i_action)
{
    if (i_action == EventHandler::ACTION_REMOVE)
    {
        setRemoved(io_handler);
    }
    return hasAny(io_handler) ? Doomed() : takeIfRemoved(io_handler);
}

bool MTDispatcher::hasAny(const EventHandler& i_handler)
{
    return iv_Handles.find(i_handler) != nullptr ||
           iv_PendingHandles.find(i_handler) != nullptr ||
           iv_Timers.owns(i_handler) || iv_PendingTimers.owns(i_handler);
}

// Empties the tables and destroys the handlers that asked for it, again when
// their destructors have added something. What a thread is still inside stays
// for that thread, which finds it removed.
void MTDispatcher::forgetAll()
{
    std::vector<Doomed> l_doomed;
    do
    {
        for (Doomed& l_handler : l_doomed)
        {
            l_handler.reset(); // in the order of the tables
        }
        l_doomed.clear();
        const MutexLock l_lock(iv_RegLock);
        forget(iv_Handles, l_doomed);
        forget(iv_PendingHandles, l_doomed);
        forget(iv_Timers, l_doomed);
        forget(iv_PendingTimers, l_doomed);
    } while (!l_doomed.empty());
}

void MTDispatcher::forget(HandleTable& io_table, std::vector<Doomed>& io_doomed)
{
    HandleTable::Entries& l_entries = io_table.entries();
    auto l_entry = l_entries.begin();
    while (l_entry != l_entries.end())
    {
        const std::uint64_t l_number = l_entry->first;
        Doomed l_doomed = takeIfRemoved(l_entry->second.handler());
        if (l_doomed != nullptr)
        {
            io_doomed.push_back(std::move(l_doomed));
        }
        else
        {
            io_table.remove(l_entry->second);
        }
        l_entry = l_entries.upper_bound(l_number);
    }
}

void MTDispatcher::forget(TimerQueue& io_queue, std::vector<Doomed>& io_doomed)
{
    for (const Timer_t l_id : io_queue.list())
    {
        TimerProperties* const l_timer = io_queue.find(l_id);
        if (l_timer == nullptr)
        {
            continue; // gone with its handler
        }
        Doomed l_doomed = takeIfRemoved(*l_timer->getHandler());
        if (l_doomed != nullptr)
        {
            io_doomed.push_back(std::move(l_doomed));
        }
        else
        {
            io_queue.cancel(*l_timer);
        }
    }
}

} // namespace tolv
