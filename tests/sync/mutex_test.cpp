#include "sync/mutex.h"

#include <algorithm>

#include "support/child.h"
#include "support/faults.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"
#include "support/threads.h"

namespace {

class MutexTest : public LibraryTest {};

// Runs a step in a thread of its own.
template <typename Step>
void inThread(Step step) {
    std::thread(step).join();
}

// Another thread's attempt to acquire a mutex, which it releases again.
void expectElsewhere(HANDLE mutex, DWORD result, int error = 0) {
    inThread([=] {
        EXPECT_THAT(vllWaitForSingleObject(mutex, 0), Yields(result, error));
        if (result != WAIT_FAILED) {
            EXPECT_TRUE(vllReleaseMutex(mutex));
        }
    });
}

TEST_F(MutexTest, ownership_recursion_and_release) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "vll_mutex_test"}) {
        SCOPED_TRACE(name == nullptr ? "null" : name);
        errno = EEXIST;
        Owned mutex(vllCreateMutex(1, name));
        EXPECT_EQ(errno, 0);
        expectElsewhere(mutex, WAIT_FAILED, EBUSY);
        for (const DWORD timeout_ms : {0U, 50U, INFINITE}) {
            EXPECT_EQ(vllWaitForSingleObject(mutex, timeout_ms), WAIT_OBJECT_0);
        }
        for (int i = 0; i < 4; ++i) {
            expectElsewhere(mutex, WAIT_FAILED, EBUSY);
            EXPECT_TRUE(vllReleaseMutex(mutex));
        }
        expectElsewhere(mutex, WAIT_OBJECT_0);

        EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        const Owned duplicate(vllDuplicateHandle(mutex));
        EXPECT_TRUE(vllCloseHandle(mutex.release()));
        expectElsewhere(duplicate, WAIT_FAILED, EBUSY);
        EXPECT_TRUE(vllReleaseMutex(duplicate));
        expectElsewhere(duplicate, WAIT_OBJECT_0);
    }
}

#if !defined(__SANITIZE_THREAD__)  // which reports the attempt itself
TEST_F(MutexTest, release_EPERM) {
    const Owned mutex(vllCreateMutex(0, nullptr));
    EXPECT_THAT(vllReleaseMutex(mutex), FailsWith(EPERM));
    EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    inThread([&] { EXPECT_THAT(vllReleaseMutex(mutex), FailsWith(EPERM)); });
    EXPECT_TRUE(vllReleaseMutex(mutex));
}
#endif

// No wait ends early, also not by a signal.
TEST_F(MutexTest, timed_waits_under_signals) {
    const SignalHandler handler(SIGUSR1, ignoreSignal);
    const Owned mutex(vllCreateMutex(1, nullptr)), semaphore(vllCreateSemaphore(0, nullptr));
    for (const HANDLE handle : {HANDLE{mutex}, HANDLE{semaphore}}) {
        for (const int timeout_ms : {1, 30, 250}) {
            std::atomic<bool> done{false};
            std::thread waiter([&] {
                const int64_t start = nowUs();
                EXPECT_EQ(vllWaitForSingleObject(handle, static_cast<DWORD>(timeout_ms)), WAIT_TIMEOUT);
                EXPECT_GE(nowUs() - start, timeout_ms * 1000);
                EXPECT_LT(nowUs() - start, timeout_ms * 1000 + 15000000);
                done = true;
            });
            while (!done) {
                pthread_kill(waiter.native_handle(), SIGUSR1);
                usleep(2000);
            }
            waiter.join();
        }
    }
}

TEST_F(MutexTest, the_end_of_an_owner_is_reported_to_one_waiter) {
    constexpr int kWaiters = 4;
    const Owned mutex(vllCreateMutex(0, nullptr)), may_end(makeManualEvent()), owned(makeManualEvent());
    std::atomic<int> abandoned{0};
    std::thread owner([&] {
        EXPECT_EQ(vllWaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(vllWaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        vllSetEvent(owned);
        vllWaitForSingleObject(may_end, 60000);
    });
    EXPECT_EQ(vllWaitForSingleObject(owned, 60000), WAIT_OBJECT_0);
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(startAsleep([&, i] {
            const DWORD result = vllWaitForSingleObject(mutex, i % 2 == 0 ? INFINITE : 60000);
            abandoned += result == WAIT_ABANDONED;
            EXPECT_TRUE(result == WAIT_ABANDONED || result == WAIT_OBJECT_0);
            EXPECT_TRUE(vllReleaseMutex(mutex));
        }));
    }
    vllSetEvent(may_end);
    owner.join();
    for (std::thread &waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(abandoned, 1);
    EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
}

TEST_F(MutexTest, dead_owner_found_without_waiting) {
    const Owned mutex(vllCreateMutex(0, nullptr));
    inThread([&] { EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0); });
    // The kernel marks the mutex a moment after the thread's end is visible.
    DWORD result = WAIT_FAILED;
    EXPECT_TRUE(waitUntil([&] { return (result = vllWaitForSingleObject(mutex, 0)) != WAIT_FAILED; }));
    EXPECT_EQ(result, WAIT_ABANDONED);
    expectElsewhere(mutex, WAIT_FAILED, EBUSY);
    EXPECT_TRUE(vllReleaseMutex(mutex));
    EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
}

// A closed record is used again, so no list of robust mutexes may still contain it.
TEST_F(MutexTest, owner_closes_the_last_handle) {
    for (uint32_t i = 0; i < 3 * kObjmemCount; ++i) {
        const HANDLE mutex = vllCreateMutex(1, nullptr);
        ASSERT_NE(mutex, 0U);
        EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(vllCloseHandle(mutex));
    }
}

// The owner's list of robust mutexes stays intact: the records are not used again while the owner lives. Then they
// are, whatever is created next.
TEST_F(MutexTest, last_handle_closed_while_another_thread_owns) {
    std::vector<HANDLE> mutexes(kObjmemCount - 1);
    const Owned made(makeManualEvent()), closed(makeManualEvent());
    std::thread owner([&] {
        std::generate(mutexes.begin(), mutexes.end(), [] { return vllCreateMutex(1, nullptr); });
        vllSetEvent(made);
        EXPECT_EQ(vllWaitForSingleObject(closed, 60000), WAIT_OBJECT_0);
#if defined(__SANITIZE_THREAD__)  // for which a dead thread owns its mutexes for ever
        vllCloseHandle(vllCreateMutex(1, nullptr));
#endif
    });
    EXPECT_EQ(vllWaitForSingleObject(made, 60000), WAIT_OBJECT_0);
    for (const HANDLE mutex : mutexes) {
        EXPECT_TRUE(vllCloseHandle(mutex));
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(vllCloseHandle(vllCreateMutex(1, nullptr)));
        EXPECT_EQ(takeInventory().free_objmem, 1U);
    }
    vllSetEvent(closed);
    owner.join();
    waitUntil([] { return takeInventory().threads == 1; });
    const Owned first(vllCreateSemaphore(0, nullptr)), second(vllCreateSemaphore(0, nullptr));
    EXPECT_EQ(takeInventory().free_objmem, kObjmemCount - 2);
}

TEST_F(MutexTest, closed_under_a_waiter) {
    const HANDLE mutex = vllCreateMutex(1, nullptr);
    std::thread waiter = startAsleep([&] {
        EXPECT_EQ(vllWaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        // The wait held the last reference: the mutex was released and is gone.
    });
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_TRUE(vllReleaseMutex(mutex));
    waiter.join();
}

TEST_F(MutexTest, failing_calls) {
    for (const char *call : {"pthread_mutexattr_setrobust", "pthread_mutex_init"}) {
        expectFailure(
            {call, 1, ENOTSUP, {}}, [] { return vllCreateMutex(1, nullptr); }, 0);
    }
    expectFailure(
        {"sem_init", 1, ENOSYS, {}}, [] { return vllCreateSemaphore(0, nullptr); }, 0);
}

TEST_F(MutexTest, open_by_name) {
    EXPECT_THAT(vllOpenMutex(nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllOpenMutex(""), FailsWith(EINVAL));
    EXPECT_THAT(vllOpenMutex("vll_open_test"), FailsWith(ENOENT));
    const HANDLE mutex = vllCreateMutex(1, "vll_open_test");
    EXPECT_EQ(errno, 0) << "the attempt left no mutex behind";
    expectInChild([&] {
        vllCloseHandle(mutex);  // the one that it inherited
        const Owned opened(vllOpenMutex("vll_open_test"));
        EXPECT_THAT(vllWaitForSingleObject(opened, 0), FailsWith(EBUSY, WAIT_FAILED));
        return 0;
    });
    EXPECT_TRUE(vllCloseHandle(mutex));
}

// A thread that waits for a mutex is cancelled only after it has acquired the mutex.
TEST_F(MutexTest, cancelled_waiter_keeps_the_table_whole) {
    const Owned mutex(vllCreateMutex(1, nullptr));
    std::thread waiter = startAsleep([&] {
        vllWaitForSingleObject(mutex, INFINITE);
        pthread_testcancel();
        ADD_FAILURE() << "not cancelled";
    });
    pthread_cancel(waiter.native_handle());
    EXPECT_TRUE(vllReleaseMutex(mutex));
    waiter.join();
    EXPECT_EQ(vllWaitForSingleObject(mutex, INFINITE), WAIT_ABANDONED);
}

}  // namespace
