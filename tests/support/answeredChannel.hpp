// A channel all of whose system calls the test answers.
#ifndef TOLV_TESTS_SUPPORT_ANSWEREDCHANNEL_HPP
#define TOLV_TESTS_SUPPORT_ANSWEREDCHANNEL_HPP

#include "support/fakeSockets.hpp"
#include "tolv/vex/tolvChannel.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>

/// Expects an error of this origin, reason and text.
inline void expectError(const tolv::pError_t& i_error, int i_origin,
                        int i_reason, const std::string& i_text)
{
    ASSERT_TRUE(i_error);
    EXPECT_EQ(i_origin, i_error->getOrigin());
    EXPECT_EQ(i_reason, i_error->getReason());
    EXPECT_EQ(i_text, i_error->getText());
}

/// Expects a call that reads or sets an option of level SOL_SOCKET.
inline void expectOption(const fakeSockets::Call& i_call,
                         const char* i_function, int i_option,
                         const std::string& i_value)
{
    EXPECT_EQ(i_function, i_call.function);
    EXPECT_EQ(SOL_SOCKET, i_call.level);
    EXPECT_EQ(i_option, i_call.option);
    EXPECT_EQ(i_value, i_call.bytes);
}

/// A fixture with a channel on a descriptor of no open file. Every answer that
/// a test prepares has to be used.
template <class CHANNEL>
class AnsweredChannelTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fakeSockets::forget();
    }

    void TearDown() override
    {
        iv_Channel.reset();
        EXPECT_EQ(0U, fakeSockets::answersLeft());
    }

    CHANNEL& open(tolv::SockType i_type)
    {
        iv_Channel = std::make_unique<CHANNEL>(HANDLE, i_type);
        return *iv_Channel;
    }

    // With a time-out of seven seconds and five microseconds.
    CHANNEL& openTimed(tolv::SockType i_type)
    {
        open(i_type).setTimeOut(tolv::TimeValue(7, 5));
        return *iv_Channel;
    }

    // The channel is ready, and no error is pending.
    static void answerReady()
    {
        fakeSockets::answer("select", {1});
        fakeSockets::answer("getsockopt", {0, 0, fakeSockets::bytesOf(0)});
    }

    tolv::pError_t read(unsigned int i_count)
    {
        iv_Count = i_count;
        return iv_Channel->Read(iv_Buffer, iv_Count);
    }

    tolv::pError_t peek(unsigned int i_count)
    {
        iv_Count = i_count;
        return iv_Channel->Peek(iv_Buffer, iv_Count);
    }

    tolv::pError_t write(std::string i_bytes)
    {
        iv_Count = static_cast<unsigned int>(i_bytes.size());
        return iv_Channel->Write(i_bytes.data(), iv_Count);
    }

    std::string buffer(std::size_t i_count) const
    {
        return std::string(iv_Buffer, i_count);
    }

    // Expects a call that receives into the buffer from an offset on.
    void expectReceiving(const fakeSockets::Call& i_call,
                         const char* i_function, std::size_t i_offset,
                         std::size_t i_length, int i_flags) const
    {
        EXPECT_EQ(i_function, i_call.function);
        EXPECT_EQ(HANDLE, i_call.handle);
        EXPECT_EQ(iv_Buffer + i_offset, i_call.buffer);
        EXPECT_EQ(i_length, i_call.length);
        EXPECT_EQ(i_flags, i_call.flags);
    }

    static constexpr int HANDLE = 900; // of no open file

    std::unique_ptr<CHANNEL> iv_Channel;
    char iv_Buffer[64] = {};
    unsigned int iv_Count = 0;
};

#endif
