/**
 * @file
 * Shared variables, and descriptors handed to other processes.
 *
 * Example: let other processes read a state as a whole, and hand them a descriptor.
 *
 * @code{.c}
 * typedef struct {
 *     int32_t temperature;
 *     int32_t pressure;
 * } State;
 *
 * // The variable, which the caller gives up with vllSharedVarDeallocate(variable, SHVAR_CREATE).
 * SharedVar *publish(State state, int descriptor) {
 *     SharedVar *variable = vllSharedVarInit("/acme-state", sizeof state, SHVAR_CREATE);
 *     if (variable != NULL && (vllSharedVarManipulate(&state, variable, SHVAR_WRITE) != 1 ||
 *                              !vllSetSharedFileDescriptor(descriptor, "acme-log"))) {
 *         vllSharedVarDeallocate(variable, SHVAR_CREATE);
 *         variable = NULL;
 *     }
 *     return variable;
 * }
 *
 * BOOL fetch(State *state, int *descriptor) {
 *     SharedVar *variable = vllSharedVarInit("/acme-state", sizeof *state, SHVAR_OPEN);
 *     BOOL done = variable != NULL && vllSharedVarManipulate(state, variable, SHVAR_READ) == 1;
 *     if (variable != NULL) {
 *         vllSharedVarDeallocate(variable, SHVAR_OPEN);
 *     }
 *     *descriptor = done ? vllGetSharedFileDescriptor("acme-log") : -1;
 *     return *descriptor != -1;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_SHARING_H
#define VWINCOMPAT_SHARING_H

#include <pthread.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Modes and operations of shared variables. */
enum { SHVAR_CREATE = 1, SHVAR_OPEN = 2, SHVAR_READ = 3, SHVAR_WRITE = 4 };

/** A shared variable as a process holds it. */
typedef struct SharedVar SharedVar;

/**
 * Creates or opens a shared variable: a block of bytes in POSIX shared memory that processes read and write
 * as a whole.
 *
 * Creating one that exists empties it (zeros, and the new size) for everyone; it blocks while another process
 * reads or writes the variable. A variable and a mapping, mutex or semaphore (mapping.h) of the same name
 * must not be used in one process: their locks undo one another.
 *
 * @param name  a name as shm_open(3) takes it: up to 255 bytes after any leading slashes, without another
 *              slash; not null.
 * @param size  the size of the block in bytes, the same in all processes; not 0.
 * @param mode  SHVAR_CREATE (permissions 0660, less the umask) or SHVAR_OPEN.
 * @return  the variable, or null. When the object was opened and a later step fails, the name is removed, in
 *          either mode.
 * @error EINVAL  name is null, or has a slash inside, or consists of slashes; or mode is none of the two, or
 *                size is 0.
 * @error ENAMETOOLONG, EINVAL  name is longer than 255 bytes.
 * @error ENOENT  the variable does not exist (SHVAR_OPEN).
 * @error EACCES  the object belongs to another user, who does not let the caller read and write it.
 * @error ENOMEM  no memory, or no address space, is left.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error EDEADLK  waiting for another process's lock would be a deadlock (SHVAR_CREATE).
 * @error others  as shm_open(3), fcntl(2), ftruncate(2) and mmap(2) give them.
 * @cancel  A cancellation point with SHVAR_CREATE, also when it need not wait for another process's lock: the
 *          variable keeps its content, and a new one stays behind with size 0. With SHVAR_OPEN it is not a
 *          cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API SharedVar *vllSharedVarInit(const char *name, DWORD size, int32_t mode);

/**
 * Copies the whole block, under a record lock (fcntl(2)) that keeps other processes from writing it
 * meanwhile. It blocks while another process holds the lock.
 *
 * @param buffer     as many bytes as the variable has; not null. What lies beyond the end of a variable that
 *                   was created anew with a smaller size reads as zeros.
 * @param variable   the variable; not null.
 * @param operation  SHVAR_READ into @p buffer, or SHVAR_WRITE from it.
 * @return  1; 0 when nothing or not all was copied; or -1 when the lock cannot be released.
 * @error EINVAL  operation is none of the two, or buffer or variable is null.
 * @error EDEADLK  waiting for another process's lock would be a deadlock.
 * @error ENOLCK  the system has no record locks left.
 * @error ENOSPC  the file system of the shared memory is full (SHVAR_WRITE).
 * @error others  as fcntl(2), pread(2), pwrite(2) and msync(2) give them.
 * @cancel  A cancellation point, also when it need not wait for the lock: nothing is copied, and the lock is
 *          not held.
 * @thread  Safe from any thread with different variables. The lock belongs to the process: threads that share
 *          a variable, or have one open twice, must take turns.
 */
VLL_API int32_t vllSharedVarManipulate(void *buffer, SharedVar *variable, int32_t operation);

/**
 * Gives up a variable. With SHVAR_CREATE its name is removed, too; processes that have it open keep it.
 *
 * @param variable  the variable; not null. It is gone after a success.
 * @param mode      SHVAR_CREATE; any other value leaves the name.
 * @return  TRUE, or FALSE. After a failure the variable is still to be given up: a further call goes on where
 *          this one stopped.
 * @error EINVAL  variable is null.
 * @error ENOENT  the name has been removed already (SHVAR_CREATE): a call with SHVAR_OPEN gives the variable
 *                up.
 * @error EACCES  the name belongs to another user and cannot be removed (SHVAR_CREATE): a call with
 *                SHVAR_OPEN gives the variable up.
 * @error others  as munmap(2), close(2) and shm_unlink(3) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread; no other thread may use the variable meanwhile.
 */
VLL_API BOOL vllSharedVarDeallocate(SharedVar *variable, int32_t mode);

/** A published descriptor. The registry does not own it. */
typedef struct SharedFdEntry {
    struct SharedFdEntry *next;
    char *name;
    int32_t fd;
} SharedFdEntry;

/**
 * The published descriptors, oldest first.
 *
 * @thread  Guarded by list_mutex. Only the library changes it.
 */
extern VLL_API SharedFdEntry *shared_fd_list;

/**
 * The lock of the registry of published descriptors.
 *
 * @thread  Taken before objMemMutex, never after. A thread that holds it must not call
 *          vllSetSharedFileDescriptor(), vllGetSharedFileDescriptor() or vllDeallocateSharedFdList(): it may
 *          wait for itself.
 */
extern VLL_API pthread_mutex_t list_mutex;

/**
 * The identifier of the server's thread, a pthread_t; or -1 while there is none.
 *
 * @thread  Guarded by list_mutex. Only the library changes it.
 */
extern VLL_API uintptr_t server_thread_id;

/**
 * Publishes an open descriptor under a name, for any process of the machine (of the network namespace) to
 * fetch. The first one starts the server, which owns the abstract socket "SHARING_FD_SERVER": only one
 * process at a time is served, and what another one publishes is not found. When the first publication of the
 * process that is served has returned, a lookup succeeds. A forked child starts with an empty registry.
 *
 * It blocks while vllDeallocateSharedFdList() runs in another thread; and the first publication for up to a
 * second while a child that is being started holds the address of an earlier server of this process.
 *
 * @param descriptor  an open descriptor. It stays the caller's, and must stay open while it is to be fetched:
 *                    once it is closed, its number may name something else, which would be handed out
 *                    instead.
 * @param name        the name, up to 1,023 bytes; not null. Of equal names the oldest is found.
 * @return  TRUE, or FALSE.
 * @error EINVAL  name is null.
 * @error ENAMETOOLONG  name is longer than 1,023 bytes.
 * @error EBADF  descriptor is not open.
 * @error ENOMEM  no memory is left.
 * @error others  as vllCreateThread() gives them, when the server cannot be started; the registry is then
 *                empty.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllSetSharedFileDescriptor(int32_t descriptor, const char *name);

/**
 * Fetches a duplicate of a descriptor that this or another process published. It blocks until the server has
 * answered, which serves one client at a time.
 *
 * @param name  the name; not null.
 * @return  a new descriptor, which the caller closes and which is not close-on-exec; or -1.
 * @error EINVAL  name is null.
 * @error ENOENT  the process that is served has not published this name.
 * @error EBADE  the server could not read the name, because it is longer than 1,023 bytes.
 * @error EAGAIN  no descriptor came: the publisher has closed it, or the server has ended; or the caller has
 *                no descriptor left for it.
 * @error ECONNREFUSED  there is no server: no process has published anything.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as socket(2), connect(2), sendmsg(2) and recvmsg(2) give them.
 * @cancel  A cancellation point while it blocks: no descriptor is received.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API int32_t vllGetSharedFileDescriptor(const char *name);

/**
 * Empties the registry and ends the server, and waits for its end. The published descriptors stay open. On
 * return the socket's address is free, also when the server was busy with a client. Only a child that is
 * being started meanwhile may hold it a moment longer.
 *
 * @return  0, or an error number as pthread_cancel(3) gives it.
 * @error none  the error number is the result.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API int32_t vllDeallocateSharedFdList(void);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SHARING_H */
