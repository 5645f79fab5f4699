// What the tests of named objects share.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "base/descriptor.h"
#include "support/child.h"
#include "support/fixture.h"
#include "support/objects.h"

// The handle of a creation that must have left this last error: 0 for a new object, EEXIST for one that is in use.
inline HANDLE expectMade(HANDLE handle, int error, int line) {
    const int last_error = errno;
    EXPECT_NE(handle, 0U) << "line " << line;
    EXPECT_EQ(last_error, error) << "line " << line;
    return handle;
}
inline HANDLE fresh(HANDLE handle, int line = __builtin_LINE()) {
    return expectMade(handle, 0, line);
}
inline HANDLE inUse(HANDLE handle, int line = __builtin_LINE()) {
    return expectMade(handle, EEXIST, line);
}

// The length of the object of a name, or -1. 0: nobody uses it.
inline off_t objectLength(const char *name) {
    struct stat status = {};
    return fstat(Fd(shm_open(name, O_RDONLY, 0)).get(), &status) == 0 ? status.st_size : -1;
}

// Takes a lock as programs without this library do (command F_SETLK or F_SETLKW): 0, or -1 with errno.
inline int classicLock(int fd, short type, int command = F_SETLK) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, command, &lock);
}
