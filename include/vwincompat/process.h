/**
 * @file
 * Processes, scheduling and sleeping. Process operations take Linux process ids, thread scheduling operations
 * POSIX thread ids, and scheduling values are those of Linux.
 *
 * Example: run a program and wait for its end.
 *
 * @code{.c}
 * BOOL run(LPCSTR command_line, DWORD milliseconds) {
 *     PROCESS_INFORMATION process;
 *     BOOL finished;
 *     if (!vllCreateProcess(NULL, command_line, NULL, &process)) {
 *         return FALSE; // with process.hProcess 0 and the id set, it runs unwatched
 *     }
 *     finished = vllWaitForSingleObject(process.hProcess, milliseconds) == WAIT_OBJECT_0;
 *     if (!finished) {
 *         vllTerminateProcess(process.dwProcessId, 0);
 *     }
 *     vllCloseHandle(process.hProcess);
 *     return finished;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_PROCESS_H
#define VWINCOMPAT_PROCESS_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** What vllCreateProcess() reports about the process that it started. */
typedef struct PROCESS_INFORMATION {
    HANDLE hProcess;   /**< a handle of the thread that waits for the process; 0 when it could not be made */
    HANDLE hThread;    /**< always 0 */
    DWORD dwProcessId; /**< the process id */
    DWORD dwThreadId;  /**< always 0 */
} PROCESS_INFORMATION;

/** What vllGetExitCodeProcess() stores while the process runs. */
#define STILL_ACTIVE 128U

/** The most entries that vllCreateProcess() passes to a program, its closing null pointer included. */
#define VLL_ARGUMENT_LIMIT 131072

/** The size of the PATH that vllCreateProcess() makes for a current directory, terminator included. */
#define VLL_PATH_SIZE 512

/**
 * Starts a program in a child process, clone(2) and execve(2), and a thread that waits for it.
 *
 * The argument vector is the application name, if there is one, followed by the tokens of the command line.
 * So with both, the first token of the command line becomes argument 1. Tokens are separated by white space;
 * a token may stand in double quotes, which are not part of it ("" is an empty argument). There is no escape
 * character. A quote in the middle of a token does not end that token: `x"a b"` gives the entries `x"a b` and
 * `a b`.
 *
 * The program is the application name, or else entry 0. A name that begins with '/' is run as it is; any
 * other is searched for along PATH as execvp(3) does. With a current directory the child changes to it first,
 * and its PATH ends with it: PATH, ':', the directory.
 *
 * The child inherits all descriptors that are not close-on-exec, the environment and the signal mask; signals
 * that have a handler here are at their default there. The child neither allocates nor takes a lock before it
 * executes the program: the operation is safe in a process with many threads.
 *
 * hProcess is signalled when the process has ended or was stopped by a signal; the caller closes it with
 * vllCloseHandle(). A process that ends is reaped at once, so no zombie remains; one that was stopped is not
 * watched any further: ask vllGetExitCodeProcess() for its end. The record is not used after the call.
 *
 * The call returns when the child has executed its program or failed. The child shares the caller's memory
 * until then, as with vfork(2), and no handler of pthread_atfork(3) runs. After the call the child counts
 * for nothing that the caller uses: its close-on-exec descriptors are closed.
 *
 * When the directory or the program cannot be used, the call succeeds all the same: it logs
 * "vllCreateProcess() - chdir() FAILED, ..." or "vllCreateProcess() - exec() FAILED, ...", and the child ends
 * with the error number as its status.
 *
 * @param lpApplicationName     the program; may be null.
 * @param lpCommandLine         the command line, which is not changed; may be null.
 * @param lpCurrentDirectory    the child's working directory; may be null: the caller's.
 * @param lpProcessInformation  receives the result; not null. Untouched when no child was started.
 * @return  TRUE, or FALSE. When only the thread that waits for the child cannot be started, the result is
 *          FALSE and the child runs on unwatched: hProcess is then 0 and dwProcessId is set.
 * @error EINVAL  there is neither an application name nor a token, or lpProcessInformation is null.
 * @error E2BIG  the entries do not fit VLL_ARGUMENT_LIMIT.
 * @error ENAMETOOLONG  PATH with the directory does not fit VLL_PATH_SIZE bytes.
 * @error ENOMEM  no memory is left; or as vllCreateThread() gives it, with a child that runs on.
 * @error EAGAIN  the limit of processes is reached, which is logged; or as vllCreateThread() gives it, with a
 *                child that runs on.
 * @error EMFILE, ENFILE  as vllCreateThread() gives them, with a child that runs on.
 * @error others  as clone(2) gives them, which is logged.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, but not while another one changes the environment (setenv(3)).
 */
VLL_API BOOL vllCreateProcess(LPCSTR lpApplicationName, LPCSTR lpCommandLine, LPCSTR lpCurrentDirectory,
                              PROCESS_INFORMATION *lpProcessInformation);

/**
 * Ends the calling process with exit(3).
 *
 * @param uExitCode  the exit status, of which the low 8 bits count.
 * @error none  the operation does not return.
 * @cancel  Not a cancellation point.
 * @thread  As exit(3): one thread of the process calls it, once.
 */
VLL_API void vllExitProcess(UINT uExitCode) __attribute__((noreturn));

/**
 * Returns the id of the calling process, getpid(2).
 *
 * @return  the process id.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API DWORD vllGetCurrentProcessId(void);

/**
 * Asks for the exit status of a child process with waitpid(2), without waiting for its end.
 *
 * A child that has ended is reaped by this, so its status is given once. A child that vllCreateProcess()
 * started is reaped by its own thread: for it the answer is STILL_ACTIVE while it runs, and ECHILD
 * afterwards.
 *
 * @param dwProcessId  the process id (no handle).
 * @param lpExitCode   receives the status as waitpid(2) gives it (see WIFEXITED()), or STILL_ACTIVE; not
 *                     null. Untouched when the operation fails.
 * @return  TRUE, or FALSE.
 * @error ECHILD  the process is no child of the caller, or it has ended and was reaped already; or
 *                dwProcessId is 0 or above INT_MAX.
 * @error EINVAL  lpExitCode is null.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Of several threads that ask for the end of one child, one gets the status.
 */
VLL_API BOOL vllGetExitCodeProcess(DWORD dwProcessId, LPDWORD lpExitCode);

/**
 * Ends a process: the calling one with _exit(2), any other with SIGKILL (kill(2)), without waiting for its
 * end.
 *
 * @param dwProcessId  the process id (no handle); 0 and values above INT_MAX name no process.
 * @param uExitCode    the exit status of the calling process, of which the low 8 bits count; not used for
 *                     another.
 * @return  TRUE, or FALSE. It does not return from the calling process.
 * @error ESRCH  there is no such process.
 * @error EPERM  the caller may not send signals to the process.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API BOOL vllTerminateProcess(DWORD dwProcessId, UINT uExitCode);

/**
 * Sets the scheduling of a process with sched_setscheduler(2), and for SCHED_OTHER also with setpriority(2).
 *
 * On Linux both calls set one thread: the one with the given id, which is the first thread of a process, or
 * the calling thread. When setpriority(2) fails, the policy has been set already.
 *
 * @param dwProcessId  the process id (no handle); 0 is the calling thread.
 * @param nPolicy      0 SCHED_OTHER, 1 SCHED_FIFO, 2 SCHED_RR.
 * @param nPriority    for SCHED_OTHER a nice value from -20 to 20, otherwise the real-time priority.
 * @return  TRUE, or FALSE.
 * @error EINVAL  nPolicy or nPriority is refused, or dwProcessId is above INT_MAX.
 * @error ESRCH  there is no such process.
 * @error EPERM  the caller lacks the privilege for the policy or the priority, or for this process.
 * @error EACCES  the caller lacks the privilege to lower the nice value.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllSetPriorityClass(DWORD dwProcessId, int32_t nPolicy, int32_t nPriority);

/**
 * Reads a thread's scheduling with pthread_getschedparam(3).
 *
 * @param threadId    the POSIX thread id (vllGetCurrentThreadId()) of a thread that has not ended; no handle.
 * @param lpPolicy    receives the policy; not null. Untouched when the operation fails.
 * @param lpPriority  receives the real-time priority, 0 with SCHED_OTHER; not null. Untouched when the
 *                    operation fails.
 * @return  TRUE, or FALSE.
 * @error EINVAL  lpPolicy or lpPriority is null.
 * @error ESRCH  threadId is 0.
 * @error others  as pthread_getschedparam(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. The thread must not end before the operation has returned.
 */
VLL_API BOOL vllGetThreadPriority(uintptr_t threadId, int32_t *lpPolicy, int32_t *lpPriority);

/**
 * Sets a thread's scheduling with pthread_setschedparam(3).
 *
 * @param threadId   the POSIX thread id (vllGetCurrentThreadId()) of a thread that has not ended; no handle.
 * @param nPolicy    0 SCHED_OTHER, 1 SCHED_FIFO, 2 SCHED_RR.
 * @param nPriority  the real-time priority; 0 with SCHED_OTHER.
 * @return  TRUE, or FALSE.
 * @error EINVAL  nPolicy or nPriority is refused.
 * @error ESRCH  threadId is 0.
 * @error EPERM  the caller lacks the privilege for the policy or the priority.
 * @error others  as pthread_setschedparam(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. The thread must not end before the operation has returned.
 */
VLL_API BOOL vllSetThreadPriority(uintptr_t threadId, int32_t nPolicy, int32_t nPriority);

/**
 * Sleeps with nanosleep(2) for the whole time, whatever signal handlers run meanwhile.
 *
 * @param dwMilliseconds  the time in milliseconds, up to 0x7FFFFFFF; 0 yields the processor (sched_yield(2)).
 *                        There is no infinite sleep: larger values are refused, INFINITE too.
 * @return  0, or -1.
 * @error EINVAL  dwMilliseconds is above 0x7FFFFFFF.
 * @cancel  A cancellation point while it sleeps; with 0 it is not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API int32_t vllSleep(DWORD dwMilliseconds);

/**
 * Looks a running program up by name with pidof(8), which must be on PATH. It blocks until pidof has
 * answered.
 *
 * @param lpProgramName  the name, at most 43 bytes: letters, digits and the characters . _ - + / : @ , % =
 *                       only, not beginning with '-'. Not null.
 * @return  the process id, of several the one that pidof names first; or -1. When no program of this name
 *          runs, or there is no pidof, the last error is unspecified.
 * @error EINVAL  lpProgramName is null or empty, begins with '-', or has another character; nothing is run.
 * @error ENAMETOOLONG  lpProgramName is longer than 43 bytes; nothing is run.
 * @error others  as pipe(2) and clone(2) give them.
 * @cancel  A cancellation point while it waits for the answer. The thread ends after pidof has ended.
 * @thread  Safe from any thread, but not while another one changes the environment (setenv(3)).
 */
VLL_API int32_t vllGetDaemonPID(LPCSTR lpProgramName);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_PROCESS_H */
