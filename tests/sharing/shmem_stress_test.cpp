// Last closers and next openers at the same instant, in several processes with several threads each.
#include <atomic>
#include <functional>
#include <thread>

#include "sharing/named_objects.h"

namespace {

constexpr int kProcesses = 4;
constexpr int kThreads = 4;
constexpr int kRounds = 2000;

constexpr const char *kMutex = "vll_stress_mutex";
constexpr const char *kMapping = "vll_stress_mapping";
constexpr const char *kKept = "vll_stress_kept";
constexpr uint32_t kMagic = 0x5EED5EED;

// What the processes share without the library.
struct Board {
    std::atomic<int> inside;
    std::atomic<int> overlaps;
    std::atomic<int> created;
    std::atomic<int> failures;
    volatile LONG counter;
};

class ShmemStressTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        board_ = static_cast<Board *>(
            mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    }
    void TearDown() override {
        EXPECT_EQ(board_->overlaps, 0);
        EXPECT_EQ(board_->failures, 0);
        munmap(board_, sizeof(Board));
        for (const char *name : {kMutex, kMapping, kKept, "InterlockingMutex"}) {
            shm_unlink(name);
        }
        LibraryTest::TearDown();
    }
    // Runs a body in every thread of every process; in each, nothing may be left.
    void everywhere(const std::function<void()> &body) {
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
    Board *board_;
};

TEST_F(ShmemStressTest, exclusion_by_a_mutex_that_comes_and_goes) {
    everywhere([&] {
        for (int round = 0; round < kRounds; ++round) {
            const bool owner = round % 3 == 0;
            const HANDLE mutex = vllCreateMutex(owner, kMutex);
            const bool created = mutex != 0 && errno == 0;
            board_->created += created;
            const DWORD result = owner && created ? WAIT_OBJECT_0 : vllWaitForSingleObject(mutex, INFINITE);
            board_->failures += result != WAIT_OBJECT_0;
            board_->overlaps += board_->inside.fetch_add(1) != 0;
            board_->inside.fetch_sub(1);
            board_->failures += !vllReleaseMutex(mutex);
            board_->failures += !vllCloseHandle(mutex);
        }
    });
    EXPECT_GE(board_->created, 1);
    EXPECT_TRUE(vllCloseHandle(fresh(vllCreateMutex(1, kMutex))));
}

// What one has written stays while it has the mapping, a view or a duplicate; a new object is all zeros.
TEST_F(ShmemStressTest, content_stays_under_its_users) {
    everywhere([&] {
        for (int round = 0; round < kRounds / 2; ++round) {
            HANDLE mapping = vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 64, kMapping);
            board_->created += errno == 0;
            auto *word = static_cast<uint32_t *>(vllMapViewOfFile(mapping, PROT_READ | PROT_WRITE, 0, 64));
            if (word == nullptr) {
                ++board_->failures;
                continue;
            }
            if (round % 2 == 0) {
                const HANDLE duplicate = vllDuplicateHandle(mapping);
                board_->failures += !vllCloseHandle(mapping);
                mapping = duplicate;
            }
            const uint32_t found = __atomic_load_n(word, __ATOMIC_RELAXED);
            board_->failures += found != 0 && found != kMagic;
            __atomic_store_n(word, kMagic, __ATOMIC_RELAXED);
            sched_yield();
            board_->overlaps += __atomic_load_n(word, __ATOMIC_RELAXED) != kMagic;
            board_->failures += !vllCloseHandle(mapping);
            board_->overlaps += __atomic_load_n(word, __ATOMIC_RELAXED) != kMagic;
            board_->failures += !vllUnmapViewOfFile(word);
        }
    });
    EXPECT_GE(board_->created, 1);
    EXPECT_TRUE(vllCloseHandle(fresh(vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 64, kMapping))));
}

TEST_F(ShmemStressTest, interlocked_counters_are_exact) {
    everywhere([&] {
        for (int round = 0; round < kRounds / 4; ++round) {
            vllInterlockedIncrement(&board_->counter);
            vllInterlockedIncrement(&board_->counter);
            vllInterlockedDecrement(&board_->counter);
        }
    });
    EXPECT_EQ(board_->counter, kProcesses * kThreads * (kRounds / 4));
}

// Children come while other threads open and close: they inherit whole objects, and no descriptor that is on its way.
TEST_F(ShmemStressTest, forks_among_openers) {
    SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS();
    std::atomic<bool> stop{false};
    const HANDLE kept = vllCreateSemaphore(1, kKept);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                EXPECT_TRUE(vllCloseHandle(vllCreateMutex(0, kMutex)));
            }
        });
    }
    for (int i = 0; i < 30; ++i) {
        expectInChild([&] {
            const HANDLE again = inUse(vllCreateSemaphore(9, kKept));
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
    EXPECT_TRUE(vllCloseHandle(fresh(vllCreateMutex(0, kMutex))));
}

}  // namespace
