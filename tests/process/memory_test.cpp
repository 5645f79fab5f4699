// Memory: status, blocks, pointer probes and counters of all processes.
#include "vwincompat/memory.h"

#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <thread>

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/threads.h"

namespace {

class MemoryTest : public LibraryTest {};

TEST_F(MemoryTest, status) {
    vllGetMemoryStatus(nullptr);
    MEMORYSTATUS status = {};
    vllGetMemoryStatus(&status);
    const auto page = static_cast<SIZE_T>(sysconf(_SC_PAGESIZE));
    EXPECT_EQ(status.dwTotalPhys, static_cast<SIZE_T>(sysconf(_SC_PHYS_PAGES)) * page);
    EXPECT_GT(status.dwAvailPhys, 0U);
    EXPECT_EQ(status.dwAvailPhys % page, 0U);
}

TEST_F(MemoryTest, allocation) {
    auto *block = static_cast<char *>(vllAllocateMemory(1000, 1));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(std::count(block, block + 1000, '\0'), 1000);
    strcpy(block, "kept");
    block = static_cast<char *>(vllReAllocateMemory(block, 100000));
    EXPECT_STREQ(block, "kept");
    vllFreeMemory(block);
    vllFreeMemory(nullptr);
    vllFreeMemory(vllReAllocateMemory(nullptr, 10));
    const FailCall fail("malloc", 1, ENOMEM);
    EXPECT_THAT(vllAllocateMemory(10, 0), FailsWith(ENOMEM));
}

// Three pages, of which the middle one is writable and the others as a row wants them.
struct Pages {
    const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *const base = static_cast<char *>(
        mmap(nullptr, 3 * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ~Pages() { munmap(base, 3 * size); }
    char *page(size_t index) const { return base + index * size; }
};

void formerHandler(int) {}

TEST_F(MemoryTest, probes_find_the_first_the_middle_and_the_last_byte) {
    const Pages pages;
    const size_t size = pages.size;
    const struct {
        int first, last;  // protections of the outer pages
        size_t offset, length;
        BOOL bad_read, bad_write;
    } rows[] = {
        {PROT_NONE, PROT_NONE, size, size, FALSE, FALSE},
        {PROT_NONE, PROT_NONE, size - 1, 2, TRUE, TRUE},     // the first byte
        {PROT_NONE, PROT_NONE, size, size + 1, TRUE, TRUE},  // the last
        {PROT_READ, PROT_NONE, 0, 3 * size, TRUE, TRUE},     // on the way
        {PROT_READ, PROT_READ, 0, 3 * size, FALSE, TRUE},
        {PROT_READ, PROT_READ, 2 * size, 1, FALSE, TRUE},
        {PROT_NONE, PROT_NONE, 0, 0, FALSE, FALSE},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.offset);
        memset(pages.page(1), 'm', size);
        mprotect(pages.page(0), size, row.first);
        mprotect(pages.page(2), size, row.last);
        char *address = pages.page(0) + row.offset;
        for (int repeat = 0; repeat < 3; ++repeat) {
            EXPECT_THAT(vllIsBadReadPtr(address, row.length), Yields(row.bad_read, 0));
            EXPECT_THAT(vllIsBadWritePtr(address, row.length), Yields(row.bad_write, 0));
        }
        EXPECT_EQ(*pages.page(1), 'm');
    }
    EXPECT_TRUE(vllIsBadReadPtr(nullptr, 1));
    EXPECT_TRUE(vllIsBadReadPtr(reinterpret_cast<void *>(UINTPTR_MAX), 5));
    FILE *empty = tmpfile();
    void *past_the_end = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fileno(empty), 0);
    EXPECT_TRUE(vllIsBadReadPtr(past_the_end, 1));  // SIGBUS
    munmap(past_the_end, size);
    fclose(empty);
}

TEST_F(MemoryTest, probe_keeps_actions_and_signal_mask) {
    struct sigaction former = {};
    former.sa_handler = formerHandler;
    former.sa_flags = SA_RESTART;
    sigaddset(&former.sa_mask, SIGHUP);
    struct sigaction before[2];
    sigset_t blocked, unblocked, now;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGSEGV);
    sigaddset(&blocked, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &blocked, &unblocked);
    sigaction(SIGSEGV, &former, &before[0]);
    sigaction(SIGBUS, &former, &before[1]);
    EXPECT_TRUE(vllIsBadReadPtr(nullptr, 1));
    char byte = 0;
    EXPECT_FALSE(vllIsBadWritePtr(&byte, 1));
    for (const int signal : {SIGSEGV, SIGBUS}) {
        struct sigaction action;
        sigaction(signal, &before[signal == SIGBUS], &action);
        EXPECT_EQ(action.sa_handler, formerHandler);
        EXPECT_NE(action.sa_flags & SA_RESTART, 0);
        EXPECT_EQ(sigismember(&action.sa_mask, SIGHUP), 1);
    }
    pthread_sigmask(SIG_SETMASK, &unblocked, &now);
    for (int signal = 1; signal < 32; ++signal) {
        EXPECT_EQ(sigismember(&now, signal), sigismember(&blocked, signal)) << signal;
    }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which have handlers of their own
// A real fault in another thread during a probe meets the program's own action once the probe is over.
TEST_F(MemoryTest, fault_of_another_thread_is_not_swallowed) {
    const ChildResult result = runInChild([] {
        struct sigaction action = {};
        action.sa_handler = [](int) { _exit(42); };
        sigaction(SIGSEGV, &action, nullptr);
        std::atomic<bool> fault{false};
        std::thread victim([&] {
            while (!fault) {
            }
            *static_cast<volatile char *>(
                mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
        });
        constexpr size_t kBig = 1 << 20;
        void *range = mmap(nullptr, kBig, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        fault = true;
        for (;;) {
            vllIsBadReadPtr(range, kBig);
        }
        return 0;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 42);
}
#endif

TEST_F(MemoryTest, probes_in_many_threads_and_children) {
    const Pages pages;
    mprotect(pages.page(2), pages.size, PROT_NONE);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                wrong += vllIsBadReadPtr(pages.page(1), pages.size) != FALSE;
                wrong += vllIsBadReadPtr(pages.page(1), pages.size + 1) != TRUE;
            }
        });
    }
    for (int i = 0; kMayForkBesideBusyThreads && i < 10; ++i) {
        expectInChild([&] { return vllIsBadReadPtr(pages.page(2), 1) ? 0 : 1; });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(MemoryTest, interlocked_results) {
    volatile LONG counter = INT_MAX - 1;
    EXPECT_THAT(vllInterlockedIncrement(&counter), Yields(INT_MAX, 0));
    EXPECT_THAT(vllInterlockedIncrement(&counter), Yields(INT_MIN, 0));
    EXPECT_THAT(vllInterlockedDecrement(&counter), Yields(INT_MAX, 0));
    {
        const FailCall fail("shm_open", 1, EMFILE);
        EXPECT_EQ(vllInterlockedDecrement(&counter), INT_MAX - 1);
        EXPECT_TRUE(fail.happened());
    }
    // Whoever holds the mutex of that name keeps all others from changing a counter.
    const HANDLE mutex = vllCreateMutex(TRUE, "InterlockingMutex");
    std::thread other = startAsleep([&] { vllInterlockedIncrement(&counter); });
    EXPECT_EQ(counter, INT_MAX - 1);
    EXPECT_TRUE(vllReleaseMutex(mutex));
    other.join();
    EXPECT_EQ(counter, INT_MAX);
    EXPECT_TRUE(vllCloseHandle(mutex));
    shm_unlink("InterlockingMutex");
}

}  // namespace
