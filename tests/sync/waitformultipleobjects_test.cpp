#include "sync/waitformultipleobjects.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <atomic>
#include <cstring>

#include "net/wsasockets.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class WaitForMultipleObjectsTest : public LibraryTest {};

// A wait that finds nothing at first, and is then signalled.
DWORD waitBlocking(int32_t count, const HANDLE *handles, HANDLE signal_later) {
    DWORD result = WAIT_FAILED;
    Sleeper waiter([&] { result = vllWaitForMultipleObjects(count, handles, 20000); });
    vllSetEvent(signal_later);
    waiter.finish();
    return result;
}

// A thread that waits on one object, and what came of it.
struct Waiter {
    explicit Waiter(HANDLE object, DWORD timeout = INFINITE)
        : thread([this, object, timeout] {
              const int64_t start = NowMs();
              result = vllWaitForSingleObject(object, timeout);
              waited_ms = NowMs() - start;
          }) {}
    DWORD finish() {
        thread.finish();
        return result;
    }
    DWORD result = WAIT_FAILED;
    int64_t waited_ms = 0;
    Sleeper thread;
};

TEST_F(WaitForMultipleObjectsTest, counts_and_arrays_out_of_range) {
    const Owned event(MakeManualEvent(TRUE));
    const std::vector<HANDLE> handles(MAXIMUM_WAIT_OBJECTS + 1, event);
    for (const int32_t count : {0, -1, MAXIMUM_WAIT_OBJECTS + 1, INT32_MIN, INT32_MAX}) {
        EXPECT_RESULT(vllWaitForMultipleObjects(count, handles.data(), 0), WAIT_FAILED, EINVAL);
    }
    EXPECT_RESULT(vllWaitForMultipleObjects(1, nullptr, 0), WAIT_FAILED, EINVAL);
    EXPECT_EQ(vllWaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, handles.data(), 0), WAIT_OBJECT_0);
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
    const Owned automatic(MakeAutoEvent()), manual(MakeManualEvent());
    const Owned timer(vllCreateWaitableTimer(nullptr));
    const Sleeper thread([&] { vllWaitForSingleObject(manual, INFINITE); });
    const HANDLE handles[] = {automatic, timer, thread.handle()};
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
    const Owned signalled(MakeAutoEvent(TRUE)), other(MakeAutoEvent()), mutex(vllCreateMutex(FALSE, nullptr));
    const HANDLE closed = MakeAutoEvent();
    vllCloseHandle(closed);
    const Inventory before = TakeInventory();
    const std::pair<HANDLE, size_t> rows[] = {
        // and the lines that each logs
        {closed, 1}, {0, 1}, {5, 1}, {0x50000, 1}, {OBJ_WAITABLE_TIMER | (other & kIndexMask), 0},
        {mutex, 0}};
    for (const auto &[handle, lines] : rows) {
        SCOPED_TRACE(handle);
        for (const int32_t place : {0, 1, 2}) {
            HANDLE handles[] = {signalled, other, other};
            handles[place] = handle;
            EXPECT_RESULT(vllWaitForMultipleObjects(3, handles, INFINITE), WAIT_FAILED, EINVAL);
            EXPECT_EQ(TakeErrors().size(), lines);
            EXPECT_EQ(References(signalled), 1);
            EXPECT_EQ(References(other), 1);
        }
    }
    EXPECT_EQ(TakeInventory(), before);
    EXPECT_TRUE(IsSignalled(signalled)) << "not consumed";
}

TEST_F(WaitForMultipleObjectsTest, failing_calls) {
    const Owned event(MakeAutoEvent()), timer(vllCreateWaitableTimer(nullptr));
    const HANDLE handles[] = {timer, event};
    const auto failedAdd = [](int i, const char *what, int32_t fd, int error) {
        return Format(
            "VLL: WaitForMultipleObjects: epoll_ctl( efd, EPOLL_CTL_ADD, events[%d]->%s = %d ) = -1, "
            "errno = %d\n",
            i, what, fd, error);
    };
    const ObjectRecord *record = vlliGetObjectAddress(event);
    const Failure failures[] = {
        {"epoll_create", 1, EMFILE, {"VLL: WaitForMultipleObjects: epoll_create( 2 ) == -1, errno = 24\n"}},
        {"malloc", 1, ENOMEM, {}},
        {"epoll_ctl", 1, ENOMEM, {failedAdd(0, "fd ", vlliGetObjectAddress(timer)->fd, ENOMEM)}},
        {"epoll_ctl", 2, ENOSPC, {failedAdd(1, "efd", record->efd, ENOSPC)}},
        {"epoll_ctl", 3, EPERM, {failedAdd(1, "fd ", record->fd, EPERM)}},
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
    const Owned first(MakeAutoEvent()), second(MakeAutoEvent());
    HANDLE handles[] = {first, second};
    DWORD result = WAIT_FAILED;
    Sleeper waiter([&] { result = vllWaitForMultipleObjects(2, handles, 20000); });
    handles[0] = handles[1] = 0x50000;
    vllSetEvent(second);
    waiter.finish();
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
}

TEST_F(WaitForMultipleObjectsTest, time_outs_of_two_to_the_31_and_more_are_endless) {
    const Owned event(MakeAutoEvent());
    for (const DWORD timeout : {0x80000000U, 0xFFFFFFFEU, INFINITE, 0x7FFFFFFFU}) {
        Waiter waiter(event, timeout);
        EXPECT_EQ(vllWaitForSingleObject(waiter.thread.handle(), 30), WAIT_TIMEOUT);
        vllSetEvent(event);
        EXPECT_EQ(waiter.finish(), WAIT_OBJECT_0);
    }
}

TEST_F(WaitForMultipleObjectsTest, a_signal_handler_starts_the_time_out_again) {
    struct sigaction action = {}, old;
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    const Owned event(MakeAutoEvent());
    Waiter waiter(event, 400);
    usleep(200000);
    EXPECT_EQ(syscall(SYS_tgkill, getpid(), waiter.thread.tid(), SIGUSR1), 0);
    EXPECT_EQ(waiter.finish(), WAIT_TIMEOUT);
    EXPECT_GE(waiter.waited_ms, 599);
    sigaction(SIGUSR1, &old, nullptr);
}

// Steals each signal before the waiter runs: the waiter's time goes on.
TEST_F(WaitForMultipleObjectsTest, a_stolen_signal_does_not_start_the_time_out_again) {
    const Owned event(MakeAutoEvent());
    Waiter waiter(event, 400);
    EXPECT_TRUE(WaitUntil([&] {
        vllSetEvent(event);
        vllResetEvent(event);
        return IsSignalled(waiter.thread.handle());
    }));
    const DWORD result = waiter.finish();
    EXPECT_TRUE(result == WAIT_OBJECT_0 || (result == WAIT_TIMEOUT && waiter.waited_ms >= 400)) << result;
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
    for (int i = 0; i < 3; ++i) {
        EXPECT_RESULT(vllCloseHandle(event), FALSE, EINVAL);  // the reference is the waiter's
    }
    EXPECT_EQ(TakeInventory().free_objects, free_before) << "the record is not recycled under the waiter";
    EXPECT_EQ(vllWaitForSingleObject(waiter.thread.handle(), 20), WAIT_TIMEOUT);
    vllSetEvent(duplicate);
    EXPECT_EQ(waiter.finish(), WAIT_OBJECT_0);
    EXPECT_TRUE(WaitUntil([&] { return References(event) == 0; }));
}

TEST_F(WaitForMultipleObjectsTest, waiters_beside_each_other) {
    const Owned event(MakeAutoEvent()), manual(MakeManualEvent());
    Waiter victim(event), survivor(event), third(manual), fourth(manual);
    EXPECT_TRUE(vllTerminateThread(victim.thread.handle(), 1));
    EXPECT_EQ(victim.finish(), WAIT_FAILED) << "never returned";
    EXPECT_EQ(vllWaitForSingleObject(survivor.thread.handle(), 20), WAIT_TIMEOUT);
    vllSetEvent(event);
    EXPECT_EQ(survivor.finish(), WAIT_OBJECT_0);
    vllSetEvent(manual);
    EXPECT_EQ(third.finish(), WAIT_OBJECT_0) << "a manual-reset event releases all";
    EXPECT_EQ(fourth.finish(), WAIT_OBJECT_0);
}

// 8 threads wait on one auto-reset event for 10,000 signals, in one go or each after the wait of the one before.
TEST_F(WaitForMultipleObjectsTest, no_signal_is_lost_or_seen_twice_among_waiters) {
    constexpr int kSignals = 10000;
    for (const bool alternate : {false, true}) {
        const Owned event(MakeAutoEvent()), stop(MakeManualEvent());
        const HANDLE handles[] = {event, stop};
        std::atomic<int> returned{0};
        const auto body = [&] {
            while (vllWaitForMultipleObjects(2, handles, 60000) == WAIT_OBJECT_0) {
                ++returned;
            }
        };
        HANDLE threads[8];
        for (HANDLE &thread : threads) {
            thread = StartThread(body);
        }
        for (int i = 1; i <= kSignals && !HasFailure(); ++i) {
            EXPECT_TRUE(vllSetEvent(event));
            const int64_t limit = NowMs() + 20000;
            while (alternate && returned < i && !HasFailure()) {
                EXPECT_LT(NowMs(), limit) << "signal " << i << " was lost";
                sched_yield();
            }
            EXPECT_TRUE(!alternate || returned == i) << "a wait returned without a signal";
        }
        // Signals of a signalled event merge; the last one is never lost.
        pollfd signalled = {vllGetEventFd(event), POLLIN, 0};
        EXPECT_TRUE(WaitUntil([&] { return poll(&signalled, 1, 0) == 0 && returned > 0; }));
        vllSetEvent(stop);
        for (const HANDLE thread : threads) {
            FinishThread(thread);
        }
        EXPECT_LE(returned, kSignals);
        EXPECT_GE(returned, alternate ? kSignals : 1);
    }
}

}  // namespace
