#include "waitabletimer.h"

#include <fcntl.h>
#include <sys/timerfd.h>
#include <climits>
#include <cstring>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class WaitableTimerTest : public LibraryTest {};

constexpr int64_t kMs = 10000;  // in units of 100 ns

itimerspec settingOf(HANDLE timer) {
    itimerspec setting = {};
    EXPECT_EQ(timerfd_gettime(vlliGetObjectAddress(timer)->fd, &setting), 0);
    return setting;
}

TEST_F(WaitableTimerTest, both_signs_mean_the_same_delay) {
    for (const int64_t due : {150 * kMs, -150 * kMs}) {
        const Owned timer(vllCreateWaitableTimer(nullptr));
        EXPECT_FALSE(IsSignalled(timer));
        const int64_t start = NowMs();
        EXPECT_TRUE(vllSetWaitableTimer(timer, due));
        EXPECT_EQ(vllWaitForSingleObject(timer, 10), WAIT_TIMEOUT);
        EXPECT_EQ(vllWaitForSingleObject(timer, 20000), WAIT_OBJECT_0);
        EXPECT_GE(NowMs() - start, 149);
        EXPECT_FALSE(IsSignalled(timer)) << "one wait consumes the expiry, and the timer does not repeat";
        EXPECT_TRUE(vllSetWaitableTimer(timer, 1));
        EXPECT_EQ(vllWaitForSingleObject(timer, 20000), WAIT_OBJECT_0) << "armed again";
    }
}

TEST_F(WaitableTimerTest, the_setting_is_relative_and_one_shot) {
    const Owned timer(vllCreateWaitableTimer(nullptr));
    EXPECT_EQ(vlliGetObjectAddress(timer)->flags, OBJF_AUTO_RESET);
    EXPECT_EQ(fcntl(vlliGetObjectAddress(timer)->fd, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
    const struct {
        int64_t due, least_s, most_s;
    } rows[] = {
        {36000000000 + 9999999, 3590, 3600},
        {-36000000000, 3590, 3600},
        {10000000LL * 2000000000, 1999999000, 2000000000},
    };
    for (const auto &row : rows) {
        ASSERT_TRUE(vllSetWaitableTimer(timer, row.due));
        const itimerspec setting = settingOf(timer);
        EXPECT_GE(setting.it_value.tv_sec, row.least_s);
        EXPECT_LE(setting.it_value.tv_sec, row.most_s);
        EXPECT_EQ(setting.it_interval.tv_sec, 0);
        EXPECT_EQ(setting.it_interval.tv_nsec, 0);
    }
    for (const int64_t due : {INT64_MAX, INT64_MIN}) {
        errno = 0;
        const BOOL fits = vllSetWaitableTimer(timer, due);
        EXPECT_EQ(fits, sizeof(time_t) > 4);
        EXPECT_EQ(errno, fits ? 0 : EINVAL);
        EXPECT_FALSE(IsSignalled(timer));
    }
    TakeErrors();
}

TEST_F(WaitableTimerTest, zero_and_cancel_disarm) {
    const Owned timer(vllCreateWaitableTimer(nullptr));
    const std::function<BOOL()> disarm[] = {[&] { return vllSetWaitableTimer(timer, 0); },
                                            [&] { return vllCancelWaitableTimer(timer); }};
    for (const auto &operation : disarm) {
        EXPECT_TRUE(vllSetWaitableTimer(timer, 30 * kMs));
        EXPECT_TRUE(operation());
        EXPECT_EQ(vllWaitForSingleObject(timer, 60), WAIT_TIMEOUT);
        EXPECT_TRUE(vllSetWaitableTimer(timer, -1));
        EXPECT_EQ(vllWaitForSingleObject(timer, 20000), WAIT_OBJECT_0) << "100 ns";
        EXPECT_TRUE(operation()) << "disarmed already";
    }
}

TEST_F(WaitableTimerTest, arming_twice_expires_once_at_the_second_time) {
    const Owned timer(vllCreateWaitableTimer(nullptr));
    const int64_t start = NowMs();
    EXPECT_TRUE(vllSetWaitableTimer(timer, 20 * kMs));
    EXPECT_TRUE(vllSetWaitableTimer(timer, 120 * kMs));
    EXPECT_EQ(vllWaitForSingleObject(timer, 20000), WAIT_OBJECT_0);
    EXPECT_GE(NowMs() - start, 119);
    EXPECT_EQ(vllWaitForSingleObject(timer, 50), WAIT_TIMEOUT);
}

TEST_F(WaitableTimerTest, the_last_handle_ends_it) {
    Owned timer(vllCreateWaitableTimer(nullptr));
    Owned duplicate(vllDuplicateHandle(timer));
    EXPECT_EQ(vlliGetObjectAddress(duplicate)->flags, OBJF_AUTO_RESET);
    EXPECT_TRUE(vllSetWaitableTimer(timer, 30 * kMs));
    EXPECT_TRUE(vllCloseHandle(timer.release()));
    EXPECT_EQ(vllWaitForSingleObject(duplicate, 20000), WAIT_OBJECT_0);
}

TEST_F(WaitableTimerTest, refusals) {
    errno = 77;
    EXPECT_EQ(vllCreateWaitableTimer(""), 0U);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(TakeErrors(), Errors{"VLL: CreateWaitableTimer: Named timers not supported\n"});

    const Owned event(MakeManualEvent());
    const HANDLE closed = vllCreateWaitableTimer(nullptr);
    vllCloseHandle(closed);
    const HANDLE bare = vlliCreateObject(OBJ_WAITABLE_TIMER);
    vlliGetObjectAddress(bare)->fd = -1;
    const struct {
        const char *name;
        std::function<BOOL(HANDLE)> call;
    } operations[] = {{"SetWaitableTimer", [](HANDLE timer) { return vllSetWaitableTimer(timer, kMs); }},
                      {"CancelWaitableTimer", vllCancelWaitableTimer}};
    for (const auto &operation : operations) {
        const std::string lead = std::string("VLLI: ") + operation.name + "( ";
        errno = 0;
        EXPECT_FALSE(operation.call(closed));
        EXPECT_EQ(errno, EINVAL);
        const Errors lines = TakeErrors();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[1], lead + "timerHandle = 0 )\n");

        errno = 77;
        EXPECT_FALSE(operation.call(bare));
        EXPECT_EQ(errno, 77);
        EXPECT_EQ(TakeErrors(), Errors{lead + std::to_string(bare) + " ) - timer not initialized\n"});

        errno = 0;
        EXPECT_FALSE(operation.call(event));
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(TakeErrors(),
                  Errors{lead + std::to_string(event) + " ) - unable to (re)set timer time, error = " +
                         std::to_string(EINVAL) + " [" + strerror(EINVAL) + "]\n"});
    }
    EXPECT_TRUE(vllCloseHandle(bare));
}

TEST_F(WaitableTimerTest, failing_calls) {
    const Failure creations[] = {{"timerfd_create", 1, EMFILE, {}}, {"fcntl64", 1, EINVAL, {}}};
    for (const Failure &failure : creations) {
        ExpectFailure(
            failure, [] { return vllCreateWaitableTimer(nullptr); }, 0);
    }
    const Owned timer(vllCreateWaitableTimer(nullptr));
    ExpectFailure(
        {"dup", 1, EMFILE, {}}, [&] { return vllDuplicateHandle(timer); }, 0);
}

}  // namespace
