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
        struct {
            int32_t policy;
            int32_t priority;
            bool accepted;
            int nice;
        } rows[] = {
            {0, 5, true, 5},   {0, 20, true, 19},        {0, -20, true, -20}, {0, 0, true, 0},
            {0, 21, false, 0}, {0, -21, false, 0},       {3, 0, false, 0},    {-1, 0, false, 0},
            {5, 0, false, 0},  {0, INT32_MIN, false, 0}, {1, 0, false, 0},    {2, 100, false, 0},
            {1, 10, true, 0},  {2, 99, true, 0},         {0, 3, true, 3},
        };
        for (const auto &row : rows) {
            SCOPED_TRACE(testing::Message() << row.policy << ", " << row.priority);
            const int before = sched_getscheduler(0);
            errno = 0;
            EXPECT_EQ(vllSetPriorityClass(self(), row.policy, row.priority), row.accepted ? TRUE : FALSE);
            EXPECT_EQ(errno, row.accepted ? 0 : EINVAL);
            EXPECT_EQ(sched_getscheduler(0), row.accepted ? row.policy : before);
            if (row.accepted && row.policy == SCHED_OTHER) {
                EXPECT_EQ(getpriority(PRIO_PROCESS, 0), row.nice);
            }
            if (row.accepted && row.policy != SCHED_OTHER) {
                sched_param parameter;
                sched_getparam(0, &parameter);
                EXPECT_EQ(parameter.sched_priority, row.priority);
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
        EXPECT_FALSE(vllGetThreadPriority(thread, &policy, nullptr));
        EXPECT_EQ(policy, SCHED_RR);
    });
}

// ---- sleeping ----

class SleepTest : public LibraryTest {};

TEST_F(SleepTest, for_the_time_asked) {
    EXPECT_EQ(vllSleep(0), 0);
    for (const DWORD ms : {1U, 30U, 1100U}) {
        const int64_t start = nowMs();
        EXPECT_EQ(vllSleep(ms), 0);
        EXPECT_GE(nowMs() - start + 1, int64_t{ms});
    }
}

TEST_F(SleepTest, refuses_what_is_negative) {
    const int64_t start = nowMs();
    for (const DWORD ms : {0xFFFFFFFFU, 0x80000000U, 0U - 1000U, 0U - 1500U}) {
        EXPECT_THAT(vllSleep(ms), FailsWith(EINVAL, -1));
    }
    EXPECT_LT(nowMs() - start, 60000);
}

TEST_F(SleepTest, goes_on_after_signals) {
    const SignalHandler handler(SIGALRM, ignoreSignal);
    const itimerval every_5_ms = {{0, 5000}, {0, 5000}};
    setitimer(ITIMER_REAL, &every_5_ms, nullptr);
    resetCallCounts();
    const int64_t start = nowMs();
    EXPECT_EQ(vllSleep(300), 0);
    EXPECT_GE(nowMs() - start + 1, 300);
    const itimerval off = {};
    setitimer(ITIMER_REAL, &off, nullptr);
    EXPECT_GE(callCount("nanosleep"), 3U);  // it was interrupted
}

// A thread that is cancelled in a blocking call unwinds: its clean-up is seen, and its handle is signalled.
void expectCancellable(void (*block)()) {
    std::atomic<pid_t> tid{0};
    std::atomic<bool> unwound{false};
    const auto body = [&] {
        struct Guard {
            std::atomic<bool> *unwound;
            ~Guard() { *unwound = true; }
        } const guard = {&unwound};
        tid = gettid();
        block();
    };
    const HANDLE thread = startThread(body);
    ASSERT_TRUE(waitUntil([&] { return tid != 0; }));
    ASSERT_TRUE(waitUntilAsleep(tid));
    EXPECT_TRUE(vllTerminateThread(thread, 1));
    finishThread(thread);
    EXPECT_TRUE(unwound);
}

TEST_F(SleepTest, can_be_cancelled) {
    expectCancellable([] { vllSleep(0x7FFFFFFF); });
}

// ---- the daemon lookup ----

// With a directory that stands first on PATH.
class DaemonTest : public LibraryTest {
  protected:
    void TearDown() override {
        LibraryTest::TearDown();
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
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
    EXPECT_TRUE(waitUntil([&] { return vllGetDaemonPID(name.c_str()) != -1; }));
    EXPECT_EQ(vllGetDaemonPID(name.c_str()), static_cast<int32_t>(process.dwProcessId));
    EXPECT_TRUE(vllTerminateProcess(process.dwProcessId, 0));
    finishThread(process.hProcess);
}

TEST_F(DaemonTest, reads_the_first_number_of_the_first_line) {
    const struct {
        std::string text;
        int32_t pid;
    } rows[] = {
        {"4711\\n", 4711}, {"12 34 56\\n", 12}, {" 7", 7},  {"", -1},
        {"\\n5\\n", -1},   {"none\\n", -1},     {"-3", -3}, {std::string(300, ' ') + "5\\n", -1},
    };
    for (const auto &row : rows) {
        answer(row.text);
        EXPECT_EQ(vllGetDaemonPID("init"), row.pid) << row.text;
        EXPECT_EQ(asked(), "init|");
    }
}

TEST_F(DaemonTest, hostile_names_run_nothing) {
    answer("1\\n");
    const std::string touched = directory_ + "/touched";
    resetCallCounts();
    const std::string names[] = {"",
                                 "a b",
                                 "a;touch " + touched,
                                 "$(touch${IFS}" + touched + ")",
                                 "`id`",
                                 "a|b",
                                 "a&b",
                                 "a>b",
                                 "a<b",
                                 "'a'",
                                 "\"a\"",
                                 "a\nb",
                                 "a*",
                                 "a?",
                                 "[a]",
                                 "~root",
                                 "a\\b",
                                 "#a",
                                 "{a,b}",
                                 "a\tb",
                                 "!a",
                                 "(a)",
                                 "-o",
                                 "caf\xE9"};
    for (const std::string &name : names) {
        errno = 0;
        EXPECT_EQ(vllGetDaemonPID(name.c_str()), -1) << name;
        EXPECT_EQ(errno, EINVAL) << name;
    }
    EXPECT_THAT(vllGetDaemonPID(nullptr), FailsWith(EINVAL, -1));
    EXPECT_THAT(vllGetDaemonPID(std::string(44, 'a').c_str()), FailsWith(ENAMETOOLONG, -1));
    EXPECT_EQ(vllGetDaemonPID(std::string(100000, 'a').c_str()), -1);
    EXPECT_EQ(callCount("popen"), 0U);
    EXPECT_EQ(asked(), "");
    EXPECT_EQ(access(touched.c_str(), F_OK), -1);

    EXPECT_EQ(vllGetDaemonPID(std::string(43, 'a').c_str()), 1);
    EXPECT_EQ(asked(), std::string(43, 'a') + "|");
    const char *plain = "a.B_9-+/:@,%=";
    EXPECT_EQ(vllGetDaemonPID(plain), 1);
    EXPECT_EQ(asked(), std::string(plain) + "|");
}

TEST_F(DaemonTest, no_pipe) {
    FailCall fail("popen", 1, EMFILE);
    EXPECT_THAT(vllGetDaemonPID("init"), FailsWith(EMFILE, -1));
}

TEST_F(DaemonTest, can_be_cancelled) {
    makeScript(directory_, "pidof", "#!/bin/sh\nexec sleep 2\n");
    expectCancellable([] { vllGetDaemonPID("init"); });
}

}  // namespace
