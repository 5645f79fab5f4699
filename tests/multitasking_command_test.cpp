#include <cstdlib>
#include <cstring>
#include <memory>

#include "multitasking.h"
#include "support/fixture.h"
#include "support/shown_process.h"
#include "support/syslog_capture.h"

namespace {

using Strings = std::vector<std::string>;

constexpr DWORD kLimitMs = 60000;

struct CommandLineCase {
    int line;
    const char *text;
    Strings tokens;
};

const CommandLineCase kCases[] = {
    {__LINE__, "", {}},
    {__LINE__, "   \t\n ", {}},
    {__LINE__, "prog", {"prog"}},
    {__LINE__, "prog  -x   y", {"prog", "-x", "y"}},
    {__LINE__, " \t prog\n-x\v\f\ry  ", {"prog", "-x", "y"}},
    {__LINE__, "\"a b\" c", {"a b", "c"}},
    {__LINE__, "  \"a b\"", {"a b"}},
    {__LINE__, "\"  a\tb  \"", {"  a\tb  "}},
    {__LINE__, "\"\"", {""}},
    {__LINE__, "a \"\" b", {"a", "", "b"}},
    {__LINE__, "\"a\"\"b\"", {"a", "b"}},
    {__LINE__, "\"a\"b", {"a", "b"}},
    {__LINE__, "x\"a b\" c", {"x\"a b", "a b", "c"}},
    {__LINE__, "a \"b c", {"a", "b c"}},
    {__LINE__, "a\"", {"a\"", ""}},
    {__LINE__, "\"", {""}},
    {__LINE__, "a 'b c' \\\"d e\\\"", {"a", "'b", "c'", "\\\"d e\\", "d e\\"}},
    {__LINE__, "\xE4 \xFF", {"\xE4", "\xFF"}},
};

Strings cut(const std::string &text, size_t room) {
    const std::unique_ptr<char, FreeDeleter> copy(strdup(text.c_str()));
    std::vector<char *> tokens(room);
    const size_t count = vlliCutCommandLine(copy.get(), tokens.data(), room);
    if (count > room) {
        return {"too many"};
    }
    return Strings(tokens.begin(), tokens.begin() + static_cast<ptrdiff_t>(count));
}

TEST(CommandLine, cuts_tokens) {
    for (const CommandLineCase &row : kCases) {
        SCOPED_TRACE(row.line);
        EXPECT_EQ(cut(row.text, strlen(row.text)), row.tokens);
        if (!row.tokens.empty()) {
            EXPECT_EQ(cut(row.text, row.tokens.size()), row.tokens);
            EXPECT_EQ(cut(row.text, row.tokens.size() - 1), Strings{"too many"});
        }
    }
}

class CommandLineTest : public LibraryTest {
  protected:
    // Starts a program and returns the arguments that it was given; its own name first.
    Strings run(const char *application, const char *command_line) {
        PROCESS_INFORMATION process;
        EXPECT_TRUE(vllCreateProcess(application, command_line, nullptr, &process)) << strerror(errno);
        EXPECT_EQ(vllWaitForSingleObject(process.hProcess, kLimitMs), WAIT_OBJECT_0);
        EXPECT_TRUE(vllCloseHandle(process.hProcess));
        return show_.take().arguments;
    }

    const std::string directory_ = MakeProgramDirectory();
    const std::string program_ = MakeShownProgram(directory_, "prog");
    ShowProcesses show_;
};

TEST_F(CommandLineTest, a_program_gets_the_vector) {
    EXPECT_EQ(run(program_.c_str(), nullptr), (Strings{program_}));
    EXPECT_EQ(run(program_.c_str(), "prog -v"), (Strings{program_, "prog", "-v"}));
    EXPECT_EQ(run(program_.c_str(), "  "), (Strings{program_}));
    const std::string line = "\"" + program_ + "\" \"a b\" \"\" c";
    EXPECT_EQ(run(nullptr, line.c_str()), (Strings{program_, "a b", "", "c"}));
}

TEST_F(CommandLineTest, the_longest_vector) {
    std::string text;
    for (int i = 0; i < VLL_ARGUMENT_LIMIT - 1; ++i) {
        text += i == 0 ? "x" : " x";
    }
    // With the application name it is one too many.
    PROCESS_INFORMATION process = {1, 2, 3, 4};
    EXPECT_FALSE(vllCreateProcess(program_.c_str(), text.c_str(), nullptr, &process));
    EXPECT_EQ(errno, E2BIG);
    EXPECT_FALSE(vllCreateProcess(nullptr, (text + " x").c_str(), nullptr, &process));
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(process.hProcess, 1U);
    EXPECT_EQ(process.dwProcessId, 3U);

    text.replace(0, 1, program_);
    const Strings arguments = run(nullptr, text.c_str());
    EXPECT_EQ(arguments.size(), size_t{VLL_ARGUMENT_LIMIT} - 1);
    EXPECT_EQ(arguments.back(), "x");
}

TEST_F(CommandLineTest, a_megabyte_of_text) {
    std::string text;
    for (int i = 0; i < 10; ++i) {
        text += std::string(100000, static_cast<char>('a' + i)) + "    ";
    }
    const Strings arguments = run(program_.c_str(), text.c_str());
    ASSERT_EQ(arguments.size(), 11U);
    EXPECT_EQ(arguments[10], std::string(100000, 'j'));

    // One argument of that size is more than the kernel takes: the child says so.
    EXPECT_EQ(run(program_.c_str(), std::string(1000000, 'a').c_str()), Strings{});
    EXPECT_EQ(TakeErrors(),
              (Strings{"vllCreateProcess() - exec() FAILED, errno = <7> - <Argument list too long>"}));
}

}  // namespace
