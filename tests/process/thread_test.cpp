// Threads: how they start and end, with which handles, and cancellation inside every operation that blocks.
#include "process/thread.h"

#include <sys/socket.h>
#include <unistd.h>
#include <atomic>
#include <cstring>
#include <thread>

#include "support/child.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"
#include "support/threads.h"

namespace {

class ThreadTest : public LibraryTest {};

const ThreadData *dataOf(HANDLE thread) {
    return vlliThreadData(vlliGetObjectAddress(thread));
}

void waitForEnd(HANDLE thread) {
    EXPECT_EQ(vllWaitForSingleObject(thread, 60000), WAIT_OBJECT_0);
}

uint32_t routineThatReturns9(LPVOID parameter) {
    *static_cast<std::atomic<int> *>(parameter) += 1;
    return 9;
}

HANDLE startCounting(std::atomic<int> *runs, DWORD flags = 0) {
    return vllCreateThread(0, routineThatReturns9, runs, nullptr, flags);
}

struct Destructed {
    std::atomic<int> *count;
    ~Destructed() { ++*count; }
};

TEST_F(ThreadTest, runs_its_routine_and_stays_signalled) {
    std::atomic<int> runs{0};
    const Owned thread(startCounting(&runs));
    waitForEnd(thread);
    EXPECT_EQ(runs, 1);
    const Owned duplicate(vllDuplicateHandle(thread));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(isSignalled(thread) && isSignalled(duplicate));
    }
    EXPECT_EQ(vllResumeThread(thread), 1U);
    EXPECT_THAT(vllTerminateThread(thread, 6), FailsWith(ESRCH));
    EXPECT_EQ(dataOf(thread)->exitCode, 9U);
}

TEST_F(ThreadTest, knows_itself) {
    EXPECT_EQ(vllGetCurrentThread(), 0U);
    EXPECT_EQ(vllGetCurrentThreadId(), static_cast<uintptr_t>(pthread_self()));
    HANDLE own = 0;
    const auto body = [&] {
        own = vllGetCurrentThread();
        EXPECT_EQ(vllGetCurrentThreadId(), dataOf(own)->threadId);
        EXPECT_THAT(vllCloseHandle(own), FailsWith(EINVAL));
        EXPECT_FALSE(isSignalled(own));
    };
    const Owned thread(startThread(body));
    waitForEnd(thread);
    EXPECT_NE(own, HANDLE{thread});
    EXPECT_TRUE(waitUntil([&] { return references(own) == 0; })) << "closed by the thread";
}

TEST_F(ThreadTest, suspended_until_resumed_or_terminated) {
    std::atomic<int> runs{0};
    for (const bool resume : {true, false}) {
        const Owned thread(startCounting(&runs, CREATE_SUSPENDED));
        EXPECT_EQ(vllWaitForSingleObject(thread, 50), WAIT_TIMEOUT);
        EXPECT_EQ(runs, resume ? 0 : 1);
        if (resume) {
            EXPECT_EQ(vllResumeThread(thread), 1U);
            EXPECT_EQ(vllResumeThread(thread), 1U);
        } else {
            expectFailure(
                {"pthread_cancel", 1, EPERM, {}}, [&] { return vllTerminateThread(thread, 8); }, FALSE);
            EXPECT_EQ(dataOf(thread)->exitCode, 0U);
            EXPECT_THAT(vllTerminateThread(thread, 5), Yields(TRUE, 0));
        }
        waitForEnd(thread);
        EXPECT_EQ(runs, 1);
        EXPECT_EQ(dataOf(thread)->exitCode, resume ? 9U : 5U);
    }
}

TEST_F(ThreadTest, stack_sizes) {
    std::atomic<size_t> size{0};
    finishThread(vllCreateThread(
        1 << 20,
        [](LPVOID argument) -> uint32_t {
            pthread_attr_t attributes;
            size_t own = 0;
            EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
            pthread_attr_getstacksize(&attributes, &own);
            pthread_attr_destroy(&attributes);
            *static_cast<std::atomic<size_t> *>(argument) = own;
            return 0;
        },
        &size, nullptr, 0));
    EXPECT_GE(size, 1U << 20);
    EXPECT_LE(size, (1U << 20) + (1U << 16));
    EXPECT_THAT(vllCreateThread(1, routineThatReturns9, nullptr, nullptr, 0), FailsWith(EINVAL));
    EXPECT_EQ(takeErrors(), Errors{"VLLI: CreateThread: pthread_attr_setstacksize() = 22\n"});
    EXPECT_THAT(vllCreateThread(0, nullptr, nullptr, nullptr, 0), FailsWith(EINVAL));
}

TEST_F(ThreadTest, handles_that_are_no_thread) {
    const Owned event(makeManualEvent());
    const HANDLE closed = makeManualEvent();
    vllCloseHandle(closed);
    for (const HANDLE handle : {HANDLE{event}, closed, HANDLE{0}, OBJ_THREAD | (closed & kIndexMask)}) {
        EXPECT_THAT(vllResumeThread(handle), FailsWith(EINVAL));
        EXPECT_THAT(vllTerminateThread(handle, 1), FailsWith(EINVAL));
    }
    EXPECT_FALSE(isSignalled(event));
    takeErrors();

    const Owned bare(vlliCreateObject(OBJ_THREAD));  // no thread was started for it
    ObjectRecord *record = vlliGetObjectAddress(bare);
    record->fd = -1;
    EXPECT_THAT(vllTerminateThread(bare, 1), FailsWith(EFAULT));
    EXPECT_EQ(takeErrors(),
              Errors{format("VLL: TerminateThread(T%08X) ERROR: T%08X->threadId = 0!\n", HANDLE{bare}, 0)});
    ObjmemRecord *mem = std::exchange(record->mem, nullptr);
    EXPECT_THAT(vllTerminateThread(bare, 1), FailsWith(EFAULT));
    EXPECT_EQ(takeErrors(), Errors{format("VLL: TerminateThread(T%08X) ERROR: T%08X->pThreadData = NULL !\n",
                                          HANDLE{bare}, HANDLE{bare})});
    EXPECT_EQ(vllResumeThread(bare), 1U);
    record->mem = mem;
}

TEST_F(ThreadTest, a_creation_that_fails_leaves_nothing) {
    std::atomic<int> runs{0};
    const Failure failures[] = {
        {"sem_init", 1, ENOSYS, {}},        {"eventfd", 1, EMFILE, {}},
        {"fcntl64", 1, EINVAL, {}},         {"dup", 1, EMFILE, {"VLLI: DetachObjmem( mem = NUILL )\n"}},
        {"sem_post", 1, EINVAL, {}},        {"pthread_create", 1, EAGAIN, {}},
        {"pthread_mutex_lock", 1, EIO, {}},
    };
    for (const Failure &failure : failures) {
        expectFailure(
            failure, [&] { return startCounting(&runs); }, 0);
    }
    EXPECT_EQ(runs, 0);
}

// A signal interrupts the wait of a suspended thread, which then ends without running and logs it.
TEST_F(ThreadTest, a_signal_at_a_suspended_thread) {
    const SignalHandler handler(SIGUSR1, ignoreSignal);
    std::atomic<int> runs{0};
    uintptr_t id;
    const Owned thread(vllCreateThread(0, routineThatReturns9, &runs, &id, CREATE_SUSPENDED));
    const HANDLE own = __atomic_load_n(&dataOf(thread)->handle, __ATOMIC_ACQUIRE);
    // The signal may come before the wait, which it then does not interrupt.
    EXPECT_TRUE(waitUntil([&] {
        {
            const TableLock lock;  // a thread that cannot close its own handle exists
            if (vlliGetObjectAddress(own)->refCount != 0) {
                pthread_kill(id, SIGUSR1);
            }
        }
        return isSignalled(thread);
    }));
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(takeErrors(), Errors{format("VLLI: ThreadWrapper: T%08X, resume wait error %d [%s]\n", own,
                                          EINTR, strerror(EINTR))});
}

// Threads that end at the same moment as their handles are closed, resumed or terminated, up to 32 of them alive.
TEST_F(ThreadTest, a_thousand_threads_leave_nothing) {
    std::atomic<int> runs{0};
    for (int i = 0; i < 1000; ++i) {
        HANDLE thread = 0;
        // The record of an ended thread is free a moment after its signal.
        EXPECT_TRUE(waitUntil([&] { return (thread = startCounting(&runs)) != 0; }));
        for (volatile int spin = i * 20; spin > 0; spin = spin - 1) {
        }
        if (i % 3 == 1) {
            EXPECT_EQ(vllResumeThread(thread), 1U);
        } else if (i % 3 == 2) {
            EXPECT_THAT(vllTerminateThread(thread, 4), testing::AnyOf(Yields(TRUE, 0), FailsWith(ESRCH)));
        }
        EXPECT_TRUE(vllCloseHandle(thread));
    }
    takeErrors();
    EXPECT_TRUE(waitUntil([] { return takeInventory().free_objmem == kObjmemCount; }));
    EXPECT_GE(runs, 666) << "a closed handle ends no thread";
}

TEST_F(ThreadTest, a_thread_ends_itself_with_its_code_and_unwound) {
    for (const bool terminate : {false, true}) {
        std::atomic<int> destructed{0};
        const auto body = [&] {
            const Destructed local{&destructed};
            if (!terminate) {
                vllExitThread(12);
            }
            EXPECT_TRUE(vllTerminateThread(vllGetCurrentThread(), 12));
            pthread_testcancel();
            ADD_FAILURE() << "not ended";
        };
        const Owned thread(startThread(body));
        waitForEnd(thread);
        EXPECT_EQ(destructed, 1);
        EXPECT_EQ(dataOf(thread)->exitCode, 12U);
    }
    std::atomic<int> destructed{0};
    std::thread([&] {  // a thread that the library has not started
        const Destructed local{&destructed};
        EXPECT_EQ(vllGetCurrentThread(), 0U);
        vllExitThread(3);
    })
        .join();
    EXPECT_EQ(destructed, 1);
}

// Every operation that blocks: a thread cancelled inside it runs its destructors, is signalled and holds nothing.
TEST_F(ThreadTest, cancelled_inside_every_blocking_operation) {
    const Owned event(makeAutoEvent());
    const Owned timer(vllCreateWaitableTimer(nullptr));
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    char byte;
    std::vector<char> flood(1 << 20);
    const WSABUF one = {&byte, 1};
    const WSABUF many = {flood.data(), static_cast<SIZE_T>(flood.size())};
    DWORD count;
    const HANDLE both[] = {event, timer};
    const std::function<void()> blocking[] = {
        [&] { vllWaitForSingleObject(event, INFINITE); },
        [&] { vllWaitForSingleObject(timer, 600000); },
        [&] { vllWaitForMultipleObjects(2, both, INFINITE); },
        [&] { vllMsgWaitForMultipleObjectsEx(2, both, 600000); },
        [&] { vllWSARecvFrom(pair[0], &one, 1, &count, nullptr, nullptr); },
        [&] {
            while (vllWSASend(pair[0], &many, 1, &count) == 0) {
            }
        },
    };
    for (const bool pending : {false, true}) {
        for (const auto &block : blocking) {
            SCOPED_TRACE(&block - blocking);
            std::atomic<int> destructed{0};
            const Inventory before = takeInventory();
            const std::function<void()> body = [&] {
                const Destructed local{&destructed};
                if (pending) {
                    pthread_cancel(pthread_self());
                }
                block();
                ADD_FAILURE() << "not cancelled";
            };
            if (pending) {
                finishThread(startThread(body));
            } else {
                const Sleeper sleeper(body);
                EXPECT_TRUE(vllTerminateThread(sleeper.handle(), 1));
            }
            EXPECT_EQ(destructed, 1);
            EXPECT_TRUE(waitUntil([&] { return takeInventory() == before; })) << takeInventory() << before;
            EXPECT_EQ(references(event), 1);
        }
    }
    close(pair[0]);
    close(pair[1]);
    takeErrors();
}

// A signal that was pending when the waiter was cancelled is still there for the next.
TEST_F(ThreadTest, a_cancelled_wait_consumes_nothing) {
    const Owned event(makeAutoEvent());
    int lost = 0;
    for (int i = 0; i < 100; ++i) {
        std::atomic<bool> took{false};
        const auto body = [&] { took = vllWaitForSingleObject(event, INFINITE) == WAIT_OBJECT_0; };
        const HANDLE thread = startThread(body);
        for (volatile int spin = i * 100; spin > 0; spin = spin - 1) {
        }
        EXPECT_TRUE(vllTerminateThread(thread, 0));
        vllSetEvent(event);
        finishThread(thread);
        lost += took == isSignalled(event);
    }
    EXPECT_EQ(lost, 0);
}

// The threads of the parent do not run in a forked child. The one here sleeps by then: it holds no lock of a sanitizer.
TEST_F(ThreadTest, a_forked_child_has_no_thread_of_its_parent) {
    const Owned event(makeAutoEvent());
    Sleeper parents([&] { vllWaitForSingleObject(event, INFINITE); });
    expectInChild([&] {
        const auto body = [] {};
        for (int i = 0; i < 2; ++i) {
            EXPECT_THAT(vllTerminateThread(parents.handle(), 1), FailsWith(ESRCH));
            EXPECT_EQ(vllWaitForSingleObject(parents.handle(), 0), WAIT_TIMEOUT);
            finishThread(startThread(body));
        }
        return 0;
    });
    EXPECT_TRUE(vllTerminateThread(parents.handle(), 1));
}

}  // namespace
