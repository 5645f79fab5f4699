#include "sync/waitabletimer.h"

#include <fcntl.h>
#include <sys/timerfd.h>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class WaitableTimerTest : public LibraryTest {};

constexpr int64_t kMs = 10000;  // in units of 100 ns

TEST_F(WaitableTimerTest, both_signs_mean_the_same_delay) {
    for (const int64_t due : {150 * kMs, -150 * kMs}) {
        const Owned timer(vllCreateWaitableTimer(nullptr));
        EXPECT_FALSE(isSignalled(timer));
        const int64_t start = nowMs();
        EXPECT_TRUE(vllSetWaitableTimer(timer, due / 8));
        EXPECT_TRUE(vllSetWaitableTimer(timer, due)) << "in place of the first";
        EXPECT_EQ(vllWaitForSingleObject(timer, 10), WAIT_TIMEOUT);
        EXPECT_EQ(vllWaitForSingleObject(timer, 20000), WAIT_OBJECT_0);
        EXPECT_GE(nowMs() - start, 149);
        EXPECT_EQ(vllWaitForSingleObject(timer, 50), WAIT_TIMEOUT) << "one wait consumes the only expiry";
        EXPECT_TRUE(vllSetWaitableTimer(timer, 1));
        EXPECT_EQ(vllWaitForSingleObject(timer, 20000), WAIT_OBJECT_0) << "armed again";
    }
}

TEST_F(WaitableTimerTest, the_setting_is_relative_and_one_shot) {
    const Owned timer(vllCreateWaitableTimer(nullptr));
    const int fd = vlliGetObjectAddress(timer)->fd;
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    for (const int64_t seconds : {int64_t{3600}, int64_t{-3600}, int64_t{2000000000}}) {
        ASSERT_TRUE(vllSetWaitableTimer(timer, seconds * 10000000 + (seconds < 0 ? -9999999 : 9999999)));
        itimerspec setting = {};
        EXPECT_EQ(timerfd_gettime(fd, &setting), 0);
        EXPECT_NEAR(static_cast<double>(setting.it_value.tv_sec), static_cast<double>(std::abs(seconds)), 10);
        EXPECT_EQ(setting.it_interval.tv_sec, 0);
        EXPECT_EQ(setting.it_interval.tv_nsec, 0);
    }
    constexpr bool kFits = sizeof(time_t) > 4;
    for (const int64_t due : {INT64_MAX, INT64_MIN}) {
        EXPECT_THAT(vllSetWaitableTimer(timer, due), Yields(kFits, kFits ? 0 : EINVAL));
    }
    takeErrors();
}

TEST_F(WaitableTimerTest, zero_and_cancel_disarm) {
    const Owned timer(vllCreateWaitableTimer(nullptr));
    for (const bool cancel : {false, true}) {
        const auto disarm = [&] {
            return cancel ? vllCancelWaitableTimer(timer) : vllSetWaitableTimer(timer, 0);
        };
        EXPECT_TRUE(vllSetWaitableTimer(timer, 30 * kMs));
        EXPECT_TRUE(disarm());
        EXPECT_EQ(vllWaitForSingleObject(timer, 60), WAIT_TIMEOUT);
        EXPECT_TRUE(vllSetWaitableTimer(timer, -1));
        EXPECT_EQ(vllWaitForSingleObject(timer, 20000), WAIT_OBJECT_0) << "100 ns";
        EXPECT_TRUE(disarm()) << "disarmed already";
    }
}

TEST_F(WaitableTimerTest, the_last_handle_ends_it) {
    Owned timer(vllCreateWaitableTimer(nullptr));
    const Owned duplicate(vllDuplicateHandle(timer));
    EXPECT_TRUE(vllSetWaitableTimer(timer, 30 * kMs));
    EXPECT_TRUE(vllCloseHandle(timer.release()));
    EXPECT_EQ(vllWaitForSingleObject(duplicate, 20000), WAIT_OBJECT_0);
    EXPECT_FALSE(isSignalled(duplicate)) << "consumed";
}

TEST_F(WaitableTimerTest, lines_of_refusals) {
    EXPECT_THAT(vllCreateWaitableTimer(""), FailsWith(0));
    EXPECT_EQ(takeErrors(), Errors{"VLL: CreateWaitableTimer: Named timers not supported\n"});
    const Owned event(makeManualEvent()), mutex(vllCreateMutex(FALSE, nullptr));
    for (const bool cancel : {false, true}) {
        const std::string name = cancel ? "VLLI: CancelWaitableTimer( " : "VLLI: SetWaitableTimer( ";
        for (const HANDLE handle : {HANDLE{0}, HANDLE{mutex}, HANDLE{event}}) {
            EXPECT_FALSE(cancel ? vllCancelWaitableTimer(handle) : vllSetWaitableTimer(handle, kMs));
        }
        const Errors lines = takeErrors();
        ASSERT_EQ(lines.size(), 4U);
        EXPECT_EQ(lines[1], name + "timerHandle = 0 )\n");
        EXPECT_EQ(lines[2], name + std::to_string(mutex) + " ) - timer not initialized\n");
        EXPECT_EQ(lines[3],
                  name + std::to_string(event) +
                      format(" ) - unable to (re)set timer time, error = 22 [%s]\n", strerror(EINVAL)));
    }
}

TEST_F(WaitableTimerTest, failing_calls) {
    const Owned timer(vllCreateWaitableTimer(nullptr));
    const auto create = [] { return vllCreateWaitableTimer(nullptr); };
    expectFailure({"timerfd_create", 1, EMFILE, {}}, create, 0);
    expectFailure({"fcntl64", 1, EINVAL, {}}, create, 0);
    expectFailure(
        {"dup", 1, EMFILE, {}}, [&] { return vllDuplicateHandle(timer); }, 0);
}

}  // namespace
