// Record locks on a whole file, fcntl(2).
#pragma once

// Locks or unlocks the whole file: type is F_RDLCK, F_WRLCK or F_UNLCK; command is one of F_SETLK, F_SETLKW and their
// open-file-description forms. Interrupted calls are made again. Not a cancellation point: 0, or -1 with errno.
int vlliLockFile(int fd, int command, int type);

// The same as a cancellation point. A thread that is cancelled in it holds no lock on the file afterwards.
int vlliWaitForFileLock(int fd, int command, int type);
