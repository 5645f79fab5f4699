// fork() makes the child a user of every shared-memory object that its parent uses.
//
// Both sides then have the same open files, and with them the same locks, by which neither could see the other. Before
// the fork each object is therefore opened and locked once more, for the child. After it the parent closes its copy,
// and the child makes its test for the last user by that descriptor. If one cannot be opened (no descriptor is left),
// neither side makes the test from then on: an object that nobody empties is reset by its next creator.
//
// After exec() nothing is left, since all descriptors are close-on-exec. A child of vfork() or posix_spawn(), where
// these handlers do not run, has the descriptors until it has executed; a user that leaves drops its lock before
// it closes the descriptor, so that such a child does not keep it.

#include "sharing/shmem_fork.h"

#include "base/descriptor.h"
#include "base/guards.h"
#include "sharing/shmem_objects.h"
#include "sharing/shmem_protocol.h"

namespace {

// The child's descriptor of each entry of the table while fork() runs, or -1.
int child_fds[kObjectCount];

void openForChild(size_t entry, int fd) {
    if (child_fds[entry] == -1) {
        child_fds[entry] = vlliUseSharedFileAgain(fd).release();
    }
}

void prepareFork() {
    const NoCancel no_cancel;  // open() is a cancellation point
    pthread_mutex_lock(&shmem_mutex);
    for (int &fd : child_fds) {
        fd = -1;
    }
    for (size_t i = 0; i < kObjectCount; ++i) {
        if (used_objects[i] != nullptr) {
            openForChild(static_cast<size_t>(used_objects[i] - shared_objects), objects[i].fd);
        }
        if (shared_objects[i].users != 0 && shared_objects[i].kept_fd != -1) {
            openForChild(i, shared_objects[i].kept_fd);
        }
    }
}

void closeIfOpen(int fd) {
    if (fd != -1) {
        vlliCloseFd(fd);
    }
}

void finishForkInParent() {
    for (size_t i = 0; i < kObjectCount; ++i) {
        closeIfOpen(child_fds[i]);
        if (child_fds[i] == -1) {
            shared_objects[i].test = LastUserTest::kNever;
        }
    }
    pthread_mutex_unlock(&shmem_mutex);
}

void inheritObject(SharedObject *object, int fd) {
    if (fd == -1) {
        object->test = LastUserTest::kNever;
    } else {
        closeIfOpen(object->own_fd);
        object->own_fd = fd;
        object->test = LastUserTest::kByOwnFd;
    }
    if (object->kept_fd == -1) {
        return;
    }
    // The owner is a thread of the parent, which keeps the mutex for it.
    vlliForgetKeptMutex(object);
    if (object->users == 0) {
        closeIfOpen(object->own_fd);
    }
}

void finishForkInChild() {
    vlliClosePendingFds();
    for (size_t i = 0; i < kObjectCount; ++i) {
        if (shared_objects[i].users != 0) {
            inheritObject(&shared_objects[i], child_fds[i]);
        }
    }
    pthread_mutex_unlock(&shmem_mutex);
}

}  // namespace

const ForkHandlers kSharedObjectForkHandlers = {prepareFork, finishForkInParent, finishForkInChild};
