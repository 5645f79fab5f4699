// Record locks on a whole file.

#include "base/file_lock.h"

#include <fcntl.h>
#include <cstdio>

#include "base/blocking.h"
#include "base/failure.h"
#include "base/guards.h"

namespace {

struct flock wholeFile(int type) {
    struct flock lock = {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    return lock;
}

// A wait for a lock.
struct LockWait {
    int fd;
    int command;
    struct flock lock;
    int result;
    bool done;
};

void waitForLock(void *argument) {
    auto *wait = static_cast<LockWait *>(argument);
    wait->result =
        vlliRetryOnEintr([&] { return vlliBlockInLockWait(wait->fd, wait->command, &wait->lock); });
    wait->done = true;
}

// A thread may be cancelled when it has just got the lock.
void unlockIfCancelled(void *argument) {
    const auto *wait = static_cast<const LockWait *>(argument);
    if (!wait->done) {
        vlliLockFile(wait->fd, wait->command, F_UNLCK);
    }
}

}  // namespace

int vlliLockFile(int fd, int command, int type) {
    const NoCancel no_cancel;
    struct flock lock = wholeFile(type);
    return vlliRetryOnEintr([&] { return fcntl(fd, command, &lock); });
}

int vlliWaitForFileLock(int fd, int command, int type) {
    LockWait wait = {fd, command, wholeFile(type), -1, false};
    vlliCallWithCleanup(waitForLock, unlockIfCancelled, &wait);
    return wait.result;
}
