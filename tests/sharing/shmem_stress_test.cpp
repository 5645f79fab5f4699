// Last closers and next openers at the same instant, in several processes with several threads each.
#include <atomic>
#include <functional>
#include <thread>

#include "base/robust_mutex.h"
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
    // What everybody does under the mutex: nobody else may.
    void useAlone() {
        board_->overlaps += board_->inside.fetch_add(1) != 0;
        board_->inside.fetch_sub(1);
    }
    // What everybody does with the mapping: a new one is all zeros, and what one has written stays while one uses it.
    void useContent(uint32_t *word) {
        const uint32_t found = __atomic_load_n(word, __ATOMIC_RELAXED);
        board_->failures += found != 0 && found != kMagic;
        __atomic_store_n(word, kMagic, __ATOMIC_RELAXED);
        sched_yield();
        board_->overlaps += __atomic_load_n(word, __ATOMIC_RELAXED) != kMagic;
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
            useAlone();
            board_->failures += !vllReleaseMutex(mutex);
            board_->failures += !vllCloseHandle(mutex);
        }
    });
    EXPECT_GE(board_->created, 1);
    EXPECT_TRUE(vllCloseHandle(fresh(vllCreateMutex(1, kMutex))));
}

// A mapping, a view or a duplicate each keep the content.
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
            useContent(word);
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

// A user of an object that knows its record locks alone: those of the whole process, by F_SETLK.
class ClassicUser {
  public:
    ClassicUser(const char *name, size_t size, void (*initialise)(void *))
        : fd_(shm_open(name, O_RDWR | O_CREAT | O_CLOEXEC, 0666)), size_(size) {
        bool created;
        while (!(created = classicLock(fd_.get(), F_WRLCK) == 0)) {
            EXPECT_EQ(classicLock(fd_.get(), F_RDLCK, F_SETLKW), 0);
            if (lseek(fd_.get(), 0, SEEK_END) != 0) {
                break;
            }
            sched_yield();  // with the shared lock of an empty object
            EXPECT_EQ(classicLock(fd_.get(), F_UNLCK), 0);
            usleep(100);
        }
        EXPECT_TRUE(!created ||
                    (ftruncate(fd_.get(), 0) == 0 && ftruncate(fd_.get(), static_cast<off_t>(size)) == 0));
        content_ = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
        if (created && initialise != nullptr) {
            initialise(content_);
        }
        EXPECT_EQ(classicLock(fd_.get(), F_RDLCK, F_SETLKW), 0);
    }
    ~ClassicUser() {
        munmap(content_, size_);
        if (classicLock(fd_.get(), F_WRLCK) == 0) {
            EXPECT_EQ(ftruncate(fd_.get(), 0), 0);
        }
    }
    ClassicUser(const ClassicUser &) = delete;
    ClassicUser &operator=(const ClassicUser &) = delete;
    void *content() const { return content_; }

  private:
    Fd fd_;
    size_t size_;
    void *content_;
};

// Two processes that use the library beside two that only follow the record locks: nobody loses what it uses.
TEST_F(ShmemStressTest, beside_programs_that_only_use_record_locks) {
    std::vector<pid_t> children;
    for (int p = 0; p < 2; ++p) {
        children.push_back(startChild([&] {
            for (int round = 0; round < kRounds; ++round) {
                const HANDLE mutex = vllCreateMutex(0, kMutex);
                board_->created += errno == 0;
                board_->failures += vllWaitForSingleObject(mutex, INFINITE) != WAIT_OBJECT_0;
                useAlone();
                board_->failures += !vllReleaseMutex(mutex) || !vllCloseHandle(mutex);
                const HANDLE mapping = vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 64, kMapping);
                void *view = vllMapViewOfFile(mapping, PROT_READ | PROT_WRITE, 0, 64);
                board_->failures += !vllCloseHandle(mapping);
                useContent(static_cast<uint32_t *>(view));
                board_->failures += !vllUnmapViewOfFile(view);
            }
            return 0;
        }));
        children.push_back(startChild([&] {
            const auto initMutex = [](void *mutex) {
                vlliInitMutex(static_cast<pthread_mutex_t *>(mutex), FALSE);
            };
            for (int round = 0; round < kRounds; ++round) {
                {
                    const ClassicUser mutex(kMutex, sizeof(pthread_mutex_t), initMutex);
                    auto *const locked = static_cast<pthread_mutex_t *>(mutex.content());
                    board_->failures += pthread_mutex_lock(locked) != 0;
                    useAlone();
                    board_->failures += pthread_mutex_unlock(locked) != 0;
                }
                const ClassicUser mapping(kMapping, 64, nullptr);
                useContent(static_cast<uint32_t *>(mapping.content()));
            }
            return 0;
        }));
    }
    for (const pid_t child : children) {
        expectSuccess(child, 110000);
    }
    EXPECT_GE(board_->created, 1);
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
