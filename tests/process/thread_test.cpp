#include "process/thread.h"

#include <signal.h>
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

namespace {

class ThreadTest : public LibraryTest {};

const ThreadData *dataOf(HANDLE thread) {
    return vlliThreadData(vlliGetObjectAddress(thread));
}

// The handle that the thread itself holds: the other record with the same state.
HANDLE ownHandleOf(HANDLE thread) {
    const TableLock lock;
    for (uint32_t i = 0; i < kObjectCount; ++i) {
        if (objects[i].refCount != 0 && i != (thread & kIndexMask) &&
            objects[i].mem == vlliGetObjectAddress(thread)->mem) {
            return OBJ_THREAD | i;
        }
    }
    return 0;
}

void waitForEnd(HANDLE thread) {
    EXPECT_EQ(vllWaitForSingleObject(thread, 60000), WAIT_OBJECT_0);
}

uint32_t routineThatReturns9(LPVOID parameter) {
    *static_cast<std::atomic<int> *>(parameter) += 1;
    return 9;
}

struct Destructed {
    std::atomic<int> *count;
    ~Destructed() { ++*count; }
};

TEST_F(ThreadTest, runs_its_routine_and_stays_signalled) {
    std::atomic<int> runs{0};
    uintptr_t id = 0;
    const Owned thread(vllCreateThread(0, routineThatReturns9, &runs, &id, 0));
    EXPECT_NE(id, 0U);
    waitForEnd(thread);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(dataOf(thread)->exitCode, 9U);
    const Owned duplicate(vllDuplicateHandle(thread));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(isSignalled(thread));
        EXPECT_TRUE(isSignalled(duplicate));
    }
    EXPECT_EQ(vllResumeThread(thread), 1U);
}

TEST_F(ThreadTest, knows_itself) {
    EXPECT_EQ(vllGetCurrentThread(), 0U);
    EXPECT_EQ(vllGetCurrentThreadId(), static_cast<uintptr_t>(pthread_self()));
    uintptr_t seen_id = 0;
    HANDLE own = 0;
    const auto body = [&] {
        seen_id = vllGetCurrentThreadId();
        own = vllGetCurrentThread();
        EXPECT_EQ(dataOf(own)->handle, own);
        EXPECT_THAT(vllCloseHandle(own), Yields(FALSE, EINVAL));
        EXPECT_FALSE(isSignalled(own));
    };
    const Owned thread(startThread(body));
    waitForEnd(thread);
    EXPECT_EQ(seen_id, dataOf(thread)->threadId);
    EXPECT_NE(own, HANDLE{thread});
    EXPECT_TRUE(waitUntil([&] { return references(own) == 0; })) << "closed by the thread";
}

TEST_F(ThreadTest, suspended_until_resumed) {
    std::atomic<int> runs{0};
    const Owned thread(vllCreateThread(0, routineThatReturns9, &runs, nullptr, CREATE_SUSPENDED));
    EXPECT_EQ(vllWaitForSingleObject(thread, 50), WAIT_TIMEOUT);
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(vllResumeThread(thread), 1U);
    EXPECT_EQ(vllResumeThread(thread), 1U);
    waitForEnd(thread);
    EXPECT_EQ(runs, 1);
}

TEST_F(ThreadTest, terminated_while_suspended_runs_nothing) {
    std::atomic<int> runs{0};
    const Owned thread(vllCreateThread(0, routineThatReturns9, &runs, nullptr, 1));
    expectFailure(
        {"pthread_cancel", 1, EPERM, {}}, [&] { return vllTerminateThread(thread, 8); }, FALSE);
    EXPECT_EQ(dataOf(thread)->exitCode, 0U);
    EXPECT_TRUE(vllTerminateThread(thread, 5));
    waitForEnd(thread);
    EXPECT_EQ(runs, 0);
    EXPECT_THAT(vllTerminateThread(thread, 6), Yields(FALSE, ESRCH));
    EXPECT_EQ(dataOf(thread)->exitCode, 5U);
}

TEST_F(ThreadTest, exitThread_in_a_foreign_thread_ends_it) {
    std::atomic<int> destructed{0};
    std::thread([&] {
        const Destructed local{&destructed};
        EXPECT_EQ(vllGetCurrentThread(), 0U);
        vllExitThread(3);
    }).join();
    EXPECT_EQ(destructed, 1);
}

TEST_F(ThreadTest, stack_sizes) {
    std::atomic<size_t> size{0};
    const HANDLE thread = vllCreateThread(
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
        &size, nullptr, 0);
    finishThread(thread);
    EXPECT_GE(size, 1U << 20);
    EXPECT_LE(size, (1U << 20) + (1U << 16));
    EXPECT_THAT(vllCreateThread(1, routineThatReturns9, nullptr, nullptr, 0), Yields(0U, EINVAL));
    EXPECT_EQ(takeErrors(), Errors{"VLLI: CreateThread: pthread_attr_setstacksize() = 22\n"});
    EXPECT_THAT(vllCreateThread(0, nullptr, nullptr, nullptr, 0), Yields(0U, EINVAL));
}

TEST_F(ThreadTest, handles_that_are_no_thread) {
    const Owned event(makeManualEvent());
    const HANDLE closed = makeManualEvent();
    vllCloseHandle(closed);
    const HANDLE handles[] = {event,        closed, 0, 1, 0x50000, OBJ_THREAD | (closed & kIndexMask),
                              OBJ_MUTEX | 1};
    for (const HANDLE handle : handles) {
        EXPECT_THAT(vllResumeThread(handle), Yields(0U, EINVAL));
        EXPECT_THAT(vllTerminateThread(handle, 1), Yields(FALSE, EINVAL));
    }
    EXPECT_FALSE(isSignalled(event));
    takeErrors();
}

TEST_F(ThreadTest, terminating_a_record_without_a_thread) {
    const Owned bare(vlliCreateObject(OBJ_THREAD));
    ObjectRecord *record = vlliGetObjectAddress(bare);
    record->fd = -1;
    EXPECT_THAT(vllTerminateThread(bare, 1), Yields(FALSE, EFAULT));
    EXPECT_EQ(takeErrors(),
              Errors{format("VLL: TerminateThread(T%08X) ERROR: T%08X->threadId = 0!\n", HANDLE{bare}, 0)});
    ObjmemRecord *mem = record->mem;
    record->mem = nullptr;
    EXPECT_THAT(vllTerminateThread(bare, 1), Yields(FALSE, EFAULT));
    EXPECT_EQ(takeErrors(), Errors{format("VLL: TerminateThread(T%08X) ERROR: T%08X->pThreadData = NULL !\n",
                                          HANDLE{bare}, HANDLE{bare})});
    EXPECT_EQ(vllResumeThread(bare), 1U);
    record->mem = mem;
}

TEST_F(ThreadTest, failing_calls_of_a_creation) {
    std::atomic<int> runs{0};
    const Failure failures[] = {
        {"sem_init", 1, ENOSYS, {}},        {"eventfd", 1, EMFILE, {}},
        {"fcntl64", 1, EINVAL, {}},         {"dup", 1, EMFILE, {"VLLI: DetachObjmem( mem = NUILL )\n"}},
        {"sem_post", 1, EINVAL, {}},        {"pthread_create", 1, EAGAIN, {}},
        {"pthread_mutex_lock", 1, EIO, {}},
    };
    for (const Failure &failure : failures) {
        uintptr_t id = 1;
        expectFailure(
            failure, [&] { return vllCreateThread(0, routineThatReturns9, &runs, &id, 0); }, 0);
        EXPECT_EQ(id, 1U);
    }
    EXPECT_EQ(runs, 0);
}

// A signal breaks the wait of a suspended thread: it ends without running, and says so.
TEST_F(ThreadTest, a_signal_at_a_suspended_thread) {
    struct sigaction action = {}, old;
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    std::atomic<int> runs{0};
    uintptr_t id;
    const Owned thread(vllCreateThread(0, routineThatReturns9, &runs, &id, 1));
    const HANDLE own = ownHandleOf(thread);
    // The signal may come before the wait, which then is not broken.
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
    sigaction(SIGUSR1, &old, nullptr);
}

// A thread as soon as there is room: the record of an ended thread is free a moment after its signal.
HANDLE startWhenRoom(std::atomic<int> *runs) {
    HANDLE thread = 0;
    EXPECT_TRUE(waitUntil([&] {
        thread = vllCreateThread(0, routineThatReturns9, runs, nullptr, 0);
        takeErrors();
        return thread != 0;
    }));
    return thread;
}

// 1,000 threads in a row, up to 32 of them alive.
TEST_F(ThreadTest, a_thousand_threads_leave_nothing) {
    std::atomic<int> runs{0};
    std::vector<HANDLE> alive;
    for (int i = 0; i < 1000; ++i) {
        alive.push_back(startWhenRoom(&runs));
        if (alive.size() == kObjmemCount || i == 999) {
            for (const HANDLE thread : alive) {
                finishThread(thread);
            }
            alive.clear();
        }
    }
    EXPECT_EQ(runs, 1000);
}

// A thread that ends at the same moment as its handle is closed, resumed or terminated.
TEST_F(ThreadTest, ending_meets_close_resume_and_terminate) {
    std::atomic<int> runs{0};
    for (int i = 0; i < 600; ++i) {
        const HANDLE thread = startWhenRoom(&runs);
        for (volatile int spin = i * 20; spin > 0; spin = spin - 1) {
        }
        if (i % 3 == 1) {
            EXPECT_EQ(vllResumeThread(thread), 1U);
        } else if (i % 3 == 2) {
            errno = 0;
            EXPECT_TRUE(vllTerminateThread(thread, 4) || errno == ESRCH);
        }
        EXPECT_TRUE(vllCloseHandle(thread));
    }
    EXPECT_TRUE(waitUntil([] { return takeInventory().free_objmem == kObjmemCount; }));
    EXPECT_GE(runs, 400) << "a closed handle ends no thread";
}

TEST_F(ThreadTest, a_thread_ends_itself_with_its_code_and_unwound) {
    for (const bool terminate : {false, true}) {
        std::atomic<int> destructed{0};
        std::atomic<bool> went_on{false};
        const auto body = [&] {
            const Destructed local{&destructed};
            if (terminate) {
                EXPECT_TRUE(vllTerminateThread(vllGetCurrentThread(), 12));
                pthread_testcancel();
                went_on = true;
            } else {
                vllExitThread(12);
            }
        };
        const Owned thread(startThread(body));
        waitForEnd(thread);
        EXPECT_FALSE(went_on);
        EXPECT_EQ(destructed, 1);
        EXPECT_EQ(dataOf(thread)->exitCode, 12U);
    }
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
    const std::pair<const char *, std::function<void()>> blocking[] = {
        {"single", [&] { vllWaitForSingleObject(event, INFINITE); }},
        {"single with a time-out", [&] { vllWaitForSingleObject(timer, 600000); }},
        {"several", [&] { vllWaitForMultipleObjects(2, both, INFINITE); }},
        {"message", [&] { vllMsgWaitForMultipleObjectsEx(2, both, 600000); }},
        {"receive", [&] { vllWSARecvFrom(pair[0], &one, 1, &count, nullptr, nullptr); }},
        {"send",
         [&] {
             for (;;) {
                 vllWSASend(pair[0], &many, 1, &count);
             }
         }},
    };
    for (const bool pending : {false, true}) {
        for (const auto &[name, block] : blocking) {
            SCOPED_TRACE(name);
            std::atomic<int> destructed{0};
            const Inventory before = takeInventory();
            const std::function<void()> body = [&, &operation = block] {
                const Destructed local{&destructed};
                if (pending) {
                    pthread_cancel(pthread_self());
                }
                operation();
                ADD_FAILURE() << "not cancelled";
            };
            if (pending) {
                finishThread(startThread(body));
            } else {
                const Sleeper sleeper(body);
                EXPECT_TRUE(vllTerminateThread(sleeper.handle(), 1));
            }
            EXPECT_EQ(destructed, 1);
            Inventory after;
            EXPECT_TRUE(waitUntil([&] { return (after = takeInventory()) == before; })) << after << before;
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
        const auto body = [&] {
            const DWORD result = vllWaitForSingleObject(event, INFINITE);
            took = result == WAIT_OBJECT_0;
        };
        const HANDLE thread = startThread(body);
        for (volatile int spin = i * 100; spin > 0; spin = spin - 1) {
        }
        const bool cancelled = vllTerminateThread(thread, 0) != 0;
        EXPECT_TRUE(cancelled);
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
            EXPECT_THAT(vllTerminateThread(parents.handle(), 1), Yields(FALSE, ESRCH));
            EXPECT_EQ(vllWaitForSingleObject(parents.handle(), 0), WAIT_TIMEOUT);
            finishThread(startThread(body));
        }
        return 0;
    });
    EXPECT_TRUE(vllTerminateThread(parents.handle(), 1));
    parents.finish();
}

}  // namespace
