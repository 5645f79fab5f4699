// Wrappers around the calls of the C library that block. A thread that is cancelled inside one of them is unwound as
// it should be, also on 32-bit ARM, where a direct call would skip every destructor (blocking.c says why). Each
// wrapper has the results of the call that it is named after.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

// Runs body(argument), then cleanup(argument). The cleanup also runs when the thread is cancelled or exits inside
// body, even in code without unwind tables.
void vlliCallWithCleanup(void (*body)(void *), void (*cleanup)(void *), void *argument);

// Cancellation points.
int vlliBlockInEpollWait(int epfd, struct epoll_event *events, int max_events, int timeout_ms);
int vlliBlockInPoll(struct pollfd *fds, nfds_t count, int timeout_ms);
int vlliBlockInLockWait(int fd, int command, struct flock *lock);
int vlliBlockInConnect(int socket, const struct sockaddr *address, socklen_t length);
int vlliBlockInOpen(const char *path, int flags, mode_t mode);
ssize_t vlliBlockInRead(int fd, void *buffer, size_t size);
ssize_t vlliBlockInWrite(int fd, const void *buffer, size_t size);
int vlliBlockInFsync(int fd);
int vlliBlockInSemWait(sem_t *semaphore);
int vlliBlockInSemTimedwait(sem_t *semaphore, const struct timespec *deadline);
ssize_t vlliBlockInSendmsg(int socket, const struct msghdr *message, int flags);
ssize_t vlliBlockInRecvmsg(int socket, struct msghdr *message, int flags);
pid_t vlliBlockInWaitpid(pid_t pid, int *status, int options);
int vlliBlockInNanosleep(const struct timespec *duration, struct timespec *remaining);
int vlliBlockInModemWait(int port, int lines);

// No cancellation points, but a thread that is asynchronously cancellable may be cancelled inside.
int vlliBlockInMutexLock(pthread_mutex_t *mutex);
int vlliBlockInMutexTimedlock(pthread_mutex_t *mutex, const struct timespec *deadline);

#ifdef __cplusplus
}
#endif
