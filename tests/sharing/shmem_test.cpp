// Named objects across processes: who creates, who finds, who is the last; and what a dead process leaves.
#include "sharing/shmem.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <cstring>

#include "support/child.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/threads.h"

namespace {

constexpr const char *kName = "vll_shmem_test";

class ShmemTest : public LibraryTest {
  protected:
    void TearDown() override {
        LibraryTest::TearDown();
        shm_unlink(kName);
    }
};

off_t objectLength(const char *name) {
    struct stat status = {};
    const std::string path = std::string("/dev/shm/") + name;
    return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
}

// A lock as programs without this library take it: F_RDLCK, F_WRLCK; 0, or -1 with errno.
int classicLock(int fd, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_SETLK, &lock);
}

// Waits until a child of startChild() has stopped itself.
void waitUntilStopped(pid_t child) {
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, WUNTRACED), child);
    EXPECT_TRUE(WIFSTOPPED(status));
}

TEST_F(ShmemTest, second_process_gets_the_same_object) {
    const HANDLE mutex = vllCreateMutex(1, kName);
    ASSERT_NE(mutex, 0U);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(objectLength(kName), static_cast<off_t>(sizeof(pthread_mutex_t)));
    expectInChild([&] {
        vllCloseHandle(mutex);
        const HANDLE again = vllCreateMutex(1, kName);
        EXPECT_NE(again, 0U);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(vllWaitForSingleObject(again, 30), WAIT_TIMEOUT);
        return 0;
    });
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_EQ(objectLength(kName), 0);
    const HANDLE fresh = vllCreateMutex(0, kName);
    EXPECT_EQ(errno, 0);
    std::thread([&] {
        EXPECT_EQ(vllWaitForSingleObject(fresh, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(vllReleaseMutex(fresh));
    }).join();
    EXPECT_TRUE(vllCloseHandle(fresh));
}

// All handles of a process on one object count, and reach it at one address.
TEST_F(ShmemTest, several_handles_in_one_process) {
    const HANDLE first = vllCreateMutex(0, kName);
    const HANDLE second = vllCreateMutex(0, kName);
    EXPECT_EQ(errno, EEXIST);
    const HANDLE third = vllDuplicateHandle(first);
    EXPECT_EQ(vlliGetObjectAddress(first)->addr, vlliGetObjectAddress(second)->addr);
    EXPECT_EQ(vlliGetObjectAddress(first)->addr, vlliGetObjectAddress(third)->addr);
    EXPECT_EQ(vllWaitForSingleObject(first, 0), WAIT_OBJECT_0);
    EXPECT_EQ(vllWaitForSingleObject(second, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(vllReleaseMutex(third));
    for (const HANDLE handle : {first, second}) {
        EXPECT_TRUE(vllCloseHandle(handle));
        expectInChild([&] {
            vllCloseHandle(third);
            const HANDLE other = vllCreateMutex(0, kName);
            EXPECT_EQ(errno, EEXIST);
            EXPECT_THAT(vllWaitForSingleObject(other, 0), FailsWith(EBUSY, WAIT_FAILED));
            vllCloseHandle(other);
            return 0;
        });
    }
    EXPECT_TRUE(vllReleaseMutex(third));
    EXPECT_EQ(vllWaitForSingleObject(third, 0), WAIT_OBJECT_0);
    // The owner closes the last handle of its process: nobody is told of a dead owner.
    const pid_t waiter = startChild([&] {
        EXPECT_EQ(vllWaitForSingleObject(third, 60000), WAIT_OBJECT_0);
        return 0;
    });
    EXPECT_TRUE(waitUntilAsleep(waiter));
    EXPECT_TRUE(vllCloseHandle(third));
    expectSuccess(waiter);
}

TEST_F(ShmemTest, killed_owner_abandons_its_mutex) {
    const Doorbell owned;
    const pid_t owner = startChild([&] {
        const HANDLE mutex = vllCreateMutex(1, kName);
        EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        owned.ring();
        pause();
        return 1;
    });
    owned.wait();
    const Owned mutex(vllCreateMutex(0, kName));
    EXPECT_EQ(errno, EEXIST);
    std::atomic<int> abandoned{0};
    std::atomic<int> acquired{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(startAsleep([&] {
            const DWORD result = vllWaitForSingleObject(mutex, INFINITE);
            abandoned += result == WAIT_ABANDONED;
            acquired += result == WAIT_OBJECT_0;
            EXPECT_TRUE(vllReleaseMutex(mutex));
        }));
    }
    kill(owner, SIGKILL);
    for (std::thread &waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(abandoned, 1);
    EXPECT_EQ(acquired, 2);
    EXPECT_EQ(finishChild(owner).status, SIGKILL);
}

struct Step {
    const char *call;
    int nth;
    bool complete;  // the content was there when the creator died
};

// A creator killed at any step: whoever waits for it, or comes later, gets a whole object.
TEST_F(ShmemTest, creator_killed_while_it_initialises) {
    for (const Step &step : {Step{"flock", 1, false}, Step{"fcntl64", 1, false},
                             Step{"ftruncate64", 1, false}, Step{"flock", 2, false},
                             Step{"pwrite64", 1, false}, Step{"mmap64", 1, true}, Step{"fcntl64", 2, true}}) {
        SCOPED_TRACE(std::string(step.call) + " " + std::to_string(step.nth));
        const pid_t creator = startChild([&] {
            const FailCall stop(step.call, step.nth, -SIGSTOP);
            vllCreateMutex(1, kName);
            return 1;
        });
        waitUntilStopped(creator);
        const pid_t opener = startChild([&] {
            const HANDLE mutex = vllCreateMutex(0, kName);
            EXPECT_NE(mutex, 0U);
            EXPECT_EQ(errno, step.complete ? EEXIST : 0);
            EXPECT_EQ(objectLength(kName), static_cast<off_t>(sizeof(pthread_mutex_t)));
            const DWORD result = vllWaitForSingleObject(mutex, 20000);
            EXPECT_TRUE(result == WAIT_OBJECT_0 || (step.complete && result == WAIT_ABANDONED)) << result;
            EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
            vllCloseHandle(mutex);
            return 0;
        });
        if (strcmp(step.call, "flock") != 0 || step.nth != 1) {
            EXPECT_TRUE(waitUntilAsleep(opener));
        }
        kill(creator, SIGKILL);
        EXPECT_EQ(finishChild(creator).status, SIGKILL);
        expectSuccess(opener);
        const HANDLE next = vllCreateMutex(0, kName);
        EXPECT_EQ(errno, 0);
        EXPECT_TRUE(vllCloseHandle(next));
        EXPECT_EQ(objectLength(kName), 0);
    }
}

TEST_F(ShmemTest, user_killed_leaves_nothing_in_use) {
    const pid_t user = startChild([] {
        vllCreateSemaphore(3, kName);
        raise(SIGKILL);
        return 1;
    });
    EXPECT_EQ(finishChild(user).status, SIGKILL);
    EXPECT_NE(objectLength(kName), 0);
    const HANDLE semaphore = vllCreateSemaphore(0, kName);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_FAILED);
    EXPECT_TRUE(vllCloseHandle(semaphore));
}

// Programs that use F_SETLK by themselves see the library's users, and are seen.
TEST_F(ShmemTest, classic_record_locks_take_part) {
    const HANDLE mutex = vllCreateMutex(0, kName);
    expectInChild([] {
        const int fd = shm_open(kName, O_RDWR, 0);
        EXPECT_EQ(classicLock(fd, F_WRLCK), -1);
        EXPECT_EQ(classicLock(fd, F_RDLCK), 0);
        return 0;
    });
    const Doorbell locked;
    const pid_t user = startChild([&] {
        EXPECT_EQ(classicLock(shm_open(kName, O_RDWR, 0), F_RDLCK), 0);
        locked.ring();
        pause();
        return 1;
    });
    locked.wait();
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_NE(objectLength(kName), 0);
    const HANDLE again = vllCreateMutex(0, kName);
    EXPECT_EQ(errno, EEXIST);
    kill(user, SIGKILL);
    finishChild(user);
    EXPECT_TRUE(vllCloseHandle(again));
    EXPECT_EQ(objectLength(kName), 0);
}

// A classic last user empties the object while an opener waits: what the opener gets is new.
TEST_F(ShmemTest, emptied_under_a_waiting_opener) {
    vllCloseHandle(vllCreateMutex(0, kName));
    const int fd = shm_open(kName, O_RDWR, 0);
    ASSERT_EQ(ftruncate(fd, 24), 0);
    ASSERT_EQ(classicLock(fd, F_WRLCK), 0);
    const pid_t opener = startChild([] {
        const HANDLE mutex = vllCreateMutex(1, kName);
        EXPECT_EQ(errno, 0);
        EXPECT_TRUE(vllReleaseMutex(mutex));
        vllCloseHandle(mutex);
        return 0;
    });
    EXPECT_TRUE(waitUntilAsleep(opener));
    EXPECT_EQ(ftruncate(fd, 0), 0);
    EXPECT_EQ(classicLock(fd, F_UNLCK), 0);
    expectSuccess(opener);
    close(fd);
}

// A child of fork() is a user of its own, whoever leaves first.
TEST_F(ShmemTest, fork_counts) {
    for (const bool child_first : {true, false}) {
        SCOPED_TRACE(child_first);
        const Doorbell parent_left;
        const HANDLE semaphore = vllCreateSemaphore(5, kName);
        EXPECT_EQ(errno, 0);
        const pid_t child = startChild([&] {
            if (!child_first) {
                parent_left.wait();
            }
            EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
            const HANDLE again = vllCreateSemaphore(0, kName);
            EXPECT_EQ(errno, EEXIST);
            expectInChild([&] {  // and so is the child's child
                vllCloseHandle(again);
                EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
                vllCloseHandle(semaphore);
                return 0;
            });
            vllCloseHandle(semaphore);
            EXPECT_EQ(vllWaitForSingleObject(again, 0), WAIT_OBJECT_0);
            EXPECT_NE(objectLength(kName), 0);
            vllCloseHandle(again);
            EXPECT_EQ(objectLength(kName) == 0, !child_first);
            return 0;
        });
        if (child_first) {
            expectSuccess(child);
            EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
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

// Without a descriptor for the child's own lock the object is not emptied, but never under a user.
TEST_F(ShmemTest, fork_without_descriptors) {
    const HANDLE semaphore = vllCreateSemaphore(2, kName);
    const Doorbell parent_left;
    std::vector<int> filler;
    for (int fd = dup(0); fd != -1; fd = dup(0)) {
        filler.push_back(fd);
    }
    const pid_t child = startChild([&] {
        close(filler.back());
        parent_left.wait();
        EXPECT_EQ(vllWaitForSingleObject(semaphore, 0), WAIT_OBJECT_0);
        const HANDLE other = vllCreateSemaphore(9, kName);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_EQ(vllWaitForSingleObject(other, 0), WAIT_OBJECT_0);
        EXPECT_EQ(vllWaitForSingleObject(other, 0), WAIT_FAILED);
        return 0;
    });
    for (const int fd : filler) {
        close(fd);
    }
    EXPECT_TRUE(vllCloseHandle(semaphore));
    parent_left.ring();
    expectSuccess(child);
    const Owned fresh(vllCreateSemaphore(1, kName));
    EXPECT_EQ(errno, 0);
}

TEST_F(ShmemTest, nothing_is_held_after_exec) {
    const HANDLE mutex = vllCreateMutex(0, kName);
    const HANDLE duplicate = vllDuplicateHandle(mutex);
    const pid_t child = startChild([] {
        execlp("sleep", "sleep", "60", nullptr);
        return 127;
    });
    // The new program sleeps; what the old one had open is closed for good.
    EXPECT_TRUE(waitUntil([&] {
        return readFile("/proc/" + std::to_string(child) + "/comm") == "sleep\n" && waitUntilAsleep(child);
    }));
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_TRUE(vllCloseHandle(duplicate));
    EXPECT_EQ(objectLength(kName), 0);
    kill(child, SIGKILL);
    EXPECT_EQ(finishChild(child).status, SIGKILL);
}

// The last handle goes while another thread owns: its robust list stays sound, and so does the mutex.
TEST_F(ShmemTest, last_handle_closed_while_a_thread_owns) {
    const HANDLE mutex = vllCreateMutex(0, kName);
    std::atomic<bool> owned{false};
    std::atomic<int> step{0};
    std::thread owner([&] {
        EXPECT_EQ(vllWaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
        owned = true;
        waitUntil([&] { return step == 1; });
        const HANDLE other = vllCreateMutex(1, nullptr);  // touches its neighbours in the list
        EXPECT_TRUE(vllReleaseMutex(other));
        EXPECT_TRUE(vllCloseHandle(other));
        step = 2;
        waitUntil([&] { return step == 3; });
    });
    waitUntil([&] { return owned.load(); });
    EXPECT_TRUE(vllCloseHandle(mutex));
    step = 1;
    waitUntil([&] { return step == 2; });
    const HANDLE again = vllCreateMutex(0, kName);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_THAT(vllWaitForSingleObject(again, 0), FailsWith(EBUSY, WAIT_FAILED));
    EXPECT_TRUE(vllCloseHandle(again));
    expectInChild([&] { return 0; });
    step = 3;
    owner.join();
    waitUntil([&] { return takeInventory().threads == 1; });
    const HANDLE fresh = vllCreateMutex(0, kName);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(vllWaitForSingleObject(fresh, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(vllCloseHandle(fresh));
}

// Every name does as shm_open() does with it, and its failure leaves nothing open.
TEST_F(ShmemTest, names) {
    const std::string longest(255, 'n');
    for (const std::string &name :
         {std::string("vll_plain"), std::string("/vll_slash"), std::string("//vll_slashes"),
          std::string("vll/inner"), std::string("/"), std::string("."), std::string("vll space\xff"), longest,
          longest + "n", "/" + longest}) {
        SCOPED_TRACE(name);
        const Inventory before = takeInventory();
        errno = 0;
        const int raw = shm_open(name.c_str(), O_RDWR | O_CREAT, 0600);
        const int expected = raw == -1 ? errno : 0;
        if (raw != -1) {
            close(raw);
            shm_unlink(name.c_str());
        }
        const HANDLE handles[] = {vllCreateMutex(0, name.c_str()), vllCreateSemaphore(0, name.c_str()),
                                  vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 100, name.c_str())};
        EXPECT_EQ(errno, expected == 0 ? EEXIST : expected);
        for (const HANDLE handle : handles) {
            EXPECT_EQ(handle != 0, expected == 0);
            if (handle != 0) {
                EXPECT_TRUE(vllCloseHandle(handle));
            }
        }
        shm_unlink(name.c_str());
        EXPECT_EQ(takeInventory(), before);
    }
}

TEST_F(ShmemTest, one_name_for_a_mutex_and_a_mapping) {
    const HANDLE mutex = vllCreateMutex(0, kName);
    const HANDLE mapping = vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 4096, kName);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(objectLength(kName), static_cast<off_t>(sizeof(pthread_mutex_t)));
    void *view = vllMapViewOfFile(mapping, PROT_READ, 0, sizeof(pthread_mutex_t));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(memcmp(view, vlliGetObjectAddress(mutex)->addr, sizeof(pthread_mutex_t)), 0);
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    const HANDLE reopened = vllCreateMutex(0, kName);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(vllWaitForSingleObject(reopened, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(vllCloseHandle(reopened));
    EXPECT_TRUE(vllCloseHandle(mapping));
    EXPECT_EQ(objectLength(kName), 0);
    // An object in use that leaves no room for a mutex is no mutex; nothing may fault or hang on that.
    for (const DWORD size : {0U, 1U, static_cast<DWORD>(sizeof(pthread_mutex_t)) - 1}) {
        const Owned small(vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, size, kName));
        EXPECT_EQ(errno, 0);
        EXPECT_THAT(vllCreateMutex(0, kName), FailsWith(EINVAL));
        EXPECT_THAT(vllOpenMutex(kName), FailsWith(EINVAL));
        EXPECT_EQ(objectLength(kName), static_cast<off_t>(size));
    }
    const Owned semaphore(vllCreateSemaphore(0, kName));
    EXPECT_THAT(vllCreateMutex(0, kName), FailsWith(EINVAL));
}

TEST_F(ShmemTest, failing_calls) {
    struct {
        const char *call;
        int nth;
        int error;
        bool create_only;
    } rows[] = {
        {"shm_open", 1, EMFILE, false}, {"flock", 1, ENOLCK, false},  {"ftruncate64", 1, EIO, true},
        {"pwrite64", 1, ENOSPC, true},  {"mmap64", 1, ENOMEM, false}, {"fcntl64", 2, ENOLCK, false},
    };
    for (const auto &row : rows) {
        for (const bool exists : {false, true}) {
            SCOPED_TRACE(std::string(row.call) + (exists ? " exists" : ""));
            if (exists && row.create_only) {
                continue;
            }
            const Doorbell opened, may_close;
            pid_t user = -1;
            if (exists) {
                user = startChild([&] {
                    const HANDLE held = vllCreateMutex(0, kName);
                    opened.ring();
                    may_close.wait();
                    vllCloseHandle(held);
                    return 0;
                });
                opened.wait();
            }
            const Inventory before = takeInventory();
            {
                const FailCall fail(row.call, row.nth, row.error);
                EXPECT_EQ(vllCreateMutex(1, kName), 0U);
                EXPECT_EQ(errno, row.error);
                EXPECT_TRUE(fail.happened());
            }
            EXPECT_EQ(takeInventory(), before);
            EXPECT_EQ(objectLength(kName) > 0, exists);
            if (exists) {
                may_close.ring();
                expectSuccess(user);
            }
            const Owned mutex(vllCreateMutex(0, kName));
            EXPECT_EQ(errno, 0);
        }
    }
    const HANDLE mutex = vllCreateMutex(0, kName);
    {
        const FailCall fail("fcntl64", 1, EMFILE);
        EXPECT_THAT(vllDuplicateHandle(mutex), FailsWith(EMFILE));
    }
    // O_CREAT is refused on another user's object (fs.protected_regular), which may be opened all the same.
    for (const int error : {EINTR, EACCES}) {
        const FailCall fail("shm_open", 1, error);
        const HANDLE again = vllCreateMutex(0, kName);
        EXPECT_EQ(errno, EEXIST);
        EXPECT_TRUE(vllCloseHandle(again));
    }
    EXPECT_TRUE(vllCloseHandle(mutex));
    EXPECT_THAT(vlliCreateNamedObject(OBJ_EVENT, kName, 0), FailsWith(EINVAL));
}

}  // namespace
