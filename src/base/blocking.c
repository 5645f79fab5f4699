/*
 * Wrappers around blocking calls, which a cancelled thread can be unwound from on every machine.
 *
 * On 32-bit ARM several blocking calls of the C library carry no unwind data. The unwinding of a thread that is
 * cancelled inside one of them stops there: it runs neither the C++ destructors of the calling functions nor cleanup
 * handlers that C++ code has pushed. A cleanup handler that C code has pushed is different: the C library enters it
 * by longjmp(), whatever stands below it on the stack, and then continues unwinding from the frame of the handler.
 * So every wrapper pushes such a handler around its call, even when there is nothing to clean up.
 *
 * This file must be built as C without -fexceptions, which would have the handlers run by the unwinder, and with unwind
 * tables, which the unwinding of the wrappers' own frames needs.
 */
#include "base/blocking.h"

#include <errno.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef __EXCEPTIONS
#error "build this file with -fno-exceptions"
#endif

static void nothingToCleanUp(void *argument) {
    (void)argument;
}

/* Makes a blocking call under a cleanup handler, from which unwinding can continue, and returns its result. */
#define VLL_BLOCK(type, call)                     \
    type result;                                  \
    pthread_cleanup_push(nothingToCleanUp, NULL); \
    result = (call);                              \
    pthread_cleanup_pop(0);                       \
    return result

void vlliCallWithCleanup(void (*body)(void *), void (*cleanup)(void *), void *argument) {
    pthread_cleanup_push(cleanup, argument);
    body(argument);
    pthread_cleanup_pop(1);
}

int vlliBlockInEpollWait(int epfd, struct epoll_event *events, int max_events, int timeout_ms) {
    VLL_BLOCK(int, epoll_wait(epfd, events, max_events, timeout_ms));
}

int vlliBlockInSemWait(sem_t *semaphore) {
    VLL_BLOCK(int, sem_wait(semaphore));
}

int vlliBlockInSemTimedwait(sem_t *semaphore, const struct timespec *deadline) {
    VLL_BLOCK(int, sem_timedwait(semaphore, deadline));
}

int vlliBlockInMutexLock(pthread_mutex_t *mutex) {
    VLL_BLOCK(int, pthread_mutex_lock(mutex));
}

int vlliBlockInMutexTimedlock(pthread_mutex_t *mutex, const struct timespec *deadline) {
    VLL_BLOCK(int, pthread_mutex_timedlock(mutex, deadline));
}

ssize_t vlliBlockInSendmsg(int socket, const struct msghdr *message, int flags) {
    VLL_BLOCK(ssize_t, sendmsg(socket, message, flags));
}

ssize_t vlliBlockInRecvmsg(int socket, struct msghdr *message, int flags) {
    VLL_BLOCK(ssize_t, recvmsg(socket, message, flags));
}

int vlliBlockInPoll(struct pollfd *fds, nfds_t count, int timeout_ms) {
    VLL_BLOCK(int, poll(fds, count, timeout_ms));
}

int vlliBlockInLockWait(int fd, int command, struct flock *lock) {
    VLL_BLOCK(int, fcntl(fd, command, lock));
}

int vlliBlockInConnect(int socket, const struct sockaddr *address, socklen_t length) {
    VLL_BLOCK(int, connect(socket, address, length));
}

int vlliBlockInOpen(const char *path, int flags, mode_t mode) {
    VLL_BLOCK(int, open(path, flags, mode));
}

ssize_t vlliBlockInRead(int fd, void *buffer, size_t size) {
    VLL_BLOCK(ssize_t, read(fd, buffer, size));
}

ssize_t vlliBlockInWrite(int fd, const void *buffer, size_t size) {
    VLL_BLOCK(ssize_t, write(fd, buffer, size));
}

int vlliBlockInFsync(int fd) {
    VLL_BLOCK(int, fsync(fd));
}

pid_t vlliBlockInWaitpid(pid_t pid, int *status, int options) {
    VLL_BLOCK(pid_t, waitpid(pid, status, options));
}

int vlliBlockInNanosleep(const struct timespec *duration, struct timespec *remaining) {
    VLL_BLOCK(int, nanosleep(duration, remaining));
}

/* ioctl(2) is no cancellation point, so that the thread is made asynchronously cancellable while it waits. */
int vlliBlockInModemWait(int port, int lines) {
    int result;
    int type;
    int error;
    pthread_cleanup_push(nothingToCleanUp, NULL);
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &type);
    result = ioctl(port, TIOCMIWAIT, lines);
    error = errno;
    pthread_setcanceltype(type, NULL);
    errno = error;
    pthread_cleanup_pop(0);
    return result;
}
