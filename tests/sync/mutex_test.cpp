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
void InThread(Step step) {
    std::thread(step).join();
}

DWORD WaitElsewhere(HANDLE mutex, DWORD timeout_ms, int *error = nullptr) {
    DWORD result = WAIT_FAILED;
    InThread([&] {
        errno = 0;
        result = vllWaitForSingleObject(mutex, timeout_ms);
        if (error != nullptr) {
            *error = errno;
        }
        if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) {
            EXPECT_TRUE(vllReleaseMutex(mutex));
        }
    });
    return result;
}

TEST_F(MutexTest, ownership_recursion_and_release) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "vll_mutex_test"}) {
        SCOPED_TRACE(name == nullptr ? "null" : name);
        errno = EEXIST;
        const HANDLE mutex = vllCreateMutex(1, name);
        ASSERT_NE(mutex, 0U);
        EXPECT_EQ(errno, 0);
        int error = 0;
        EXPECT_EQ(WaitElsewhere(mutex, 0, &error), WAIT_FAILED);
        EXPECT_EQ(error, EBUSY);
        EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        EXPECT_EQ(vllWaitForSingleObject(mutex, 50), WAIT_OBJECT_0);
        EXPECT_EQ(vllWaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(WaitElsewhere(mutex, 0), WAIT_FAILED);
            EXPECT_TRUE(vllReleaseMutex(mutex));
        }
        EXPECT_EQ(WaitElsewhere(mutex, 0), WAIT_OBJECT_0);

        EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        const Owned duplicate(vllDuplicateHandle(mutex));
        EXPECT_TRUE(vllCloseHandle(mutex));
        EXPECT_EQ(WaitElsewhere(duplicate, 0), WAIT_FAILED);
        EXPECT_TRUE(vllReleaseMutex(duplicate));
        EXPECT_EQ(WaitElsewhere(duplicate, 0), WAIT_OBJECT_0);
    }
}

#if !defined(__SANITIZE_THREAD__)  // which takes the attempt itself for a fault
TEST_F(MutexTest, release_EPERM) {
    const Owned mutex(vllCreateMutex(0, nullptr));
    EXPECT_THAT(vllReleaseMutex(mutex), FailsWith(EPERM));
    EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    InThread([&] { EXPECT_THAT(vllReleaseMutex(mutex), FailsWith(EPERM)); });
    EXPECT_TRUE(vllReleaseMutex(mutex));
}
#endif

TEST_F(MutexTest, release_of_what_is_no_mutex) {
    const Owned event(makeManualEvent());
    const Owned semaphore(vllCreateSemaphore(0, nullptr));
    const HANDLE closed = vllCreateMutex(0, nullptr);
    vllCloseHandle(closed);
    const HANDLE as_mutex = OBJ_MUTEX | (semaphore & kIndexMask);
    for (const HANDLE handle :
         {HANDLE{event}, HANDLE{semaphore}, closed, as_mutex, 0U, 5U, OBJ_MUTEX | 0x80U, ~0U}) {
        errno = 0;
        EXPECT_FALSE(vllReleaseMutex(handle)) << std::hex << handle;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_THAT(vllWaitForSingleObject(as_mutex, 0), FailsWith(EINVAL, WAIT_FAILED));
    EXPECT_EQ(takeErrors().size(), 1U);
}

// Whole milliseconds that a wait takes beyond its time-out, while signals come in.
int64_t Lateness(HANDLE handle, int timeout_ms) {
    std::atomic<bool> done{false};
    int64_t late = 0;
    std::thread waiter([&] {
        const int64_t start = nowMs();
        EXPECT_EQ(vllWaitForSingleObject(handle, static_cast<DWORD>(timeout_ms)), WAIT_TIMEOUT);
        late = nowMs() - start - timeout_ms;
        done = true;
    });
    while (!done) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        usleep(2000);
    }
    waiter.join();
    EXPECT_GE(late, -1);  // whole milliseconds on either side
    return late;
}

// Never early; how late one wait of several may be is the machine's load, how late the best of them is is ours.
TEST_F(MutexTest, timeouts_are_accurate_also_under_signals) {
    const SignalHandler handler(SIGUSR1, ignoreSignal);
    const Owned mutex(vllCreateMutex(1, nullptr));
    const Owned semaphore(vllCreateSemaphore(0, nullptr));
    for (const HANDLE handle : {HANDLE{mutex}, HANDLE{semaphore}}) {
        for (const int timeout_ms : {1, 30, 100, 250}) {
            int64_t best = Lateness(handle, timeout_ms);
            for (int attempt = 0; best > 20 && attempt < 20; ++attempt) {
                best = std::min(best, Lateness(handle, timeout_ms));
            }
            EXPECT_LE(best, 20) << std::hex << handle << " " << std::dec << timeout_ms;
        }
    }
}

TEST_F(MutexTest, dead_owner_is_told_to_one_waiter) {
    constexpr int kWaiters = 4;
    const Owned mutex(vllCreateMutex(0, nullptr));
    std::atomic<int> abandoned{0};
    std::atomic<int> acquired{0};
    std::atomic<bool> may_die{false};
    std::atomic<bool> owned{false};
    std::thread owner([&] {
        EXPECT_EQ(vllWaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(vllWaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        owned = true;
        waitUntil([&] { return may_die.load(); });
    });
    waitUntil([&] { return owned.load(); });
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
        waiters.push_back(startAsleep([&, i] {
            const DWORD result = vllWaitForSingleObject(mutex, i % 2 == 0 ? INFINITE : 60000);
            abandoned += result == WAIT_ABANDONED;
            acquired += result == WAIT_OBJECT_0;
            EXPECT_TRUE(vllReleaseMutex(mutex));
        }));
    }
    may_die = true;
    owner.join();
    for (std::thread &waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(abandoned, 1);
    EXPECT_EQ(acquired, kWaiters - 1);
    EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
}

TEST_F(MutexTest, dead_owner_found_without_waiting) {
    const Owned mutex(vllCreateMutex(0, nullptr));
    InThread([&] { EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0); });
    // The kernel marks the mutex a moment after the thread's end is visible.
    DWORD result = WAIT_FAILED;
    EXPECT_TRUE(waitUntil([&] { return (result = vllWaitForSingleObject(mutex, 0)) != WAIT_FAILED; }));
    EXPECT_EQ(result, WAIT_ABANDONED);
    EXPECT_EQ(WaitElsewhere(mutex, 0), WAIT_FAILED);
    EXPECT_TRUE(vllReleaseMutex(mutex));
    EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
}

// A closed record is used again: no robust list may still hold it.
TEST_F(MutexTest, owner_closes_the_last_handle) {
    for (uint32_t i = 0; i < 3 * kObjmemCount; ++i) {
        const HANDLE mutex = vllCreateMutex(1, nullptr);
        ASSERT_NE(mutex, 0U);
        EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(vllCloseHandle(mutex));
    }
}

// The owner's robust list stays sound, and what it still owns is not used again before it is gone.
TEST_F(MutexTest, last_handle_closed_while_another_thread_owns) {
    std::atomic<HANDLE> mutexes[3] = {};
    std::atomic<bool> closed{false};
    std::thread owner([&] {
        for (auto &mutex : mutexes) {
            mutex = vllCreateMutex(1, nullptr);
        }
        waitUntil([&] { return closed.load(); });
        const HANDLE other = vllCreateMutex(1, nullptr);
        EXPECT_NE(other, 0U);
        EXPECT_TRUE(vllReleaseMutex(other));
        EXPECT_TRUE(vllCloseHandle(other));
        EXPECT_EQ(takeInventory().free_objmem, kObjmemCount);
    });
    waitUntil([&] { return mutexes[2] != 0; });
    for (auto &mutex : mutexes) {
        EXPECT_TRUE(vllCloseHandle(mutex));
    }
    EXPECT_EQ(takeInventory().free_objmem, kObjmemCount - 3);
    for (uint32_t i = 0; i < 2 * kObjmemCount; ++i) {
        vllCloseHandle(vllCreateMutex(1, nullptr));
    }
    closed = true;
    owner.join();
}

#if !defined(__SANITIZE_THREAD__)  // to which a dead thread owns its mutex for ever
// A table full of mutexes whose owners are gone is no full table, whatever is to be made.
TEST_F(MutexTest, records_of_dead_owners_are_used_again) {
    HANDLE(*const makers[])
    () = {
        [] { return vllCreateMutex(0, nullptr); },
        [] { return vllCreateSemaphore(0, nullptr); },
        [] {
            return vllCreateThread(
                0, [](LPVOID) { return 0U; }, nullptr, nullptr, 0);
        },
    };
    for (auto *make : makers) {
        std::vector<HANDLE> mutexes(kObjmemCount);
        std::atomic<bool> made{false};
        std::atomic<bool> closed{false};
        std::thread owner([&] {
            std::generate(mutexes.begin(), mutexes.end(), [] { return vllCreateMutex(1, nullptr); });
            made = true;
            waitUntil([&] { return closed.load(); });
        });
        waitUntil([&] { return made.load(); });
        for (const HANDLE mutex : mutexes) {
            EXPECT_TRUE(vllCloseHandle(mutex));
        }
        EXPECT_EQ(takeInventory().free_objmem, 0U);
        closed = true;
        owner.join();
        waitUntil([] { return takeInventory().threads == 1; });
        const Owned fresh(make());
    }
    EXPECT_EQ(takeErrors(), Errors{});
}
#endif

TEST_F(MutexTest, closed_under_a_waiter) {
    const HANDLE mutex = vllCreateMutex(1, nullptr);
    std::thread waiter = startAsleep([&] {
        EXPECT_EQ(vllWaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
        // The wait held the last reference: the mutex was released and is gone.
    });
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_TRUE(vllReleaseMutex(mutex));
    waiter.join();
    EXPECT_FALSE(vllReleaseMutex(mutex));
}

TEST_F(MutexTest, limit_and_failing_calls) {
    std::vector<HANDLE> handles;
    for (uint32_t i = 0; i < kObjmemCount; ++i) {
        handles.push_back(i % 2 == 0 ? vllCreateMutex(0, nullptr) : vllCreateSemaphore(1, nullptr));
        EXPECT_NE(handles.back(), 0U);
    }
    EXPECT_THAT(vllCreateMutex(0, nullptr), FailsWith(ENOMEM));
    EXPECT_EQ(takeErrors(), std::vector<std::string>{"VLLI: AllocMemObject() error = ENOMEM\n"});
    for (const HANDLE handle : handles) {
        EXPECT_TRUE(vllCloseHandle(handle));
    }
    for (const char *call : {"pthread_mutexattr_setrobust", "pthread_mutex_init"}) {
        const FailCall fail(call, 1, ENOTSUP);
        EXPECT_THAT(vllCreateMutex(1, nullptr), FailsWith(ENOTSUP));
        EXPECT_TRUE(fail.happened());
    }
}

TEST_F(MutexTest, open_by_name) {
    for (const char *name : {static_cast<const char *>(nullptr), ""}) {
        EXPECT_THAT(vllOpenMutex(name), FailsWith(EINVAL));
    }
    EXPECT_THAT(vllOpenMutex("vll_open_test"), FailsWith(ENOENT));
    const Owned mutex(vllCreateMutex(1, "vll_open_test"));
    EXPECT_EQ(errno, 0);  // the attempt left no mutex behind
    expectInChild([] {
        vllCloseHandle(OBJ_NAMED_MUTEX);  // what it inherited
        const HANDLE opened = vllOpenMutex("vll_open_test");
        EXPECT_NE(opened, 0U);
        EXPECT_THAT(vllWaitForSingleObject(opened, 0), FailsWith(EBUSY, WAIT_FAILED));
        vllCloseHandle(opened);
        return 0;
    });
    EXPECT_TRUE(vllReleaseMutex(mutex));
}

// Threads that wait for a mutex are no target of cancellation until they have it.
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
