#include "tolv/vex/tolvThread.hpp"

#include "support/assertion.hpp"
#include "support/privateMember.hpp"
#include "support/waitFor.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include <atomic>
#include <type_traits>
#include <vector>

using namespace tolv;

namespace
{

const char* const SOURCE = "tolv/vex/tolvThread";

// What the wrapped functions answer instead of doing their work; 0: they work.
int g_createResult = 0;
int g_joinResult = 0;

std::atomic<int> g_exits(0);
std::atomic<void*> g_exitValue(&g_exits);

std::atomic<int> g_creates(0);
std::atomic<int> g_joins(0);
bool g_createAttributesGiven = false;

// Records who ran it, and can be held up.
struct Job
{
    void run()
    {
        iv_Tid = pthread_self();
        ++iv_Runs;
        waitFor([this] { return !iv_Hold; });
        ++iv_Ends;
    }

    void leaveThread()
    {
        ++iv_Runs;
        pthread_exit(nullptr);
    }

    void fail()
    {
        throw std::runtime_error("job");
    }

    Function function()
    {
        return FunctionRef<Job>(this, &Job::run);
    }

    pthread_t iv_Tid = {};
    std::atomic<int> iv_Runs{0};
    std::atomic<int> iv_Ends{0};
    std::atomic<bool> iv_Hold{false};
};

// A job that destroys the Thread that runs it.
struct Suicide
{
    void run()
    {
        delete iv_Thread;
        ++iv_Runs;
    }

    Thread* iv_Thread = nullptr;
    int iv_Runs = 0;
    int iv_Deleted = 0; // callables that were deleted while they ran
};

} // namespace

// Sees whether it is deleted while it runs.
template <>
class tolv::function_caller<FunctionRef<Suicide>> : public function_base
{
  public:
    explicit function_caller(const FunctionRef<Suicide>&) {}

    ~function_caller() override
    {
        s_Job->iv_Deleted += iv_Running ? 1 : 0;
    }

    void invoke() override
    {
        iv_Running = true;
        s_Job->run();
        // Touches the object, if the job deleted it or not.
        if (s_Job->iv_Deleted == 0)
        {
            iv_Running = false;
        }
    }

    function_base* clone() const override
    {
        return new function_caller(*this);
    }

    static Suicide* s_Job;

  private:
    bool iv_Running = false;
};

Suicide* function_caller<FunctionRef<Suicide>>::s_Job = nullptr;

struct CurrentThread
{
    using type = Thread* (*)();
    friend type get(CurrentThread);
};
template struct PrivateMember<CurrentThread, &Thread::current>;

TOLV_PRIVATE_MEMBER(Running, Thread, bool, iv_Running);
TOLV_PRIVATE_MEMBER(Spawns, Thread, bool, iv_Spawns);

static_assert(!std::is_copy_constructible<Thread>::value &&
                  !std::is_copy_assignable<Thread>::value,
              "a copy would be joined twice");

extern "C"
{
    int __real_pthread_create(pthread_t*, const pthread_attr_t*,
                              void* (*)(void*), void*);
    int __real_pthread_join(pthread_t, void**);
    [[noreturn]] void __real_pthread_exit(void*);

    [[noreturn]] void __wrap_pthread_exit(void* i_value)
    {
        ++g_exits;
        g_exitValue = i_value;
        __real_pthread_exit(i_value);
    }

    int __wrap_pthread_create(pthread_t* o_tid,
                              const pthread_attr_t* i_attributes,
                              void* (*i_entry)(void*), void* i_argument)
    {
        ++g_creates;
        g_createAttributesGiven = i_attributes != nullptr;
        return g_createResult != 0 ? g_createResult
                                   : __real_pthread_create(o_tid, i_attributes,
                                                           i_entry, i_argument);
    }

    int __wrap_pthread_join(pthread_t i_tid, void** o_result)
    {
        ++g_joins;
        return g_joinResult != 0 ? g_joinResult
                                 : __real_pthread_join(i_tid, o_result);
    }
}

TEST(ThreadTest, RunsTheFunctionOnAThreadOfItsOwn)
{
    Job l_job;
    Thread l_thread(l_job.function());
    EXPECT_EQ(0, g_creates);
    l_thread.Start();
    l_thread.Join();
    EXPECT_EQ(1, l_job.iv_Runs);
    EXPECT_FALSE(pthread_equal(pthread_self(), l_job.iv_Tid));
    EXPECT_TRUE(pthread_equal(l_thread.getTid(), l_job.iv_Tid));
}

TEST(ThreadTest, LeavesThroughPthreadExitAfterTheFunction)
{
    Job l_job;
    Thread l_thread(l_job.function());
    l_thread.Start();
    l_thread.Join();
    EXPECT_EQ(1, g_exits);
    EXPECT_EQ(nullptr, g_exitValue);
}

TEST(ThreadTest, IsRunningFromStartToJoinAndTheCallingThreadAlways)
{
    Job l_job;
    Thread l_spawning(l_job.function());
    EXPECT_FALSE(l_spawning.*get(Running()));
    EXPECT_TRUE(l_spawning.*get(Spawns()));
    l_spawning.Start();
    EXPECT_TRUE(l_spawning.*get(Running()));
    l_spawning.Join();
    EXPECT_FALSE(l_spawning.*get(Running()));
    Thread l_calling;
    EXPECT_TRUE(l_calling.*get(Running()));
    EXPECT_FALSE(l_calling.*get(Spawns()));
    l_calling.Join();
    EXPECT_TRUE(l_calling.*get(Running()));
}

TEST(ThreadTest, UsesDefaultAttributes)
{
    g_createAttributesGiven = true;
    Job l_job;
    Thread l_thread(l_job.function());
    l_thread.Start();
    EXPECT_FALSE(g_createAttributesGiven);
}

TEST(ThreadTest, SecondStartCreatesNoSecondThread)
{
    Job l_job;
    l_job.iv_Hold = true;
    Thread l_thread(l_job.function());
    l_thread.Start();
    l_thread.Start();
    l_job.iv_Hold = false;
    l_thread.Start();
    l_thread.Join();
    EXPECT_EQ(1, g_creates);
    EXPECT_EQ(1, l_job.iv_Runs);
}

TEST(ThreadTest, StartAfterJoinCreatesAnotherThread)
{
    Job l_job;
    Thread l_thread(l_job.function());
    l_thread.Start();
    l_thread.Join();
    l_thread.Start();
    l_thread.Join();
    EXPECT_EQ(2, g_creates);
    EXPECT_EQ(2, l_job.iv_Runs);
}

TEST(ThreadTest, JoinWaitsForTheEndAndJoinsOnce)
{
    Job l_job;
    Thread l_thread(l_job.function());
    l_thread.Join();
    EXPECT_EQ(0, g_joins);
    l_thread.Start();
    l_thread.Join();
    EXPECT_EQ(1, l_job.iv_Ends);
    l_thread.Join();
    EXPECT_EQ(1, g_joins);
}

TEST(ThreadTest, DestructorJoinsARunningThread)
{
    Job l_job;
    {
        Thread l_thread(l_job.function());
        l_thread.Start();
    }
    EXPECT_EQ(1, g_joins);
    EXPECT_EQ(1, l_job.iv_Ends);
}

TEST(ThreadTest, ThreadThatWasNeverStartedIsNotJoined)
{
    Job l_job;
    {
        const Thread l_thread(l_job.function());
    }
    EXPECT_EQ(0, g_joins);
    EXPECT_EQ(0, l_job.iv_Runs);
}

TEST(ThreadTest, StandsForTheCallingThread)
{
    Thread l_thread;
    EXPECT_TRUE(pthread_equal(pthread_self(), l_thread.getTid()));
    l_thread.Join();
    EXPECT_EQ(0, g_joins);
}

TEST(ThreadTest, CallingThreadRunsAGivenFunctionInline)
{
    Job l_job;
    Thread l_thread;
    l_thread.Start(l_job.function());
    EXPECT_EQ(1, l_job.iv_Ends);
    EXPECT_TRUE(pthread_equal(pthread_self(), l_job.iv_Tid));
    EXPECT_EQ(0, g_creates);
    l_thread.Start(); // the function is kept
    EXPECT_EQ(2, l_job.iv_Ends);
}

TEST(ThreadTest, CallingThreadFormMayBeDestroyedWhileItsFunctionRuns)
{
    Suicide l_job;
    function_caller<FunctionRef<Suicide>>::s_Job = &l_job;
    l_job.iv_Thread = new Thread;
    l_job.iv_Thread->Start(FunctionRef<Suicide>(&l_job, &Suicide::run));
    EXPECT_EQ(1, l_job.iv_Runs);
    EXPECT_EQ(0, l_job.iv_Deleted);
}

TEST(ThreadTest, GivenFunctionReplacesThatOfAThreadNotYetRunning)
{
    Job l_first;
    Job l_second;
    Thread l_thread(l_first.function());
    l_thread.Start(l_second.function());
    l_thread.Join();
    EXPECT_EQ(0, l_first.iv_Runs);
    EXPECT_EQ(1, l_second.iv_Runs);
}

TEST(ThreadTest, GivenFunctionDoesNotDisturbARunningThread)
{
    Job l_first;
    Job l_second;
    l_first.iv_Hold = true;
    Thread l_thread(l_first.function());
    l_thread.Start();
    l_thread.Start(l_second.function());
    l_first.iv_Hold = false;
    l_thread.Join();
    EXPECT_EQ(1, g_creates);
    EXPECT_EQ(1, l_first.iv_Runs);
    EXPECT_EQ(0, l_second.iv_Runs);
}

namespace
{

// Notes the current thread, around a nested one of depth 1 less.
struct Nest
{
    void run()
    {
        iv_Before.push_back(get(CurrentThread())());
        if (iv_Before.size() == 1)
        {
            Thread l_inner;
            iv_Inner = &l_inner;
            l_inner.Start(FunctionRef<Nest>(this, &Nest::run));
        }
        iv_After.push_back(get(CurrentThread())());
    }

    std::vector<Thread*> iv_Before;
    std::vector<Thread*> iv_After;
    Thread* iv_Inner = nullptr;
};

} // namespace

TEST(ThreadTest, CurrentOneIsTheInnermost)
{
    EXPECT_EQ(nullptr, get(CurrentThread())());
    Nest l_nest;
    Thread l_outer(FunctionRef<Nest>(&l_nest, &Nest::run));
    l_outer.Start();
    l_outer.Join();
    EXPECT_EQ((std::vector<Thread*>{&l_outer, l_nest.iv_Inner}),
              l_nest.iv_Before);
    EXPECT_EQ((std::vector<Thread*>{l_nest.iv_Inner, &l_outer}),
              l_nest.iv_After);
    EXPECT_EQ(nullptr, get(CurrentThread())());
}

TEST(ThreadTest, UserPointerIsTheCallers)
{
    Job l_job;
    Thread l_spawning(l_job.function());
    Thread l_calling;
    EXPECT_EQ(nullptr, l_spawning.getUserPtr());
    EXPECT_EQ(nullptr, l_calling.getUserPtr());
    l_spawning.setUserPtr(&l_job);
    EXPECT_EQ(&l_job, l_spawning.getUserPtr());
}

TEST(ThreadTest, FunctionMayLeaveTheThread)
{
    Job l_job;
    Thread l_thread(FunctionRef<Job>(&l_job, &Job::leaveThread));
    l_thread.Start();
    l_thread.Join();
    EXPECT_EQ(1, l_job.iv_Runs);
}

TEST(ThreadDeathTest, FailingCreationFailsItsAssertion)
{
    const auto l_start = []
    {
        Job l_job;
        Thread l_thread(l_job.function());
        g_createResult = EAGAIN;
        l_thread.Start();
    };
    EXPECT_ASSERTION(l_start(), SOURCE, 130, "void tolv::Thread::Start()",
                     "false");
}

TEST(ThreadDeathTest, FailingJoinFailsItsAssertion)
{
    const auto l_join = []
    {
        Job l_job;
        Thread l_thread(l_job.function());
        l_thread.Start();
        g_joinResult = EDEADLK;
        l_thread.Join();
    };
    EXPECT_ASSERTION(l_join(), SOURCE, 95, "void tolv::Thread::Join()",
                     "false");
}

TEST(ThreadDeathTest, ExceptionThatLeavesTheFunctionEndsTheProcess)
{
    const auto l_run = []
    {
        Job l_job;
        Thread l_thread(FunctionRef<Job>(&l_job, &Job::fail));
        l_thread.Start();
        l_thread.Join();
    };
    EXPECT_EXIT(l_run(), testing::KilledBySignal(SIGABRT), "runtime_error");
}
