// Scheduling, sleeping, and the lookup of a running program by name.
#include <sched.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <cstdlib>

#include "support/child.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/shown_process.h"
#include "support/threads.h"

namespace {

class ScheduleTest : public LibraryTest {};

// Runs body in a child, where priorities and identity may change.
void inChild(const std::function<void()> &body) {
    expectInChild([&] {
        body();
        return 0;
    });
}

DWORD self() {
    return vllGetCurrentProcessId();
}

TEST_F(ScheduleTest, priority_class) {
    inChild([] {
        const struct {
            int32_t policy;
            int32_t priority;
            bool accepted;
            int seen;  // the nice value, or the real-time priority
        } rows[] = {
            {0, 5, true, 5},   {0, 20, true, 19},        {0, -20, true, -20}, {0, 0, true, 0},
            {0, 21, false, 0}, {0, -21, false, 0},       {3, 0, false, 0},    {-1, 0, false, 0},
            {5, 0, false, 0},  {0, INT32_MIN, false, 0}, {1, 0, false, 0},    {2, 100, false, 0},
            {1, 10, true, 10}, {2, 99, true, 99},        {0, 3, true, 3},
        };
        for (const auto &row : rows) {
            SCOPED_TRACE(testing::Message() << row.policy << ", " << row.priority);
            const int before = sched_getscheduler(0);
            EXPECT_THAT(vllSetPriorityClass(self(), row.policy, row.priority),
                        Yields(row.accepted ? TRUE : FALSE, row.accepted ? 0 : EINVAL));
            EXPECT_EQ(sched_getscheduler(0), row.accepted ? row.policy : before);
            sched_param parameter;
            sched_getparam(0, &parameter);
            if (row.accepted) {
                EXPECT_EQ(row.policy == 0 ? getpriority(PRIO_PROCESS, 0) : parameter.sched_priority,
                          row.seen);
            }
        }
        EXPECT_THAT(vllSetPriorityClass(0x7FFFFFFF, 0, 0), FailsWith(ESRCH));
    });
}

TEST_F(ScheduleTest, without_privilege) {
    inChild([] {
        ASSERT_EQ(setuid(65534), 0);
        EXPECT_THAT(vllSetPriorityClass(self(), SCHED_FIFO, 1), FailsWith(EPERM));
        EXPECT_THAT(vllSetPriorityClass(1, SCHED_OTHER, 0), FailsWith(EPERM));
        EXPECT_TRUE(vllSetPriorityClass(self(), SCHED_OTHER, 10));
        EXPECT_THAT(vllSetPriorityClass(self(), SCHED_OTHER, -5), FailsWith(EACCES));
        EXPECT_THAT(vllSetThreadPriority(vllGetCurrentThreadId(), SCHED_RR, 1), FailsWith(EPERM));
    });
}

TEST_F(ScheduleTest, thread_priority) {
    inChild([] {
        int32_t policy = -1;
        int32_t priority = -1;
        const uintptr_t thread = vllGetCurrentThreadId();
        EXPECT_TRUE(vllGetThreadPriority(thread, &policy, &priority));
        EXPECT_EQ(policy, SCHED_OTHER);
        EXPECT_EQ(priority, 0);
        EXPECT_TRUE(vllSetThreadPriority(thread, SCHED_RR, 7));
        EXPECT_TRUE(vllGetThreadPriority(thread, &policy, &priority));
        EXPECT_EQ(policy, SCHED_RR);
        EXPECT_EQ(priority, 7);
        EXPECT_THAT(vllSetThreadPriority(thread, SCHED_RR, 0), FailsWith(EINVAL));
        EXPECT_THAT(vllSetThreadPriority(thread, 77, 1), FailsWith(EINVAL));
        EXPECT_THAT(vllSetThreadPriority(0, SCHED_OTHER, 0), FailsWith(ESRCH));
        EXPECT_THAT(vllGetThreadPriority(0, &policy, &priority), FailsWith(ESRCH));
        EXPECT_THAT(vllGetThreadPriority(thread, nullptr, &priority), FailsWith(EINVAL));
        EXPECT_THAT(vllGetThreadPriority(thread, &policy, nullptr), FailsWith(EINVAL));
    });
}

class SleepTest : public LibraryTest {};

TEST_F(SleepTest, for_the_time_asked) {
    EXPECT_THAT(vllSleep(0), Yields(0, 0));
    const SignalHandler handler(SIGALRM, ignoreSignal);
    const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &every_5_ms, nullptr);
    resetCallCounts();
    for (const DWORD ms : {1U, 30U, 1100U}) {
        const int64_t start = nowMs();
        EXPECT_EQ(vllSleep(ms), 0);
        EXPECT_GE(nowMs() - start + 1, int64_t{ms});
    }
    EXPECT_GE(callCount("nanosleep"), 5U) << "not interrupted";
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    for (const DWORD ms : {0xFFFFFFFFU, 0x80000000U, 0U - 1000U, 0U - 1500U}) {
        EXPECT_THAT(vllSleep(ms), FailsWith(EINVAL, -1));
    }
}

// A thread that is cancelled in a blocking call unwinds: its clean-up is seen, and its handle is signalled.
void expectCancellable(const std::function<void()> &block) {
    bool unwound = false;
    const Sleeper thread([&] {
        struct Guard {
            bool *unwound;
            ~Guard() { *unwound = true; }
        } const guard = {&unwound};
        block();
    });
    EXPECT_TRUE(vllTerminateThread(thread.handle(), 1));
    EXPECT_EQ(vllWaitForSingleObject(thread.handle(), 60000), WAIT_OBJECT_0);
    EXPECT_TRUE(unwound);
}

TEST_F(SleepTest, can_be_cancelled) {
    expectCancellable([] { vllSleep(0x7FFFFFFF); });
}

// With a directory that stands first on PATH.
class DaemonTest : public LibraryTest {
  protected:
    void TearDown() override {
        LibraryTest::TearDown();
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    }

    // A stand-in for pidof that writes its arguments to a file and prints an answer.
    void answer(const std::string &text) {
        makeScript(directory_, "pidof",
                   "#!/bin/sh\nprintf '%s|' \"$@\" > " + directory_ + "/asked\nprintf '%b' '" + text + "'\n");
    }
    std::string asked() {
        const std::string file = directory_ + "/asked";
        std::string text = readFile(file);
        unlink(file.c_str());
        return text;
    }

    const std::string directory_ = makeProgramDirectory();
    const Variable path_{"PATH", (directory_ + ":" + getenv("PATH")).c_str()};
};

TEST_F(DaemonTest, finds_a_real_program) {
    const std::string name = "vlltestdaemon" + std::to_string(getpid());
    EXPECT_EQ(vllGetDaemonPID(name.c_str()), -1);
    makeScript(directory_, name, readFile("/bin/sleep"));
    PROCESS_INFORMATION process;
    ASSERT_TRUE(vllCreateProcess(nullptr, (name + " 60").c_str(), nullptr, &process));
    const auto pid = static_cast<int32_t>(process.dwProcessId);
    EXPECT_TRUE(waitUntil([&] { return vllGetDaemonPID(name.c_str()) == pid; }));
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    finishThread(process.hProcess);
}

TEST_F(DaemonTest, reads_the_first_number_of_the_first_line) {
    const std::pair<std::string, int32_t> rows[] = {
        {"4711\\n", 4711},
        {"12 34 56\\n", 12},
        {" 7", 7},
        {"", -1},
        {"\\n5\\n", -1},
        {"none\\n", -1},
        {"-3", -3},
        {std::string(254, ' ') + "56", 5},
        {std::string(255, ' ') + "5\\n", -1},
        {"8\\n" + std::string(100000, '9'), 8},  // more than a pipe holds
    };
    for (const auto &[text, pid] : rows) {
        answer(text);
        EXPECT_EQ(vllGetDaemonPID("init"), pid) << text.substr(0, 300);
        EXPECT_EQ(asked(), "init|");
    }
}

TEST_F(DaemonTest, hostile_names_run_nothing) {
    answer("1\\n");
    resetCallCounts();
    const char *const names[] = {nullptr, "",    "-o",   "a b",     "a\tb",     "a\nb",   "a;id",
                                 "`id`",  "a|b", "a&b",  "a>b",     "a<b",      "'a'",    "\"a\"",
                                 "a*",    "a?",  "[a]",  "~root",   "a\\b",     "#a",     "{a,b}",
                                 "!a",    "(a)", "$PWD", "caf\xE9", "$(id>&2)", "a;\x7F", "^a"};
    for (const char *name : names) {
        EXPECT_THAT(vllGetDaemonPID(name), FailsWith(EINVAL, -1));
    }
    EXPECT_THAT(vllGetDaemonPID(std::string(44, 'a').c_str()), FailsWith(ENAMETOOLONG, -1));
    EXPECT_EQ(callCount("clone"), 0U);
    for (const std::string &name : {std::string(43, 'a'), std::string("a.B_9-+/:@,%=")}) {
        EXPECT_EQ(vllGetDaemonPID(name.c_str()), 1);
        EXPECT_EQ(asked(), name + "|");
    }
}

TEST_F(DaemonTest, no_pipe_and_no_child) {
    {
        const FailCall fail("clone", 1, EAGAIN);
        EXPECT_THAT(vllGetDaemonPID("init"), FailsWith(EAGAIN, -1));
    }
    inChild([] {
        const rlimit none_left = {static_cast<rlim_t>(nextFd()), static_cast<rlim_t>(nextFd())};
        setrlimit(RLIMIT_NOFILE, &none_left);
        EXPECT_THAT(vllGetDaemonPID("init"), FailsWith(EMFILE, -1));
    });
    inChild([&] {
        answer("9\\n");
        close(STDOUT_FILENO);  // the pipe then has its number
        EXPECT_EQ(vllGetDaemonPID("init"), 9);
    });
}

TEST_F(DaemonTest, can_be_cancelled) {
    makeScript(directory_, "pidof", "#!/bin/sh\nsleep 1\n: > " + directory_ + "/ended\n");
    expectCancellable([] { vllGetDaemonPID("init"); });
    EXPECT_TRUE(exists(directory_ + "/ended"));
}

}  // namespace
