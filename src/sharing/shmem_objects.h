// The shared-memory objects that this process uses: which records use which object, and by which descriptor the process
// finds out whether it is an object's last user. shmem_protocol.h has the locks between processes.
#pragma once

#include <fcntl.h>
#include <pthread.h>
#include <sys/types.h>

#include "base/descriptor.h"
#include "core/objmem.h"

// Ends the use of an object by a pending descriptor: an object that nobody else uses is emptied.
void vlliEndPendingFd(int fd);

// A descriptor between its opening and its entry in the table, or between its leaving the table and its closing. A
// child of fork() that happens meanwhile closes its copy.
using PendingFd = OwnedFd<vlliEndPendingFd>;

// Opens a shared-memory object and makes the caller one of its users, waiting while another process initialises it.
// access may hold O_EXCL, for an object that must not exist. errno is EEXIST if the object was in use, else 0: then it
// is new, with size zero bytes. With keep_exclusive a new one is still empty, and nobody else gets it until the caller
// has given it its content in one write and called vlliUseSharedFile(). On failure an absent descriptor, with errno.
PendingFd vlliCreateSharedFile(int access, SIZE_T size, const char *name, bool keep_exclusive);

// Enters a record as a user of the object, with the descriptor as its `fd`, and with the process's mapping of a
// payload of that size as its `addr` if the size is not 0. FALSE with errno, nothing changed; EINVAL for an object
// too small for a payload.
BOOL vlliEnterSharedFile(ObjectRecord *record, PendingFd *file, SIZE_T payload_size);

// Enters a record as a further user of what a source record uses, with a duplicate of its descriptor and the
// source's mapping of the payload, if it has one. FALSE with errno, nothing changed.
BOOL vlliShareSharedFile(ObjectRecord *record, const ObjectRecord *source, bool payload);

// Ends the use of a record, and of the payload if it used that. A record that is not entered is left alone.
void vlliCloseSharedFile(ObjectRecord *record, bool payload);

// What follows is for the handlers around fork() alone (shmem_fork.h).

// By which descriptor this process finds out whether it is the last user of an object.
enum class LastUserTest {
    kByRecord,  // by that of the last record
    kByOwnFd,  // by own_fd: the records' descriptors came with fork(), and the parent holds the same locks by them
    kNever,  // not at all: a child of fork(), this process or another, shares the only lock that it has
};

// An object that records of this process use. A free entry has no users.
struct SharedObject {
    dev_t device;
    ino_t inode;
    int32_t users;     // records, and kept_fd if there is one
    int32_t payloads;  // those records that use the payload
    void *payload;     // the process's one mapping of it, or null
    SIZE_T payload_size;
    LastUserTest test;
    int own_fd;  // holds the lock of a child of fork(), or -1
    int kept_fd;  // keeps a mutex in use that a thread of this process owns although its last handle is closed, or -1
};

// Guards the table and the list of pending descriptors. Not held while anything blocks.
extern pthread_mutex_t shmem_mutex;
extern SharedObject shared_objects[kObjectCount];
extern SharedObject *used_objects[kObjectCount];  // by record; null: the record uses none

// Closes this process's copies of the pending descriptors, in a child whose parent goes on to use them.
void vlliClosePendingFds();

// Gives up a mutex that is kept for its owner, where the owner is not a thread of this process. The mapping goes.
void vlliForgetKeptMutex(SharedObject *object);
