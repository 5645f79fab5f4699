#include "sync/waitabletimer.h"

#include <fcntl.h>
#include <sys/timerfd.h>
#include <climits>
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
    const ObjectRecord *record = vlliGetObjectAddress(timer);
    EXPECT_EQ(record->flags, OBJF_AUTO_RESET);
    EXPECT_EQ(fcntl(record->fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    const struct {
        int64_t due, least_s, most_s;
    } rows[] = {
        {36000000000 + 9999999, 3590, 3600},
        {-36000000000, 3590, 3600},
        {10000000LL * 2000000000, 1999999000, 2000000000},
    };
    for (const auto &row : rows) {
        ASSERT_TRUE(vllSetWaitableTimer(timer, row.due));
        itimerspec setting = {};
        EXPECT_EQ(timerfd_gettime(record->fd, &setting), 0);
        EXPECT_GE(setting.it_value.tv_sec, row.least_s);
        EXPECT_LE(setting.it_value.tv_sec, row.most_s);
        EXPECT_EQ(setting.it_interval.tv_sec, 0);
        EXPECT_EQ(setting.it_interval.tv_nsec, 0);
    }
    constexpr bool kFits = sizeof(time_t) > 4;
    for (const int64_t due : {INT64_MAX, INT64_MIN}) {
        EXPECT_THAT(vllSetWaitableTimer(timer, due), Yields(kFits, kFits ? 0 : EINVAL));
        EXPECT_FALSE(isSignalled(timer));
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
    EXPECT_EQ(vlliGetObjectAddress(duplicate)->flags, OBJF_AUTO_RESET);
    EXPECT_TRUE(vllSetWaitableTimer(timer, 30 * kMs));
    EXPECT_TRUE(vllCloseHandle(timer.release()));
    EXPECT_EQ(vllWaitForSingleObject(duplicate, 20000), WAIT_OBJECT_0);
}

TEST_F(WaitableTimerTest, refusals) {
    errno = 77;
    EXPECT_EQ(vllCreateWaitableTimer(""), 0U);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(takeErrors(), Errors{"VLL: CreateWaitableTimer: Named timers not supported\n"});

    const Owned event(makeManualEvent());
    const HANDLE closed = vllCreateWaitableTimer(nullptr);
    vllCloseHandle(closed);
    const Owned bare(vlliCreateObject(OBJ_WAITABLE_TIMER));
    vlliGetObjectAddress(bare)->fd = -1;
    for (const bool cancel : {false, true}) {
        const auto operation = [&](HANDLE timer) {
            return cancel ? vllCancelWaitableTimer(timer) : vllSetWaitableTimer(timer, kMs);
        };
        const char *name = cancel ? "CancelWaitableTimer" : "SetWaitableTimer";
        EXPECT_THAT(operation(closed), Yields(FALSE, EINVAL));
        const Errors lines = takeErrors();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[1], format("VLLI: %s( timerHandle = 0 )\n", name));

        EXPECT_THAT(operation(bare), Yields(FALSE, 0));
        EXPECT_EQ(takeErrors(),
                  Errors{format("VLLI: %s( %u ) - timer not initialized\n", name, HANDLE{bare})});

        EXPECT_THAT(operation(event), Yields(FALSE, EINVAL));
        EXPECT_EQ(takeErrors(),
                  Errors{format("VLLI: %s( %u ) - unable to (re)set timer time, error = %d [%s]\n", name,
                                HANDLE{event}, EINVAL, strerror(EINVAL))});
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
