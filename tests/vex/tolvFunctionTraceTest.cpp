#include "tolv/vex/tolvTrace.hpp"

#include "support/fakeUptime.hpp"
#include "support/streamContent.hpp"

#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>

#include <string>

using namespace tolv;

namespace
{

class FunctionTraceTest : public ::testing::Test
{
  protected:
    ~FunctionTraceTest() override
    {
        std::fclose(iv_Stream);
    }

    // The name that is made of the text.
    std::string nameIn(const char* i_pretty)
    {
        const std::size_t l_before = contentOf(iv_Stream).size();
        {
            const FunctionTrace l_trace(iv_Stream, "a/b.cpp", 1, i_pretty,
                                        nullptr);
        }
        const std::string l_lines = contentOf(iv_Stream).substr(l_before);
        const std::string l_entry = traceHeader("b.cpp", 1) + ">> ";
        const std::size_t l_end = l_lines.find("(  )\n");
        EXPECT_EQ(0U, l_lines.find(l_entry)) << l_lines;
        EXPECT_NE(std::string::npos, l_end) << l_lines;
        const std::string l_name =
            l_lines.substr(l_entry.size(), l_end - l_entry.size());
        EXPECT_EQ(l_entry + l_name + "(  )\n" + traceHeader("b.cpp", 1) +
                      "<< " + l_name + "(  )\n",
                  l_lines);
        return l_name;
    }

    FILE* iv_Stream = std::tmpfile();
};

using FunctionTraceDeathTest = FunctionTraceTest;

} // namespace

TEST_F(FunctionTraceTest, EntryShowsArgumentsAndExitDoesNot)
{
    {
        const FunctionTrace l_trace(iv_Stream, "src/tolv/tolvApp.cpp", 42,
                                    "int tolv::App::Run(tolv::Dispatcher&)",
                                    "count %i, %s", 3, "yes");
        EXPECT_EQ(traceHeader("tolvApp.cpp", 42) +
                      ">> tolv::App::Run( count 3, yes )\n",
                  contentOf(iv_Stream));
    }
    EXPECT_EQ(traceHeader("tolvApp.cpp", 42) +
                  ">> tolv::App::Run( count 3, yes )\n" +
                  traceHeader("tolvApp.cpp", 42) + "<< tolv::App::Run(  )\n",
              contentOf(iv_Stream));
}

TEST_F(FunctionTraceTest, WithoutAFormatThereAreNoArguments)
{
    {
        const FunctionTrace l_trace(iv_Stream, "a/b.cpp", 1, "main()", nullptr);
    }
    EXPECT_EQ(traceHeader("b.cpp", 1) + ">> main(  )\n" +
                  traceHeader("b.cpp", 1) + "<< main(  )\n",
              contentOf(iv_Stream));
}

TEST_F(FunctionTraceTest, EntryAndExitHaveTheirOwnTimes)
{
    {
        const FunctionTrace l_trace(iv_Stream, "a/b.cpp", 1, "f()", nullptr);
        fakeUptime::set(TimeValue(99999999, 7));
    }
    const std::string l_process = "[" + std::to_string(getpid()) + "]";
    EXPECT_EQ(traceHeader("b.cpp", 1) + ">> f(  )\n" + "[99999999.7      ]" +
                  l_process + "[b.cpp:1] << f(  )\n",
              contentOf(iv_Stream));
}

TEST_F(FunctionTraceTest, NestedFunctionsAreNestedLines)
{
    {
        const FunctionTrace l_outer(iv_Stream, "a/b.cpp", 1, "f()", nullptr);
        const FunctionTrace l_inner(iv_Stream, "a/b.cpp", 2, "g()", "%c", 'x');
    }
    EXPECT_EQ(traceHeader("b.cpp", 1) + ">> f(  )\n" + traceHeader("b.cpp", 2) +
                  ">> g( x )\n" + traceHeader("b.cpp", 2) + "<< g(  )\n" +
                  traceHeader("b.cpp", 1) + "<< f(  )\n",
              contentOf(iv_Stream));
}

TEST_F(FunctionTraceTest, NameIsWhatStandsBeforeTheParenthesis)
{
    EXPECT_EQ("tolv::App::Run",
              nameIn("int tolv::App::Run(tolv::Dispatcher&)"));
    EXPECT_EQ("main", nameIn("main()"));
    EXPECT_EQ("tolv::App::App", nameIn("tolv::App::App(int, char)"));
    EXPECT_EQ("tolv::App::~App", nameIn("tolv::App::~App()"));
    EXPECT_EQ("*find", nameIn("char *find(const char*)"));
    EXPECT_EQ("a::operator", nameIn("void a::operator()(int)"));
}

TEST_F(FunctionTraceTest, NameBeginsAfterTheFirstBlank)
{
    EXPECT_EQ("void a::b", nameIn("virtual void a::b()"));
    EXPECT_EQ("char* a::b", nameIn("const char* a::b(int) const"));
    EXPECT_EQ("int f", nameIn("unsigned int f()"));
    EXPECT_EQ(" ", nameIn("  ()"));
}

TEST_F(FunctionTraceTest, BlanksBehindTheParenthesisDoNotCount)
{
    EXPECT_EQ("f", nameIn("f(unsigned int, int)"));
}

TEST_F(FunctionTraceTest, TextWithoutANameIsCopiedWhole)
{
    EXPECT_EQ("no parenthesis here", nameIn("no parenthesis here"));
    EXPECT_EQ("", nameIn(""));
    EXPECT_EQ("(anonymous)::f", nameIn("(anonymous)::f"));
    EXPECT_EQ("(anonymous class)::f()", nameIn("(anonymous class)::f()"));
    EXPECT_EQ("void (anonymous namespace)::f()",
              nameIn("void (anonymous namespace)::f()"));
    EXPECT_EQ("()", nameIn("()"));
    EXPECT_EQ(" ()", nameIn(" ()"));
}

TEST_F(FunctionTraceTest, NameIsACopy)
{
    {
        char l_pretty[] = "void f()";
        const FunctionTrace l_trace(iv_Stream, "a/b.cpp", 1, l_pretty, nullptr);
        std::memset(l_pretty, 'x', sizeof(l_pretty) - 1);
    }
    EXPECT_EQ(traceHeader("b.cpp", 1) + ">> f(  )\n" + traceHeader("b.cpp", 1) +
                  "<< f(  )\n",
              contentOf(iv_Stream));
}

TEST_F(FunctionTraceTest, CompilersTextIsUnderstood)
{
    const FunctionTrace l_trace(iv_Stream, __FILE__, __LINE__,
                                __PRETTY_FUNCTION__, nullptr);
    EXPECT_NE(std::string::npos,
              contentOf(iv_Stream).find("CompilersTextIsUnderstood_Test"));
    EXPECT_NE(std::string::npos,
              contentOf(iv_Stream).find("[tolvFunctionTraceTest.cpp:"));
}

TEST_F(FunctionTraceTest, StreamIsPassedOnToTheInstance)
{
    FILE* l_other = std::tmpfile();
    ASSERT_NE(nullptr, l_other);
    TraceFile::getInstance(l_other);
    {
        const FunctionTrace l_trace(iv_Stream, "a/b.cpp", 1, "f()", nullptr);
    }
    EXPECT_EQ("", contentOf(iv_Stream)) << "the instance was made before";
    EXPECT_EQ(traceHeader("b.cpp", 1) + ">> f(  )\n" + traceHeader("b.cpp", 1) +
                  "<< f(  )\n",
              contentOf(l_other));
    std::fclose(l_other);
}

TEST_F(FunctionTraceDeathTest, PathWithoutASlashIsNotGuarded)
{
    EXPECT_DEATH(FunctionTrace(iv_Stream, "b.cpp", 1, "f()", nullptr), "");
}
