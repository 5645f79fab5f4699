// How processes share a shared-memory object, which has no owner: it exists exactly while somebody uses it. Record locks
// on the object keep the count.
//
//   exclusive lock   one process initialises the object, or empties it
//   shared lock      a user
//   length 0         the object has not been initialised: it belongs to nobody
//
// Opening: an opener that gets the exclusive lock at the first try is alone. It resets the object, gives it its content
// and goes down to the shared lock. Any other opener waits for the shared lock. If the object is empty then, its
// creator died on the way, or its last user emptied it meanwhile: nobody uses it. Since two openers that hold the shared
// lock of an empty object at once would take each other for users, each drops the lock, tries the exclusive lock
// again, and waits a little before a further try. Whoever still holds the shared lock of an empty object after about a
// second is a lasting user: one that can only read, or one with a mapping of size 0.
//   The content comes with the length, in one call (ftruncate() for zeros, pwrite() for a payload), so that a creator
// that is killed at any instruction leaves an empty object or a complete one.
//
// Closing: a user that gets the exclusive lock is the last one and empties the object. Two users that leave at once see
// each other's shared lock; each therefore drops its own and tries once more, and the later one gets it.
// Closers wait for nobody. A closer that empties an object holds the exclusive lock, so that no user can be there.
//
// The locks are open-file-description locks. They conflict with the classic F_SETLK ones, so that processes that use
// those take part, but each opening in a process counts by itself, threads exclude one another as processes do, closing
// another descriptor of the file drops nothing, and the kernel does not report false deadlocks. A descriptor
// that can only read cannot take the exclusive lock: it neither resets nor empties.

#include "sharing/shmem_protocol.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>
#include <ctime>

#include "base/file_lock.h"

namespace {

constexpr int kMaxTries = 150;  // with the pauses about a second
constexpr long kShortestPauseNs = 100000;

// errno is EBADF for a descriptor that can only read.
bool tryExclusive(int fd) {
    return vlliLockFile(fd, F_OFD_SETLK, F_WRLCK) == 0;
}

// Waits between tries for an empty object that others hold the shared lock of: not at all after the first try, then
// longer each time. A random part keeps two openers from waiting in step.
void pauseAfter(int failed_tries) {
    if (failed_tries == 0) {
        return;
    }
    timespec pause;
    clock_gettime(CLOCK_MONOTONIC, &pause);
    pause = {0, std::min(failed_tries, 100) * kShortestPauseNs + pause.tv_nsec % kShortestPauseNs};
    nanosleep(&pause, nullptr);
}

bool isEmpty(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && status.st_size == 0;
}

}  // namespace

Opener vlliJoinSharedFile(int fd) {
    for (int failed_tries = 0;; ++failed_tries) {
        if (tryExclusive(fd)) {
            return Opener::kCreator;
        }
        const bool may_create = errno != EBADF;
        if (vlliUseSharedFile(fd) == -1) {
            return Opener::kFailed;
        }
        if (!isEmpty(fd) || !may_create || failed_tries == kMaxTries) {
            return Opener::kUser;
        }
        vlliLockFile(fd, F_OFD_SETLK, F_UNLCK);
        pauseAfter(failed_tries);
    }
}

int vlliUseSharedFile(int fd) {
    return vlliLockFile(fd, F_OFD_SETLKW, F_RDLCK);
}

void vlliLeaveSharedFile(int fd) {
    if (!tryExclusive(fd)) {
        vlliLockFile(fd, F_OFD_SETLK, F_UNLCK);
        if (!tryExclusive(fd)) {
            return;
        }
    }
    // A failure leaves content that the next creator resets.
    (void)!ftruncate(fd, 0);
    vlliLockFile(fd, F_OFD_SETLK, F_UNLCK);
}

Fd vlliUseSharedFileAgain(int fd) {
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    Fd again(open(path, O_RDWR | O_CLOEXEC));
    if (!again) {
        again.reset(open(path, O_RDONLY | O_CLOEXEC));
    }
    if (again && vlliUseSharedFile(again.get()) == -1) {
        again.reset();
    }
    return again;
}
