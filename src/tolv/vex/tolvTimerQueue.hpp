// Private header: the timers of an engine.
#ifndef TOLV_VEX_TOLVTIMERQUEUE_HPP
#define TOLV_VEX_TOLVTIMERQUEUE_HPP

#include "tolv/vex/tolvEventHandler.hpp"
#include "tolv/vex/tolvTimeValue.hpp"
#include "tolv/vex/tolvTimerProperties.hpp"

#include <cstdint>

#include <map>
#include <set>
#include <utility>
#include <vector>

namespace tolv
{

/// Timers found by identifier, by handler and by expiry. Every operation on
/// one timer costs logarithmic time; only adding one allocates.
///
/// Armed timers are ordered by expiry, and among equals by when they were put
/// there.
///
/// Threads: the registration lock of the engine guards it. Timers keep their
///          addresses until they are erased.
class TimerQueue
{
  public:
    TimerQueue();
    TimerQueue(const TimerQueue&) = delete;
    TimerQueue& operator=(const TimerQueue&) = delete;

    bool contains(Timer_t i_id) const;

    /// The timer, null when there is none; a cancelled one whose callback
    /// still runs is found.
    TimerProperties* find(Timer_t i_id);

    /// The identifier is not in use.
    void add(Timer_t i_id, EventHandler& io_handler,
             const TimeValue& i_interval, const TimeValue& i_now);

    /// Gives the timer a new period that begins at i_now.
    void update(TimerProperties& io_timer, const TimeValue& i_interval,
                const TimeValue& i_now);

    /// Begins a new period at i_now and lets the timer fire.
    void rearm(TimerProperties& io_timer, const TimeValue& i_now);

    /// Lets the timer fire at its expiry.
    void enable(TimerProperties& io_timer);

    /// Disables a timer and counts the calling thread into it.
    void enter(TimerProperties& io_timer);

    /// Marks a timer cancelled and erases it unless a thread is inside it:
    /// then DecreaseThreadCount() is followed by another cancel().
    void cancel(TimerProperties& io_timer);

    /// Whether the handler has a timer.
    bool owns(const EventHandler& i_handler) const;

    /// Erases all timers of a handler.
    void erase(const EventHandler& i_handler);

    /// The handler's removal flag has been set: none of its timers fires.
    void hide(const EventHandler& i_handler);

    /// The armed timer that expires first, null when none is armed.
    TimerProperties* first() const;

    /// All timers in order of expiry, also those that are not armed.
    std::vector<Timer_t> list() const;

  private:
    struct Node;

    struct Earlier
    {
        bool operator()(const Node* i_left, const Node* i_right) const;
    };

    using Armed = std::set<Node*, Earlier>;

    // A timer that is not armed keeps its own link, so that re-arming it
    // allocates nothing.
    struct Node : TimerProperties
    {
        Node(Timer_t i_id, Armed::iterator i_none) :
            TimerProperties(i_id), iv_Place(0), iv_Position(i_none), iv_Link()
        {
        }

        std::uint64_t iv_Place;      // among timers of equal expiry
        Armed::iterator iv_Position; // the end unless it is armed
        Armed::node_type iv_Link;
    };

    using Owned = std::pair<const EventHandler*, Timer_t>;

    static Node& nodeOf(TimerProperties& io_timer);
    template <class Change>
    void change(TimerProperties& io_timer, Change i_change);
    void link(Node& io_node);
    void unlink(Node& io_node);
    void erase(Node& io_node);

    std::map<Timer_t, Node> iv_Timers;
    Armed iv_Armed;
    std::set<Owned> iv_ByHandler;
    std::uint64_t iv_LastPlace;
};

} // namespace tolv

#endif
