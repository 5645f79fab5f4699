// Shared variables. The block is read and written with pread() and pwrite(), not through the mapping: another process
// may create the variable anew at any moment with a smaller size, and access to a mapped page past the end of
// an object raises SIGBUS.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstring>
#include <memory>

#include "base/allocate.h"
#include "base/descriptor.h"
#include "base/failure.h"
#include "base/file_lock.h"
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

// Makes the object a block of zeros. It is emptied under the lock, so that no other process's read sees half of it.
bool makeBlock(int fd, uint32_t size) {
    if (vlliWaitForFileLock(fd, F_SETLKW, F_WRLCK) == -1) {
        return false;
    }
    const bool made = ftruncate(fd, 0) == 0 && ftruncate(fd, size) == 0;
    const KeepErrno keep_errno;
    vlliLockFile(fd, F_SETLKW, F_UNLCK);
    return made;
}

// A variable that is not finished yet. Its parts are released when a step fails or is cancelled.
struct NewVariable {
    HeapBlock<SharedVar> variable;
    HeapBlock<char> name;
    Fd fd;
};

bool openBlock(NewVariable *made, int32_t mode) {
    const int flags = mode == SHVAR_CREATE ? O_RDWR | O_CREAT : O_RDWR;
    {
        const NoCancel no_cancel;
        made->fd.reset(vlliOpenSharedMemory(made->name.get(), flags, kPermissions));
    }
    if (!made->fd) {
        return false;
    }
    SharedVar *variable = made->variable.get();
    if (mode == SHVAR_CREATE && !makeBlock(made->fd.get(), variable->size)) {
        return false;
    }
    variable->addr = mmap(nullptr, variable->size, PROT_READ | PROT_WRITE, MAP_SHARED, made->fd.get(), 0);
    return variable->addr != MAP_FAILED;
}

// Bytes past the present end of the object read as zeros.
bool readBlock(const SharedVar *variable, char *buffer) {
    const ssize_t length = vlliReadFullyAt(variable->fd, buffer, variable->size, 0);
    if (length == -1) {
        return false;
    }
    memset(buffer + length, 0, variable->size - static_cast<size_t>(length));
    return true;
}

bool writeBlock(const SharedVar *variable, const char *buffer) {
    return vlliWriteFullyAt(variable->fd, buffer, variable->size, 0) != -1 &&
           msync(variable->addr, variable->size, MS_SYNC) == 0;
}

}  // namespace

SharedVar *vllSharedVarInit(const char *name, DWORD size, int32_t mode) {
    if (name == nullptr || (mode != SHVAR_CREATE && mode != SHVAR_OPEN)) {
        return Fail(EINVAL);
    }
    NewVariable made;
    made.variable = vlliAllocate<SharedVar>();
    made.name = vlliCopyString(name);
    if (made.variable == nullptr || made.name == nullptr) {
        return nullptr;
    }
    SharedVar *variable = made.variable.get();
    *variable = {nullptr, -1, size, nullptr};
    if (!openBlock(&made, mode)) {
        if (made.fd) {
            const KeepErrno keep_errno;
            shm_unlink(name);
        }
        return nullptr;
    }
    variable->fd = made.fd.release();
    variable->name = made.name.release();
    return made.variable.release();
}

int32_t vllSharedVarManipulate(void *buffer, SharedVar *variable, int32_t operation) {
    if ((operation != SHVAR_READ && operation != SHVAR_WRITE) || buffer == nullptr || variable == nullptr) {
        return Fail(EINVAL);
    }
    if (vlliWaitForFileLock(variable->fd, F_SETLKW, operation == SHVAR_READ ? F_RDLCK : F_WRLCK) == -1) {
        return 0;
    }
    const NoCancel no_cancel;
    const bool moved = operation == SHVAR_READ ? readBlock(variable, static_cast<char *>(buffer))
                                               : writeBlock(variable, static_cast<const char *>(buffer));
    const int moving_error = errno;
    if (vlliLockFile(variable->fd, F_SETLKW, F_UNLCK) == -1) {
        return -1;
    }
    return Fail(moving_error, moved ? 1 : 0);
}

// Each step that is done is noted in the record, so that a further call after a failure does not do it twice.
BOOL vllSharedVarDeallocate(SharedVar *variable, int32_t mode) {
    if (variable == nullptr) {
        return Fail(EINVAL);
    }
    if (variable->addr != nullptr && munmap(variable->addr, variable->size) == -1) {
        return FALSE;
    }
    variable->addr = nullptr;
    if (variable->fd != -1) {
        // Where close() fails, the descriptor is closed all the same.
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
