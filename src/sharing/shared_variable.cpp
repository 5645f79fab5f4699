// Shared variables. The block is moved with pread() and pwrite() on its descriptor, not through the mapping:
// another process may create the variable anew at any moment with a smaller size, and a mapped page past the
// end of an object raises SIGBUS.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstring>
#include <memory>

#include "base/allocate.h"
#include "base/blocking.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "vwincompat/sharing.h"

struct SharedVar {
    void *addr;
    int32_t fd;
    uint32_t size;
    char *name;
};

#if !defined(__LP64__)
static_assert(sizeof(SharedVar) == 16 && offsetof(SharedVar, size) == 8 && offsetof(SharedVar, name) == 12);
#endif

namespace {

constexpr mode_t kPermissions = 0660;

// Locks or unlocks the whole object: 0, or -1 with errno. Only waiting for a lock is a cancellation point.
int setLock(int fd, short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    int result;
    do {
        if (type == F_UNLCK) {
            const NoCancel no_cancel;
            result = fcntl(fd, F_SETLKW, &lock);
        } else {
            result = vlliBlockInLockWait(fd, F_SETLKW, &lock);
        }
    } while (result == -1 && errno == EINTR);
    return result;
}

// A fresh block of zeros. Emptied under the lock, so that no other process's read is cut in two.
bool makeBlock(int fd, uint32_t size) {
    if (setLock(fd, F_WRLCK) == -1) {
        return false;
    }
    const bool made = ftruncate(fd, 0) == 0 && ftruncate(fd, size) == 0;
    const KeepErrno keep_errno;
    setLock(fd, F_UNLCK);
    return made;
}

// What is to be taken back while a variable is being made.
struct Making {
    HeapBlock<SharedVar> variable;
    HeapBlock<char> name;
    Fd fd;
};

bool openBlock(Making *making, int32_t mode) {
    const int flags = mode == SHVAR_CREATE ? O_RDWR | O_CREAT : O_RDWR;
    {
        const NoCancel no_cancel;
        making->fd.reset(vlliOpenSharedMemory(making->name.get(), flags, kPermissions));
    }
    if (!making->fd) {
        return false;
    }
    SharedVar *variable = making->variable.get();
    if (mode == SHVAR_CREATE && !makeBlock(making->fd.get(), variable->size)) {
        return false;
    }
    variable->addr = mmap(nullptr, variable->size, PROT_READ | PROT_WRITE, MAP_SHARED, making->fd.get(), 0);
    return variable->addr != MAP_FAILED;
}

// Bytes past the present end of the object read as zeros.
bool readBlock(const SharedVar *variable, char *buffer) {
    size_t done = 0;
    while (done < variable->size) {
        const ssize_t length =
            pread(variable->fd, buffer + done, variable->size - done, static_cast<off_t>(done));
        if (length == -1 && errno != EINTR) {
            return false;
        }
        if (length == 0) {
            memset(buffer + done, 0, variable->size - done);
            return true;
        }
        done += length > 0 ? static_cast<size_t>(length) : 0;
    }
    return true;
}

bool writeBlock(const SharedVar *variable, const char *buffer) {
    size_t done = 0;
    while (done < variable->size) {
        const ssize_t length =
            pwrite(variable->fd, buffer + done, variable->size - done, static_cast<off_t>(done));
        if (length == -1 && errno != EINTR) {
            return false;
        }
        done += length > 0 ? static_cast<size_t>(length) : 0;
    }
    return msync(variable->addr, variable->size, MS_SYNC) == 0;
}

}  // namespace

SharedVar *vllSharedVarInit(const char *name, DWORD size, int32_t mode) {
    if (name == nullptr || (mode != SHVAR_CREATE && mode != SHVAR_OPEN)) {
        return Fail(EINVAL);
    }
    Making making;
    making.variable.reset(static_cast<SharedVar *>(malloc(sizeof(SharedVar))));
    making.name.reset(strdup(name));
    if (making.variable == nullptr || making.name == nullptr) {
        return Fail(ENOMEM);
    }
    SharedVar *variable = making.variable.get();
    *variable = {nullptr, -1, size, nullptr};
    if (!openBlock(&making, mode)) {
        if (making.fd) {
            const KeepErrno keep_errno;
            shm_unlink(name);
        }
        return nullptr;
    }
    variable->fd = making.fd.release();
    variable->name = making.name.release();
    return making.variable.release();
}

int32_t vllSharedVarManipulate(void *buffer, SharedVar *variable, int32_t operation) {
    if ((operation != SHVAR_READ && operation != SHVAR_WRITE) || buffer == nullptr || variable == nullptr) {
        return Fail(EINVAL);
    }
    if (setLock(variable->fd, operation == SHVAR_READ ? F_RDLCK : F_WRLCK) == -1) {
        return 0;
    }
    const NoCancel no_cancel;
    const bool moved = operation == SHVAR_READ ? readBlock(variable, static_cast<char *>(buffer))
                                               : writeBlock(variable, static_cast<const char *>(buffer));
    const int moving_error = errno;
    if (setLock(variable->fd, F_UNLCK) == -1) {
        return -1;
    }
    return Fail(moving_error, moved ? 1 : 0);
}

// What is done is noted in the record, so that a further call after a failure does not do it twice.
BOOL vllSharedVarDeallocate(SharedVar *variable, int32_t mode) {
    if (variable == nullptr) {
        return Fail(EINVAL);
    }
    if (variable->addr != nullptr && munmap(variable->addr, variable->size) == -1) {
        return FALSE;
    }
    variable->addr = nullptr;
    if (variable->fd != -1) {
        // Closed or not, the descriptor is no longer ours.
        const int fd = variable->fd;
        variable->fd = -1;
        if (vlliCloseFd(fd) == -1) {
            return FALSE;
        }
    }
    if (mode == SHVAR_CREATE && shm_unlink(variable->name) == -1) {
        return FALSE;
    }
    vlliFreeMemory(2, variable->name, variable);
    return TRUE;
}
