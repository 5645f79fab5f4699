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
        Owned semaphore(vllCreateSemaphore(2, name));
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
        EXPECT_EQ(vllWaitForSingleObject(semaphore, INFINITE), WAIT_OBJECT_0);
        EXPECT_THAT(vllWaitForSingleObject(semaphore, 0), FailsWith(EAGAIN, WAIT_FAILED));
        const int64_t start = nowMs();
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 50), WAIT_TIMEOUT);
        EXPECT_GE(nowMs() - start, 49);
        const Owned duplicate(vllDuplicateHandle(semaphore));
        EXPECT_TRUE(vllReleaseSemaphore(duplicate));
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 20), WAIT_OBJECT_0);
        EXPECT_TRUE(vllReleaseSemaphore(semaphore));
        EXPECT_TRUE(vllCloseHandle(semaphore.release()));
        EXPECT_EQ(vllWaitForSingleObject(duplicate, 0), WAIT_OBJECT_0);
    }
}

TEST_F(SemaphoreTest, counts_out_of_range) {
    for (const char *name : {static_cast<const char *>(nullptr), "vll_semaphore_refused"}) {
        EXPECT_THAT(vllCreateSemaphore(-1, name), FailsWith(EINVAL));
        const Owned full(vllCreateSemaphore(INT_MAX, name));
        EXPECT_THAT(vllReleaseSemaphore(full), FailsWith(EOVERFLOW));
    }
}

TEST_F(SemaphoreTest, a_named_one_that_was_never_mapped) {
    const Owned unmapped(vlliCreateObject(OBJ_NAMED_SEMAPHORE));
    vlliGetObjectAddress(unmapped)->fd = -1;
    EXPECT_THAT(vllWaitForSingleObject(unmapped, 0), FailsWith(EFAULT, WAIT_FAILED));
    EXPECT_THAT(vllReleaseSemaphore(unmapped), FailsWith(EINVAL));
}

// While one release is under way, others go on, a close waits for it, and a forked child is not affected.
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

TEST_F(SemaphoreTest, signals_do_not_end_an_endless_wait) {
    const SignalHandler handler(SIGUSR1, ignoreSignal);
    const Owned semaphore(vllCreateSemaphore(0, nullptr));
    std::thread waiter =
        startAsleep([&] { EXPECT_EQ(vllWaitForSingleObject(semaphore, INFINITE), WAIT_OBJECT_0); });
    for (int i = 0; i < 20; ++i) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        usleep(1000);
    }
    EXPECT_TRUE(vllReleaseSemaphore(semaphore));
    waiter.join();
}

// A cancelled waiter takes no unit and drops its reference, also when it need not wait.
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
