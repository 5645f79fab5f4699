// Processes: the command line's tokens, what is run and how, failures, and the thread that waits.
#include <sys/stat.h>
#include <sys/wait.h>
#include <climits>
#include <cstdlib>

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

TEST(CommandLine, cuts_tokens) {
    const std::pair<const char *, Strings> rows[] = {
        {"", {}},
        {"   \t\n ", {}},
        {"prog  -x   y", {"prog", "-x", "y"}},
        {" \t prog\n-x\v\f\ry  ", {"prog", "-x", "y"}},
        {"\"a b\" c", {"a b", "c"}},
        {"  \"a b\"", {"a b"}},
        {"\"  a\tb  \"", {"  a\tb  "}},
        {"a \"\" b", {"a", "", "b"}},
        {"\"a\"\"b\"c", {"a", "b", "c"}},
        {"x\"a b\" c", {"x\"a b", "a b", "c"}},
        {"a \"b c", {"a", "b c"}},
        {"a\"", {"a\"", ""}},
        {"a 'b c' \\\"d e\\\"", {"a", "'b", "c'", "\\\"d e\\", "d e\\"}},
        {"\xE4 \xFF", {"\xE4", "\xFF"}},
    };
    for (const auto &[text, expected] : rows) {
        CommandLine line;
        ASSERT_TRUE(line.copy(text));
        std::vector<const char *> tokens;
        while (const char *token = line.next()) {
            tokens.push_back(token);
        }
        EXPECT_EQ(Strings(tokens.begin(), tokens.end()), expected) << text;
    }
}

std::string failureLine(const char *call, int error) {
    return format("vllCreateProcess() - %s() FAILED, errno = <%d> - <%s>", call, error, strerror(error));
}

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
        PROCESS_INFORMATION process = {1, 2, 3, 4};
        EXPECT_THAT(vllCreateProcess(application, command_line, directory, &process), Yields(TRUE, 0));
        EXPECT_EQ(process.hThread, 0U);
        EXPECT_EQ(process.dwThreadId, 0U);
        return process;
    }

    // Ends a program that would go on.
    void end(const PROCESS_INFORMATION &process) {
        EXPECT_EQ(vllWaitForSingleObject(process.hProcess, 0), WAIT_TIMEOUT);
        EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 5));
        finishThread(process.hProcess);
    }

    // Runs a program that reports how it was started.
    ShownProcess run(const char *application, const char *command_line, const char *directory = nullptr) {
        finishThread(start(application, command_line, directory).hProcess);
        return show_.take();
    }

    // Refused before a child is made, with the record untouched.
    void expectRefused(const char *application, const char *command_line, const char *directory, int error) {
        PROCESS_INFORMATION process = {1, 2, 3, 4};
        resetCallCounts();
        EXPECT_THAT(vllCreateProcess(application, command_line, directory, &process), FailsWith(error));
        EXPECT_EQ(callCount("clone"), 0U);
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
    const std::string quoted = "\"" + program_ + "\" \"a b\" \"\" c";
    EXPECT_EQ(run(program_.c_str(), "prog -v").arguments, (Strings{program_, "prog", "-v"}));
    EXPECT_EQ(run(program_.c_str(), "  ").arguments, Strings{program_});
    EXPECT_EQ(run(program_.c_str(), nullptr).arguments, Strings{program_});
    EXPECT_EQ(run(nullptr, quoted.c_str()).arguments, (Strings{program_, "a b", "", "c"}));
    for (const char *line : {static_cast<const char *>(nullptr), "", "  \t"}) {
        expectRefused(nullptr, line, nullptr, EINVAL);
    }
    EXPECT_THAT(vllCreateProcess("/bin/true", nullptr, nullptr, nullptr), FailsWith(EINVAL));
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

TEST_F(ProcessTest, path_gets_the_directory) {
    const std::string empty = makeProgramDirectory();
    // The longest PATH that fits with terminator, colon and directory.
    std::string longest(VLL_PATH_SIZE - 1 - 1 - directory_.size(), 'p');
    longest[100] = longest[300] = '/';  // no name in it is too long
    for (const char *value :
         {"/bin:/nowhere", empty.c_str(), longest.c_str(), "", static_cast<const char *>(nullptr)}) {
        const Variable path("PATH", value);
        const ShownProcess shown = run("prog", "a", directory_.c_str());
        EXPECT_EQ(shown.arguments, (Strings{"prog", "a"}));
        EXPECT_EQ(shown.directory, directory_);
        EXPECT_EQ(shown.path, value == nullptr || *value == '\0' ? directory_ : value + (":" + directory_));
        EXPECT_STREQ(getenv("PATH"), value);
    }
    for (const std::string &value : {longest + "p", std::string(100000, 'p')}) {
        const Variable path("PATH", value.c_str());
        expectRefused(program_.c_str(), nullptr, directory_.c_str(), ENAMETOOLONG);
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
    finishThread(start("true", nullptr).hProcess);  // along the system's default PATH
    EXPECT_EQ(takeErrors(), Strings{});
    // An empty element of PATH is the working directory, and a name with a slash is not searched.
    const Variable empty("PATH", "");
    const std::string relative = "../" + directory_.substr(5) + "/prog";
    EXPECT_EQ(run(relative.c_str(), nullptr, other.c_str()).arguments, Strings{relative});
}

TEST_F(ProcessTest, a_script_without_interpreter_runs_only_when_searched) {
    const std::string out = directory_ + "/out";
    const std::string script = makeScript(directory_, "vllscript", "echo \"$1|$2\" > " + out + "\n");
    finishThread(start("vllscript", "one \"two three\"", directory_.c_str()).hProcess);
    EXPECT_EQ(readFile(out), "one|two three\n");
    EXPECT_EQ(takeErrors(), Strings{});
    finishThread(start(script.c_str(), nullptr).hProcess);
    EXPECT_EQ(takeErrors(), Strings{failureLine("exec", ENOEXEC)});
}

TEST_F(ProcessTest, the_child_has_the_callers_signal_mask) {
    sigset_t mask, old, after;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &mask, &old);
    const ShownProcess shown = run(program_.c_str(), nullptr);
    pthread_sigmask(SIG_SETMASK, &old, &after);
    EXPECT_EQ(strtoull(shown.blocked.c_str(), nullptr, 16), 1ULL << (SIGUSR2 - 1));
    EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&after, SIGUSR1), 0);
}

// Handlers run neither in a child before its program nor in a thread that waits for one.
TEST_F(ProcessTest, handlers_run_in_the_callers_threads_only) {
    expectInChild([] {
        static pid_t caller;
        static std::atomic<int> strange;
        caller = gettid();
        strange = 0;
        EXPECT_EQ(setpgid(0, 0), 0);
        const SignalHandler handler(SIGUSR1, [](int) { strange += gettid() != caller; });
        const SignalHandler chld(SIGCHLD, [](int) { strange += gettid() != caller; });
        const pid_t sender = fork();
        if (sender == 0) {
            signal(SIGUSR1, SIG_IGN);
            while (kill(0, SIGUSR1) == 0 && getppid() != 1) {
            }
            _exit(0);
        }
        for (int i = 0; i < 60; ++i) {
            PROCESS_INFORMATION process;
            EXPECT_TRUE(vllCreateProcess("/bin/sleep", "60", nullptr, &process));
            vllTerminateProcess(process.dwProcessId, 0);
            finishThread(process.hProcess);
        }
        kill(sender, SIGKILL);
        while (waitpid(sender, nullptr, 0) == -1 && errno == EINTR) {
        }
        EXPECT_EQ(strange, 0);
        return 0;
    });
}

// Once it has executed or failed, a child does not keep named objects in use by the descriptors that it inherited.
TEST_F(ProcessTest, a_child_counts_for_no_named_object) {
    int used = 0;
    for (int i = 0; i < 100; ++i) {
        const HANDLE handles[] = {vllCreateMutex(FALSE, "counted"), vllCreateMutex(FALSE, "counted")};
        const HANDLE process = start(i % 10 == 0 ? "/nowhere" : "/bin/true", nullptr).hProcess;
        for (const HANDLE handle : handles) {
            EXPECT_TRUE(vllCloseHandle(handle));
        }
        errno = 0;
        const Owned again(vllCreateMutex(FALSE, "counted"));
        used += errno == EEXIST;
        finishThread(process);
    }
    EXPECT_EQ(used, 0);
    EXPECT_EQ(takeErrors().size(), 10U);
}

// ---- failures ----

TEST_F(ProcessTest, the_child_reports_its_failure) {
    const std::string plain = makeScript(directory_, "plain", "");
    chmod(plain.c_str(), 0644);
    const std::string long_name(300, 'n');
    const std::string long_argument(1000000, 'a');
    const struct {
        const char *application, *line, *directory, *call;  // call: null when none fails
        DWORD status;
    } rows[] = {
        {"/nowhere/prog", "x", nullptr, "exec", ENOENT},
        {"no-such-program", "x", nullptr, "exec", ENOENT},
        {"", "x", nullptr, "exec", ENOENT},
        {"plain", "x", directory_.c_str(), "exec", EACCES},
        {long_name.c_str(), "x", nullptr, "exec", ENAMETOOLONG},
        {"/bin/true", long_argument.c_str(), nullptr, "exec", E2BIG},
        {"/bin/true", "x", "/nowhere", "chdir", ENOENT},
        {"/bin/true", "x", "", "chdir", ENOENT},
        {"/bin/true", "x", plain.c_str(), "chdir", ENOTDIR},
        {"/bin/sh", "-c \"exit 3\"", nullptr, nullptr, 3},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.application);
        // Without the thread that waits for it the child goes on, and its status can be asked for.
        const FailCall no_thread("pthread_create", 1, EAGAIN);
        PROCESS_INFORMATION process = {1, 2, 3, 4};
        EXPECT_THAT(vllCreateProcess(row.application, row.line, row.directory, &process), FailsWith(EAGAIN));
        EXPECT_EQ(process.hProcess | process.hThread | process.dwThreadId, 0U);
        EXPECT_EQ(statusOf(process.dwProcessId), row.status << 8);
        const int error = static_cast<int>(row.status);
        EXPECT_EQ(takeErrors(), row.call != nullptr ? Strings{failureLine(row.call, error)} : Strings{});
    }
}

TEST_F(ProcessTest, no_child_can_be_made) {
    for (const auto &[call, error] : {std::pair("clone", EAGAIN), std::pair("mmap64", ENOMEM)}) {
        const FailCall fail(call, 1, error);
        PROCESS_INFORMATION process = {1, 2, 3, 4};
        EXPECT_THAT(vllCreateProcess("/bin/true", "x", "/", &process), FailsWith(error));
        EXPECT_EQ(takeErrors(), (Strings{failureLine("fork", error)}));
        EXPECT_EQ(process.hProcess, 1U);
    }
    int failures = 0;
    for (bool failed = true; failed; failures += failed) {
        const FailCall fail("malloc", failures + 1, ENOMEM);
        PROCESS_INFORMATION process = {};
        const BOOL started = vllCreateProcess("true", "x", "/", &process);
        failed = fail.happened();
        ASSERT_EQ(started, !failed);
        if (failed) {
            EXPECT_EQ(errno, ENOMEM);
        } else {
            finishThread(process.hProcess);
        }
    }
    EXPECT_EQ(failures, 4);  // command line, vector, environment, candidates
}

// ---- the thread that waits ----

TEST_F(ProcessTest, exit_codes) {
    PROCESS_INFORMATION process = start("/bin/sleep", "60");
    DWORD status = 0;
    EXPECT_THAT(vllGetExitCodeProcess(process.dwProcessId, &status), Yields(TRUE, 0));
    EXPECT_EQ(status, STILL_ACTIVE);
    const HANDLE first = process.hProcess;
    process.hProcess = vllDuplicateHandle(first);
    EXPECT_TRUE(vllCloseHandle(first));
    end(process);
    status = 77;
    EXPECT_THAT(vllGetExitCodeProcess(process.dwProcessId, &status), FailsWith(ECHILD));

    // 0 and negative numbers would be whole groups to waitpid(2): their children are not touched.
    const auto own = static_cast<DWORD>(startChild([] { return 9; }));
    for (const DWORD pid : {DWORD{0}, DWORD{0xFFFFFFFF}, 0U - static_cast<DWORD>(getpgrp())}) {
        EXPECT_THAT(vllGetExitCodeProcess(pid, &status), FailsWith(ECHILD));
    }
    EXPECT_EQ(status, 77U);
    EXPECT_THAT(vllGetExitCodeProcess(own, nullptr), FailsWith(EINVAL));
    EXPECT_EQ(statusOf(own), 9U << 8);
}

TEST_F(ProcessTest, a_child_goes_on_when_it_is_watched_no_more) {
    PROCESS_INFORMATION process = start("/bin/sleep", "60");
    ASSERT_EQ(kill(static_cast<pid_t>(process.dwProcessId), SIGSTOP), 0);  // signals the handle
    finishThread(process.hProcess);
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    EXPECT_EQ(statusOf(process.dwProcessId), static_cast<DWORD>(SIGKILL));

    process = start("/bin/sleep", "60");
    EXPECT_TRUE(vllTerminateThread(process.hProcess, 1));
    finishThread(process.hProcess);
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    EXPECT_EQ(statusOf(process.dwProcessId), static_cast<DWORD>(SIGKILL));
}

TEST_F(ProcessTest, the_record_and_the_handle_may_go_at_once) {
    for (int i = 0; i < 20; ++i) {
        PROCESS_INFORMATION process = start("/bin/true", nullptr);
        const HANDLE handle = process.hProcess;
        process = {};
        EXPECT_TRUE(vllCloseHandle(handle));
    }
    const SignalHandler ignored(SIGCHLD, SIG_IGN);  // the kernel reaps
    finishThread(start("/bin/true", nullptr).hProcess);
}

TEST_F(ProcessTest, many_children_from_several_threads) {
    SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 25; ++i) {
                finishThread(start("true", "x", "/").hProcess);
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(takeErrors(), Strings{});
}

// ---- ending processes ----

TEST_F(ProcessTest, terminate) {
    for (const DWORD pid : {0U, 0xFFFFFFFFU, 0x80000000U, static_cast<DWORD>(INT_MAX)}) {
        EXPECT_THAT(vllTerminateProcess(pid, 0), FailsWith(ESRCH));
    }
    const ChildResult terminated = runInChild([] {
        atexit([] { _exit(1); });
        vllTerminateProcess(vllGetCurrentProcessId(), 42);
        return 2;
    });
    EXPECT_EQ(terminated.status, 42);
    const ChildResult exited = runInChild([] {
        atexit([] { _exit(43); });
        vllExitProcess(2);
        return 3;
    });
    EXPECT_EQ(exited.status, 43);
    EXPECT_EQ(vllGetCurrentProcessId(), static_cast<DWORD>(getpid()));

    const PROCESS_INFORMATION process = start("/bin/sleep", "60");
    expectInChild([&] {
        EXPECT_EQ(setuid(65534), 0);
        EXPECT_THAT(vllTerminateProcess(process.dwProcessId, 0), FailsWith(EPERM));
        return 0;
    });
    end(process);
}

}  // namespace
