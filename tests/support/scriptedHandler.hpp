// A handler whose callbacks each test writes itself.
#ifndef TOLV_TESTS_SUPPORT_SCRIPTEDHANDLER_HPP
#define TOLV_TESTS_SUPPORT_SCRIPTEDHANDLER_HPP

#include "tolv/vex/tolvEventHandler.hpp"

#include <functional>

/// A callback without a script does what EventHandler's own does; HandleEvent()
/// answers ACTION_UNREGISTER, so that an event that nobody reads comes once.
struct ScriptedHandler : tolv::EventHandler
{
    explicit ScriptedHandler(tolv::Dispatcher& io_dispatcher) :
        EventHandler(io_dispatcher), iv_OnEvent(), iv_OnTick(), iv_OnRefresh(),
        iv_OnDestruction()
    {
    }

    ~ScriptedHandler() override
    {
        if (iv_OnDestruction)
        {
            iv_OnDestruction();
        }
    }

    ScriptedHandler(const ScriptedHandler&) = delete;
    ScriptedHandler& operator=(const ScriptedHandler&) = delete;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(tolv::OS_HANDLE i_handle, EVENT i_event) override
    {
        return iv_OnEvent ? iv_OnEvent(i_handle, i_event) : ACTION_UNREGISTER;
    }

    ACTION TimerTick(tolv::Timer_t i_timer, EVENT i_event) override
    {
        return iv_OnTick ? iv_OnTick(i_timer, i_event)
                         : EventHandler::TimerTick(i_timer, i_event);
    }

    void RefreshHandler(tolv::OS_HANDLE i_handle, EVENT i_event) override
    {
        if (iv_OnRefresh)
        {
            iv_OnRefresh(i_handle, i_event);
        }
    }

    std::function<ACTION(tolv::OS_HANDLE, EVENT)> iv_OnEvent;
    std::function<ACTION(tolv::Timer_t, EVENT)> iv_OnTick;
    std::function<void(tolv::OS_HANDLE, EVENT)> iv_OnRefresh;
    std::function<void()> iv_OnDestruction;
};

#endif
