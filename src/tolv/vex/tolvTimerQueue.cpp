#include "tolv/vex/tolvTimerQueue.hpp"

#include <algorithm>
#include <tuple>

namespace tolv
{

TimerQueue::TimerQueue() :
    iv_Timers(), iv_Armed(), iv_ByHandler(), iv_LastPlace(0)
{
}

bool TimerQueue::contains(Timer_t i_id) const
{
    return iv_Timers.count(i_id) != 0;
}

TimerProperties* TimerQueue::find(Timer_t i_id)
{
    const auto l_found = iv_Timers.find(i_id);
    return l_found != iv_Timers.end() ? &l_found->second : nullptr;
}

void TimerQueue::add(Timer_t i_id, EventHandler& io_handler,
                     const TimeValue& i_interval, const TimeValue& i_now)
{
    Node& l_node =
        iv_Timers
            .emplace(std::piecewise_construct, std::forward_as_tuple(i_id),
                     std::forward_as_tuple(i_id, iv_Armed.end()))
            .first->second;
    l_node.setHandler(io_handler);
    iv_ByHandler.emplace(&io_handler, i_id);
    update(l_node, i_interval, i_now);
}

void TimerQueue::update(TimerProperties& io_timer, const TimeValue& i_interval,
                        const TimeValue& i_now)
{
    change(io_timer, [&] { io_timer.setInterval(i_interval, i_now); });
}

void TimerQueue::rearm(TimerProperties& io_timer, const TimeValue& i_now)
{
    change(io_timer,
           [&]
           {
               io_timer.restart(i_now);
               io_timer.setEnabled(true);
           });
}

void TimerQueue::enable(TimerProperties& io_timer)
{
    if (!io_timer.isArmed())
    {
        change(io_timer, [&] { io_timer.setEnabled(true); });
    }
}

void TimerQueue::enter(TimerProperties& io_timer)
{
    change(io_timer, [&] { io_timer.setEnabled(false); });
    io_timer.IncreaseThreadCount();
}

void TimerQueue::cancel(TimerProperties& io_timer)
{
    change(io_timer, [&] { io_timer.setRemoved(); });
    if (!io_timer.isBusy())
    {
        erase(nodeOf(io_timer));
    }
}

bool TimerQueue::owns(const EventHandler& i_handler) const
{
    const auto l_owned = iv_ByHandler.lower_bound(Owned(&i_handler, 0));
    return l_owned != iv_ByHandler.end() && l_owned->first == &i_handler;
}

void TimerQueue::erase(const EventHandler& i_handler)
{
    auto l_owned = iv_ByHandler.lower_bound(Owned(&i_handler, 0));
    while (l_owned != iv_ByHandler.end() && l_owned->first == &i_handler)
    {
        Node& l_node = iv_Timers.find(l_owned->second)->second;
        ++l_owned;
        unlink(l_node);
        erase(l_node);
    }
}

void TimerQueue::hide(const EventHandler& i_handler)
{
    for (auto l_owned = iv_ByHandler.lower_bound(Owned(&i_handler, 0));
         l_owned != iv_ByHandler.end() && l_owned->first == &i_handler;
         ++l_owned)
    {
        unlink(iv_Timers.find(l_owned->second)->second);
    }
}

TimerProperties* TimerQueue::first() const
{
    return iv_Armed.empty() ? nullptr : *iv_Armed.begin();
}

std::vector<Timer_t> TimerQueue::list() const
{
    std::vector<const Node*> l_nodes;
    l_nodes.reserve(iv_Timers.size());
    for (const auto& l_timer : iv_Timers)
    {
        l_nodes.push_back(&l_timer.second);
    }
    std::sort(l_nodes.begin(), l_nodes.end(), Earlier());
    std::vector<Timer_t> l_list;
    l_list.reserve(l_nodes.size());
    for (const Node* l_node : l_nodes)
    {
        l_list.push_back(l_node->getId());
    }
    return l_list;
}

bool TimerQueue::Earlier::operator()(const Node* i_left,
                                     const Node* i_right) const
{
    return std::make_pair(i_left->getExpiry(), i_left->iv_Place) <
           std::make_pair(i_right->getExpiry(), i_right->iv_Place);
}

// Every timer that the queue hands out is a node of it.
TimerQueue::Node& TimerQueue::nodeOf(TimerProperties& io_timer)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-static-cast-downcast)
    return static_cast<Node&>(io_timer);
}

// The order depends on what is changed: the timer leaves it meanwhile.
template <class Change>
void TimerQueue::change(TimerProperties& io_timer, Change i_change)
{
    Node& l_node = nodeOf(io_timer);
    unlink(l_node);
    i_change();
    if (l_node.isArmed())
    {
        link(l_node);
    }
}

void TimerQueue::link(Node& io_node)
{
    io_node.iv_Place = ++iv_LastPlace;
    if (io_node.iv_Link.empty())
    {
        io_node.iv_Position = iv_Armed.insert(&io_node).first;
    }
    else
    {
        io_node.iv_Position =
            iv_Armed.insert(std::move(io_node.iv_Link)).position;
    }
}

void TimerQueue::unlink(Node& io_node)
{
    if (io_node.iv_Position != iv_Armed.end())
    {
        io_node.iv_Link = iv_Armed.extract(io_node.iv_Position);
        io_node.iv_Position = iv_Armed.end();
    }
}

void TimerQueue::erase(Node& io_node)
{
    iv_ByHandler.erase(Owned(io_node.getHandler(), io_node.getId()));
    iv_Timers.erase(io_node.getId());
}

} // namespace tolv
