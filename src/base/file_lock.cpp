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

}  // namespace

int vlliLockFile(int fd, int command, int type) {
    const NoCancel no_cancel;
    struct flock lock = wholeFile(type);
    return vlliRetryOnEintr([&] { return fcntl(fd, command, &lock); });
}

int vlliWaitForFileLock(int fd, int command, int type) {
    struct flock lock = wholeFile(type);
    return vlliRetryOnEintr([&] { return vlliBlockInLockWait(fd, command, &lock); });
}
