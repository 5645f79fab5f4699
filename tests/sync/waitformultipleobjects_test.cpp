#include "sync/waitformultipleobjects.h"

#include <poll.h>
#include <sys/syscall.h>
#include <atomic>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"
#include "support/threads.h"

namespace {

class WaitForMultipleObjectsTest : public LibraryTest {};

// The result of a wait that finds nothing at first and is then signalled. The caller's array changes meanwhile.
DWORD waitBlocking(int32_t count, const HANDLE *handles, HANDLE signal_later) {
    DWORD result = WAIT_FAILED;
    std::vector<HANDLE> array(handles, handles + count);
    Sleeper waiter([&] { result = vllWaitForMultipleObjects(count, array.data(), 20000); });
    array.assign(array.size(), 0x50000);
    vllSetEvent(signal_later);
    waiter.finish();
    return result;
}

// A thread that waits on one object, and what came of it.
struct Waiter {
    explicit Waiter(HANDLE object, DWORD timeout = INFINITE)
        : thread([this, object, timeout] {
              const int64_t start = nowMs();
              result = vllWaitForSingleObject(object, timeout);
              waited_ms = nowMs() - start;
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
    const Owned event(makeManualEvent(TRUE));
    const std::vector<HANDLE> handles(MAXIMUM_WAIT_OBJECTS + 1, event);
    for (const int32_t count : {0, -1, MAXIMUM_WAIT_OBJECTS + 1, INT32_MIN, INT32_MAX}) {
        EXPECT_THAT(vllWaitForMultipleObjects(count, handles.data(), 0), FailsWith(EINVAL, WAIT_FAILED));
    }
    EXPECT_THAT(vllWaitForMultipleObjects(1, nullptr, 0), FailsWith(EINVAL, WAIT_FAILED));
    EXPECT_EQ(vllWaitForMultipleObjects(MAXIMUM_WAIT_OBJECTS, handles.data(), 0), WAIT_OBJECT_0);
}

TEST_F(WaitForMultipleObjectsTest, each_of_64_is_reported_at_its_index) {
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    for (HANDLE &handle : handles) {
        handle = makeAutoEvent();
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
    const Owned automatic(makeAutoEvent()), manual(makeManualEvent());
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
    const Owned duplicate(vllDuplicateHandle(automatic));
    const HANDLE twice[] = {automatic, manual, manual, automatic, duplicate};
    EXPECT_EQ(vllWaitForMultipleObjects(5, twice, 0), WAIT_OBJECT_0 + 1) << "the first listing counts";
    vllResetEvent(manual);
    EXPECT_EQ(waitBlocking(4, twice, manual), WAIT_OBJECT_0 + 1);
    vllResetEvent(manual);
    EXPECT_EQ(waitBlocking(4, twice, automatic), WAIT_OBJECT_0);
    vllSetEvent(duplicate);
    EXPECT_EQ(vllWaitForMultipleObjects(5, twice, 0), WAIT_OBJECT_0);
    EXPECT_EQ(vllWaitForMultipleObjects(5, twice, 0), WAIT_TIMEOUT)
        << "one signal counts once through two handles";
}

TEST_F(WaitForMultipleObjectsTest, a_bad_handle_anywhere_fails_and_changes_nothing) {
    const Owned signalled(makeAutoEvent(TRUE)), mutex(vllCreateMutex(FALSE, nullptr));
    const HANDLE closed = makeAutoEvent();
    vllCloseHandle(closed);
    for (const HANDLE handle : {closed, OBJ_WAITABLE_TIMER | (signalled & kIndexMask), HANDLE{mutex}}) {
        for (const int32_t place : {0, 1, 2}) {
            HANDLE handles[] = {signalled, signalled, signalled};
            handles[place] = handle;
            EXPECT_THAT(vllWaitForMultipleObjects(3, handles, INFINITE), FailsWith(EINVAL, WAIT_FAILED));
            EXPECT_EQ(references(signalled), 1);
            EXPECT_EQ(references(mutex), 1);
        }
    }
    EXPECT_TRUE(isSignalled(signalled)) << "not consumed";
    takeErrors();
}

TEST_F(WaitForMultipleObjectsTest, failing_calls) {
    const Owned event(makeAutoEvent()), timer(vllCreateWaitableTimer(nullptr));
    const HANDLE handles[] = {timer, event};
    const auto failedAdd = [](int i, const char *what, int32_t fd, int error) {
        return format(
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
        expectFailure(
            failure, [&] { return vllWaitForMultipleObjects(2, handles, 50); }, WAIT_FAILED);
        EXPECT_EQ(references(event), 1);
        EXPECT_EQ(references(timer), 1);
    }
    const FailCall interrupted("poll", 1, EINTR);
    EXPECT_EQ(vllWaitForMultipleObjects(2, handles, 0), WAIT_TIMEOUT);
}

TEST_F(WaitForMultipleObjectsTest, time_outs_are_not_early) {
    const Owned event(makeAutoEvent());
    for (const DWORD timeout_ms : {0U, 1U, 7U, 100U}) {
        const int64_t start = nowUs();
        EXPECT_EQ(vllWaitForSingleObject(event, timeout_ms), WAIT_TIMEOUT);
        EXPECT_GE(nowUs() - start, int64_t{timeout_ms} * 1000);
        EXPECT_LT(nowUs() - start, 15000000);
    }
}

TEST_F(WaitForMultipleObjectsTest, time_outs_of_two_to_the_31_and_more_are_endless) {
    const Owned event(makeAutoEvent());
    for (const DWORD timeout : {0x80000000U, 0xFFFFFFFEU, INFINITE, 0x7FFFFFFFU}) {
        Waiter waiter(event, timeout);
        EXPECT_EQ(vllWaitForSingleObject(waiter.thread.handle(), 30), WAIT_TIMEOUT);
        vllSetEvent(event);
        EXPECT_EQ(waiter.finish(), WAIT_OBJECT_0);
    }
}

TEST_F(WaitForMultipleObjectsTest, a_signal_handler_starts_the_time_out_again) {
    const SignalHandler handler(SIGUSR1, ignoreSignal);
    const Owned event(makeAutoEvent());
    Waiter waiter(event, 400);
    usleep(200000);
    EXPECT_EQ(syscall(SYS_tgkill, getpid(), waiter.thread.tid(), SIGUSR1), 0);
    EXPECT_EQ(waiter.finish(), WAIT_TIMEOUT);
    EXPECT_GE(waiter.waited_ms, 599);
}

// This thread takes each signal before the waiter runs.
TEST_F(WaitForMultipleObjectsTest, a_stolen_signal_does_not_start_the_time_out_again) {
    const Owned event(makeAutoEvent());
    Waiter waiter(event, 400);
    EXPECT_TRUE(waitUntil([&] {
        vllSetEvent(event);
        vllResetEvent(event);
        return isSignalled(waiter.thread.handle());
    }));
    const DWORD result = waiter.finish();
    EXPECT_TRUE(result == WAIT_OBJECT_0 || (result == WAIT_TIMEOUT && waiter.waited_ms >= 400)) << result;
}

TEST_F(WaitForMultipleObjectsTest, closed_while_another_thread_waits) {
    const HANDLE event = makeAutoEvent();
    const Owned duplicate(vllDuplicateHandle(event));
    Waiter waiter(event);
    const uint32_t free_before = takeInventory().free_objects;
    EXPECT_TRUE(vllCloseHandle(event));
    for (int i = 0; i < 3; ++i) {
        EXPECT_THAT(vllCloseHandle(event), FailsWith(EINVAL)) << "the reference is the waiter's";
    }
    EXPECT_EQ(takeInventory().free_objects, free_before) << "the record is not recycled under the waiter";
    EXPECT_EQ(vllWaitForSingleObject(waiter.thread.handle(), 20), WAIT_TIMEOUT);
    vllSetEvent(duplicate);
    EXPECT_EQ(waiter.finish(), WAIT_OBJECT_0);
    EXPECT_TRUE(waitUntil([&] { return references(event) == 0; }));
}

TEST_F(WaitForMultipleObjectsTest, waiters_beside_each_other) {
    const Owned event(makeAutoEvent()), manual(makeManualEvent());
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

// 8 threads wait on one auto-reset event for 3,000 signals, which come at once, or one after each wait that
// returned.
TEST_F(WaitForMultipleObjectsTest, no_signal_is_lost_or_seen_twice_among_waiters) {
    constexpr int kSignals = 3000;
    for (const bool alternate : {false, true}) {
        const Owned event(makeAutoEvent()), stop(makeManualEvent());
        const HANDLE handles[] = {event, stop};
        std::atomic<int> returned{0};
        const auto body = [&] {
            while (vllWaitForMultipleObjects(2, handles, 60000) == WAIT_OBJECT_0) {
                ++returned;
            }
        };
        HANDLE threads[8];
        for (HANDLE &thread : threads) {
            thread = startThread(body);
        }
        for (int i = 1; i <= kSignals && !HasFailure(); ++i) {
            EXPECT_TRUE(vllSetEvent(event));
            const int64_t limit = nowMs() + 20000;
            while (alternate && returned < i && !HasFailure()) {
                EXPECT_LT(nowMs(), limit) << "signal " << i << " was lost";
                sched_yield();
            }
            EXPECT_TRUE(!alternate || returned == i) << "a wait returned without a signal";
        }
        // Signals of a signalled event merge; the last one is never lost.
        pollfd signalled = {vllGetEventFd(event), POLLIN, 0};
        EXPECT_TRUE(waitUntil([&] { return poll(&signalled, 1, 0) == 0 && returned > 0; }));
        vllSetEvent(stop);
        for (const HANDLE thread : threads) {
            finishThread(thread);
        }
        EXPECT_LE(returned, kSignals);
        EXPECT_GE(returned, alternate ? kSignals : 1);
    }
}

}  // namespace
