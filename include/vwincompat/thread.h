/**
 * @file
 * Threads: detached POSIX threads whose handle is signalled when they end.
 *
 * A thread starts with deferred cancelability, and its routine may be left at any cancellation point: what it
 * holds there it must give back in clean-up handlers (pthread_cleanup_push(3)) or C++ destructors.
 *
 * Example: start a thread, and end it when it takes too long.
 *
 * @code{.c}
 * BOOL runFor(LPTHREAD_START_ROUTINE routine, LPVOID parameter, DWORD milliseconds) {
 *     BOOL finished;
 *     HANDLE thread = vllCreateThread(0, routine, parameter, NULL, 0);
 *     if (thread == 0) {
 *         return FALSE;
 *     }
 *     finished = vllWaitForSingleObject(thread, milliseconds) == WAIT_OBJECT_0;
 *     if (!finished && vllTerminateThread(thread, 1)) {
 *         vllWaitForSingleObject(thread, INFINITE); // it ends at its next cancellation point
 *     }
 *     vllCloseHandle(thread);
 *     return finished;
 * }
 * @endcode
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
 * Starts a thread with pthread_create(3). It takes two handles: the caller's, and one that the thread holds
 * until it ends. The caller may close its own at any time.
 *
 * @param dwStackSize      the stack size in bytes, at least PTHREAD_STACK_MIN; or 0 for the system's default.
 * @param lpStartAddress   the routine that the thread runs; not null.
 * @param lpParameter      the routine's argument; may be null.
 * @param lpThreadId       receives the thread's identifier, a pthread_t; may be null.
 * @param dwCreationFlags  0: the thread runs at once. Any other value: it runs after vllResumeThread().
 * @return  the caller's handle, or 0.
 * @error EINVAL  lpStartAddress is null, or the stack size is refused.
 * @error ENOMEM  two records of the handle table are not left; or 32 threads, unnamed mutexes and unnamed
 *                semaphores exist; or vllvwincompatMain() was not called.
 * @error EMFILE, ENFILE  two descriptors are not left.
 * @error EAGAIN  the system has no memory for the stack, or the limit of threads is reached.
 * @error others  as eventfd(2) and pthread_create(3) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HANDLE vllCreateThread(DWORD dwStackSize, LPTHREAD_START_ROUTINE lpStartAddress, LPVOID lpParameter,
                               uintptr_t *lpThreadId, DWORD dwCreationFlags);

/**
 * Ends the calling thread with pthread_exit(3). Clean-up handlers and C++ destructors run, and then its
 * handles are signalled. A thread that vllCreateThread() did not start has no handles; it ends all the same.
 *
 * @param dwExitCode  kept as the thread's exit code, which no operation reads.
 * @error none  the operation does not return.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API void vllExitThread(DWORD dwExitCode) __attribute__((noreturn));

/**
 * Returns the calling thread's identifier, pthread_self(3).
 *
 * @return  the identifier, a pthread_t: the one that vllCreateThread() stores.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API uintptr_t vllGetCurrentThreadId(void);

/**
 * Returns the calling thread's own handle. It belongs to the thread: it is valid until the thread ends, and
 * vllCloseHandle() refuses it. A duplicate (vllDuplicateHandle()) can be kept longer.
 *
 * @return  the handle, or 0 in a thread that vllCreateThread() did not start.
 * @error none  the operation leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HANDLE vllGetCurrentThread(void);

/**
 * Lets a suspended thread run. There is no suspend count: for a thread that runs already, or has ended,
 * nothing happens. A signal handler without SA_RESTART that runs in a suspended thread ends the thread
 * without running its routine, which is logged; so create suspended threads with their signals blocked.
 *
 * @param hThread  the thread.
 * @return  1, or 0. This is not a suspend count.
 * @error EINVAL  hThread is no open handle of a thread.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API DWORD vllResumeThread(HANDLE hThread);

/**
 * Asks a thread to end, with pthread_cancel(3), and does not wait for it: the thread ends at its next
 * cancellation point, or at once while it is suspended. Its handles are signalled when it has ended. A thread
 * may end itself in this way.
 *
 * @param hThread     the thread.
 * @param dwExitCode  kept as the thread's exit code, which no operation reads.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hThread is no open handle of a thread.
 * @error ESRCH  the thread has ended; or it is one of the parent's, and the caller is a forked child.
 * @error EFAULT  the thread that makes the handle has not finished.
 * @error others  as pthread_cancel(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllTerminateThread(HANDLE hThread, DWORD dwExitCode);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_THREAD_H */
