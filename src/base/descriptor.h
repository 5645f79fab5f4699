// Descriptors: closing them at the end of a scope, and reading and writing until all bytes have been moved.
#pragma once

#include <sys/types.h>
#include <cstddef>

#include "base/failure.h"

// close(2), called once, without being a cancellation point: 0, or -1 with errno.
int vlliCloseFd(int fd);

// A descriptor that belongs to a scope: it is passed to end(), with errno kept, unless it is released before.
template <auto end>
class OwnedFd final {
  public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : fd_(fd) {}
    ~OwnedFd() { reset(); }
    OwnedFd(const OwnedFd &) = delete;
    OwnedFd &operator=(const OwnedFd &) = delete;
    // noexcept is sound: no end() is a cancellation point, so nothing unwinds from here.
    OwnedFd(OwnedFd &&other) noexcept : fd_(other.release()) {}
    OwnedFd &operator=(OwnedFd &&other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            const KeepErrno keep_errno;
            end(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// A descriptor that is closed at the end of its scope.
using Fd = OwnedFd<vlliCloseFd>;

// Makes a descriptor non-blocking and clears its other status flags: 0, or -1 with errno.
int vlliSetNonBlocking(int fd);

// shm_open(3), which with O_CREAT also opens an existing object of another user: a descriptor, or -1 with errno.
int vlliOpenSharedMemory(const char *name, int flags, mode_t mode);

// Calls transfer(offset, size), which reads or writes up to size bytes at that offset of the transfer, until all
// bytes have been moved, a call returns 0 (the end is reached), or a call fails. Interrupted calls are made again.
// The number of bytes moved, or -1 with errno.
template <typename Transfer>
ssize_t vlliTransferFully(size_t size, Transfer transfer) {
    size_t done = 0;
    while (done < size) {
        const ssize_t moved = vlliRetryOnEintr([&] { return transfer(done, size - done); });
        if (moved == -1) {
            return -1;
        }
        if (moved == 0) {
            break;
        }
        done += static_cast<size_t>(moved);
    }
    return static_cast<ssize_t>(done);
}

// read(2) until the buffer is full or the end is reached: the number of bytes, or -1 with errno.
ssize_t vlliReadFully(int fd, void *buffer, size_t size);

// write(2) until everything is written: the size, or -1 with errno.
ssize_t vlliWriteFully(int fd, const void *bytes, size_t size);

// The same at an offset of a file, by pread(2) and pwrite(2).
ssize_t vlliReadFullyAt(int fd, void *buffer, size_t size, off_t offset);
ssize_t vlliWriteFullyAt(int fd, const void *bytes, size_t size, off_t offset);
