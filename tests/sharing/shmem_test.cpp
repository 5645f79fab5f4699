// Named objects across processes: who creates one, who finds it, who is its last user, and what a process leaves that is
// killed.
#include "sharing/shmem.h"

#include <sys/wait.h>
#include <cstring>

#include "base/file_lock.h"
#include "sharing/named_objects.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/matchers.h"
#include "support/threads.h"

namespace {

constexpr const char *kName = "vll_shmem_test";
constexpr const char *kOther = "vll_shmem_other";
constexpr auto kMutexSize = static_cast<off_t>(sizeof(pthread_mutex_t));

class ShmemTest : public LibraryTest {
  protected:
    void TearDown() override {
        LibraryTest::TearDown();
        shm_unlink(kName);
        shm_unlink(kOther);
    }
};

// Waits for a handle without blocking.
DWORD poll(HANDLE handle) {
    return vllWaitForSingleObject(handle, 0);
}

// Waits until a child of startChild() has stopped itself.
void waitUntilStopped(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
    EXPECT_TRUE(WIFSTOPPED(status));
}

void killChild(pid_t child) {
    kill(child, SIGKILL);
    EXPECT_EQ(finishChild(child).status, SIGKILL);
}

// All handles of a process on one object count, and reach it at one address.
TEST_F(ShmemTest, several_handles_in_one_process) {
    const HANDLE first = fresh(vllCreateMutex(0, kName));
    const HANDLE second = inUse(vllCreateMutex(0, kName));
    const HANDLE third = vllDuplicateHandle(first);
    EXPECT_EQ(vlliGetObjectAddress(first)->addr, vlliGetObjectAddress(second)->addr);
    EXPECT_EQ(vlliGetObjectAddress(first)->addr, vlliGetObjectAddress(third)->addr);
    EXPECT_EQ(poll(first), WAIT_OBJECT_0);
    EXPECT_EQ(poll(second), WAIT_OBJECT_0);
    EXPECT_TRUE(vllReleaseMutex(third));
    for (const HANDLE handle : {first, second}) {
        EXPECT_TRUE(vllCloseHandle(handle));
        expectInChild([&] {
            vllCloseHandle(third);
            const HANDLE other = inUse(vllCreateMutex(1, kName));  // which does not make it the owner
            EXPECT_THAT(poll(other), FailsWith(EBUSY, WAIT_FAILED));
            EXPECT_EQ(vllWaitForSingleObject(other, 30), WAIT_TIMEOUT);
            return 0;
        });
    }
    EXPECT_TRUE(vllReleaseMutex(third));
    EXPECT_EQ(poll(third), WAIT_OBJECT_0);
    // The owner closes the last handle of its process, which is no abandonment.
    const pid_t waiter = startChild([&] {
        EXPECT_EQ(vllWaitForSingleObject(third, 60000), WAIT_OBJECT_0);
        return 0;
    });
    EXPECT_TRUE(waitUntilAsleep(waiter));
    EXPECT_TRUE(vllCloseHandle(third));
    expectSuccess(waiter);
    EXPECT_TRUE(vllCloseHandle(fresh(vllCreateMutex(1, kName))));  // the waiter has ended without closing
    EXPECT_EQ(objectLength(kName), 0);
}

TEST_F(ShmemTest, killed_owner_abandons_its_mutex) {
    const Doorbell owned;
    const pid_t owner = startChild([&] {
        EXPECT_EQ(poll(fresh(vllCreateMutex(1, kName))), WAIT_OBJECT_0);
        owned.ring();
        return pause();
    });
    owned.wait();
    const Owned mutex(inUse(vllCreateMutex(0, kName)));
    std::atomic<int> abandoned{0}, acquired{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(startAsleep([&] {
            const DWORD result = vllWaitForSingleObject(mutex, INFINITE);
            abandoned += result == WAIT_ABANDONED;
            acquired += result == WAIT_OBJECT_0;
            EXPECT_TRUE(vllReleaseMutex(mutex));
        }));
    }
    killChild(owner);
    for (std::thread &waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(abandoned, 1);
    EXPECT_EQ(acquired, 2);
}

// Whoever waits for a creator that is killed at any step, or comes later, gets a whole object.
TEST_F(ShmemTest, creator_killed_while_it_initialises) {
    const struct {
        const char *call;
        int nth;
        bool complete;  // the content was there when the creator died
    } steps[] = {
        {"fcntl64", 1, false}, {"ftruncate64", 1, false}, {"pwrite64", 1, false},
        {"mmap64", 1, true},   {"fcntl64", 2, true},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(std::string(step.call) + " " + std::to_string(step.nth));
        const pid_t creator = startChild([&] {
            const FailCall stop(step.call, step.nth, -SIGSTOP);
            vllCreateMutex(1, kName);
            return 1;
        });
        waitUntilStopped(creator);
        const pid_t opener = startChild([&] {
            const HANDLE mutex = expectMade(vllCreateMutex(0, kName), step.complete ? EEXIST : 0, __LINE__);
            EXPECT_EQ(objectLength(kName), kMutexSize);
            const DWORD result = vllWaitForSingleObject(mutex, 20000);
            EXPECT_TRUE(result == WAIT_OBJECT_0 || (step.complete && result == WAIT_ABANDONED)) << result;
            EXPECT_EQ(poll(mutex), WAIT_OBJECT_0);
            vllCloseHandle(mutex);
            return 0;
        });
        if (&step != steps) {
            EXPECT_TRUE(waitUntilAsleep(opener));
        }
        killChild(creator);
        expectSuccess(opener);
        EXPECT_TRUE(vllCloseHandle(fresh(vllCreateMutex(0, kName))));
        EXPECT_EQ(objectLength(kName), 0);
    }
}

// What an opener gets is new when the last user empties the object while the opener waits.
TEST_F(ShmemTest, emptied_under_a_waiting_opener) {
    const Fd user(shm_open(kName, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(ftruncate(user.get(), 24), 0);
    ASSERT_EQ(classicLock(user.get(), F_WRLCK), 0);
    const pid_t opener = startChild([] {
        const HANDLE mutex = fresh(vllCreateMutex(1, kName));
        EXPECT_TRUE(vllReleaseMutex(mutex));
        return 0;
    });
    EXPECT_TRUE(waitUntilAsleep(opener));
    EXPECT_EQ(ftruncate(user.get(), 0), 0);
    EXPECT_EQ(classicLock(user.get(), F_UNLCK), 0);
    expectSuccess(opener);
}

// A program that holds the shared lock of an empty object for a moment delays an opener; for good, it is a user.
TEST_F(ShmemTest, shared_lock_of_an_empty_object) {
    const Fd other(shm_open(kName, O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(vlliLockFile(other.get(), F_OFD_SETLK, F_RDLCK), 0);
    EXPECT_THAT(vllCreateMutex(0, kName), FailsWith(EINVAL));
    const pid_t opener = startChild([] {
        fresh(vllCreateMutex(1, kName));
        EXPECT_EQ(objectLength(kName), kMutexSize);
        return 0;
    });
    EXPECT_TRUE(waitUntilAsleep(opener));
    EXPECT_EQ(vlliLockFile(other.get(), F_OFD_SETLK, F_UNLCK), 0);
    expectSuccess(opener);
}

// A child of fork() is a user of its own, whoever leaves first.
TEST_F(ShmemTest, fork_counts) {
    for (const bool child_first : {true, false}) {
        SCOPED_TRACE(child_first);
        const Doorbell parent_left;
        const HANDLE semaphore = fresh(vllCreateSemaphore(4, kName));
        const pid_t child = startChild([&] {
            if (!child_first) {
                parent_left.wait();
            }
            EXPECT_EQ(poll(semaphore), WAIT_OBJECT_0);
            const HANDLE again = inUse(vllCreateSemaphore(0, kName));
            expectInChild([&] {  // and so is the child's child
                vllCloseHandle(again);
                EXPECT_EQ(poll(semaphore), WAIT_OBJECT_0);
                vllCloseHandle(semaphore);
                return 0;
            });
            vllCloseHandle(semaphore);
            EXPECT_EQ(poll(again), WAIT_OBJECT_0);
            vllCloseHandle(again);
            EXPECT_EQ(objectLength(kName) == 0, !child_first);
            return 0;
        });
        if (child_first) {
            expectSuccess(child);
            EXPECT_EQ(poll(semaphore), WAIT_OBJECT_0);
        }
        EXPECT_TRUE(vllCloseHandle(semaphore));
        EXPECT_EQ(objectLength(kName) == 0, child_first);
        if (!child_first) {
            parent_left.ring();
            expectSuccess(child);
        }
        EXPECT_EQ(objectLength(kName), 0);
    }
}

// A child that gets no descriptor for a lock of its own still finds the object: nobody empties it any more.
TEST_F(ShmemTest, fork_without_descriptors) {
    const HANDLE semaphore = fresh(vllCreateSemaphore(2, kName));
    const Doorbell parent_left;
    std::vector<Fd> filler;
    do {
        filler.emplace_back(fcntl(0, F_DUPFD_CLOEXEC, 0));
    } while (filler.back());
    const pid_t child = startChild([&] {
        filler.clear();
        parent_left.wait();
        EXPECT_EQ(poll(semaphore), WAIT_OBJECT_0);
        const HANDLE other = inUse(vllCreateSemaphore(9, kName));
        EXPECT_EQ(poll(other), WAIT_OBJECT_0);
        EXPECT_EQ(poll(other), WAIT_FAILED);
        return 0;
    });
    filler.clear();
    EXPECT_TRUE(vllCloseHandle(semaphore));
    parent_left.ring();
    expectSuccess(child);
    const Owned next(fresh(vllCreateSemaphore(1, kName)));
}

TEST_F(ShmemTest, nothing_is_held_after_exec) {
    const HANDLE mutex = fresh(vllCreateMutex(0, kName));
    const HANDLE duplicate = vllDuplicateHandle(mutex);
    const pid_t child = startChild([] {
        execlp("sleep", "sleep", "60", nullptr);
        return 127;
    });
    EXPECT_TRUE(waitUntil([&] {
        return readFile("/proc/" + std::to_string(child) + "/comm") == "sleep\n" && waitUntilAsleep(child);
    }));
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_TRUE(vllCloseHandle(duplicate));
    EXPECT_EQ(objectLength(kName), 0);
    killChild(child);
}

// The last handle goes while another thread owns the mutex: that thread's list of robust mutexes stays sound, and the
// mutex stays its own until it releases it through a new handle, or ends.
TEST_F(ShmemTest, last_handle_closed_while_a_thread_owns) {
    const HANDLE mutex = fresh(vllCreateMutex(0, kName));
    HANDLE reopened = 0;
    std::atomic<int> step{0};
    std::thread owner([&] {
        EXPECT_EQ(poll(mutex), WAIT_OBJECT_0);
        step = 1;
        waitUntil([&] { return step == 2; });
        const HANDLE other = vllCreateMutex(1, nullptr);  // becomes its neighbour in the list
        EXPECT_TRUE(vllReleaseMutex(other));
        EXPECT_TRUE(vllCloseHandle(other));
        EXPECT_TRUE(vllCloseHandle(vllCreateSemaphore(0, kOther)));
        step = 3;
        waitUntil([&] { return step == 4; });
        EXPECT_TRUE(vllReleaseMutex(reopened = inUse(vllCreateMutex(0, kName))));
        EXPECT_EQ(poll(reopened), WAIT_OBJECT_0);
        step = 5;
        waitUntil([&] { return step == 6; });
    });
    waitUntil([&] { return step == 1; });
    EXPECT_TRUE(vllCloseHandle(mutex));
    step = 2;
    waitUntil([&] { return step == 3; });
    const HANDLE again = inUse(vllCreateMutex(0, kName));
    EXPECT_THAT(poll(again), FailsWith(EBUSY, WAIT_FAILED));
    EXPECT_TRUE(vllCloseHandle(again));
    step = 4;
    waitUntil([&] { return step == 5; });
    EXPECT_TRUE(vllCloseHandle(reopened));
    expectInChild([] { return 0; });
    step = 6;
    owner.join();
    waitUntil([&] { return takeInventory().threads == 1; });
    const Owned next(fresh(vllCreateMutex(0, kName)));
    EXPECT_EQ(poll(next), WAIT_OBJECT_0);
}

// A name is taken as shm_open() takes it, and its failure leaves nothing open.
TEST_F(ShmemTest, names) {
    const std::string longest(255, 'n');
    for (const std::string &name :
         {std::string("vll_plain"), std::string("//vll_slashes"), std::string("vll/inner"), std::string("/"),
          std::string("."), std::string("vll space\xff"), longest, longest + "n"}) {
        SCOPED_TRACE(name);
        errno = 0;
        const Fd raw(shm_open(name.c_str(), O_RDWR | O_CREAT, 0600));
        const int expected = raw ? EEXIST : errno;
        const HANDLE handles[] = {vllCreateMutex(0, name.c_str()), vllCreateSemaphore(0, name.c_str()),
                                  vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 100, name.c_str())};
        EXPECT_EQ(errno, expected);
        for (const HANDLE handle : handles) {
            EXPECT_EQ(handle != 0, static_cast<bool>(raw));
            EXPECT_TRUE(vllCloseHandle(handle));
        }
        shm_unlink(name.c_str());
    }
}

TEST_F(ShmemTest, one_name_for_a_mutex_and_a_mapping) {
    const HANDLE mutex = fresh(vllCreateMutex(0, kName));
    const HANDLE mapping = inUse(vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 4096, kName));
    EXPECT_EQ(objectLength(kName), kMutexSize);
    void *view = vllMapViewOfFile(mapping, PROT_READ, 0, sizeof(pthread_mutex_t));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(memcmp(view, vlliGetObjectAddress(mutex)->addr, sizeof(pthread_mutex_t)), 0);
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    const HANDLE reopened = inUse(vllCreateMutex(0, kName));
    EXPECT_EQ(poll(reopened), WAIT_OBJECT_0);
    EXPECT_TRUE(vllCloseHandle(reopened));
    EXPECT_TRUE(vllCloseHandle(mapping));
    EXPECT_EQ(objectLength(kName), 0);
    // An object in use that is too small for a mutex is refused.
    for (const DWORD size : {1U, static_cast<DWORD>(sizeof(pthread_mutex_t)) - 1}) {
        const Owned small(fresh(vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, size, kName)));
        EXPECT_THAT(vllCreateMutex(0, kName), FailsWith(EINVAL));
        EXPECT_THAT(vllOpenMutex(kName), FailsWith(EINVAL));
        EXPECT_EQ(objectLength(kName), static_cast<off_t>(size));
    }
    EXPECT_THAT(vlliCreateNamedObject(OBJ_EVENT, kName, 0), FailsWith(EINVAL));
}

// A failed creation leaves nothing open, and an object in use exactly if another handle uses it.
TEST_F(ShmemTest, failing_calls) {
    const struct {
        const char *call;
        int nth, error;
        bool used;
    } rows[] = {{"shm_open", 1, EMFILE, true},  {"fcntl64", 2, ENOLCK, true},
                {"pwrite64", 1, ENOSPC, false}, {"ftruncate64", 1, ENOSPC, false},
                {"mmap64", 1, ENOMEM, false},   {"fcntl64", 2, ENOLCK, false}};
    for (const auto &row : rows) {
        const HANDLE held = row.used ? fresh(vllCreateMutex(0, kName)) : 0;
        const Inventory before = takeInventory();
        const FailCall fail(row.call, row.nth, row.error);
        EXPECT_THAT(vllCreateMutex(1, kName), FailsWith(row.error)) << row.call;
        EXPECT_EQ(takeInventory(), before) << row.call;
        EXPECT_EQ(objectLength(kName) > 0, row.used) << row.call;
        EXPECT_TRUE(vllCloseHandle(held));
    }
    const Owned mutex(fresh(vllCreateMutex(0, kName)));
    {
        const FailCall fail("fcntl64", 1, EMFILE);
        EXPECT_THAT(vllDuplicateHandle(mutex), FailsWith(EMFILE));
    }
    // O_CREAT is refused on another user's object (fs.protected_regular), which may be opened all the same.
    for (const int error : {EINTR, EACCES}) {
        const FailCall fail("shm_open", 1, error);
        EXPECT_TRUE(vllCloseHandle(inUse(vllCreateMutex(0, kName))));
    }
}

}  // namespace
