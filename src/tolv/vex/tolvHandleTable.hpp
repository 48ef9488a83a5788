// Private header: the table of registered descriptors.
#ifndef TOLV_VEX_TOLVHANDLETABLE_HPP
#define TOLV_VEX_TOLVHANDLETABLE_HPP

#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvEventProperties.hpp"
#include "tolv/vex/tolvFdSet.hpp"

#include <cstddef>
#include <cstdint>

#include <map>
#include <vector>

namespace tolv
{

/// The entries of all handlers in order of first registration, found by
/// descriptor and by handler without walking, and the set of descriptors to
/// watch, which follows every change.
///
/// A record is watched while it is enabled, registered, no thread is inside it
/// and its handler is live.
///
/// Waits are numbered, so that a descriptor that the wait did not watch for
/// this record (because the number was closed and reused meanwhile, or the
/// record was disabled) is never taken for ready.
///
/// Threads: the registration lock of the engine guards it. Records and entries
///          keep their addresses until they are erased.
class HandleTable
{
  public:
    using Entries = std::map<std::uint64_t, EventProperties>;

    /// A record by its numbers, which stay true when the record goes.
    struct Registration
    {
        OS_HANDLE iv_Handle;
        std::uint64_t iv_Number;
    };

    HandleTable();
    HandleTable(const HandleTable&) = delete;
    HandleTable& operator=(const HandleTable&) = delete;

    /// The registered record of a descriptor, null when there is none.
    EventRecord* find(OS_HANDLE i_handle) const;

    /// The entry of a handler, null when there is none.
    EventProperties* find(const EventHandler& i_handler) const;

    /// In order of first registration.
    Entries& entries()
    {
        return iv_Entries;
    }

    /// The descriptor is not registered.
    void add(OS_HANDLE i_handle, EventHandler& io_handler, EVENT_MASK i_mask);

    void enable(EventRecord& io_record);

    /// Disables a record and counts the calling thread into it and its
    /// handler.
    void enter(EventRecord& io_record);

    /// Counts the calling thread out again. What the record became meanwhile
    /// is for the caller to see.
    void leave(EventRecord& io_record);

    /// Takes a record out of all look-ups and erases it, and its entry with
    /// its last one, unless a thread is inside it: then leave() is followed by
    /// another remove().
    void remove(EventRecord& io_record);

    /// Erases an entry that has no records left and is not pinned.
    void eraseIfEmpty(EventProperties& io_entry);

    /// Removes all records of an entry, or of a handler's if it has one.
    void remove(EventProperties& io_entry);
    void remove(const EventHandler& i_handler);

    /// What is registered, in order.
    std::vector<Registration> list() const;

    /// The handler's removal flag has been set: nothing of it is watched.
    void hide(const EventHandler& i_handler);

    /// Adds the descriptors to watch and begins a new wait.
    ///
    /// Returns: the number of the wait.
    std::uint64_t startWait(FdSet& o_watched);

    /// Grows with every change of the set to watch.
    std::uint64_t version() const
    {
        return iv_Version;
    }

    /// The registered record, null when it is not registered any more.
    EventRecord* find(const Registration& i_registration) const;

    /// The first entry with a record that the wait i_wait watched and found
    /// ready, null when there is none.
    EventProperties* firstReady(const FdSet& i_ready, std::uint64_t i_wait);

    /// Finds all such entries.
    ///
    /// Returns: how many there are.
    std::size_t findReady(const FdSet& i_ready, std::uint64_t i_wait);

    /// The entries that findReady() found, in their order. Not to be called
    /// after a registration or the end of one.
    EventProperties& ready(std::size_t i_index)
    {
        return *iv_Ready[i_index];
    }

  private:
    template <class Visitor>
    void visitReady(const FdSet& i_ready, std::uint64_t i_wait,
                    Visitor i_visit);
    void updateWatch(EventRecord& io_record);
    void unlink(EventRecord& io_record);

    Entries iv_Entries;
    std::map<const EventHandler*, EventProperties*> iv_ByHandler;
    std::vector<EventRecord*> iv_ByHandle; // index: descriptor
    FdSet iv_Watched;
    std::uint64_t iv_LastNumber; // of an entry or a record
    std::uint64_t iv_LastWait;
    std::uint64_t iv_Version;
    std::vector<EventProperties*> iv_Ready; // findReady()'s result
};

} // namespace tolv

#endif
