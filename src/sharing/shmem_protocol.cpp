// Shared-memory objects have no owner: each exists exactly while somebody uses it. Record locks on the object
// keep the count across processes.
//
//   exclusive lock   one process resets and initialises the object, or empties it
//   shared lock      a user
//   length 0         nobody has initialised it: it is nobody's
//
// Opening: whoever gets the exclusive lock at the first try is alone; it resets the object, gives it its content
// and goes down to the shared lock. Whoever does not get it waits for the shared lock. If the object is empty
// then, its creator died on the way or its last user emptied it meanwhile, and the exclusive lock is tried
// again. Content comes with the length, in one call (ftruncate() for zeros, pwrite() for a payload), so that
// even a creator killed at any instruction leaves an empty object or a complete one.
//   An opener that holds the shared lock of an empty object must not meet another one that does the same: each would
// take the other for a user. So openers come one at a time, by flock(2), which record locks do not see. What
// still holds the lock of an empty object then is a lasting user (a read-only one, or a mapping of size 0).
//
// Closing: the last user of the process tries the exclusive lock; if it gets it, it is the last of all and
// empties the object. Two that leave at once see each other's shared lock: so each drops its own and tries once
// more, and whoever drops last gets it. Closers wait for nobody. A closer that empties an object holds the
// exclusive lock, so no user can be there; an opener that holds a shared lock keeps every closer from emptying.
//
// The locks are open-file-description locks. They conflict with the classic F_SETLK ones, so processes that use those
// take part; but they belong to the description: every opening in a process counts by itself, threads exclude
// one another as processes do, closing another descriptor of the file drops nothing, and there is no deadlock detection
// to fail falsely. A read-only description holds its shared lock beside the read-write ones; its exclusive try
// fails, so it neither resets nor empties.
//   Duplicates share a description, and so a lock, with which a last-user test would not see them. The process
// therefore counts the records that use an object, by device and inode, and only the last one of the
// process runs the test. All its other descriptions are closed by then.
//
// fork() shares all descriptions with the child, so neither side could test against the other. Before the fork
// a description of the child's own is opened for each object and locked; after it the parent closes its copy,
// and the child keeps it (`own_fd`) for its last-user test. If one cannot be opened (no descriptor left), both sides
// only close that object from then on: an object that is left unemptied is reset by its next creator. Descriptors
// in transit in other threads are closed in the child. After exec() nothing is left: all are close-on-exec. A
// child of vfork() or posix_spawn() holds descriptions until it has executed, which is why locks are dropped
// before the descriptor is closed.
//
// The payload of a named mutex is mapped once in a process, whatever the number of handles: the robust list
// holds addresses, and a mutex must be released at the address where it was acquired. A mutex that another
// thread of the process still owns when the last handle is closed stands in that thread's list: mapping and use are
// kept (`parked_fd`) until the thread has gone or the name is opened again.

#include "sharing/shmem_protocol.h"

#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>

#include "base/descriptor.h"
#include "base/failure.h"
#include "base/guards.h"
#include "base/robust_mutex.h"

namespace {

constexpr mode_t kMode = 0666;

// An object that records of this process use.
struct SharedObject {
    dev_t device;
    ino_t inode;
    int32_t users;     // records, and the parked mutex; 0: a free entry
    int32_t payloads;  // those records that use the payload
    void *payload;     // the process's one mapping of it, or null
    SIZE_T payload_size;
    int own_fd;     // a description that no relative shares, or -1: those of the records are such
    int child_fd;   // own_fd of the child, while fork() runs
    int parked_fd;  // keeps the object of an owned mutex without a handle, or -1
    bool unsure;    // a relative shares our descriptions: neither test nor unlock
};

// Guards what follows. Taken before objMemMutex; not held while anything blocks.
pthread_mutex_t shmem_mutex = PTHREAD_MUTEX_INITIALIZER;

SharedObject sharedObjects[kObjectCount];
SharedObject *usedBy[kObjectCount];  // by record
int transit[kObjectCount];           // descriptor + 1
int32_t parkedCount;

int lockFile(int fd, int command, int type) {
    struct flock lock = {};
    lock.l_type = static_cast<short>(type);
    lock.l_whence = SEEK_SET;
    int result;
    do {
        result = fcntl(fd, command, &lock);
    } while (result == -1 && errno == EINTR);
    return result;
}

bool tryExclusive(int fd) {
    return lockFile(fd, F_OFD_SETLK, F_WRLCK) == 0;
}

int lockOpeners(int fd) {
    int result;
    do {
        result = flock(fd, LOCK_EX);
    } while (result == -1 && errno == EINTR);
    return result;
}

bool isEmpty(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && status.st_size == 0;
}

void emptyIfUnused(int fd) {
    if (!tryExclusive(fd)) {
        lockFile(fd, F_OFD_SETLK, F_UNLCK);
        if (!tryExclusive(fd)) {
            return;
        }
    }
    // A failure leaves content that the next creator resets.
    (void)!ftruncate(fd, 0);
    lockFile(fd, F_OFD_SETLK, F_UNLCK);
}

size_t recordIndex(const ObjectRecord *record) {
    return static_cast<size_t>(record - objects);
}

// The following need the lock.

int *findTransit(int value) {
    for (int &slot : transit) {
        if (slot == value) {
            return &slot;
        }
    }
    return nullptr;
}

// Counted under the lock, and looked at without it.
void countParked(int32_t change) {
    __atomic_fetch_add(&parkedCount, change, __ATOMIC_RELAXED);
}

void unpark(SharedObject *object) {
    vlliCloseFd(object->parked_fd);
    object->parked_fd = -1;
    --object->users;
    countParked(-1);
}

void unmapPayload(SharedObject *object) {
    munmap(object->payload, object->payload_size);
    object->payload = nullptr;
}

// One use less, by way of this descriptor. What is returned is to be reset without the lock: it may empty a
// large object.
TransitFd dropUse(SharedObject *object, int fd) {
    --object->users;
    if (object->users > 0 || object->unsure) {
        vlliCloseFd(fd);
        fd = -1;
    } else if (object->own_fd != -1) {
        vlliCloseFd(fd);
        fd = object->own_fd;
        object->own_fd = -1;
    }
    if (object->users == 0 && object->own_fd != -1) {
        vlliCloseFd(object->own_fd);
    }
    int *slot = fd != -1 ? findTransit(0) : nullptr;
    if (slot != nullptr) {
        *slot = fd + 1;
    }
    return TransitFd(fd);
}

// True when the payload had to stay, because a thread of this process owns it as a mutex.
bool parkOwnedMutex(SharedObject *object, int fd) {
    auto *mutex = static_cast<pthread_mutex_t *>(object->payload);
    vlliReleaseOwnedMutex(mutex);
    if (!vlliIsOwnedByLiveThread(mutex)) {
        return false;
    }
    object->parked_fd = fd;
    countParked(1);
    return true;
}

SharedObject *findObject(const struct stat &status) {
    SharedObject *free_entry = nullptr;
    for (SharedObject &object : sharedObjects) {
        if (object.users == 0) {
            free_entry = free_entry == nullptr ? &object : free_entry;
        } else if (object.inode == status.st_ino && object.device == status.st_dev) {
            return &object;
        }
    }
    if (free_entry != nullptr) {
        *free_entry = SharedObject{};
        free_entry->device = status.st_dev;
        free_entry->inode = status.st_ino;
        free_entry->own_fd = free_entry->child_fd = free_entry->parked_fd = -1;
    } else {
        errno = ENOMEM;
    }
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

void addUse(SharedObject *object, ObjectRecord *record, int fd, SIZE_T payload_size) {
    ++object->users;
    usedBy[recordIndex(record)] = object;
    record->fd = fd;
    if (payload_size != 0) {
        ++object->payloads;
        record->addr = object->payload;
        record->size = payload_size;
        if (object->parked_fd != -1) {
            unpark(object);
        }
    }
}

// A description of its own on what a descriptor refers to, with the shared lock; -1 if it cannot be had.
int reopenLocked(int fd) {
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    Fd again(open(path, O_RDWR | O_CLOEXEC));
    if (!again) {
        again.reset(open(path, O_RDONLY | O_CLOEXEC));
    }
    if (!again || lockFile(again.get(), F_OFD_SETLK, F_RDLCK) == -1) {
        return -1;
    }
    return again.release();
}

// Around fork(), which is no place to be cancelled or to change errno.

void prepareFork() {
    const NoCancel no_cancel;
    const KeepErrno keep_errno;
    pthread_mutex_lock(&shmem_mutex);
    for (size_t i = 0; i < kObjectCount; ++i) {
        SharedObject *object = usedBy[i];
        if (object != nullptr && object->child_fd == -1) {
            object->child_fd = reopenLocked(objects[i].fd);
        }
    }
    for (SharedObject &object : sharedObjects) {
        if (object.users != 0 && object.parked_fd != -1 && object.child_fd == -1) {
            object.child_fd = reopenLocked(object.parked_fd);
        }
    }
}

void finishForkInParent() {
    const KeepErrno keep_errno;
    for (SharedObject &object : sharedObjects) {
        if (object.users == 0) {
            continue;
        }
        if (object.child_fd == -1) {
            object.unsure = true;
        } else {
            vlliCloseFd(object.child_fd);
            object.child_fd = -1;
        }
    }
    pthread_mutex_unlock(&shmem_mutex);
}

void inheritObject(SharedObject *object) {
    if (object->own_fd != -1) {
        vlliCloseFd(object->own_fd);
    }
    object->own_fd = object->child_fd;
    object->unsure = object->own_fd == -1;
    object->child_fd = -1;
    if (object->parked_fd == -1) {
        return;
    }
    // The owner is a thread of the parent, which keeps it for that thread.
    unpark(object);
    unmapPayload(object);
    if (object->users == 0 && object->own_fd != -1) {
        vlliCloseFd(object->own_fd);
        object->own_fd = -1;
    }
}

void finishForkInChild() {
    const KeepErrno keep_errno;
    for (int &slot : transit) {
        if (slot != 0) {
            vlliCloseFd(slot - 1);
            slot = 0;
        }
    }
    for (SharedObject &object : sharedObjects) {
        if (object.users != 0) {
            inheritObject(&object);
        }
    }
    pthread_mutex_unlock(&shmem_mutex);
}

TransitFd openInTransit(const char *name, int flags) {
    const MutexLock lock(&shmem_mutex);
    int *slot = findTransit(0);
    if (slot == nullptr) {
        return Fail(ENOMEM);
    }
    const int fd = vlliOpenSharedMemory(name, flags, kMode);
    *slot = fd + 1;
    return TransitFd(fd);
}

// Mutexes without a handle whose owners have gone since: their objects are given up now.
void dropParked() {
    if (__atomic_load_n(&parkedCount, __ATOMIC_RELAXED) == 0) {
        return;
    }
    for (SharedObject &object : sharedObjects) {
        TransitFd last;
        const MutexLock lock(&shmem_mutex);
        if (object.users == 0 || object.parked_fd == -1) {
            continue;
        }
        const int fd = object.parked_fd;
        countParked(-1);
        object.parked_fd = -1;
        if (!parkOwnedMutex(&object, fd)) {
            unmapPayload(&object);
            last = dropUse(&object, fd);
        }
    }
}

// Becomes a user, or the creator: 1 if the object was in use, 0 if it is the caller's to initialise, -1 with errno.
int becomeUser(int fd) {
    if (tryExclusive(fd)) {
        return 0;
    }
    if (vlliUseSharedFile(fd) == -1) {
        return -1;
    }
    return isEmpty(fd) && tryExclusive(fd) ? 0 : 1;
}

}  // namespace

const ForkHandlers kSharedObjectForkHandlers = {prepareFork, finishForkInParent, finishForkInChild};

void TransitFd::reset() {
    if (fd_ < 0) {
        return;
    }
    const KeepErrno keep_errno;
    emptyIfUnused(fd_);
    const MutexLock lock(&shmem_mutex);
    int *slot = findTransit(fd_ + 1);
    if (slot != nullptr) {
        *slot = 0;
    }
    vlliCloseFd(fd_);
    fd_ = -1;
}

int vlliUseSharedFile(int fd) {
    return lockFile(fd, F_OFD_SETLKW, F_RDLCK);
}

TransitFd vlliCreateSharedFile(int access, SIZE_T size, const char *name, bool keep_exclusive) {
    dropParked();
    TransitFd file = openInTransit(name, access | O_CREAT);
    if (!file || lockOpeners(file.get()) == -1) {
        return TransitFd();
    }
    const int existed = becomeUser(file.get());
    int result = existed;
    if (existed == 0) {
        result = ftruncate(file.get(), 0);
        if (result == 0 && !keep_exclusive) {
            result = ftruncate(file.get(), static_cast<off_t>(size));
            result = result == 0 ? vlliUseSharedFile(file.get()) : result;
        }
    }
    if (result == -1) {
        return TransitFd();
    }
    flock(file.get(), LOCK_UN);
    errno = existed == 1 ? EEXIST : 0;
    return file;
}

BOOL vlliEnterSharedFile(ObjectRecord *record, TransitFd *file, SIZE_T payload_size) {
    const MutexLock lock(&shmem_mutex);
    struct stat status;
    if (fstat(file->get(), &status) == -1) {
        return FALSE;
    }
    if (static_cast<uint64_t>(status.st_size) < payload_size) {
        errno = EINVAL;  // somebody else's object, which has no room for ours
        return FALSE;
    }
    SharedObject *object = findObject(status);
    if (object == nullptr || (payload_size != 0 && !mapPayload(object, file->get(), payload_size))) {
        return FALSE;
    }
    int *slot = findTransit(file->get() + 1);
    if (slot != nullptr) {
        *slot = 0;
    }
    addUse(object, record, file->release(), payload_size);
    return TRUE;
}

BOOL vlliShareSharedFile(ObjectRecord *record, const ObjectRecord *source, bool payload) {
    const MutexLock lock(&shmem_mutex);
    SharedObject *object = usedBy[recordIndex(source)];
    if (object == nullptr) {
        return Fail(EINVAL);
    }
    const int fd = fcntl(source->fd, F_DUPFD_CLOEXEC, 0);
    if (fd == -1) {
        return FALSE;
    }
    addUse(object, record, fd, payload ? source->size : 0);
    return TRUE;
}

void vlliCloseSharedFile(ObjectRecord *record, bool payload) {
    dropParked();
    TransitFd last;
    const MutexLock lock(&shmem_mutex);
    SharedObject *object = usedBy[recordIndex(record)];
    usedBy[recordIndex(record)] = nullptr;
    if (object == nullptr) {
        return;
    }
    const int fd = record->fd;
    record->fd = -1;
    if (payload && --object->payloads == 0) {
        if (record->size == sizeof(pthread_mutex_t) && parkOwnedMutex(object, fd)) {
            return;
        }
        unmapPayload(object);
    }
    last = dropUse(object, fd);
}
