// The table of the shared-memory objects that this process uses.
//
// Duplicated handles share an open file, and so a lock, with which a test for the last user would not see them. The
// process therefore counts the records that use an object, by device and inode, and only the last one of the process
// makes the test. All its other descriptors of the object are closed by then.
//
// The payload of a named mutex is mapped once in a process, whatever the number of handles: a thread's list of robust
// mutexes holds addresses, and a mutex must be released at the address where it was acquired. A mutex that another
// thread of the process still owns when its last handle is closed stands in that thread's list: its mapping and
// its use are kept until the thread has ended or the name is opened again.

#include "sharing/shmem_objects.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/failure.h"
#include "base/guards.h"
#include "base/robust_mutex.h"
#include "sharing/shmem_protocol.h"

pthread_mutex_t shmem_mutex = PTHREAD_MUTEX_INITIALIZER;
SharedObject shared_objects[kObjectCount];
SharedObject *used_objects[kObjectCount];

namespace {

constexpr mode_t kMode = 0666;

int pending_fds[kObjectCount];  // descriptor + 1; 0: a free place
int32_t kept_mutexes;           // entries with a kept_fd; read without the lock

SharedObject *&objectOf(const ObjectRecord *record) {
    return used_objects[record - objects];
}

// All that follows but openPending() and dropKeptMutexes() needs the lock.

int *findPending(int value) {
    for (int &place : pending_fds) {
        if (place == value) {
            return &place;
        }
    }
    return nullptr;
}

PendingFd beginPending(int fd) {
    int *place = findPending(0);
    if (place != nullptr) {
        *place = fd + 1;
    }
    return PendingFd(fd);
}

void endPending(int fd) {
    int *place = findPending(fd + 1);
    if (place != nullptr) {
        *place = 0;
    }
}

PendingFd openPending(const char *name, int flags) {
    const MutexLock lock(&shmem_mutex);
    if (findPending(0) == nullptr) {
        return Fail(ENOMEM);
    }
    const int fd = vlliOpenSharedMemory(name, flags, kMode);
    return fd != -1 ? beginPending(fd) : PendingFd();
}

SharedObject *findObject(const struct stat &status) {
    SharedObject *free_entry = nullptr;
    for (SharedObject &object : shared_objects) {
        if (object.users == 0) {
            free_entry = free_entry == nullptr ? &object : free_entry;
        } else if (object.inode == status.st_ino && object.device == status.st_dev) {
            return &object;
        }
    }
    if (free_entry == nullptr) {
        return Fail(ENOMEM);
    }
    *free_entry = {status.st_dev, status.st_ino, 0, 0, nullptr, 0, LastUserTest::kByRecord, -1, -1};
    return free_entry;
}

BOOL mapPayload(SharedObject *object, int fd, SIZE_T size) {
    if (object->payload == nullptr) {
        void *address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (address == MAP_FAILED) {
            return FALSE;
        }
        object->payload = address;
        object->payload_size = size;
    }
    return TRUE;
}

void unmapPayload(SharedObject *object) {
    munmap(object->payload, object->payload_size);
    object->payload = nullptr;
}

int takeKeptFd(SharedObject *object) {
    const int fd = object->kept_fd;
    object->kept_fd = -1;
    __atomic_fetch_sub(&kept_mutexes, 1, __ATOMIC_RELAXED);
    return fd;
}

void addUser(SharedObject *object, ObjectRecord *record, int fd, SIZE_T payload_size) {
    ++object->users;
    objectOf(record) = object;
    record->fd = fd;
    if (payload_size == 0) {
        return;
    }
    ++object->payloads;
    record->addr = object->payload;
    record->size = payload_size;
    if (object->kept_fd != -1) {
        vlliCloseFd(takeKeptFd(object));
        --object->users;
    }
}

// Removes a user with this descriptor. What is returned is to be reset without the lock: it may empty a large object.
PendingFd removeUser(SharedObject *object, int fd) {
    --object->users;
    if (object->users == 0 && object->test == LastUserTest::kByRecord) {
        return beginPending(fd);
    }
    vlliCloseFd(fd);
    if (object->users > 0 || object->own_fd == -1) {
        return PendingFd();
    }
    const int own_fd = object->own_fd;
    object->own_fd = -1;
    if (object->test == LastUserTest::kNever) {
        vlliCloseFd(own_fd);
        return PendingFd();
    }
    return beginPending(own_fd);
}

// Keeps the mutex of an object without handles in use, by this descriptor, if a thread of this process owns it: the caller,
// too, which may be in the middle of what the mutex protects.
bool keepOwnedMutex(SharedObject *object, int fd) {
    if (!vlliIsOwnedByLiveThread(static_cast<pthread_mutex_t *>(object->payload))) {
        return false;
    }
    object->kept_fd = fd;
    __atomic_fetch_add(&kept_mutexes, 1, __ATOMIC_RELAXED);
    return true;
}

// Unmaps the payload of an object whose last handle is closed: false if its use goes on, for a mutex that another thread
// owns. A mutex that the caller owns is released.
bool endPayload(SharedObject *object, SIZE_T size, int fd) {
    if (size == sizeof(pthread_mutex_t)) {
        vlliReleaseOwnedMutex(static_cast<pthread_mutex_t *>(object->payload));
        if (keepOwnedMutex(object, fd)) {
            return false;
        }
    }
    unmapPayload(object);
    return true;
}

// Gives up the kept mutexes whose owners have ended since.
void dropKeptMutexes() {
    if (__atomic_load_n(&kept_mutexes, __ATOMIC_RELAXED) == 0) {
        return;
    }
    for (SharedObject &object : shared_objects) {
        PendingFd last;
        const MutexLock lock(&shmem_mutex);
        if (object.users == 0 || object.kept_fd == -1) {
            continue;
        }
        const int fd = takeKeptFd(&object);
        if (!keepOwnedMutex(&object, fd)) {
            unmapPayload(&object);
            last = removeUser(&object, fd);
        }
    }
}

// Gives a new object its zeros, and opens it to others: 0, or -1 with errno.
int initialise(int fd, SIZE_T size, bool keep_exclusive) {
    const int emptied = ftruncate(fd, 0);
    if (emptied == -1 || keep_exclusive) {
        return emptied;
    }
    return ftruncate(fd, static_cast<off_t>(size)) == 0 ? vlliUseSharedFile(fd) : -1;
}

}  // namespace

void vlliEndPendingFd(int fd) {
    vlliLeaveSharedFile(fd);
    const MutexLock lock(&shmem_mutex);
    endPending(fd);
    vlliCloseFd(fd);
}

PendingFd vlliCreateSharedFile(int access, SIZE_T size, const char *name, bool keep_exclusive) {
    dropKeptMutexes();
    PendingFd file = openPending(name, access | O_CREAT);
    if (!file) {
        return PendingFd();
    }
    const Opener opener = vlliJoinSharedFile(file.get());
    if (opener == Opener::kFailed ||
        (opener == Opener::kCreator && initialise(file.get(), size, keep_exclusive) == -1)) {
        return PendingFd();
    }
    errno = opener == Opener::kUser ? EEXIST : 0;
    return file;
}

BOOL vlliEnterSharedFile(ObjectRecord *record, PendingFd *file, SIZE_T payload_size) {
    const MutexLock lock(&shmem_mutex);
    struct stat status;
    if (fstat(file->get(), &status) == -1) {
        return FALSE;
    }
    if (static_cast<uint64_t>(status.st_size) < payload_size) {
        return Fail(EINVAL);  // an object of another kind
    }
    SharedObject *object = findObject(status);
    if (object == nullptr || (payload_size != 0 && !mapPayload(object, file->get(), payload_size))) {
        return FALSE;
    }
    endPending(file->get());
    addUser(object, record, file->release(), payload_size);
    return TRUE;
}

BOOL vlliShareSharedFile(ObjectRecord *record, const ObjectRecord *source, bool payload) {
    const MutexLock lock(&shmem_mutex);
    SharedObject *object = objectOf(source);
    if (object == nullptr) {
        return Fail(EINVAL);
    }
    const int fd = fcntl(source->fd, F_DUPFD_CLOEXEC, 0);
    if (fd == -1) {
        return FALSE;
    }
    addUser(object, record, fd, payload ? source->size : 0);
    return TRUE;
}

void vlliCloseSharedFile(ObjectRecord *record, bool payload) {
    dropKeptMutexes();
    PendingFd last;
    const MutexLock lock(&shmem_mutex);
    SharedObject *object = objectOf(record);
    objectOf(record) = nullptr;
    if (object == nullptr) {
        return;
    }
    const int fd = record->fd;
    record->fd = -1;
    if (payload && --object->payloads == 0 && !endPayload(object, record->size, fd)) {
        return;
    }
    last = removeUser(object, fd);
}

void vlliClosePendingFds() {
    for (int &place : pending_fds) {
        if (place != 0) {
            vlliCloseFd(place - 1);
            place = 0;
        }
    }
}

void vlliForgetKeptMutex(SharedObject *object) {
    vlliCloseFd(takeKeptFd(object));
    --object->users;
    unmapPayload(object);
}
