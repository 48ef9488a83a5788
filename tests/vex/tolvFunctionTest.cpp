#include "tolv/vex/tolvFunction.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace tolv;

namespace
{

// Says which method of which object was called.
struct Target
{
    virtual ~Target() = default;

    void plain()
    {
        iv_Called += "plain ";
    }

    int withResult()
    {
        iv_Called += "withResult ";
        return 1;
    }

    virtual void overridden()
    {
        iv_Called += "base ";
    }

    std::string iv_Called;
};

struct DerivedTarget : Target
{
    void overridden() override
    {
        iv_Called += "derived ";
    }
};

// Counts its own living copies.
struct Counted
{
    explicit Counted(int& io_living) : iv_Living(&io_living)
    {
        ++*iv_Living;
    }

    Counted(const Counted& i_other) : iv_Living(i_other.iv_Living)
    {
        ++*iv_Living;
    }

    Counted& operator=(const Counted&) = delete;

    ~Counted()
    {
        --*iv_Living;
    }

    void operator()() {}

    int* iv_Living;
};

// What a Function does with its callable.
struct Recorded
{
    void run() {}

    static std::vector<std::string> s_events;
};

std::vector<std::string> Recorded::s_events;

} // namespace

namespace tolv
{

template <>
class function_caller<FunctionRef<Recorded>> : public function_base
{
  public:
    explicit function_caller(const FunctionRef<Recorded>&) {}

    ~function_caller() override
    {
        Recorded::s_events.emplace_back("deleted");
    }

    void invoke() override {}

    function_base* clone() const override
    {
        Recorded::s_events.emplace_back("cloned");
        return new function_caller(*this);
    }
};

} // namespace tolv

namespace
{

Function plainOf(Target& io_target)
{
    return FunctionRef<Target>(&io_target, &Target::plain);
}

} // namespace

TEST(FunctionTest, CallsTheMethodOnTheObject)
{
    Target l_target;
    plainOf(l_target)();
    EXPECT_EQ("plain ", l_target.iv_Called);
}

TEST(FunctionTest, IgnoresTheMethodsResult)
{
    Target l_target;
    Function l_function(
        FunctionRef<Target, int>(&l_target, &Target::withResult));
    l_function();
    EXPECT_EQ("withResult ", l_target.iv_Called);
}

TEST(FunctionTest, CallsVirtualMethodsThroughTheObject)
{
    DerivedTarget l_target;
    Function l_function(FunctionRef<Target>(&l_target, &Target::overridden));
    l_function();
    EXPECT_EQ("derived ", l_target.iv_Called);
}

TEST(FunctionTest, CopySurvivesTheOriginalAndTheOriginalTheCopy)
{
    Target l_target;
    Function* l_first = new Function(plainOf(l_target));
    Function* l_second = new Function(*l_first);
    Function* l_third = new Function(*l_second);
    delete l_second;
    (*l_first)();
    delete l_first;
    (*l_third)();
    delete l_third;
    EXPECT_EQ("plain plain ", l_target.iv_Called);
}

TEST(FunctionTest, AssignmentReplacesWhatWasHeld)
{
    Target l_one;
    Target l_two;
    Function l_function = plainOf(l_one);
    const Function l_other = plainOf(l_two);
    l_function = l_other;
    l_function();
    EXPECT_EQ("", l_one.iv_Called);
    EXPECT_EQ("plain ", l_two.iv_Called);
}

TEST(FunctionTest, AssignmentDeletesItsOwnBeforeItClones)
{
    Recorded l_one;
    Recorded l_two;
    Function l_function(FunctionRef<Recorded>(&l_one, &Recorded::run));
    const Function l_other(FunctionRef<Recorded>(&l_two, &Recorded::run));
    Recorded::s_events.clear();
    l_function = l_other;
    ASSERT_EQ(2U, Recorded::s_events.size());
    EXPECT_EQ("deleted", Recorded::s_events[0]);
    EXPECT_EQ("cloned", Recorded::s_events[1]);
}

TEST(FunctionTest, SelfAssignmentKeepsWhatIsHeld)
{
    Target l_target;
    Function l_function = plainOf(l_target);
    const Function& l_same = l_function;
    l_function = l_same;
    l_function();
    EXPECT_EQ("plain ", l_target.iv_Called);
}

TEST(FunctionTest, EmptyOnesCanBeCopiedAssignedAndFilled)
{
    Target l_target;
    const Function l_empty;
    Function l_copy(l_empty);
    l_copy = l_empty;
    l_copy = plainOf(l_target);
    l_copy();
    EXPECT_EQ("plain ", l_target.iv_Called);
    l_copy = l_empty; // gives up what it held; nothing is called any more
    EXPECT_EQ("plain ", l_target.iv_Called);
}

TEST(FunctionCallerTest, CloneIsAnIndependentCopyOfTheSameType)
{
    int l_living = 0;
    {
        function_base* l_first = nullptr;
        {
            const Counted l_callable(l_living);
            l_first = new function_caller<Counted>(l_callable);
        }
        EXPECT_EQ(1, l_living);
        function_base* l_second = l_first->clone();
        EXPECT_EQ(2, l_living);
        EXPECT_NE(nullptr, dynamic_cast<function_caller<Counted>*>(l_second));
        delete l_first;
        EXPECT_EQ(1, l_living);
        l_second->invoke();
        delete l_second;
    }
    EXPECT_EQ(0, l_living);
}
