#include "waitformultipleobjects.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <cstring>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"
#include "wsasockets.h"

namespace {

class WaitForMultipleObjectsTest : public LibraryTest {};

// The way of a wait: asking at once, or through a set of its own (a wait that found nothing at first).
DWORD waitBlocking(int32_t count, const HANDLE *handles, HANDLE signal_later, int delay_ms = 30) {
    const auto body = [&] {
        usleep(static_cast<useconds_t>(delay_ms) * 1000);
        vllSetEvent(signal_later);
    };
    const HANDLE thread = StartThread(body);
    const DWORD result = vllWaitForMultipleObjects(count, handles, 20000);
    FinishThread(thread);
    return result;
}

TEST_F(WaitForMultipleObjectsTest, counts_and_arrays_out_of_range) {
    HANDLE handles[MAXIMUM_WAIT_OBJECTS + 1];
    const Owned event(MakeManualEvent(TRUE));
    std::fill(std::begin(handles), std::end(handles), HANDLE{event});
    for (const int32_t count : {0, -1, MAXIMUM_WAIT_OBJECTS + 1, INT32_MIN, INT32_MAX}) {
        errno = 0;
        EXPECT_EQ(vllWaitForMultipleObjects(count, handles, 0), WAIT_FAILED);
        EXPECT_EQ(errno, EINVAL);
    }
    errno = 0;
    EXPECT_EQ(vllWaitForMultipleObjects(1, nullptr, 0), WAIT_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(vllWaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, handles, 0), WAIT_OBJECT_0);
    EXPECT_EQ(TakeErrors(), Errors{});
}

TEST_F(WaitForMultipleObjectsTest, each_of_64_is_reported_at_its_index) {
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    for (HANDLE &handle : handles) {
        handle = MakeAutoEvent();
    }
    errno = 77;
    for (DWORD i = 0; i < MAXIMUM_WAIT_OBJECTS; i += 7) {
        vllSetEvent(handles[i]);
        EXPECT_EQ(vllMsgWaitForMultipleObjectsEx(MAXIMUM_WAIT_OBJECTS, handles, 0), WAIT_OBJECT_0 + i);
        EXPECT_EQ(waitBlocking(MAXIMUM_WAIT_OBJECTS, handles, handles[i]), WAIT_OBJECT_0 + i);
        EXPECT_EQ(vllWaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, handles, 0), WAIT_TIMEOUT);
    }
    EXPECT_EQ(errno, 77);
    vllSetEvent(handles[3]);
    vllSetEvent(handles[60]);
    EXPECT_EQ(vllWaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, handles, 0) +
                  vllWaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, handles, 0),
              63U)
        << "one object for each wait";
    for (const HANDLE handle : handles) {
        vllCloseHandle(handle);
    }
}

TEST_F(WaitForMultipleObjectsTest, what_each_type_consumes) {
    const Owned automatic(MakeAutoEvent());
    const Owned manual(MakeManualEvent());
    const Owned timer(vllCreateWaitableTimer(nullptr));
    const auto body = [&] { vllWaitForSingleObject(manual, INFINITE); };
    const Owned thread(StartThread(body));
    const HANDLE handles[] = {automatic, timer, thread};
    EXPECT_EQ(vllWaitForMultipleObjects(3, handles, 0), WAIT_TIMEOUT);
    EXPECT_EQ(waitBlocking(3, handles, automatic), WAIT_OBJECT_0);
    vllSetWaitableTimer(timer, 100000);
    EXPECT_EQ(vllWaitForMultipleObjects(3, handles, 20000), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(vllWaitForMultipleObjects(3, handles, 20), WAIT_TIMEOUT);
    vllSetEvent(manual);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(vllWaitForMultipleObjects(3, handles, 20000), WAIT_OBJECT_0 + 2) << "stays signalled";
    }
    const HANDLE twice[] = {automatic, manual, manual, automatic};
    EXPECT_EQ(vllWaitForMultipleObjects(4, twice, 0), WAIT_OBJECT_0 + 1) << "the first listing counts";
    vllResetEvent(manual);
    EXPECT_EQ(waitBlocking(4, twice, manual), WAIT_OBJECT_0 + 1);
    vllResetEvent(manual);
    EXPECT_EQ(waitBlocking(4, twice, automatic), WAIT_OBJECT_0);
}

TEST_F(WaitForMultipleObjectsTest, a_bad_handle_anywhere_fails_and_changes_nothing) {
    const Owned signalled(MakeAutoEvent(TRUE));
    const Owned other(MakeAutoEvent());
    const HANDLE closed = MakeAutoEvent();
    vllCloseHandle(closed);
    const HANDLE mutex = vlliCreateObject(OBJ_SHMEM);  // any type that cannot be waited on here
    vlliGetObjectAddress(mutex)->fd = -1;
    const struct {
        HANDLE handle;
        size_t lines;
    } rows[] = {{closed, 1}, {0, 1}, {5, 1}, {0x50000, 1}, {OBJ_WAITABLE_TIMER | (other & kIndexMask), 0},
                {mutex, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.handle);
        for (const int32_t place : {0, 1, 2}) {
            HANDLE handles[] = {signalled, other, other};
            handles[place] = row.handle;
            const Inventory before = TakeInventory();
            errno = 0;
            EXPECT_EQ(vllWaitForMultipleObjects(3, handles, INFINITE), WAIT_FAILED);
            EXPECT_EQ(errno, EINVAL);
            EXPECT_EQ(TakeErrors().size(), row.lines);
            EXPECT_EQ(TakeInventory(), before);
            EXPECT_EQ(References(signalled), 1);
            EXPECT_EQ(References(other), 1);
        }
    }
    EXPECT_TRUE(IsSignalled(signalled)) << "not consumed";
    vlliCloseObject(mutex);
}

TEST_F(WaitForMultipleObjectsTest, failing_calls) {
    const Owned event(MakeAutoEvent());
    const Owned timer(vllCreateWaitableTimer(nullptr));
    const HANDLE handles[] = {timer, event};
    const auto number = [](int32_t value) { return std::to_string(value); };
    const std::string lead = "VLL: WaitForMultipleObjects: epoll_";
    const std::string add = lead + "ctl( efd, EPOLL_CTL_ADD, events[";
    const Failure failures[] = {
        {"epoll_create", 1, EMFILE, {lead + "create( 2 ) == -1, errno = 24\n"}},
        {"malloc", 1, ENOMEM, {}},
        {"epoll_ctl",
         1,
         ENOMEM,
         {add + "0]->fd  = " + number(vlliGetObjectAddress(timer)->fd) + " ) = -1, errno = 12\n"}},
        {"epoll_ctl",
         2,
         ENOSPC,
         {add + "1]->efd = " + number(vlliGetObjectAddress(event)->efd) + " ) = -1, errno = 28\n"}},
        {"epoll_ctl",
         3,
         EPERM,
         {add + "1]->fd  = " + number(vlliGetObjectAddress(event)->fd) + " ) = -1, errno = 1\n"}},
        {"epoll_wait", 1, EINVAL, {}},
    };
    for (const Failure &failure : failures) {
        ExpectFailure(
            failure, [&] { return vllWaitForMultipleObjects(2, handles, 50); }, WAIT_FAILED);
        EXPECT_EQ(References(event), 1);
        EXPECT_EQ(References(timer), 1);
    }
    // What a wait can do without.
    for (const char *call : {"poll", "pthread_mutex_lock"}) {
        vllSetEvent(event);
        const FailCall fail(call, 1, EFAULT);
        EXPECT_EQ(vllWaitForMultipleObjects(2, handles, 0), WAIT_OBJECT_0 + 1) << call;
        EXPECT_TRUE(fail.happened());
    }
    const FailCall interrupted("poll", 1, EINTR);
    EXPECT_EQ(vllWaitForMultipleObjects(2, handles, 0), WAIT_TIMEOUT);
}

TEST_F(WaitForMultipleObjectsTest, the_array_may_change_during_the_wait) {
    const Owned first(MakeAutoEvent());
    const Owned second(MakeAutoEvent());
    HANDLE handles[] = {first, second};
    std::atomic<pid_t> tid{0};
    DWORD result = 0;
    const auto body = [&] {
        tid = gettid();
        result = vllWaitForMultipleObjects(2, handles, 20000);
    };
    const HANDLE thread = StartThread(body);
    EXPECT_TRUE(WaitUntil([&] { return tid != 0; }));
    EXPECT_TRUE(WaitUntilAsleep(tid));
    handles[0] = handles[1] = 0x50000;
    vllSetEvent(second);
    FinishThread(thread);
    EXPECT_EQ(result, WAIT_OBJECT_0 + 1);
}

TEST_F(WaitForMultipleObjectsTest, time_outs_are_not_early) {
    const Owned event(MakeAutoEvent());
    for (const DWORD timeout : {0U, 1U, 7U, 100U}) {
        timespec start, end;
        clock_gettime(CLOCK_MONOTONIC, &start);
        EXPECT_EQ(vllWaitForSingleObject(event, timeout), WAIT_TIMEOUT);
        clock_gettime(CLOCK_MONOTONIC, &end);
        const int64_t us =
            (end.tv_sec - start.tv_sec) * int64_t{1000000} + (end.tv_nsec - start.tv_nsec) / 1000;
        EXPECT_GE(us, int64_t{timeout} * 1000);
        EXPECT_LT(us, 15000000);
    }
    EXPECT_EQ(vllWaitForSingleObject(event, 0), WAIT_TIMEOUT);
}

TEST_F(WaitForMultipleObjectsTest, time_outs_of_two_to_the_31_and_more_are_endless) {
    const Owned event(MakeAutoEvent());
    for (const DWORD timeout : {0x80000000U, 0xFFFFFFFEU, INFINITE, 0x7FFFFFFFU}) {
        DWORD result = WAIT_FAILED;
        std::atomic<pid_t> tid{0};
        const auto body = [&] {
            tid = gettid();
            result = vllWaitForSingleObject(event, timeout);
        };
        const HANDLE thread = StartThread(body);
        EXPECT_TRUE(WaitUntil([&] { return tid != 0; }));
        EXPECT_TRUE(WaitUntilAsleep(tid));
        EXPECT_EQ(vllWaitForSingleObject(thread, 30), WAIT_TIMEOUT);
        vllSetEvent(event);
        FinishThread(thread);
        EXPECT_EQ(result, WAIT_OBJECT_0);
    }
}

// A thread that waits on an event, and what came of it.
struct Waiter {
    explicit Waiter(HANDLE waited, DWORD limit = INFINITE) : event(waited), timeout(limit) {
        thread = StartThread(body);
        EXPECT_TRUE(WaitUntil([this] { return tid != 0; }));
        EXPECT_TRUE(WaitUntilAsleep(tid));
    }
    DWORD finish() {
        FinishThread(thread);
        return result;
    }
    const std::function<void()> body = [this] {
        tid = gettid();
        const int64_t start = NowMs();
        result = vllWaitForSingleObject(event, timeout);
        waited_ms = NowMs() - start;
    };
    const HANDLE event;
    const DWORD timeout;
    HANDLE thread = 0;
    std::atomic<pid_t> tid{0};
    DWORD result = WAIT_FAILED;
    int64_t waited_ms = 0;
};

TEST_F(WaitForMultipleObjectsTest, a_signal_handler_starts_the_time_out_again) {
    struct sigaction action = {}, old;
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    const Owned event(MakeAutoEvent());
    Waiter waiter(event, 400);
    usleep(200000);
    EXPECT_EQ(syscall(SYS_tgkill, getpid(), waiter.tid.load(), SIGUSR1), 0);
    EXPECT_EQ(waiter.finish(), WAIT_TIMEOUT);
    EXPECT_GE(waiter.waited_ms, 599);
    sigaction(SIGUSR1, &old, nullptr);
}

// Steals each signal before the waiter runs: the waiter's time goes on.
TEST_F(WaitForMultipleObjectsTest, a_stolen_signal_does_not_start_the_time_out_again) {
    const Owned event(MakeAutoEvent());
    const int fd = vllGetEventFd(event);
    Waiter waiter(event, 400);
    const int64_t start = NowMs();
    int stolen = 0;
    while (!IsSignalled(waiter.thread) && NowMs() - start < 20000) {
        uint64_t counter = 1;
        EXPECT_EQ(write(fd, &counter, sizeof counter), 8);
        stolen += read(fd, &counter, sizeof counter) == 8;
        usleep(500);
    }
    const DWORD result = waiter.finish();
    EXPECT_TRUE(result == WAIT_TIMEOUT || result == WAIT_OBJECT_0);
    EXPECT_TRUE(result == WAIT_OBJECT_0 || waiter.waited_ms >= 400);
    EXPECT_LT(NowMs() - start, 20000) << stolen;
    vllResetEvent(event);
}

TEST_F(WaitForMultipleObjectsTest, one_signal_is_seen_once_through_two_handles) {
    const Owned event(MakeAutoEvent());
    const Owned next(MakeAutoEvent(TRUE));
    const Owned duplicate(vllDuplicateHandle(event));
    const HANDLE handles[] = {event, duplicate, next};
    vllSetEvent(duplicate);
    EXPECT_EQ(vllWaitForMultipleObjects(3, handles, 0), WAIT_OBJECT_0);
    EXPECT_EQ(vllWaitForMultipleObjects(3, handles, 0), WAIT_OBJECT_0 + 2);
    EXPECT_EQ(vllWaitForMultipleObjects(3, handles, 0), WAIT_TIMEOUT);
}

TEST_F(WaitForMultipleObjectsTest, closed_while_another_thread_waits) {
    const HANDLE event = MakeAutoEvent();
    const Owned duplicate(vllDuplicateHandle(event));
    Waiter waiter(event);
    const uint32_t free_before = TakeInventory().free_objects;
    EXPECT_TRUE(vllCloseHandle(event));
    EXPECT_FALSE(vllCloseHandle(event));
    EXPECT_EQ(TakeInventory().free_objects, free_before) << "the record is not recycled under the waiter";
    EXPECT_EQ(vllWaitForSingleObject(waiter.thread, 20), WAIT_TIMEOUT);
    vllSetEvent(duplicate);
    EXPECT_EQ(waiter.finish(), WAIT_OBJECT_0);
    EXPECT_TRUE(WaitUntil([&] { return References(event) == 0; }));
}

TEST_F(WaitForMultipleObjectsTest, a_waiter_cancelled_beside_another) {
    const Owned event(MakeAutoEvent());
    Waiter victim(event);
    Waiter survivor(event);
    EXPECT_TRUE(vllTerminateThread(victim.thread, 1));
    EXPECT_EQ(victim.finish(), WAIT_FAILED) << "never returned";
    EXPECT_EQ(vllWaitForSingleObject(survivor.thread, 20), WAIT_TIMEOUT);
    vllSetEvent(event);
    EXPECT_EQ(survivor.finish(), WAIT_OBJECT_0);
}

TEST_F(WaitForMultipleObjectsTest, a_manual_event_releases_all_waiters) {
    const Owned event(MakeManualEvent());
    Waiter a(event), b(event), c(event);
    vllSetEvent(event);
    for (Waiter *waiter : {&a, &b, &c}) {
        EXPECT_EQ(waiter->finish(), WAIT_OBJECT_0);
    }
}

// 8 threads wait on one auto-reset event for 10,000 signals.
class AutoResetCounting : public WaitForMultipleObjectsTest {
  protected:
    static constexpr int kWaiters = 8;
    static constexpr int kSignals = 10000;

    void startWaiters() {
        for (HANDLE &thread : threads_) {
            thread = StartThread(body_);
            ASSERT_NE(thread, 0U);
        }
    }
    void stopWaiters() {
        vllSetEvent(stop_);
        for (const HANDLE thread : threads_) {
            FinishThread(thread);
        }
    }

    std::atomic<int> returned_{0};
    HANDLE event_ = 0, stop_ = 0;
    HANDLE threads_[kWaiters] = {};
    const std::function<void()> body_ = [this] {
        const HANDLE handles[] = {event_, stop_};
        while (vllWaitForMultipleObjects(2, handles, 60000) == WAIT_OBJECT_0) {
            ++returned_;
        }
    };
};

TEST_F(AutoResetCounting, no_wait_returns_without_a_signal) {
    const Owned event(MakeAutoEvent()), stop(MakeManualEvent());
    event_ = event;
    stop_ = stop;
    startWaiters();
    for (int i = 0; i < kSignals; ++i) {
        EXPECT_TRUE(vllSetEvent(event));
    }
    // Signals of a signalled event merge, so only the bounds are known; the last one is never lost.
    EXPECT_TRUE(WaitUntil([&] { return vllResetEvent(event) && returned_ > 0; }));
    stopWaiters();
    EXPECT_LE(returned_, kSignals);
    EXPECT_GE(returned_, 1);
}

TEST_F(AutoResetCounting, none_is_lost_when_signals_and_waits_alternate) {
    const Owned event(MakeAutoEvent()), stop(MakeManualEvent());
    event_ = event;
    stop_ = stop;
    startWaiters();
    for (int i = 1; i <= kSignals && !HasFailure(); ++i) {
        EXPECT_TRUE(vllSetEvent(event));
        const int64_t limit = NowMs() + 20000;
        while (returned_ < i) {
            ASSERT_LT(NowMs(), limit) << "signal " << i << " was lost";
            sched_yield();
        }
        ASSERT_EQ(returned_, i) << "a wait returned without a signal";
    }
    stopWaiters();
    EXPECT_EQ(returned_, kSignals);
}

}  // namespace
