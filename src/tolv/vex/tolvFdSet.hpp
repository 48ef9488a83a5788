// Private header: a set of descriptors for select().
#ifndef TOLV_VEX_TOLVFDSET_HPP
#define TOLV_VEX_TOLVFDSET_HPP

#include "tolv/vex/tolvEventHandler.hpp"

#include <sys/select.h>

namespace tolv
{

/// The descriptors 0 to 1023, with the highest one in the set.
///
/// Threads: a plain value.
class FdSet
{
  public:
    /// What select() can hold.
    static constexpr OS_HANDLE SIZE = 1024;

    /// Empty.
    FdSet();

    void clear();
    void set(OS_HANDLE i_handle);
    void reset(OS_HANDLE i_handle);
    bool isSet(OS_HANDLE i_handle) const;

    /// OS_INVALID when the set is empty.
    OS_HANDLE highest() const;

    /// The lowest descriptor of the set from i_from on, or OS_INVALID.
    OS_HANDLE next(OS_HANDLE i_from) const;

    /// The set as select() takes it. After select() has written to it, isSet()
    /// and next() tell what is ready; highest() still bounds it.
    fd_set* view();

  private:
    // The words are the system's own, 32 or 64 bits wide.
    static constexpr OS_HANDLE WORD_BITS = NFDBITS;

    OS_HANDLE findHighest() const;
    unsigned long word(OS_HANDLE i_index) const;

    fd_set iv_Set;
    OS_HANDLE iv_Highest;
};

static_assert(FdSet::SIZE == FD_SETSIZE, "the whole set is the system's");

} // namespace tolv

#endif
