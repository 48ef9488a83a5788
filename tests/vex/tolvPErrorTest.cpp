#include "tolv/vex/tolvError.hpp"

#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

using namespace tolv;

namespace
{

// Knows how many of its kind exist.
class CountedError : public Error
{
  public:
    CountedError()
    {
        ++s_alive;
    }

    ~CountedError() override
    {
        --s_alive;
    }

    static int s_alive;
};

int CountedError::s_alive = 0;

class PErrorTest : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        EXPECT_EQ(0, CountedError::s_alive);
    }
};

pError_t failing()
{
    pError_t l_error(new CountedError);
    return l_error;
}

pError_t handOn(pError_t i_error)
{
    return i_error;
}

Error* consume(pError_t i_error)
{
    return i_error.get(); // deleted when the call ends
}

} // namespace

TEST_F(PErrorTest, EmptyMeansSuccess)
{
    const pError_t l_error;
    EXPECT_FALSE(l_error);
    EXPECT_EQ(nullptr, l_error.get());
}

TEST_F(PErrorTest, OwnsWhatItIsGivenAndDeletesIt)
{
    {
        Error* l_raw = new CountedError;
        const pError_t l_error(l_raw);
        EXPECT_TRUE(l_error);
        EXPECT_EQ(l_raw, l_error.get());
        EXPECT_EQ(l_raw, l_error.operator->());
        EXPECT_EQ(l_raw, &*l_error);
        EXPECT_EQ(1, CountedError::s_alive);
    }
    EXPECT_EQ(0, CountedError::s_alive);
}

TEST_F(PErrorTest, CopyTransfers)
{
    pError_t l_first = failing();
    Error* l_raw = l_first.get();
    pError_t l_second(l_first);
    EXPECT_FALSE(l_first);
    EXPECT_EQ(l_raw, l_second.get());
    pError_t l_third(std::move(l_second));
    EXPECT_FALSE(l_second);
    EXPECT_EQ(l_raw, l_third.get());
    EXPECT_EQ(1, CountedError::s_alive);
}

TEST_F(PErrorTest, AssignmentTransfersAndDeletesWhatWasThere)
{
    pError_t l_first = failing();
    pError_t l_second = failing();
    Error* l_raw = l_first.get();
    l_second = l_first;
    EXPECT_FALSE(l_first);
    EXPECT_EQ(l_raw, l_second.get());
    EXPECT_EQ(1, CountedError::s_alive);
    l_second = failing();
    EXPECT_NE(nullptr, l_second.get());
    EXPECT_EQ(1, CountedError::s_alive);
    l_second = pError_t();
    EXPECT_FALSE(l_second);
    EXPECT_EQ(0, CountedError::s_alive);
}

TEST_F(PErrorTest, AssigningAnEmptyOneEmpties)
{
    pError_t l_empty;
    pError_t l_error = failing();
    l_error = l_empty;
    EXPECT_FALSE(l_error);
    EXPECT_EQ(0, CountedError::s_alive);
}

TEST_F(PErrorTest, AssigningItselfKeepsTheError)
{
    pError_t l_error = failing();
    pError_t& l_same = l_error;
    Error* l_raw = l_error.get();
    l_error = l_same;
    EXPECT_EQ(l_raw, l_error.get());
    l_error = std::move(l_same);
    EXPECT_EQ(l_raw, l_error.get());
    EXPECT_EQ(1, CountedError::s_alive);
}

TEST_F(PErrorTest, ValueReturnsCarryTheError)
{
    const pError_t l_error = handOn(handOn(failing()));
    EXPECT_TRUE(l_error);
    EXPECT_EQ(1, CountedError::s_alive);
}

TEST_F(PErrorTest, ValueArgumentsTakeTheError)
{
    pError_t l_error = failing();
    EXPECT_NE(nullptr, consume(l_error));
    EXPECT_FALSE(l_error);
    EXPECT_EQ(0, CountedError::s_alive);
    EXPECT_NE(nullptr, consume(failing()));
    EXPECT_EQ(0, CountedError::s_alive);
}

TEST_F(PErrorTest, ReleaseHandsTheErrorOver)
{
    pError_t l_error = failing();
    Error* l_raw = l_error.release();
    EXPECT_FALSE(l_error);
    EXPECT_EQ(nullptr, l_error.release());
    EXPECT_EQ(1, CountedError::s_alive);
    delete l_raw;
}

TEST_F(PErrorTest, ResetDeletesAndTakes)
{
    pError_t l_error = failing();
    Error* l_raw = new CountedError;
    l_error.reset(l_raw);
    EXPECT_EQ(l_raw, l_error.get());
    EXPECT_EQ(1, CountedError::s_alive);
    l_error.reset(l_raw);
    EXPECT_EQ(l_raw, l_error.get());
    EXPECT_EQ(1, CountedError::s_alive);
    l_error.reset();
    EXPECT_FALSE(l_error);
    EXPECT_EQ(0, CountedError::s_alive);
}

TEST_F(PErrorTest, TakesAndTellsOnlyWhenAsked)
{
    EXPECT_FALSE((std::is_convertible<Error*, pError_t>::value));
    EXPECT_FALSE((std::is_convertible<pError_t, bool>::value));
}

TEST_F(PErrorTest, IsNotCopiedFromAConstant)
{
    EXPECT_FALSE((std::is_constructible<pError_t, const pError_t&>::value));
    EXPECT_FALSE((std::is_assignable<pError_t&, const pError_t&>::value));
}
