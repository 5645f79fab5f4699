#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/allocate.h"
#include "process/multitasking.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/shown_process.h"
#include "support/syslog_capture.h"
#include "support/threads.h"

namespace {

using Strings = std::vector<std::string>;

constexpr DWORD kLimitMs = 60000;

// ---- command lines ----

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

// ---- processes ----

std::string failureLine(const char *call, int error) {
    return std::string("vllCreateProcess() - ") + call + "() FAILED, errno = <" + std::to_string(error) +
           "> - <" + strerror(error) + ">";
}

std::atomic<int> signals_seen;

bool hasNoChildren() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

class ProcessTest : public LibraryTest {
  protected:
    void TearDown() override {
        EXPECT_TRUE(waitUntil(hasNoChildren)) << "a zombie or a child is left";
        LibraryTest::TearDown();
    }

    PROCESS_INFORMATION start(const char *application, const char *command_line,
                              const char *directory = nullptr) {
        PROCESS_INFORMATION process = {};
        EXPECT_TRUE(vllCreateProcess(application, command_line, directory, &process)) << strerror(errno);
        EXPECT_EQ(process.hThread, 0U);
        EXPECT_EQ(process.dwThreadId, 0U);
        return process;
    }

    void finish(HANDLE process) {
        EXPECT_EQ(vllWaitForSingleObject(process, kLimitMs), WAIT_OBJECT_0);
        EXPECT_TRUE(vllCloseHandle(process));
    }

    // Ends a program that would go on.
    void end(const PROCESS_INFORMATION &process) {
        EXPECT_EQ(vllWaitForSingleObject(process.hProcess, 0), WAIT_TIMEOUT);
        EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 5));
        finish(process.hProcess);
    }

    // Runs a program that tells how it was started.
    ShownProcess run(const char *application, const char *command_line, const char *directory = nullptr) {
        finish(start(application, command_line, directory).hProcess);
        return show_.take();
    }

    // Refused before the fork, with the record untouched.
    void expectRefused(const char *application, const char *command_line, const char *directory, int error) {
        PROCESS_INFORMATION process = {1, 2, 3, 4};
        resetCallCounts();
        errno = 0;
        EXPECT_FALSE(vllCreateProcess(application, command_line, directory, &process));
        EXPECT_EQ(errno, error);
        EXPECT_EQ(callCount("fork"), 0U);
        EXPECT_EQ(process.hProcess, 1U);
        EXPECT_EQ(process.dwProcessId, 3U);
    }

    // The status of an unwatched child that has ended or is about to.
    DWORD statusOf(DWORD pid) {
        DWORD status = STILL_ACTIVE;
        EXPECT_TRUE(waitUntil([&] { return vllGetExitCodeProcess(pid, &status) && status != STILL_ACTIVE; }));
        return status;
    }

    const std::string directory_ = makeProgramDirectory();
    const std::string program_ = makeShownProgram(directory_, "prog");
    ShowProcesses show_;
};

// ---- what is run, and where ----

TEST_F(ProcessTest, a_program_gets_the_vector) {
    const struct {
        const char *application;
        std::string line;
        Strings arguments;
    } rows[] = {
        {program_.c_str(), "prog -v", {program_, "prog", "-v"}},
        {program_.c_str(), "  ", {program_}},
        {nullptr, "\"" + program_ + "\" \"a b\" \"\" c", {program_, "a b", "", "c"}},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(run(row.application, row.line.c_str()).arguments, row.arguments);
    }
    EXPECT_EQ(run(program_.c_str(), nullptr).arguments, Strings{program_});
}

TEST_F(ProcessTest, the_longest_vector) {
    std::string text = "x";
    for (int i = 1; i < VLL_ARGUMENT_LIMIT - 1; ++i) {
        text += " x";
    }
    const Strings arguments = run(nullptr, (program_ + text.substr(1)).c_str()).arguments;
    EXPECT_EQ(arguments.size(), size_t{VLL_ARGUMENT_LIMIT} - 1);
    EXPECT_EQ(arguments.back(), "x");
    expectRefused(program_.c_str(), text.c_str(), nullptr, E2BIG);  // the application name is one too many
    expectRefused(nullptr, (text + " x").c_str(), nullptr, E2BIG);
}

TEST_F(ProcessTest, a_megabyte_of_text) {
    std::string text;
    for (int i = 0; i < 10; ++i) {
        text += std::string(100000, static_cast<char>('a' + i)) + "    ";
    }
    const Strings arguments = run(program_.c_str(), text.c_str()).arguments;
    ASSERT_EQ(arguments.size(), 11U);
    EXPECT_EQ(arguments[10], std::string(100000, 'j'));

    // One argument of that size is more than the kernel takes: the child says so.
    EXPECT_EQ(run(program_.c_str(), std::string(1000000, 'a').c_str()).arguments, Strings{});
    EXPECT_EQ(takeErrors(), Strings{failureLine("exec", E2BIG)});
}

TEST_F(ProcessTest, refuses_bad_arguments) {
    for (const char *line : {static_cast<const char *>(nullptr), "", "  \t"}) {
        expectRefused(nullptr, line, nullptr, EINVAL);
    }
    EXPECT_THAT(vllCreateProcess("/bin/true", nullptr, nullptr, nullptr), FailsWith(EINVAL));
}

TEST_F(ProcessTest, path_gets_the_directory) {
    const std::string empty = makeProgramDirectory();
    struct {
        const char *path;
        std::string expected;
    } rows[] = {
        {"/bin:/nowhere", "/bin:/nowhere:" + directory_},
        {empty.c_str(), empty + ":" + directory_},
        {"", directory_},
        {nullptr, directory_},
    };
    for (const auto &row : rows) {
        const Variable path("PATH", row.path);
        const ShownProcess shown = run("prog", "a", directory_.c_str());
        EXPECT_EQ(shown.arguments, (Strings{"prog", "a"}));
        EXPECT_EQ(shown.directory, directory_);
        EXPECT_EQ(shown.path, row.expected);
        EXPECT_STREQ(getenv("PATH"), row.path);
    }
    EXPECT_EQ(takeErrors(), Strings{});
}

TEST_F(ProcessTest, path_stays_without_a_directory) {
    const std::string other = makeProgramDirectory();
    makeShownProgram(other, "prog");
    for (const std::string &value :
         {"/nowhere:" + directory_, directory_ + ":/dev", "/nowhere::" + directory_}) {
        const Variable path("PATH", value.c_str());
        const ShownProcess shown = run(nullptr, "prog x");
        EXPECT_EQ(shown.arguments, (Strings{"prog", "x"})) << value;
        EXPECT_EQ(shown.path, value);
    }
    const Variable path("PATH", nullptr);
    EXPECT_EQ(run(program_.c_str(), nullptr).path, "-");
    // An empty element of PATH is the working directory, and a name with a slash is not searched.
    const Variable empty("PATH", "");
    const std::string relative = "../" + directory_.substr(5) + "/prog";
    EXPECT_EQ(run(relative.c_str(), nullptr, other.c_str()).arguments, Strings{relative});
}

TEST_F(ProcessTest, path_has_512_bytes) {
    const size_t room = VLL_PATH_SIZE - 1 - 1 - directory_.size();  // without terminator, colon and directory
    {
        const Variable path("PATH", std::string(room, 'p').c_str());
        EXPECT_EQ(run(program_.c_str(), nullptr, directory_.c_str()).path,
                  std::string(room, 'p') + ":" + directory_);
    }
    for (const size_t length : {room + 1, size_t{511}, size_t{512}, size_t{100000}}) {
        const Variable path("PATH", std::string(length, 'p').c_str());
        expectRefused(program_.c_str(), nullptr, directory_.c_str(), ENAMETOOLONG);
    }
    const Variable path("PATH", nullptr);
    expectRefused(program_.c_str(), nullptr, std::string(512, 'd').c_str(), ENAMETOOLONG);
}

TEST_F(ProcessTest, a_script_without_interpreter_runs_only_when_searched) {
    const std::string out = directory_ + "/out";
    const std::string script = makeScript(directory_, "vllscript", "echo \"$1|$2\" > " + out + "\n");
    finish(start("vllscript", "one \"two three\"", directory_.c_str()).hProcess);
    EXPECT_EQ(readFile(out), "one|two three\n");
    EXPECT_EQ(takeErrors(), Strings{});
    finish(start(script.c_str(), nullptr).hProcess);
    EXPECT_EQ(takeErrors(), Strings{failureLine("exec", ENOEXEC)});
}

TEST_F(ProcessTest, the_child_reports_its_failure) {
    const std::string plain = makeScript(directory_, "plain", "");
    chmod(plain.c_str(), 0644);
    const std::string long_name(300, 'n');
    struct {
        const char *application;
        const char *directory;
        const char *call;
        int error;
    } rows[] = {
        {"/nowhere/prog", nullptr, "exec", ENOENT},
        {"no-such-program", nullptr, "exec", ENOENT},
        {"", nullptr, "exec", ENOENT},
        {"plain", directory_.c_str(), "exec", EACCES},
        {long_name.c_str(), nullptr, "exec", ENAMETOOLONG},
        {"/bin/true", "/nowhere", "chdir", ENOENT},
        {"/bin/true", "", "chdir", ENOENT},
        {"/bin/true", plain.c_str(), "chdir", ENOTDIR},
    };
    for (const auto &row : rows) {
        // A stranger to the library reaps the child, so that its status can be seen.
        const ChildResult result = runInChild([&] {
            FailCall no_watcher("pthread_create", 1, EAGAIN);
            PROCESS_INFORMATION process;
            EXPECT_FALSE(vllCreateProcess(row.application, "x", row.directory, &process));
            int status = -1;
            waitpid(static_cast<pid_t>(process.dwProcessId), &status, 0);
            return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
        });
        EXPECT_TRUE(result.exited);
        EXPECT_EQ(result.status, row.error) << row.application;
        EXPECT_EQ(takeErrors(), (Strings{failureLine(row.call, row.error)})) << row.application;
    }
}

TEST_F(ProcessTest, a_failure_is_logged_when_no_descriptor_is_left) {
    const ChildResult result = runInChild([] {
        while (dup(STDERR_FILENO) != -1) {
        }
        // Without a descriptor there is no watcher either.
        PROCESS_INFORMATION process = {};
        EXPECT_THAT(vllCreateProcess("/nowhere/prog", nullptr, nullptr, &process), FailsWith(EMFILE));
        waitpid(static_cast<pid_t>(process.dwProcessId), nullptr, 0);
        return 0;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(takeErrors(), (Strings{failureLine("exec", ENOENT)}));
}

TEST_F(ProcessTest, the_child_has_the_callers_signal_mask) {
    sigset_t mask;
    sigset_t old;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &mask, &old);
    const ShownProcess shown = run(program_.c_str(), nullptr);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &old, &after);
    EXPECT_EQ(strtoull(shown.blocked.c_str(), nullptr, 16), 1ULL << (SIGUSR2 - 1));
    EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&after, SIGUSR1), 0);
}

// ---- failures in the parent ----

TEST_F(ProcessTest, fork_fails) {
    FailCall fail("fork", 1, EAGAIN);
    PROCESS_INFORMATION process = {1, 2, 3, 4};
    EXPECT_THAT(vllCreateProcess("/bin/true", "x", "/", &process), FailsWith(EAGAIN));
    EXPECT_EQ(takeErrors(), (Strings{failureLine("fork", EAGAIN)}));
    EXPECT_EQ(process.hProcess, 1U);
}

TEST_F(ProcessTest, memory_runs_out) {
    resetCallCounts();
    PROCESS_INFORMATION process = {};
    int failures = 0;
    for (int nth = 1;; ++nth) {
        FailCall fail("malloc", nth, ENOMEM);
        errno = 0;
        const BOOL started = vllCreateProcess("true", "x", "/", &process);
        if (!fail.happened()) {
            ASSERT_TRUE(started);
            finish(process.hProcess);
            break;
        }
        EXPECT_FALSE(started);
        EXPECT_EQ(errno, ENOMEM);
        ++failures;
    }
    EXPECT_GE(failures, 3);
    EXPECT_EQ(callCount("fork"), 1U);
}

TEST_F(ProcessTest, the_watcher_cannot_be_started) {
    FailCall fail("pthread_create", 1, EAGAIN);
    PROCESS_INFORMATION process = {1, 2, 3, 4};
    EXPECT_THAT(vllCreateProcess("/bin/sh", "-c \"exit 3\"", nullptr, &process), FailsWith(EAGAIN));
    EXPECT_EQ(process.hProcess, 0U);
    EXPECT_EQ(process.hThread, 0U);
    EXPECT_EQ(process.dwThreadId, 0U);
    EXPECT_EQ(statusOf(process.dwProcessId), 3U << 8);  // the child runs on unwatched
}

// ---- the watcher ----

TEST_F(ProcessTest, exit_codes) {
    const PROCESS_INFORMATION process = start("/bin/sleep", "60");
    DWORD status = 0;
    EXPECT_TRUE(vllGetExitCodeProcess(process.dwProcessId, &status));
    EXPECT_EQ(status, STILL_ACTIVE);
    end(process);
    status = 77;
    EXPECT_THAT(vllGetExitCodeProcess(process.dwProcessId, &status), FailsWith(ECHILD));
    EXPECT_EQ(status, 77U);

    // 0 and negative numbers would be whole groups to waitpid(2): their children are not touched.
    const auto own = static_cast<DWORD>(startChild([] { return 9; }));
    for (const DWORD pid : {DWORD{0}, DWORD{0xFFFFFFFF}, 0U - static_cast<DWORD>(getpgrp())}) {
        EXPECT_THAT(vllGetExitCodeProcess(pid, &status), FailsWith(ECHILD));
    }
    EXPECT_FALSE(vllGetExitCodeProcess(own, nullptr));
    EXPECT_EQ(statusOf(own), 9U << 8);
}

TEST_F(ProcessTest, a_stopped_child_signals_the_handle) {
    const PROCESS_INFORMATION process = start("/bin/sleep", "60");
    ASSERT_EQ(kill(static_cast<pid_t>(process.dwProcessId), SIGSTOP), 0);
    finish(process.hProcess);
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    EXPECT_EQ(statusOf(process.dwProcessId), static_cast<DWORD>(SIGKILL));
}

TEST_F(ProcessTest, the_record_and_the_handle_may_go_at_once) {
    for (int i = 0; i < 20; ++i) {
        PROCESS_INFORMATION process = start("/bin/true", nullptr);
        const HANDLE handle = process.hProcess;
        memset(&process, 0x5A, sizeof process);
        if (i % 2 == 0) {
            EXPECT_TRUE(vllCloseHandle(handle));
        } else {
            finish(handle);
        }
        EXPECT_EQ(process.dwProcessId, 0x5A5A5A5AU);
    }
}

TEST_F(ProcessTest, a_duplicate_of_the_handle_waits_too) {
    PROCESS_INFORMATION process = start("/bin/sleep", "60");
    const HANDLE first = process.hProcess;
    process.hProcess = vllDuplicateHandle(first);
    EXPECT_TRUE(vllCloseHandle(first));
    end(process);
}

TEST_F(ProcessTest, signals_with_handlers_do_not_disturb_the_watcher) {
    const auto count = [](int) { ++signals_seen; };
    const SignalHandler usr1(SIGUSR1, count);
    const SignalHandler chld(SIGCHLD, count);
    signals_seen = 0;
    std::vector<PROCESS_INFORMATION> processes;
    for (int i = 0; i < 10; ++i) {
        processes.push_back(start("/bin/sleep", "60"));
        kill(getpid(), SIGUSR1);
    }
    for (int i = 0; i < 200; ++i) {
        kill(getpid(), SIGUSR1);
    }
    EXPECT_GT(signals_seen, 100);
    for (const PROCESS_INFORMATION &process : processes) {
        end(process);
    }
    EXPECT_EQ(takeErrors(), Strings{});
}

TEST_F(ProcessTest, children_that_are_reaped_by_the_kernel) {
    const SignalHandler ignored(SIGCHLD, SIG_IGN);
    finish(start("/bin/true", nullptr).hProcess);
}

TEST_F(ProcessTest, the_watcher_can_be_ended) {
    const PROCESS_INFORMATION process = start("/bin/sleep", "60");
    EXPECT_TRUE(vllTerminateThread(process.hProcess, 1));
    finish(process.hProcess);
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    EXPECT_EQ(statusOf(process.dwProcessId), static_cast<DWORD>(SIGKILL));
}

// Under a sanitizer a fork takes many times as long.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kManyChildren = 100;
#else
constexpr int kManyChildren = 500;
#endif

// The heap's and the log's locks are held by some thread at nearly every fork; a child that needed them
// would hang.
TEST_F(ProcessTest, many_children_while_others_allocate_and_log) {
    SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS();
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            for (unsigned n = 0; !stop; ++n) {
                free(malloc(1 + n % 5000));
                if (i == 0 && n % 256 == 0) {
                    syslog(LOG_INFO, "busy");
                }
            }
        });
    }
    int failures = 0;
    constexpr int kBatch = 10;
    for (int i = 0; i < kManyChildren; i += kBatch) {
        std::vector<PROCESS_INFORMATION> processes;
        for (int n = 0; n < kBatch; ++n) {
            processes.push_back(n % 2 == 0 ? start("true", "x", "/") : start("/nowhere", nullptr));
        }
        for (const PROCESS_INFORMATION &process : processes) {
            while (vllWaitForSingleObject(process.hProcess, 10) == WAIT_TIMEOUT) {
                failures += static_cast<int>(takeErrors().size());  // or the log runs full
            }
            EXPECT_TRUE(vllCloseHandle(process.hProcess));
        }
        failures += static_cast<int>(takeErrors().size());
    }
    stop = true;
    EXPECT_TRUE(waitUntil([&] {
        failures += static_cast<int>(takeErrors().size());
        return failures == kManyChildren / 2;
    }));
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// ---- ending processes ----

TEST_F(ProcessTest, terminate) {
    EXPECT_THAT(vllTerminateProcess(0, 0), FailsWith(ESRCH));
    for (const DWORD pid : {0xFFFFFFFFU, 0x80000000U, static_cast<DWORD>(INT_MAX)}) {
        EXPECT_THAT(vllTerminateProcess(pid, 0), FailsWith(ESRCH));
    }
    ChildResult result = runInChild([] {
        atexit([] { _exit(1); });
        vllTerminateProcess(vllGetCurrentProcessId(), 42);
        return 2;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 42);
    result = runInChild([] {
        static int code = 0;
        atexit([] { _exit(code); });
        code = 43;
        vllExitProcess(2);
        return 3;
    });
    EXPECT_EQ(result.status, 43);
    EXPECT_EQ(vllGetCurrentProcessId(), static_cast<DWORD>(getpid()));
}

TEST_F(ProcessTest, a_stranger_cannot_be_terminated) {
    const PROCESS_INFORMATION process = start("/bin/sleep", "60");
    expectInChild([&] {
        EXPECT_EQ(setuid(65534), 0);
        EXPECT_THAT(vllTerminateProcess(process.dwProcessId, 0), FailsWith(EPERM));
        return 0;
    });
    end(process);
}

}  // namespace
