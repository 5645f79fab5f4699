/**
 * @file
 * Shared variables, and descriptors handed to other processes.
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
 * Creating one that exists empties it (zeros, and the new size) for everyone; a read or write of another
 * process under way is waited for, and that wait is a cancellation point.
 * A variable and a file mapping of one name in one process are not supported: their locks undo each other.
 *
 * @param name  as shm_open(3) takes it: a leading slash, then up to 254 bytes without one.
 * @param size  of the block in bytes; the same in all processes. Not 0.
 * @param mode  SHVAR_CREATE (permissions 0660) or SHVAR_OPEN.
 * @return the variable, or null: EINVAL (a null name, a mode that is none, a size of 0), ENOMEM, or an error of
 *         shm_open(3) (ENOENT: not created yet), ftruncate(2) or mmap(2). When it cannot be mapped the name is
 *         removed in either mode.
 */
VLL_API SharedVar *vllSharedVarInit(const char *name, DWORD size, int32_t mode);

/**
 * Copies the whole block, under a record lock that keeps other processes from writing it meanwhile.
 *
 * Blocks while another process holds the lock; a cancellation point then. The lock belongs to the process:
 * threads that share a variable, or have it open twice, must take turns.
 *
 * @param buffer     as many bytes as the variable has. What lies beyond the end of a variable that was
 *                   created anew with a smaller size reads as zeros.
 * @param operation  SHVAR_READ into @p buffer, or SHVAR_WRITE from it.
 * @return 1; 0: EINVAL (an operation that is none, a null argument), or the lock cannot be had or the
 *         bytes not be moved (an error of fcntl(2) or msync(2)); -1 when the lock cannot be released.
 */
VLL_API int32_t vllSharedVarManipulate(void *buffer, SharedVar *variable, int32_t operation);

/**
 * Gives up a variable. With SHVAR_CREATE its name is removed, too; processes that have it open keep it.
 *
 * @return TRUE, or FALSE with the error of the call that failed: the variable is then still to be given up,
 *         and a further call goes on where this one stopped. EINVAL for a null variable.
 */
VLL_API BOOL vllSharedVarDeallocate(SharedVar *variable, int32_t mode);

/** A published descriptor. The registry does not own it. */
typedef struct SharedFdEntry {
    struct SharedFdEntry *next;
    char *name;
    int32_t fd;
} SharedFdEntry;

/** The published descriptors, oldest first. Guarded by list_mutex. */
extern VLL_API SharedFdEntry *shared_fd_list;
/** Guards the registry. Taken before objMemMutex, never after. */
extern VLL_API pthread_mutex_t list_mutex;
/** The server's thread, or -1. Guarded by list_mutex. */
extern VLL_API uintptr_t server_thread_id;

/**
 * Publishes an open descriptor under a name, for any process of the machine (of the network namespace) to
 * fetch. The first one starts the server, which owns the abstract socket "SHARING_FD_SERVER": only one
 * process at a time is served, and what another one publishes is not found. A forked child starts with an
 * empty registry.
 *
 * @param descriptor  stays the caller's, and must stay open while it is to be fetched: once it is closed, its
 *                    number may name something else, which would be handed out instead.
 * @param name        up to 1,023 bytes; the oldest of equal names is found.
 * @return TRUE, or FALSE: EBADF (not open), EINVAL (null name), ENAMETOOLONG, ENOMEM, or the error of
 *         vllCreateThread(), which leaves the registry empty.
 */
VLL_API BOOL vllSetSharedFileDescriptor(int32_t descriptor, const char *name);

/**
 * Fetches a duplicate of a descriptor that a process published. Blocks until the server has answered; a
 * cancellation point.
 *
 * @return a descriptor of the caller's, or -1: EINVAL (null name), ENOENT (nobody published the name), EBADE
 *         (the server could not read the name: over 1,023 bytes), EAGAIN (no descriptor came: the publisher
 *         has closed it, or hung up), ECONNREFUSED (no server), or an error of the socket calls.
 */
VLL_API int32_t vllGetSharedFileDescriptor(const char *name);

/**
 * Empties the registry and ends the server. The published descriptors stay open. On return the socket's
 * address is free, also when the server was busy with a client. Only a child that is being started meanwhile
 * may hold it a moment longer; the next server of this process waits up to a second for that.
 *
 * @return 0, or an error number.
 */
VLL_API int32_t vllDeallocateSharedFdList(void);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SHARING_H */
