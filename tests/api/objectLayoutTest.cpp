#include "support/objectLayout.hpp"

#include "tolv/platform/errorLogEntry.hpp"
#include "tolv/platform/platformFile.hpp"
#include "tolv/tolv.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include <vector>

using namespace tolv;

// Daemons built against an earlier release hold, derive from and construct
// these objects: their sizes and the order of their members stay.

namespace
{

constexpr std::size_t TYPE_POINTER = sizeof(void*);

struct Target
{
    void run();
};

struct Handler : EventHandler
{
    using EventHandler::EventHandler;

    void Dump(FILE* /*o_stream*/) override {}

    ACTION HandleEvent(OS_HANDLE /*i_handle*/, EVENT /*i_event*/) override
    {
        return ACTION_CONTINUE;
    }
};

} // namespace

template struct Open<Mutex, &Mutex::iv_Mutex>;
template struct Open<Condition, &Condition::iv_Cond, &Condition::iv_Waiters>;
template struct Open<TimeValue, &TimeValue::iv_Seconds,
                     &TimeValue::iv_MicroSeconds>;
template struct Open<FunctionRef<Target>, &FunctionRef<Target>::iv_Object,
                     &FunctionRef<Target>::iv_Method>;
template struct Open<Function, &Function::iv_Callable>;
template struct Open<Thread, &Thread::iv_Function, &Thread::iv_Tid,
                     &Thread::iv_Running, &Thread::iv_Spawns,
                     &Thread::iv_UserPtr>;
template struct Open<Error, &Error::iv_Origin, &Error::iv_Reason,
                     &Error::iv_Position, &Error::iv_Role, &Error::iv_NodeId,
                     &Error::iv_Errno, &Error::iv_TextLength,
                     &Error::iv_TraceLength, &Error::iv_Text, &Error::iv_Trace>;
template struct Open<pError_t, &pError_t::iv_Error>;
template struct Open<TraceFile, &TraceFile::iv_Stream, &TraceFile::iv_Lock>;
template struct Open<FunctionTrace, &FunctionTrace::iv_File,
                     &FunctionTrace::iv_Line, &FunctionTrace::iv_Name,
                     &FunctionTrace::iv_Stream>;
template struct Open<DataBuff, &DataBuff::iv_Size, &DataBuff::iv_Offset,
                     &DataBuff::iv_Data>;
template struct Open<NetMessage, &NetMessage::iv_MsgId, &NetMessage::iv_MsgType,
                     &NetMessage::iv_Flags, &NetMessage::iv_MsgSubType,
                     &NetMessage::iv_MsgAux, &NetMessage::iv_SeqNum,
                     &NetMessage::iv_Receiving, &NetMessage::iv_pProfiler>;
template struct Open<CheckPoint, &CheckPoint::id, &CheckPoint::time>;
template struct Open<Profiler, &Profiler::iv_Id, &Profiler::iv_CheckPoints>;
template struct Open<
    ThreadPool, &ThreadPool::iv_Threads, &ThreadPool::iv_MinThreads,
    &ThreadPool::iv_MaxThreads, &ThreadPool::iv_Idle, &ThreadPool::iv_Pending,
    &ThreadPool::iv_Overflows, &ThreadPool::iv_Shutdown, &ThreadPool::iv_Exited,
    &ThreadPool::iv_RetireIdle, &ThreadPool::iv_LastBusy,
    &ThreadPool::iv_LastOverflow, &ThreadPool::iv_Retired, &ThreadPool::iv_Lock,
    &ThreadPool::iv_Work, &ThreadPool::iv_Done, &ThreadPool::iv_Job,
    &ThreadPool::iv_Surplus, &ThreadPool::iv_Callers, &ThreadPool::iv_Run,
    &ThreadPool::iv_Joining>;
template struct Open<Channel, &Channel::iv_Type, &Channel::iv_TimeOut,
                     &Channel::iv_TimeOutEnabled, &Channel::iv_TimedOut,
                     &Channel::iv_Fd>;
template struct Open<Service, &Service::iv_pChannel>;
template struct Open<Acc, &Acc::iv_Factory>;
template struct Open<SockAcc, &SockAcc::iv_Host, &SockAcc::iv_Port,
                     &SockAcc::iv_SockType>;
template struct Open<Sock6Acc, &Sock6Acc::iv_Host, &Sock6Acc::iv_Port,
                     &Sock6Acc::iv_SockType>;
template struct Open<Conn, &Conn::iv_SockType, &Conn::iv_TimeOut,
                     &Conn::iv_TimeOutEnabled>;
template struct Open<App, &App::iv_Pid>;
template struct Open<SockChannel, &SockChannel::iv_RemoteAddr,
                     &SockChannel::iv_RemoteAddrText>;
template struct Open<Sock6Channel, &Sock6Channel::iv_RemoteAddr,
                     &Sock6Channel::iv_RemoteAddrText,
                     &Sock6Channel::iv_LocalAddrText, &Sock6Channel::iv_PktInfo,
                     &Sock6Channel::iv_Pkt6Info, &Sock6Channel::iv_PktInfoIsV6>;
template struct Open<EventHandler, &EventHandler::iv_ThreadRefCount,
                     &EventHandler::iv_Removed>;

TEST(ObjectLayoutTest, TimeValueIsTwoWords)
{
    EXPECT_EQ((std::vector<std::size_t>{0, 4}), memberOffsets<TimeValue>());
    EXPECT_EQ(8U, sizeof(TimeValue));
}

TEST(ObjectLayoutTest, MutexIsThatOfPosix)
{
    expectLayout<Mutex>(0);
    EXPECT_EQ(sizeof(pthread_mutex_t), sizeof(Mutex));
}

TEST(ObjectLayoutTest, ConditionIsThatOfPosixThenItsWaiters)
{
    expectLayout<Condition>(0);
}

TEST(ObjectLayoutTest, FunctionRefIsObjectThenMethod)
{
    expectLayout<FunctionRef<Target>>(0);
}

TEST(ObjectLayoutTest, FunctionIsOnePointer)
{
    expectLayout<Function>(0);
    EXPECT_EQ(sizeof(void*), sizeof(Function));
}

TEST(ObjectLayoutTest, ThreadKeepsItsOrder)
{
    expectLayout<Thread>(0);
}

TEST(ObjectLayoutTest, ErrorKeepsItsOrder)
{
    expectLayout<Error>(TYPE_POINTER);
}

#if __SIZEOF_POINTER__ == 4
TEST(ObjectLayoutTest, ErrorLiesInMemoryAsItIsSerialised)
{
    EXPECT_EQ((std::vector<std::size_t>{4, 6, 8, 12, 16, 20, 24, 28, 32, 36}),
              memberOffsets<Error>());
    EXPECT_EQ(40U, sizeof(Error));
}
#endif

TEST(ObjectLayoutTest, ErrorPointerIsOnePointer)
{
    expectLayout<pError_t>(0);
    EXPECT_EQ(sizeof(void*), sizeof(pError_t));
}

TEST(ObjectLayoutTest, BaseIsOnlyItsTypePointer)
{
    EXPECT_EQ(TYPE_POINTER, sizeof(Base));
}

TEST(ObjectLayoutTest, TraceFileIsStreamThenLock)
{
    expectLayout<TraceFile>(0);
}

TEST(ObjectLayoutTest, FunctionTraceKeepsItsOrder)
{
    expectLayout<FunctionTrace>(0);
}

TEST(ObjectLayoutTest, DataBuffIsSizeOffsetData)
{
    expectLayout<DataBuff>(TYPE_POINTER);
}

TEST(ObjectLayoutTest, NetMessageAppendsItsFieldsToDataBuff)
{
    expectLayout<NetMessage>(sizeof(DataBuff));
}

TEST(ObjectLayoutTest, CheckPointIsThreeWords)
{
    EXPECT_EQ((std::vector<std::size_t>{0, 4}), memberOffsets<CheckPoint>());
    EXPECT_EQ(12U, sizeof(CheckPoint));
}

TEST(ObjectLayoutTest, ProfilerIsIdThenCheckPoints)
{
    expectLayout<Profiler>(0);
}

TEST(ObjectLayoutTest, ThreadPoolKeepsItsOrder)
{
    expectLayout<ThreadPool>(0);
}

TEST(ObjectLayoutTest, EventHandlerIsDispatcherThenCountThenFlag)
{
    Dispatcher l_dispatcher(false);
    const Handler l_handler(l_dispatcher);
    const EventHandler& l_object = l_handler;
    const void* l_reference = nullptr; // pointers to members cannot name it
    std::memcpy(&l_reference,
                reinterpret_cast<const char*>(&l_object) + TYPE_POINTER,
                sizeof(l_reference));
    EXPECT_EQ(&l_dispatcher, l_reference);
    expectLayout<EventHandler>(2 * TYPE_POINTER);
}

TEST(ObjectLayoutTest, ErrorLogEntryIsOnePointer)
{
    EXPECT_EQ(sizeof(void*), sizeof(ErrorLogEntry));
    EXPECT_EQ(alignof(void*), alignof(ErrorLogEntry));
}

TEST(ObjectLayoutTest, PlatformFileIsOnePointer)
{
    EXPECT_EQ(sizeof(void*), sizeof(PlatformFile));
    EXPECT_EQ(alignof(void*), alignof(PlatformFile));
}

TEST(ObjectLayoutTest, ChannelKeepsItsOrder)
{
    expectLayout<Channel>(TYPE_POINTER);
}

// Members of derived classes use the padding behind a class's last one.
static std::size_t endOfChannel()
{
    return memberOffsets<Channel>().back() + sizeof(OS_HANDLE);
}

TEST(ObjectLayoutTest, SockChannelAppendsToChannel)
{
    expectLayout<SockChannel>(endOfChannel());
}

TEST(ObjectLayoutTest, Sock6ChannelAppendsToChannel)
{
    expectLayout<Sock6Channel>(endOfChannel());
}

// EventHandler: type, dispatcher, thread count, removal flag.
static constexpr std::size_t END_OF_HANDLER =
    2 * TYPE_POINTER + sizeof(std::int32_t) + sizeof(bool);

TEST(ObjectLayoutTest, ServiceAppendsItsChannelToEventHandler)
{
    expectLayout<Service>(END_OF_HANDLER);
}

TEST(ObjectLayoutTest, AcceptorsAppendToEventHandler)
{
    expectLayout<Acc>(END_OF_HANDLER);
    const std::size_t l_end =
        memberOffsets<Acc>().back() + sizeof(Acc::Factory_t);
    expectLayout<SockAcc>(l_end);
    expectLayout<Sock6Acc>(l_end);
    EXPECT_EQ(sizeof(EventHandler), sizeof(SctpLinkCheckEH));
}

TEST(ObjectLayoutTest, ConnKeepsItsOrder)
{
    expectLayout<Conn>(TYPE_POINTER);
    EXPECT_EQ(sizeof(Conn), sizeof(SockConn));
}

TEST(ObjectLayoutTest, AppIsTheProcessIdentifier)
{
    expectLayout<App>(TYPE_POINTER);
}
