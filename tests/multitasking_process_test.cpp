#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/shown_process.h"
#include "support/syslog_capture.h"

namespace {

using Strings = std::vector<std::string>;

constexpr DWORD kLimitMs = 60000;

std::string failureLine(const char *call, int error) {
    return std::string("vllCreateProcess() - ") + call + "() FAILED, errno = <" + std::to_string(error) +
           "> - <" + strerror(error) + ">";
}

// An environment variable that is set back at the end.
class Variable {
  public:
    Variable(const char *name, const char *value) : name_(name) {
        const char *old = getenv(name);
        had_ = old != nullptr;
        old_ = had_ ? old : "";
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    ~Variable() { had_ ? setenv(name_, old_.c_str(), 1) : unsetenv(name_); }
    Variable(const Variable &) = delete;
    Variable &operator=(const Variable &) = delete;

  private:
    const char *name_;
    bool had_;
    std::string old_;
};

std::atomic<int> signals_seen;

void countSignal(int) {
    ++signals_seen;
}

// A handler for a signal, without SA_RESTART, for a scope.
class Handler {
  public:
    Handler(int number, void (*routine)(int)) : number_(number) {
        struct sigaction action = {};
        action.sa_handler = routine;
        sigaction(number, &action, &old_);
    }
    ~Handler() { sigaction(number_, &old_, nullptr); }
    Handler(const Handler &) = delete;
    Handler &operator=(const Handler &) = delete;

  private:
    int number_;
    struct sigaction old_;
};

bool hasNoChildren() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

class ProcessTest : public LibraryTest {
  protected:
    void SetUp() override {
        SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS();
        LibraryTest::SetUp();
    }
    void TearDown() override {
        if (IsSkipped()) {
            return;
        }
        EXPECT_TRUE(WaitUntil(hasNoChildren)) << "a zombie or a child is left";
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

    void finish(const PROCESS_INFORMATION &process) {
        EXPECT_EQ(vllWaitForSingleObject(process.hProcess, kLimitMs), WAIT_OBJECT_0);
        EXPECT_TRUE(vllCloseHandle(process.hProcess));
    }

    void run(const char *application, const char *command_line, const char *directory = nullptr) {
        finish(start(application, command_line, directory));
    }

    const std::string directory_ = MakeProgramDirectory();
};

// ---- what is run, and where ----

TEST_F(ProcessTest, refuses_bad_arguments) {
    PROCESS_INFORMATION process = {1, 2, 3, 4};
    ResetCallCounts();
    const char *const kNothing[] = {nullptr, "", "  \t"};
    for (const char *line : kNothing) {
        errno = 0;
        EXPECT_FALSE(vllCreateProcess(nullptr, line, nullptr, &process));
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_FALSE(vllCreateProcess("/bin/true", nullptr, nullptr, nullptr));
    EXPECT_EQ(CallCount("fork"), 0U);
    EXPECT_EQ(process.hProcess, 1U);
    EXPECT_EQ(process.dwThreadId, 4U);
}

TEST_F(ProcessTest, path_gets_the_directory) {
    ShowProcesses show;
    MakeShownProgram(directory_, "prog");
    const std::string empty = MakeProgramDirectory();
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
        run("prog", "a", directory_.c_str());
        const ShownProcess shown = show.take();
        EXPECT_EQ(shown.arguments, (Strings{"prog", "a"}));
        EXPECT_EQ(shown.directory, directory_);
        EXPECT_EQ(shown.path, row.expected);
        EXPECT_STREQ(getenv("PATH"), row.path);
    }
    EXPECT_EQ(TakeErrors(), Strings{});
}

TEST_F(ProcessTest, path_stays_without_a_directory) {
    ShowProcesses show;
    const std::string program = MakeShownProgram(directory_, "prog");
    const std::string other = MakeProgramDirectory();
    MakeShownProgram(other, "prog");
    for (const std::string &value :
         {"/nowhere:" + directory_, directory_ + ":/dev", "/nowhere::" + directory_}) {
        const Variable path("PATH", value.c_str());
        run(nullptr, "prog x");
        const ShownProcess shown = show.take();
        EXPECT_EQ(shown.arguments, (Strings{"prog", "x"})) << value;
        EXPECT_EQ(shown.path, value);
    }
    const Variable path("PATH", nullptr);
    run(program.c_str(), nullptr);
    EXPECT_EQ(show.take().path, "-");
    // An empty element of PATH is the working directory, and a name with a slash is not searched.
    const Variable empty("PATH", "");
    const std::string relative = "../" + directory_.substr(5) + "/prog";
    run(relative.c_str(), nullptr, other.c_str());
    EXPECT_EQ(show.take().arguments, Strings{relative});
}

TEST_F(ProcessTest, path_has_512_bytes) {
    ShowProcesses show;
    const std::string program = MakeShownProgram(directory_, "prog");
    const size_t room = VLL_PATH_SIZE - 1 - 1 - directory_.size();  // without terminator, colon and directory
    {
        const Variable path("PATH", std::string(room, 'p').c_str());
        run(program.c_str(), nullptr, directory_.c_str());
        EXPECT_EQ(show.take().path, std::string(room, 'p') + ":" + directory_);
    }
    ResetCallCounts();
    PROCESS_INFORMATION process = {1, 2, 3, 4};
    for (const size_t length : {room + 1, size_t{511}, size_t{512}, size_t{100000}}) {
        const Variable path("PATH", std::string(length, 'p').c_str());
        errno = 0;
        EXPECT_FALSE(vllCreateProcess(program.c_str(), nullptr, directory_.c_str(), &process));
        EXPECT_EQ(errno, ENAMETOOLONG);
    }
    const Variable path("PATH", nullptr);
    EXPECT_FALSE(vllCreateProcess(program.c_str(), nullptr, std::string(512, 'd').c_str(), &process));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(process.hProcess, 1U);
    EXPECT_EQ(CallCount("fork"), 0U);
}

TEST_F(ProcessTest, a_script_without_interpreter_runs_only_when_searched) {
    const std::string out = directory_ + "/out";
    MakeScript(directory_, "vllscript", "echo \"$1|$2\" > " + out + "\n");
    run("vllscript", "one \"two three\"", directory_.c_str());
    std::string text(64, '\0');
    const int fd = open(out.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_NE(fd, -1);
    text.resize(static_cast<size_t>(read(fd, text.data(), text.size())));
    close(fd);
    EXPECT_EQ(text, "one|two three\n");
    EXPECT_EQ(TakeErrors(), Strings{});

    run((directory_ + "/vllscript").c_str(), nullptr);
    EXPECT_EQ(TakeErrors(), (Strings{failureLine("exec", ENOEXEC)}));
}

TEST_F(ProcessTest, the_child_reports_its_failure) {
    const std::string plain = MakeScript(directory_, "plain", "");
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
        const ChildResult result = RunInChild([&] {
            FailCall no_watcher("pthread_create", 1, EAGAIN);
            PROCESS_INFORMATION process;
            EXPECT_FALSE(vllCreateProcess(row.application, "x", row.directory, &process));
            int status = -1;
            waitpid(static_cast<pid_t>(process.dwProcessId), &status, 0);
            return WIFEXITED(status) ? WEXITSTATUS(status) : 255;
        });
        EXPECT_TRUE(result.exited);
        EXPECT_EQ(result.status, row.error) << row.application;
        EXPECT_EQ(TakeErrors(), (Strings{failureLine(row.call, row.error)})) << row.application;
    }
}

TEST_F(ProcessTest, a_failure_is_logged_when_no_descriptor_is_left) {
    const ChildResult result = RunInChild([] {
        while (dup(STDERR_FILENO) != -1) {
        }
        // Without a descriptor there is no watcher either.
        PROCESS_INFORMATION process = {};
        EXPECT_FALSE(vllCreateProcess("/nowhere/prog", nullptr, nullptr, &process));
        EXPECT_EQ(errno, EMFILE);
        waitpid(static_cast<pid_t>(process.dwProcessId), nullptr, 0);
        return 0;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(TakeErrors(), (Strings{failureLine("exec", ENOENT)}));
}

TEST_F(ProcessTest, the_child_has_the_callers_signal_mask) {
    ShowProcesses show;
    const std::string program = MakeShownProgram(directory_, "prog");
    sigset_t mask;
    sigset_t old;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &mask, &old);
    run(program.c_str(), nullptr);
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &old, &after);
    EXPECT_EQ(strtoull(show.take().blocked.c_str(), nullptr, 16), 1ULL << (SIGUSR2 - 1));
    EXPECT_EQ(sigismember(&after, SIGUSR2), 1);
    EXPECT_EQ(sigismember(&after, SIGUSR1), 0);
}

// ---- failures in the parent ----

TEST_F(ProcessTest, fork_fails) {
    FailCall fail("fork", 1, EAGAIN);
    PROCESS_INFORMATION process = {1, 2, 3, 4};
    EXPECT_FALSE(vllCreateProcess("/bin/true", "x", "/", &process));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(TakeErrors(), (Strings{failureLine("fork", EAGAIN)}));
    EXPECT_EQ(process.hProcess, 1U);
}

TEST_F(ProcessTest, memory_runs_out) {
    ResetCallCounts();
    PROCESS_INFORMATION process = {};
    int failures = 0;
    for (int nth = 1;; ++nth) {
        FailCall fail("malloc", nth, ENOMEM);
        errno = 0;
        const BOOL started = vllCreateProcess("true", "x", "/", &process);
        if (!fail.happened()) {
            ASSERT_TRUE(started);
            finish(process);
            break;
        }
        EXPECT_FALSE(started);
        EXPECT_EQ(errno, ENOMEM);
        ++failures;
    }
    EXPECT_GE(failures, 3);
    EXPECT_EQ(CallCount("fork"), 1U);
}

TEST_F(ProcessTest, the_watcher_cannot_be_started) {
    FailCall fail("pthread_create", 1, EAGAIN);
    PROCESS_INFORMATION process = {1, 2, 3, 4};
    EXPECT_FALSE(vllCreateProcess("/bin/sh", "-c \"exit 3\"", nullptr, &process));
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(process.hProcess, 0U);
    EXPECT_EQ(process.hThread, 0U);
    EXPECT_EQ(process.dwThreadId, 0U);
    // The child runs on unwatched.
    DWORD status = 0;
    EXPECT_TRUE(WaitUntil(
        [&] { return vllGetExitCodeProcess(process.dwProcessId, &status) && status != STILL_ACTIVE; }));
    EXPECT_EQ(status, 3U << 8);
}

// ---- the watcher ----

TEST_F(ProcessTest, exit_codes) {
    PROCESS_INFORMATION process = start("/bin/sleep", "60");
    DWORD status = 0;
    EXPECT_TRUE(vllGetExitCodeProcess(process.dwProcessId, &status));
    EXPECT_EQ(status, STILL_ACTIVE);
    EXPECT_EQ(vllWaitForSingleObject(process.hProcess, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 5));
    finish(process);
    status = 77;
    EXPECT_FALSE(vllGetExitCodeProcess(process.dwProcessId, &status));
    EXPECT_EQ(errno, ECHILD);
    EXPECT_EQ(status, 77U);

    // 0 and negative numbers would be whole groups to waitpid(2): their children are not touched.
    const pid_t own = StartChild([] { return 9; });
    for (const DWORD pid : {DWORD{0}, DWORD{0xFFFFFFFF}, 0U - static_cast<DWORD>(getpgrp())}) {
        errno = 0;
        EXPECT_FALSE(vllGetExitCodeProcess(pid, &status));
        EXPECT_EQ(errno, ECHILD);
    }
    EXPECT_FALSE(vllGetExitCodeProcess(static_cast<DWORD>(own), nullptr));
    EXPECT_TRUE(WaitUntil(
        [&] { return vllGetExitCodeProcess(static_cast<DWORD>(own), &status) && status != STILL_ACTIVE; }));
    EXPECT_EQ(status, 9U << 8);
}

TEST_F(ProcessTest, a_stopped_child_signals_the_handle) {
    const PROCESS_INFORMATION process = start("/bin/sleep", "60");
    const auto pid = static_cast<pid_t>(process.dwProcessId);
    ASSERT_EQ(kill(pid, SIGSTOP), 0);
    finish(process);
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    DWORD status = 0;
    EXPECT_TRUE(WaitUntil(
        [&] { return vllGetExitCodeProcess(process.dwProcessId, &status) && status != STILL_ACTIVE; }));
    EXPECT_EQ(status, static_cast<DWORD>(SIGKILL));
}

TEST_F(ProcessTest, the_record_and_the_handle_may_go_at_once) {
    for (int i = 0; i < 20; ++i) {
        PROCESS_INFORMATION process = start("/bin/true", nullptr);
        const HANDLE handle = process.hProcess;
        memset(&process, 0x5A, sizeof process);
        if (i % 2 == 0) {
            EXPECT_TRUE(vllCloseHandle(handle));
        } else {
            finish({handle, 0, 0, 0});
        }
        EXPECT_EQ(process.dwProcessId, 0x5A5A5A5AU);
    }
}

TEST_F(ProcessTest, a_duplicate_of_the_handle_waits_too) {
    const PROCESS_INFORMATION process = start("/bin/sleep", "60");
    const HANDLE copy = vllDuplicateHandle(process.hProcess);
    EXPECT_TRUE(vllCloseHandle(process.hProcess));
    EXPECT_EQ(vllWaitForSingleObject(copy, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    finish({copy, 0, 0, 0});
}

TEST_F(ProcessTest, signals_with_handlers_do_not_disturb_the_watcher) {
    const Handler usr1(SIGUSR1, countSignal);
    const Handler chld(SIGCHLD, countSignal);
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
        EXPECT_EQ(vllWaitForSingleObject(process.hProcess, 0), WAIT_TIMEOUT);
        EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
        finish(process);
    }
    EXPECT_EQ(TakeErrors(), Strings{});
}

TEST_F(ProcessTest, children_that_are_reaped_by_the_kernel) {
    const Handler ignored(SIGCHLD, SIG_IGN);
    run("/bin/true", nullptr);
}

TEST_F(ProcessTest, the_watcher_can_be_ended) {
    const PROCESS_INFORMATION process = start("/bin/sleep", "60");
    EXPECT_TRUE(vllTerminateThread(process.hProcess, 1));
    finish(process);
    EXPECT_EQ(kill(static_cast<pid_t>(process.dwProcessId), SIGKILL), 0);
    EXPECT_EQ(waitpid(static_cast<pid_t>(process.dwProcessId), nullptr, 0),
              static_cast<pid_t>(process.dwProcessId));
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
                failures += static_cast<int>(TakeErrors().size());  // or the log runs full
            }
            EXPECT_TRUE(vllCloseHandle(process.hProcess));
        }
        failures += static_cast<int>(TakeErrors().size());
    }
    stop = true;
    EXPECT_TRUE(WaitUntil([&] {
        failures += static_cast<int>(TakeErrors().size());
        return failures == kManyChildren / 2;
    }));
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// ---- ending processes ----

TEST_F(ProcessTest, terminate) {
    EXPECT_FALSE(vllTerminateProcess(0, 0));
    EXPECT_EQ(errno, ESRCH);
    for (const DWORD pid : {0xFFFFFFFFU, 0x80000000U, static_cast<DWORD>(INT_MAX)}) {
        errno = 0;
        EXPECT_FALSE(vllTerminateProcess(pid, 0));
        EXPECT_EQ(errno, ESRCH);
    }
    ChildResult result = RunInChild([] {
        atexit([] { _exit(1); });
        vllTerminateProcess(vllGetCurrentProcessId(), 42);
        return 2;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 42);
    result = RunInChild([] {
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
    const ChildResult result = RunInChild([&] {
        if (setuid(65534) != 0) {
            return 1;
        }
        return !vllTerminateProcess(process.dwProcessId, 0) && errno == EPERM ? 0 : 2;
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    finish(process);
}

}  // namespace
