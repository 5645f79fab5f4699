// Descriptors. Only the transfers are cancellation points: they call read(2) and write(2).

#include "base/descriptor.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/guards.h"
#include "base/raw_call.h"

int vlliCloseFd(int fd) {
    if constexpr (kRawCalls) {
        return static_cast<int>(syscall(SYS_close, fd));
    } else {
        const NoCancel no_cancel;
        return close(fd);
    }
}

int vlliSetNonBlocking(int fd) {
    const NoCancel no_cancel;
    return fcntl(fd, F_SETFL, O_NONBLOCK);
}

int vlliOpenSharedMemory(const char *name, int flags, mode_t mode) {
    const int last_error = errno;
    int fd = vlliRetryOnEintr([&] { return shm_open(name, flags, mode); });
    // With fs.protected_regular set, O_CREAT refuses an existing object of another user, which may still be opened
    // without O_CREAT.
    if (fd == -1 && errno == EACCES && (flags & (O_CREAT | O_EXCL)) == O_CREAT) {
        fd = vlliOpenSharedMemory(name, flags & ~O_CREAT, mode);
        errno = fd == -1 ? EACCES : last_error;
    }
    return fd;
}

ssize_t vlliReadFully(int fd, void *buffer, size_t size) {
    auto *bytes = static_cast<char *>(buffer);
    return vlliTransferFully(size, [=](size_t at, size_t left) { return read(fd, bytes + at, left); });
}

ssize_t vlliWriteFully(int fd, const void *bytes, size_t size) {
    const auto *from = static_cast<const char *>(bytes);
    return vlliTransferFully(size, [=](size_t at, size_t left) { return write(fd, from + at, left); });
}

ssize_t vlliReadFullyAt(int fd, void *buffer, size_t size, off_t offset) {
    auto *bytes = static_cast<char *>(buffer);
    return vlliTransferFully(size, [=](size_t at, size_t left) {
        return pread(fd, bytes + at, left, offset + static_cast<off_t>(at));
    });
}

ssize_t vlliWriteFullyAt(int fd, const void *bytes, size_t size, off_t offset) {
    const auto *from = static_cast<const char *>(bytes);
    return vlliTransferFully(size, [=](size_t at, size_t left) {
        return pwrite(fd, from + at, left, offset + static_cast<off_t>(at));
    });
}
