// Private header: what one handler has registered.
#ifndef TOLV_VEX_TOLVEVENTPROPERTIES_HPP
#define TOLV_VEX_TOLVEVENTPROPERTIES_HPP

#include "tolv/vex/tolvEventHandler.hpp"

#include <cstddef>
#include <cstdint>

#include <map>

namespace tolv
{

class EventProperties;

/// One registration of one descriptor. It keeps its address and its number for
/// life: a descriptor number may be registered again while a callback for its
/// former registration still runs.
///
/// Threads: the registration lock of the engine guards it.
struct EventRecord
{
    EventRecord(EventProperties& io_entry, std::uint64_t i_number,
                OS_HANDLE i_handle, EVENT_MASK i_mask);
    EventRecord(const EventRecord&) = delete;
    EventRecord& operator=(const EventRecord&) = delete;

    /// Takes one thread out of the record's callback.
    void DecreaseThreadCount();

    /// Whether the next wait watches it.
    bool isWatched() const
    {
        return iv_WatchedFrom != 0;
    }

    OS_HANDLE iv_Handle;
    std::int32_t iv_ThreadRefCount; // threads inside a callback for it
    bool iv_Enabled;                // to be watched
    bool iv_Removed;                // unregistered, erased with the last thread
    EVENT_MASK iv_Mask;             // stored only
    EventProperties& iv_Entry;
    const std::uint64_t iv_Number; // in order of registration
    std::uint64_t iv_WatchedFrom;  // first wait that watches it; 0: none
};

/// The entry of one handler: its records in order of registration.
///
/// Ownership: the handler is not owned.
/// Threads:   the registration lock of the engine guards it.
class EventProperties
{
  public:
    using Records = std::map<std::uint64_t, EventRecord>;

    EventProperties(EventHandler& io_handler, std::uint64_t i_number);
    EventProperties(const EventProperties&) = delete;
    EventProperties& operator=(const EventProperties&) = delete;

    EventHandler& handler() const
    {
        return iv_Handler;
    }

    /// In order of first registration.
    std::uint64_t number() const
    {
        return iv_Number;
    }

    Records& records()
    {
        return iv_Records;
    }

    const Records& records() const
    {
        return iv_Records;
    }

    EventRecord& add(std::uint64_t i_number, OS_HANDLE i_handle,
                     EVENT_MASK i_mask);

    /// Marks a record removed: it no longer counts as registered.
    void remove(EventRecord& io_record);

    /// Whether no other record is registered.
    bool isLast(const EventRecord& i_record) const
    {
        return iv_Registered == (i_record.iv_Removed ? 0U : 1U);
    }

    /// Erases a removed record that no thread is inside.
    void erase(EventRecord& io_record);

    /// A record that the wait i_wait found ready; the first one in order of
    /// registration becomes the active one.
    ///
    /// Returns: whether it is the entry's first of this wait.
    bool setReady(EventRecord& io_record, std::uint64_t i_wait);

    /// The descriptor of the active record, OS_INVALID without one.
    OS_HANDLE getActiveHandle(std::uint64_t i_wait) const;

    EventRecord& activeRecord() const
    {
        return *iv_Active;
    }

    /// While pinned, entry and handler stay, although no thread counts as
    /// inside the handler.
    void pin()
    {
        ++iv_Pins;
    }

    void unpin()
    {
        --iv_Pins;
    }

    bool isPinned() const
    {
        return iv_Pins != 0;
    }

  private:
    Records iv_Records;
    EventHandler& iv_Handler;
    const std::uint64_t iv_Number;
    std::size_t iv_Registered; // records that are not removed
    std::size_t iv_Pins;
    EventRecord* iv_Active; // what the wait iv_ActiveWait found first
    std::uint64_t iv_ActiveWait;
};

} // namespace tolv

#endif
