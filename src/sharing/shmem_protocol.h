// Who uses a shared-memory object: across processes (record locks) and within this one (the table of users).
// shmem_protocol.cpp tells how and why.
#pragma once

#include <fcntl.h>
#include <pthread.h>

#include "base/fork_handlers.h"
#include "core/objmem.h"

extern const ForkHandlers kSharedObjectForkHandlers;

// A descriptor between its opening and its entry in the table, or between its exit and its closing. It is known
// to the fork handlers, so that a child does not inherit it. Unless it is released it empties an object that
// nobody uses, and closes.
class TransitFd final {
  public:
    TransitFd() = default;
    explicit TransitFd(int fd) : fd_(fd) {}
    ~TransitFd() { reset(); }
    TransitFd(const TransitFd &) = delete;
    TransitFd &operator=(const TransitFd &) = delete;
    TransitFd(TransitFd &&other) noexcept : fd_(other.release()) {}
    TransitFd &operator=(TransitFd &&other) noexcept {
        reset();
        fd_ = other.release();
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset();

  private:
    int fd_ = -1;
};

// Opens a shared-memory object and makes the caller one of its users, waiting while another process initialises it.
// access may hold O_EXCL, for an object that must not exist. errno is EEXIST if it was in use, else 0: then it is
// new, with size zero bytes. With keep_exclusive a new one is still empty, and nobody else gets it until the caller
// has given it its content in one write and called vlliUseSharedFile(). On failure an absent descriptor, with errno.
TransitFd vlliCreateSharedFile(int access, SIZE_T size, const char *name, bool keep_exclusive);

// Takes the shared lock, waiting for it: 0, or -1 with errno.
int vlliUseSharedFile(int fd);

// Enters a record as a user of the object, with the descriptor as its `fd`, and with the process's mapping of a
// payload of that size as its `addr` if the size is not 0. FALSE with errno, nothing changed; EINVAL for an object
// too small for a payload.
BOOL vlliEnterSharedFile(ObjectRecord *record, TransitFd *file, SIZE_T payload_size);

// Enters a record as a further user of what a source record uses, with a duplicate of its descriptor and the
// source's mapping of the payload, if it has one. FALSE with errno, nothing changed.
BOOL vlliShareSharedFile(ObjectRecord *record, const ObjectRecord *source, bool payload);

// Ends the use of a record, and of the payload if it used that; the last user of all empties the object. A record
// that is not entered is left alone.
void vlliCloseSharedFile(ObjectRecord *record, bool payload);
