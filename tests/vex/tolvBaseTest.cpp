#include "tolv/vex/tolvBase.hpp"

#include "support/fakePlatform.hpp"
#include "tolv/vex/tolvTrace.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

#include <new>
#include <string>
#include <thread>
#include <vector>

using namespace tolv;

namespace
{

enum Formatting
{
    FORMAT_AS_ALWAYS,
    FORMAT_FAILS
};

using TextForm_t = pError_t (Base::*)(unsigned char, unsigned short,
                                      const char*);
using FormatForm_t = pError_t (Base::*)(unsigned char, unsigned short, int,
                                        const char*, ...);
// Through a pointer compilers do not check the format; they mind an empty one.
constexpr TextForm_t TEXT_FORM = &Base::BuildLog;
constexpr FormatForm_t FORMAT_FORM = &Base::BuildLog;

Formatting g_formatting = FORMAT_AS_ALWAYS;
char g_notAllocated = 0; // where a failed formatting points

thread_local char* t_text = nullptr; // what the last formatting made
thread_local bool t_textFreed = false;
thread_local bool t_outOfMemory = false;

} // namespace

extern "C"
{
    int __real_vasprintf(char** o_text, const char* i_format, va_list i_args);
    void __real_free(void* i_block);

    int __wrap_vasprintf(char** o_text, const char* i_format, va_list i_args)
    {
        int l_length = -1;
        *o_text = &g_notAllocated; // undefined after a failure
        if (g_formatting == FORMAT_AS_ALWAYS)
        {
            l_length = __real_vasprintf(o_text, i_format, i_args);
        }
        t_text = *o_text;
        t_textFreed = false;
        errno = ENOMEM; // also a success may leave something there
        return l_length;
    }

    void __wrap_free(void* i_block)
    {
        if (i_block != nullptr && i_block == t_text)
        {
            t_textFreed = true;
        }
        if (i_block != &g_notAllocated)
        {
            __real_free(i_block);
        }
        errno = EINVAL; // older C libraries do not keep it
    }
}

void* operator new(std::size_t i_size, const std::nothrow_t& /*i_tag*/) noexcept
{
    return t_outOfMemory ? nullptr : ::operator new(i_size);
}

namespace
{

class BaseTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fakePlatform::forgetCalls();
    }

    Base iv_Base;
};

// Records what reaches the second form.
class Recorder : public Base
{
  public:
    using Base::BuildLog;

    pError_t BuildLog(unsigned char i_origin, unsigned short i_reason,
                      int i_traceDesc, const char* i_format, ...) override
        TOLV_PRINTF(5, 6)
    {
        iv_Origin = i_origin;
        iv_Reason = i_reason;
        iv_TraceDesc = i_traceDesc;
        iv_Format = i_format;
        return pError_t(new Error);
    }

    int iv_Origin = 0;
    int iv_Reason = 0;
    int iv_TraceDesc = 0;
    const char* iv_Format = nullptr;
};

} // namespace

TEST_F(BaseTest, ErrorCarriesOriginReasonAndFormattedText)
{
    const pError_t l_error = iv_Base.BuildLog(
        10, 0x440F, 0, "Write failed fd[%i] io_Bytes[%i] %s", -3, 17, "now");
    ASSERT_TRUE(l_error);
    EXPECT_EQ(10, l_error->getOrigin());
    EXPECT_EQ(0x440F, l_error->getReason());
    EXPECT_STREQ("Write failed fd[-3] io_Bytes[17] now", l_error->getText());
    EXPECT_EQ(sizeof("Write failed fd[-3] io_Bytes[17] now"),
              l_error->getTextLength());
}

TEST_F(BaseTest, MessageMayBeOfAnyLength)
{
    const std::string l_long(100000, 'x');
    const pError_t l_error = iv_Base.BuildLog(1, 2, 0, "%s!", l_long.c_str());
    ASSERT_TRUE(l_error);
    EXPECT_EQ(l_long + "!", l_error->getText());
}

TEST_F(BaseTest, OneCharacterIsAMessage)
{
    EXPECT_TRUE(iv_Base.BuildLog(1, 2, 0, "%c", 'x'));
}

TEST_F(BaseTest, TextFormIsAFormat)
{
    const pError_t l_error = iv_Base.BuildLog(2, 0x4404, "100%% of %%i");
    ASSERT_TRUE(l_error);
    EXPECT_EQ(2, l_error->getOrigin());
    EXPECT_EQ(0x4404, l_error->getReason());
    EXPECT_STREQ("100% of %i", l_error->getText());
}

TEST_F(BaseTest, TextFormForwardsThroughTheVirtualOperation)
{
    Recorder l_recorder;
    Base& l_base = l_recorder;
    g_TolvTraceDesc = 1234;
    static const char s_text[] = "System call to bind failed";
    EXPECT_TRUE(l_base.BuildLog(2, 0x4404, s_text));
    EXPECT_EQ(2, l_recorder.iv_Origin);
    EXPECT_EQ(0x4404, l_recorder.iv_Reason);
    EXPECT_EQ(1234, l_recorder.iv_TraceDesc);
    EXPECT_EQ(s_text, l_recorder.iv_Format);
}

TEST_F(BaseTest, EmptyMessageIsNoError)
{
    EXPECT_FALSE((iv_Base.*FORMAT_FORM)(1, 2, 0, ""));
    EXPECT_TRUE(t_textFreed);
    EXPECT_FALSE(iv_Base.BuildLog(1, 2, 0, "%s", ""));
    EXPECT_TRUE(t_textFreed);
    EXPECT_FALSE((iv_Base.*TEXT_FORM)(1, 2, ""));
    EXPECT_TRUE(t_textFreed);
    EXPECT_TRUE(fakePlatform::calls().empty());
}

TEST_F(BaseTest, FailedFormattingIsNoError)
{
    g_formatting = FORMAT_FAILS;
    EXPECT_FALSE(iv_Base.BuildLog(1, 2, 0, "something"));
    EXPECT_FALSE(t_textFreed) << "what a failure left was freed";
    EXPECT_TRUE(fakePlatform::calls().empty());
}

TEST_F(BaseTest, FormattedTextIsFreed)
{
    const pError_t l_error = iv_Base.BuildLog(1, 2, 0, "something");
    ASSERT_TRUE(l_error);
    EXPECT_NE(t_text, l_error->getText());
    EXPECT_TRUE(t_textFreed);
}

TEST_F(BaseTest, ShortageOfMemoryGivesNoErrorAndNoException)
{
    errno = EPIPE;
    t_outOfMemory = true;
    pError_t l_error = iv_Base.BuildLog(1, 2, 0, "something");
    t_outOfMemory = false;
    EXPECT_EQ(EPIPE, errno);
    EXPECT_FALSE(l_error);
    EXPECT_TRUE(t_textFreed);
}

TEST_F(BaseTest, ErrnoStaysAsItWas)
{
    errno = EPIPE;
    const pError_t l_formatted = iv_Base.BuildLog(1, 2, 0, "something");
    EXPECT_EQ(EPIPE, errno);

    errno = EAGAIN;
    const pError_t l_plain = iv_Base.BuildLog(1, 2, "something");
    EXPECT_EQ(EAGAIN, errno);

    errno = EBUSY;
    const pError_t l_empty = (iv_Base.*TEXT_FORM)(1, 2, "");
    EXPECT_EQ(EBUSY, errno);

    g_formatting = FORMAT_FAILS;
    errno = EDOM;
    const pError_t l_failed = iv_Base.BuildLog(1, 2, 0, "something");
    EXPECT_EQ(EDOM, errno);
}

TEST_F(BaseTest, ErrorCarriesTheErrnoOfTheFailure)
{
    errno = EPIPE;
    const pError_t l_error = iv_Base.BuildLog(1, 2, 0, "something");
    ASSERT_TRUE(l_error);
    EXPECT_EQ(EPIPE, l_error->getErrno());
}

TEST_F(BaseTest, TraceDescriptorIsNotUsed)
{
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    EXPECT_TRUE(iv_Base.BuildLog(1, 2, -77, "something"));
    EXPECT_EQ("", ::testing::internal::GetCapturedStdout());
    EXPECT_EQ("", ::testing::internal::GetCapturedStderr());
    // What every error reads; nothing is traced or logged.
    const auto l_calls = fakePlatform::calls();
    ASSERT_EQ(4U, l_calls.size());
    EXPECT_EQ(3U, fakePlatform::callsOf("RegistryRead").size());
    EXPECT_STREQ("TraceBufferReadDiff", l_calls[3].service);
}

TEST_F(BaseTest, ErrorsAreBuiltOnManyThreadsAtOnce)
{
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 100;
    fakePlatform::g_RegistryRead = [](const std::string&, unsigned char* o_byte)
    {
        ++*o_byte;
        return 0;
    };
    const auto l_build = [this](int i_number)
    {
        for (int l_round = 0; l_round != ROUNDS; ++l_round)
        {
            errno = i_number;
            const pError_t l_error =
                iv_Base.BuildLog(1, 2, 0, "%i of %i", l_round, i_number);
            ASSERT_TRUE(l_error);
            ASSERT_EQ(i_number, errno);
            ASSERT_EQ(i_number, l_error->getErrno());
            ASSERT_EQ(1U, l_error->getPosition());
            ASSERT_EQ(2U, l_error->getRole());
            ASSERT_EQ(3U, l_error->getNodeId());
            ASSERT_EQ(std::to_string(l_round) + " of " +
                          std::to_string(i_number),
                      l_error->getText());
        }
    };
    std::vector<std::thread> l_threads;
    for (int l_number = 1; l_number <= THREADS; ++l_number)
    {
        l_threads.emplace_back(l_build, l_number);
    }
    for (std::thread& l_thread : l_threads)
    {
        l_thread.join();
    }
}

TEST_F(BaseTest, DestructorIsVirtual)
{
    bool l_destroyed = false;
    class Derived : public Base
    {
      public:
        explicit Derived(bool& o_destroyed) : iv_Destroyed(o_destroyed) {}
        ~Derived() override
        {
            iv_Destroyed = true;
        }

      private:
        bool& iv_Destroyed;
    };
    Base* l_base = new Derived(l_destroyed);
    delete l_base;
    EXPECT_TRUE(l_destroyed);
}
