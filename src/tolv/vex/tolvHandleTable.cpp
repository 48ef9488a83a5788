#include "tolv/vex/tolvHandleTable.hpp"

#include <algorithm>
#include <tuple>
#include <utility>

namespace tolv
{

HandleTable::HandleTable() :
    iv_Entries(), iv_ByHandler(), iv_ByHandle(), iv_Watched(), iv_LastNumber(0),
    iv_LastWait(0), iv_Version(0), iv_Ready()
{
}

EventRecord* HandleTable::find(OS_HANDLE i_handle) const
{
    const auto l_index = static_cast<std::size_t>(i_handle);
    return l_index < iv_ByHandle.size() ? iv_ByHandle[l_index] : nullptr;
}

EventProperties* HandleTable::find(const EventHandler& i_handler) const
{
    const auto l_found = iv_ByHandler.find(&i_handler);
    return l_found != iv_ByHandler.end() ? l_found->second : nullptr;
}

void HandleTable::add(OS_HANDLE i_handle, EventHandler& io_handler,
                      EVENT_MASK i_mask)
{
    EventProperties* l_entry = find(io_handler);
    if (l_entry == nullptr)
    {
        const std::uint64_t l_number = ++iv_LastNumber;
        l_entry = &iv_Entries
                       .emplace(std::piecewise_construct,
                                std::forward_as_tuple(l_number),
                                std::forward_as_tuple(io_handler, l_number))
                       .first->second;
        iv_ByHandler.emplace(&io_handler, l_entry);
        if (iv_Ready.capacity() < iv_Entries.size())
        {
            iv_Ready.reserve(2 * iv_Entries.size());
        }
    }
    EventRecord& l_record = l_entry->add(++iv_LastNumber, i_handle, i_mask);
    const auto l_index = static_cast<std::size_t>(i_handle);
    if (l_index >= iv_ByHandle.size())
    {
        iv_ByHandle.resize(l_index + 1);
    }
    iv_ByHandle[l_index] = &l_record;
    updateWatch(l_record);
}

void HandleTable::enable(EventRecord& io_record)
{
    io_record.iv_Enabled = true;
    updateWatch(io_record);
}

void HandleTable::enter(EventRecord& io_record)
{
    io_record.iv_Enabled = false;
    ++io_record.iv_ThreadRefCount;
    io_record.iv_Entry.handler().IncreaseThreadCount();
    updateWatch(io_record);
}

void HandleTable::leave(EventRecord& io_record)
{
    io_record.DecreaseThreadCount();
    io_record.iv_Entry.handler().DecreaseThreadCount();
    updateWatch(io_record);
}

void HandleTable::remove(EventRecord& io_record)
{
    unlink(io_record);
    if (io_record.iv_ThreadRefCount == 0)
    {
        EventProperties& l_entry = io_record.iv_Entry;
        l_entry.erase(io_record);
        eraseIfEmpty(l_entry);
    }
}

void HandleTable::eraseIfEmpty(EventProperties& io_entry)
{
    if (io_entry.records().empty() && !io_entry.isPinned())
    {
        iv_ByHandler.erase(&io_entry.handler());
        iv_Entries.erase(io_entry.number());
    }
}

void HandleTable::remove(EventProperties& io_entry)
{
    auto l_next = io_entry.records().begin();
    while (l_next != io_entry.records().end())
    {
        EventRecord& l_record = l_next->second;
        ++l_next;
        unlink(l_record);
        if (l_record.iv_ThreadRefCount == 0)
        {
            io_entry.erase(l_record);
        }
    }
    eraseIfEmpty(io_entry);
}

void HandleTable::remove(const EventHandler& i_handler)
{
    EventProperties* const l_entry = find(i_handler);
    if (l_entry != nullptr)
    {
        remove(*l_entry);
    }
}

std::vector<HandleTable::Registration> HandleTable::list() const
{
    std::vector<Registration> l_list;
    for (const auto& l_entry : iv_Entries)
    {
        for (const auto& l_record : l_entry.second.records())
        {
            if (!l_record.second.iv_Removed)
            {
                l_list.push_back({l_record.second.iv_Handle, l_record.first});
            }
        }
    }
    return l_list;
}

EventRecord* HandleTable::find(const Registration& i_registration) const
{
    EventRecord* const l_record = find(i_registration.iv_Handle);
    return l_record != nullptr &&
                   l_record->iv_Number == i_registration.iv_Number
               ? l_record
               : nullptr;
}

void HandleTable::hide(const EventHandler& i_handler)
{
    EventProperties* const l_entry = find(i_handler);
    if (l_entry != nullptr)
    {
        for (auto& l_record : l_entry->records())
        {
            updateWatch(l_record.second);
        }
    }
}

std::uint64_t HandleTable::startWait(FdSet& o_watched)
{
    o_watched = iv_Watched;
    return ++iv_LastWait;
}

EventProperties* HandleTable::firstReady(const FdSet& i_ready,
                                         std::uint64_t i_wait)
{
    EventProperties* l_first = nullptr;
    visitReady(i_ready, i_wait,
               [&l_first](EventProperties& io_entry)
               {
                   if (l_first == nullptr ||
                       io_entry.number() < l_first->number())
                   {
                       l_first = &io_entry;
                   }
               });
    return l_first;
}

std::size_t HandleTable::findReady(const FdSet& i_ready, std::uint64_t i_wait)
{
    iv_Ready.clear();
    visitReady(i_ready, i_wait,
               [this](EventProperties& io_entry)
               { iv_Ready.push_back(&io_entry); });
    std::sort(iv_Ready.begin(), iv_Ready.end(),
              [](const EventProperties* i_left, const EventProperties* i_right)
              { return i_left->number() < i_right->number(); });
    return iv_Ready.size();
}

// Looks at the ready descriptors only, never at the others in the table.
template <class Visitor>
void HandleTable::visitReady(const FdSet& i_ready, std::uint64_t i_wait,
                             Visitor i_visit)
{
    for (OS_HANDLE l_handle = i_ready.next(0); l_handle != OS_INVALID;
         l_handle = i_ready.next(l_handle + 1))
    {
        EventRecord* const l_record = find(l_handle);
        if (l_record != nullptr && l_record->isWatched() &&
            l_record->iv_WatchedFrom <= i_wait &&
            l_record->iv_Entry.setReady(*l_record, i_wait))
        {
            i_visit(l_record->iv_Entry);
        }
    }
}

void HandleTable::updateWatch(EventRecord& io_record)
{
    const bool l_watched = io_record.isWatched();
    const bool l_watch = io_record.iv_Enabled && !io_record.iv_Removed &&
                         io_record.iv_ThreadRefCount == 0 &&
                         io_record.iv_Entry.handler().isLive();
    if (l_watch == l_watched)
    {
        return;
    }
    ++iv_Version;
    if (l_watch)
    {
        iv_Watched.set(io_record.iv_Handle);
        io_record.iv_WatchedFrom = iv_LastWait + 1;
    }
    else
    {
        iv_Watched.reset(io_record.iv_Handle);
        io_record.iv_WatchedFrom = 0;
    }
}

void HandleTable::unlink(EventRecord& io_record)
{
    if (!io_record.iv_Removed)
    {
        io_record.iv_Entry.remove(io_record);
        iv_ByHandle[static_cast<std::size_t>(io_record.iv_Handle)] = nullptr;
        updateWatch(io_record);
    }
}

} // namespace tolv
