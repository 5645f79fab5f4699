/**
 * @file
 * Threads: detached POSIX threads whose handle is signalled when they end.
 */
#ifndef VWINCOMPAT_THREAD_H
#define VWINCOMPAT_THREAD_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** What a thread runs; its result becomes the exit code. */
typedef uint32_t (*LPTHREAD_START_ROUTINE)(LPVOID parameter);

/** The creation flag that Win32 programs pass; any value but 0 creates the thread suspended. */
#define CREATE_SUSPENDED 0x4U

/**
 * Starts a thread. It takes two handles: one for the caller, one that the thread holds until it ends.
 *
 * @param dwStackSize        stack size in bytes, 0 for the system's default; at least PTHREAD_STACK_MIN.
 * @param lpStartAddress     what the thread runs. A thread may be cancelled in it (vllTerminateThread()).
 * @param lpParameter        handed to @p lpStartAddress; may be null.
 * @param lpThreadId         where the thread's identifier (a pthread_t) is stored; may be null.
 * @param dwCreationFlags    0: the thread runs at once; otherwise only after vllResumeThread().
 * @return the caller's handle, or 0: EINVAL (null start routine, stack size refused), ENOMEM (no free record:
 *         32 threads, unnamed mutexes and semaphores together), EMFILE, EAGAIN (no more threads).
 */
VLL_API HANDLE vllCreateThread(DWORD dwStackSize, LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                               uintptr_t *lpThreadId, DWORD dwCreationFlags);

/**
 * Ends the calling thread as pthread_exit(3) does, with clean-up handlers and C++ destructors run and its
 * handles signalled. In a thread that vllCreateThread() did not start it only calls pthread_exit(3).
 */
VLL_API void vllExitThread(DWORD dwExitCode) __attribute__((noreturn));

/** Returns the calling thread's identifier, pthread_self(3). */
VLL_API uintptr_t vllGetCurrentThreadId(void);

/**
 * Returns the calling thread's own handle, or 0 in a thread that vllCreateThread() did not start. The handle
 * belongs to the thread: it is valid until the thread ends and cannot be closed; vllDuplicateHandle() it to
 * keep it.
 */
VLL_API HANDLE vllGetCurrentThread(void);

/**
 * Lets a suspended thread run. There is no suspend count: on a thread that runs already it does nothing.
 * A signal handler that runs in a suspended thread ends it without running its routine; block signals in
 * threads that are created suspended.
 *
 * @return 1, or 0: EINVAL for a handle that is not open or no thread.
 */
VLL_API DWORD vllResumeThread(HANDLE hThread);

/**
 * Asks a thread to end by cancellation: at its next cancellation point, or at once while it is suspended.
 * Its handles are signalled when it has ended.
 *
 * @param dwExitCode  kept as the thread's exit code.
 * @return TRUE, or FALSE: EINVAL (not open, or no thread), ESRCH (the thread has ended, or does not run in this
 *         process because it was forked), or what pthread_cancel(3) returned.
 */
VLL_API BOOL vllTerminateThread(HANDLE hThread, DWORD dwExitCode);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_THREAD_H */
