#include "semaphore_object.h"

#include <unistd.h>
#include <atomic>
#include <climits>
#include <csignal>
#include <thread>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/syslog_capture.h"

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
        errno = 0;
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_FAILED);
        EXPECT_EQ(errno, EAGAIN);
        const int64_t start = NowMs();
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 50), WAIT_TIMEOUT);
        EXPECT_GE(NowMs() - start, 49);
        EXPECT_LE(NowMs() - start, 1500);
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
        errno = 0;
        EXPECT_EQ(vllCreateSemaphore(-1, name), 0U);
        EXPECT_EQ(errno, EINVAL);
        const HANDLE full = vllCreateSemaphore(INT_MAX, name);
        ASSERT_NE(full, 0U);
        EXPECT_FALSE(vllReleaseSemaphore(full));
        EXPECT_EQ(errno, EOVERFLOW);
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
    TakeLog();
    {
        const FailCall fail("sem_init", 1, ENOSYS);
        EXPECT_EQ(vllCreateSemaphore(0, nullptr), 0U);
        EXPECT_EQ(errno, ENOSYS);
    }
    vllCloseHandle(mutex);
}

TEST_F(SemaphoreTest, handles_that_cannot_be_waited_on) {
    errno = 0;
    EXPECT_EQ(vllWaitForSingleObject(0, 0), WAIT_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(TakeErrors(),
              (std::vector<std::string>{"VLLI: OpenObject( 0x0 ): Invalid handle value! \n",
                                        "VLL: WaitForSingleObject: invalid event handle = 0\n"}));
    const HANDLE mapping = vllCreateFileMapping(INVALID_HANDLE_VALUE, 2, 4096, nullptr);
    errno = 0;
    EXPECT_EQ(vllWaitForSingleObject(mapping, INFINITE), WAIT_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(TakeErrors(),
              std::vector<std::string>{"VLL: WaitForSingleObject: invalid object type ( handle = " +
                                       std::to_string(mapping) + ", type = 0x1000000)\n"});
    EXPECT_TRUE(vllCloseHandle(mapping));
    const HANDLE unmapped = vlliCreateObject(OBJ_NAMED_SEMAPHORE);
    vlliGetObjectAddress(unmapped)->fd = -1;
    EXPECT_EQ(vllWaitForSingleObject(unmapped, 0), WAIT_FAILED);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_FALSE(vllReleaseSemaphore(unmapped));
    vllCloseHandle(unmapped);
}

void ignoreSignal(int) {}

TEST_F(SemaphoreTest, signals_do_not_end_a_wait) {
    struct sigaction action = {};
    action.sa_handler = ignoreSignal;
    struct sigaction former;
    sigaction(SIGUSR1, &action, &former);
    const HANDLE semaphore = vllCreateSemaphore(0, nullptr);
    struct {
        DWORD timeout_ms;
        DWORD expected;
    } rows[] = {{INFINITE, WAIT_OBJECT_0}, {60000, WAIT_OBJECT_0}, {120, WAIT_TIMEOUT}};
    for (const auto &row : rows) {
        std::atomic<pid_t> tid{0};
        std::atomic<bool> done{false};
        std::thread waiter([&] {
            tid = gettid();
            const int64_t start = NowMs();
            EXPECT_EQ(vllWaitForSingleObject(semaphore, row.timeout_ms), row.expected);
            EXPECT_GE(NowMs() - start, row.expected == WAIT_TIMEOUT ? 119 : 0);
            done = true;
        });
        WaitUntil([&] { return tid != 0; });
        for (int i = 0; i < 40 && !done; ++i) {
            pthread_kill(waiter.native_handle(), SIGUSR1);
            usleep(1000);
        }
        EXPECT_TRUE(row.expected == WAIT_TIMEOUT || !done);
        if (row.expected == WAIT_OBJECT_0) {
            EXPECT_TRUE(vllReleaseSemaphore(semaphore));
        }
        waiter.join();
    }
    sigaction(SIGUSR1, &former, nullptr);
    vllCloseHandle(semaphore);
}

// A cancelled waiter takes no unit and gives its reference back.
TEST_F(SemaphoreTest, cancelled_in_a_wait) {
    static std::atomic<pid_t> tid;
    for (const bool pending : {false, true}) {
        for (DWORD timeout_ms : {INFINITE, DWORD{60000}}) {
            tid = 0;
            static HANDLE semaphore;
            static DWORD timeout;
            static std::atomic<bool> go;
            timeout = timeout_ms;
            go = !pending;
            semaphore = vllCreateSemaphore(pending ? 1 : 0, nullptr);
            auto body = [](void *) -> void * {
                tid = gettid();
                while (!go) {
                }
                vllWaitForSingleObject(semaphore, timeout);
                return nullptr;
            };
            pthread_t waiter;
            pthread_create(&waiter, nullptr, body, nullptr);
            WaitUntil([&] { return tid != 0; });
            if (!pending) {
                WaitUntilAsleep(tid);
            }
            pthread_cancel(waiter);
            go = true;
            void *result = nullptr;
            pthread_join(waiter, &result);
            EXPECT_EQ(result, PTHREAD_CANCELED);
            EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), pending ? WAIT_OBJECT_0 : WAIT_FAILED);
            EXPECT_TRUE(vllCloseHandle(semaphore));
        }
    }
}

}  // namespace
