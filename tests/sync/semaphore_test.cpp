#include "sync/semaphore.h"

#include <climits>

#include "support/child.h"
#include "support/faults.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"
#include "support/threads.h"

namespace {

class SemaphoreTest : public LibraryTest {};

TEST_F(SemaphoreTest, units_and_results) {
    for (const char *name : {static_cast<const char *>(nullptr), "", "/vll_semaphore_test"}) {
        SCOPED_TRACE(name == nullptr ? "null" : name);
        errno = EEXIST;
        const HANDLE semaphore = vllCreateSemaphore(2, name);
        ASSERT_NE(semaphore, 0U);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
        EXPECT_EQ(vllWaitForSingleObject(semaphore, INFINITE), WAIT_OBJECT_0);
        EXPECT_THAT(vllWaitForSingleObject(semaphore, 0), FailsWith(EAGAIN, WAIT_FAILED));
        const int64_t start = nowMs();
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 50), WAIT_TIMEOUT);
        EXPECT_GE(nowMs() - start, 49);
        EXPECT_LE(nowMs() - start, 1500);
        const HANDLE duplicate = vllDuplicateHandle(semaphore);
        EXPECT_TRUE(vllReleaseSemaphore(duplicate));
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 20), WAIT_OBJECT_0);
        EXPECT_TRUE(vllReleaseSemaphore(semaphore));
        EXPECT_TRUE(vllCloseHandle(semaphore));
        EXPECT_EQ(vllWaitForSingleObject(duplicate, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(vllCloseHandle(duplicate));
    }
}

TEST_F(SemaphoreTest, refused) {
    for (const char *name : {static_cast<const char *>(nullptr), "vll_semaphore_refused"}) {
        EXPECT_THAT(vllCreateSemaphore(-1, name), FailsWith(EINVAL));
        const HANDLE full = vllCreateSemaphore(INT_MAX, name);
        ASSERT_NE(full, 0U);
        EXPECT_THAT(vllReleaseSemaphore(full), FailsWith(EOVERFLOW));
        vllCloseHandle(full);
    }
    const HANDLE mutex = vllCreateMutex(0, nullptr);
    const HANDLE closed = vllCreateSemaphore(1, nullptr);
    vllCloseHandle(closed);
    for (const HANDLE handle :
         {mutex, closed, OBJ_SEMAPHORE | (mutex & kIndexMask), 0U, OBJ_SEMAPHORE | 0x80U}) {
        errno = 0;
        EXPECT_FALSE(vllReleaseSemaphore(handle)) << std::hex << handle;
        EXPECT_EQ(errno, EINVAL);
    }
    takeLog();
    {
        const FailCall fail("sem_init", 1, ENOSYS);
        EXPECT_THAT(vllCreateSemaphore(0, nullptr), FailsWith(ENOSYS));
    }
    vllCloseHandle(mutex);
}

TEST_F(SemaphoreTest, handles_that_cannot_be_waited_on) {
    EXPECT_THAT(vllWaitForSingleObject(0, 0), FailsWith(EINVAL, WAIT_FAILED));
    EXPECT_EQ(takeErrors(),
              (std::vector<std::string>{"VLLI: OpenObject( 0x0 ): Invalid handle value! \n",
                                        "VLL: WaitForSingleObject: invalid event handle = 0\n"}));
    const HANDLE mapping = vllCreateFileMapping(INVALID_HANDLE_VALUE, 2, 4096, nullptr);
    EXPECT_THAT(vllWaitForSingleObject(mapping, INFINITE), FailsWith(EINVAL, WAIT_FAILED));
    EXPECT_EQ(takeErrors(),
              std::vector<std::string>{"VLL: WaitForSingleObject: invalid object type ( handle = " +
                                       std::to_string(mapping) + ", type = 0x1000000)\n"});
    EXPECT_TRUE(vllCloseHandle(mapping));
    const HANDLE unmapped = vlliCreateObject(OBJ_NAMED_SEMAPHORE);
    vlliGetObjectAddress(unmapped)->fd = -1;
    EXPECT_THAT(vllWaitForSingleObject(unmapped, 0), FailsWith(EFAULT, WAIT_FAILED));
    EXPECT_FALSE(vllReleaseSemaphore(unmapped));
    vllCloseHandle(unmapped);
}

// A post that has to wake somebody is a system call, which must not hold up the whole table.
TEST_F(SemaphoreTest, a_waiter_is_woken_without_the_table_lock) {
    static std::atomic<int> lock_error;
    lock_error = -1;
    const SignalHandler handler(SIGUSR1, [](int) {
        lock_error = pthread_mutex_trylock(&objMemMutex);
        if (lock_error == 0) {
            pthread_mutex_unlock(&objMemMutex);
        }
    });
    const Owned semaphore(vllCreateSemaphore(0, nullptr));
    std::thread waiter =
        startAsleep([&] { EXPECT_EQ(vllWaitForSingleObject(semaphore, 60000), WAIT_OBJECT_0); });
    {
        const FailCall signal_first("sem_post", 1, -SIGUSR1);
        EXPECT_TRUE(vllReleaseSemaphore(semaphore));
    }
    EXPECT_EQ(lock_error, 0);
    waiter.join();
}

// A release in the middle of its step: others get by, a close waits for it, and a child knows nothing of it.
TEST_F(SemaphoreTest, a_release_keeps_its_semaphore_from_a_close) {
    static std::atomic<bool> inside, may_leave;
    inside = may_leave = false;
    const SignalHandler handler(SIGUSR1, [](int) {
        inside = true;
        for (int ms = 0; !may_leave && ms < 20000; ++ms) {
            usleep(1000);
        }
    });
    const HANDLE semaphore = vllCreateSemaphore(1, nullptr);
    std::thread poster([&] {
        const FailCall signal_first("sem_post", 1, -SIGUSR1);
        EXPECT_TRUE(vllReleaseSemaphore(semaphore));
    });
    ASSERT_TRUE(waitUntil([] { return inside.load(); }));
    EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(vllReleaseSemaphore(semaphore));
    expectInChild([&] { return vllCloseHandle(semaphore) ? 0 : 1; });
    std::atomic<bool> closed{false};
    std::thread closer = startAsleep([&] { closed = vllCloseHandle(semaphore); });
    EXPECT_FALSE(closed);
    may_leave = true;
    poster.join();
    closer.join();
    EXPECT_TRUE(closed);
}

TEST_F(SemaphoreTest, signals_do_not_end_a_wait) {
    const SignalHandler handler(SIGUSR1, ignoreSignal);
    const Owned semaphore(vllCreateSemaphore(0, nullptr));
    for (const DWORD timeout_ms : {INFINITE, 60000U}) {
        std::atomic<bool> done{false};
        std::thread waiter = startAsleep([&] {
            EXPECT_EQ(vllWaitForSingleObject(semaphore, timeout_ms), WAIT_OBJECT_0);
            done = true;
        });
        for (int i = 0; i < 40; ++i) {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            usleep(1000);
        }
        EXPECT_FALSE(done);
        EXPECT_TRUE(vllReleaseSemaphore(semaphore));
        waiter.join();
    }
}

// A cancelled waiter takes no unit and gives its reference back, also when there is no need to wait.
TEST_F(SemaphoreTest, cancelled_in_a_wait) {
    for (const bool pending : {false, true}) {
        for (const DWORD timeout_ms : {INFINITE, 60000U}) {
            const Owned semaphore(vllCreateSemaphore(pending ? 1 : 0, nullptr));
            const Owned gate(vllCreateMutex(1, nullptr));
            std::thread waiter = startAsleep([&] {
                if (pending) {
                    vllWaitForSingleObject(gate, INFINITE);  // no cancellation point
                }
                vllWaitForSingleObject(semaphore, timeout_ms);
                ADD_FAILURE() << "not cancelled";
            });
            pthread_cancel(waiter.native_handle());
            EXPECT_TRUE(vllReleaseMutex(gate));
            waiter.join();
            EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), pending ? WAIT_OBJECT_0 : WAIT_FAILED);
        }
    }
}

}  // namespace
