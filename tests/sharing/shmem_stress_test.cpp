// Last closers and next openers at the same instant, in several processes with several threads each.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <thread>

#include "support/child.h"
#include "support/fixture.h"

namespace {

constexpr int kProcesses = 4;
constexpr int kThreads = 4;
constexpr int kRounds = 2000;

constexpr const char *kMutex = "vll_stress_mutex";
constexpr const char *kMapping = "vll_stress_mapping";
constexpr uint32_t kMagic = 0x5EED5EED;

// What the processes share without the library.
struct Board {
    std::atomic<int> inside;
    std::atomic<int> overlaps;
    std::atomic<int> created;
    std::atomic<int> failures;
    volatile LONG counter;
};

class SharedBoard {
  public:
    SharedBoard()
        : board_(static_cast<Board *>(
              mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    ~SharedBoard() { munmap(board_, sizeof(Board)); }
    SharedBoard(const SharedBoard &) = delete;
    SharedBoard &operator=(const SharedBoard &) = delete;
    Board *operator->() const { return board_; }

  private:
    Board *board_;
};

class ShmemStressTest : public LibraryTest {
  protected:
    // Runs a body in every thread of every process; in each, nothing may be left.
    template <typename Body>
    void everywhere(Body body) {
        std::vector<pid_t> children;
        for (int p = 0; p < kProcesses; ++p) {
            children.push_back(startChild([&] {
                const Inventory before = takeInventory();
                std::vector<std::thread> threads;
                for (int t = 0; t < kThreads; ++t) {
                    threads.emplace_back(body);
                }
                for (std::thread &thread : threads) {
                    thread.join();
                }
                EXPECT_TRUE(waitUntil([&] { return takeInventory() == before; })) << takeInventory();
                return 0;
            }));
        }
        for (const pid_t child : children) {
            expectSuccess(child, 110000);
        }
    }
};

TEST_F(ShmemStressTest, exclusion_by_a_mutex_that_comes_and_goes) {
    const SharedBoard board;
    everywhere([&] {
        for (int round = 0; round < kRounds; ++round) {
            const bool owner = round % 3 == 0;
            const HANDLE mutex = vllCreateMutex(owner, kMutex);
            const bool created = mutex != 0 && errno == 0;
            board->created += created;
            const DWORD result = owner && created ? WAIT_OBJECT_0 : vllWaitForSingleObject(mutex, INFINITE);
            if (result != WAIT_OBJECT_0) {
                ++board->failures;
                continue;
            }
            board->overlaps += board->inside.fetch_add(1) != 0;
            board->inside.fetch_sub(1);
            board->failures += !vllReleaseMutex(mutex);
            board->failures += !vllCloseHandle(mutex);
        }
    });
    EXPECT_EQ(board->overlaps, 0);
    EXPECT_EQ(board->failures, 0);
    EXPECT_GE(board->created, 1);
    const HANDLE fresh = vllCreateMutex(1, kMutex);
    EXPECT_EQ(errno, 0);
    vllCloseHandle(fresh);
    shm_unlink(kMutex);
}

// What one has written stays while it has the mapping, a view or a duplicate; a new object is all zeros.
TEST_F(ShmemStressTest, content_stays_under_its_users) {
    const SharedBoard board;
    everywhere([&] {
        for (int round = 0; round < kRounds / 2; ++round) {
            HANDLE mapping = vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 64, kMapping);
            const int existed = errno;
            auto *words =
                static_cast<volatile uint32_t *>(vllMapViewOfFile(mapping, PROT_READ | PROT_WRITE, 0, 64));
            if (mapping == 0 || words == nullptr) {
                ++board->failures;
                continue;
            }
            if (round % 2 == 0) {
                const HANDLE duplicate = vllDuplicateHandle(mapping);
                board->failures += !vllCloseHandle(mapping);
                mapping = duplicate;
            }
            const uint32_t found = __atomic_load_n(&words[0], __ATOMIC_RELAXED);
            board->failures += found != 0 && found != kMagic;
            board->created += existed == 0;
            __atomic_store_n(&words[0], kMagic, __ATOMIC_RELAXED);
            sched_yield();
            board->overlaps += __atomic_load_n(&words[0], __ATOMIC_RELAXED) != kMagic;
            board->failures += !vllCloseHandle(mapping);
            board->overlaps += __atomic_load_n(&words[0], __ATOMIC_RELAXED) != kMagic;
            board->failures += !vllUnmapViewOfFile(const_cast<uint32_t *>(words));
        }
    });
    EXPECT_EQ(board->overlaps, 0);
    EXPECT_EQ(board->failures, 0);
    EXPECT_GE(board->created, 1);
    const HANDLE fresh = vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 64, kMapping);
    EXPECT_EQ(errno, 0);
    vllCloseHandle(fresh);
    shm_unlink(kMapping);
}

TEST_F(ShmemStressTest, interlocked_counters_are_exact) {
    const SharedBoard board;
    everywhere([&] {
        for (int round = 0; round < kRounds / 4; ++round) {
            vllInterlockedIncrement(&board->counter);
            vllInterlockedIncrement(&board->counter);
            vllInterlockedDecrement(&board->counter);
        }
    });
    EXPECT_EQ(board->counter, kProcesses * kThreads * (kRounds / 4));
    shm_unlink("InterlockingMutex");
}

// Children come while other threads open and close: they inherit whole objects, and no descriptor in transit.
TEST_F(ShmemStressTest, forks_among_openers) {
    SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS();
    std::atomic<bool> stop{false};
    const HANDLE kept = vllCreateSemaphore(1, "vll_stress_kept");
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                const HANDLE mutex = vllCreateMutex(0, kMutex);
                EXPECT_NE(mutex, 0U);
                EXPECT_TRUE(vllCloseHandle(mutex));
            }
        });
    }
    for (int i = 0; i < 30; ++i) {
        expectInChild([&] {
            const HANDLE again = vllCreateSemaphore(9, "vll_stress_kept");
            EXPECT_EQ(errno, EEXIST);
            EXPECT_EQ(vllWaitForSingleObject(again, 0), WAIT_OBJECT_0);
            EXPECT_EQ(vllWaitForSingleObject(kept, 0), WAIT_FAILED);
            EXPECT_TRUE(vllReleaseSemaphore(kept));
            EXPECT_TRUE(vllCloseHandle(again));
            EXPECT_TRUE(vllCloseHandle(kept));
            return 0;
        });
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(vllCloseHandle(kept));
    const HANDLE fresh = vllCreateMutex(0, kMutex);
    EXPECT_EQ(errno, 0);
    vllCloseHandle(fresh);
    shm_unlink(kMutex);
    shm_unlink("vll_stress_kept");
}

}  // namespace
