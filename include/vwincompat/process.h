/**
 * @file
 * Processes, scheduling and sleeping. Process operations take Linux process ids, thread scheduling operations
 * POSIX thread ids, and scheduling values are those of Linux.
 */
#ifndef VWINCOMPAT_PROCESS_H
#define VWINCOMPAT_PROCESS_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** What vllCreateProcess() tells about the process that it started. */
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
 * Starts a program in a child process, fork(2) and execve(2), and a thread that waits for it.
 *
 * The argument vector is the application name, if there is one, followed by the tokens of the command line.
 * So with both, the first token of the command line becomes argument 1. Tokens are separated by white space; a
 * token may stand in double quotes, which are not part of it ("" is an empty argument). There is no escape
 * character. A quote in the middle of a token does not end that token: x"a b" gives the entries x"a b and a b.
 *
 * The program is the application name, or else entry 0. A name that begins with '/' is run as it is; any other
 * is searched for along PATH as execvp(3) does. With a current directory the child changes to it first, and its
 * PATH ends with it: PATH, ':', the directory.
 *
 * The child inherits all descriptors that are not close-on-exec, the environment and the signal mask; signals
 * that have a handler here are at their default there. Of the caller's memory the child uses nothing that
 * another thread could have left locked: the operation is safe in a process with many threads.
 *
 * hProcess is signalled when the process has ended or was stopped by a signal; close it with vllCloseHandle().
 * A process that ends is reaped at once, so no zombie remains; one that was stopped is not watched any further:
 * ask vllGetExitCodeProcess() for its end. The record is not used after the call.
 *
 * When the directory or the program cannot be used the call has succeeded already: the child logs
 * "vllCreateProcess() - chdir() FAILED, ..." or "vllCreateProcess() - exec() FAILED, ..." and ends with the
 * error number as its status.
 *
 * @param lpApplicationName    the program; may be null.
 * @param lpCommandLine        the command line, which is not changed; may be null.
 * @param lpCurrentDirectory   the child's working directory; may be null: the caller's.
 * @param lpProcessInformation where the result is stored.
 * @return TRUE, or FALSE: EINVAL (neither an application name nor a token, null record), E2BIG (more than
 *         VLL_ARGUMENT_LIMIT entries), ENAMETOOLONG (PATH over VLL_PATH_SIZE bytes), ENOMEM, or the error of
 *         fork(2), which is logged. The record is then untouched. When only the waiting thread cannot be
 *         started the process runs on unwatched: FALSE with the error of vllCreateThread(), hProcess 0 and
 *         dwProcessId set.
 */
VLL_API BOOL vllCreateProcess(LPCSTR lpApplicationName, LPCSTR lpCommandLine, LPCSTR lpCurrentDirectory,
                              PROCESS_INFORMATION *lpProcessInformation);

/** Ends the calling process as exit(3) does. */
VLL_API void vllExitProcess(UINT uExitCode) __attribute__((noreturn));

/** Returns the id of the calling process, getpid(2). */
VLL_API DWORD vllGetCurrentProcessId(void);

/**
 * Asks for the end of a child process, without waiting. A child that has ended is reaped by this, so the
 * answer is given once; one that vllCreateProcess() started is reaped by its own thread, so for it the
 * answer is STILL_ACTIVE while it runs and ECHILD afterwards.
 *
 * @param dwProcessId  the process id (no handle).
 * @param lpExitCode   where the status is stored as waitpid(2) gives it (see WIFEXITED()), or STILL_ACTIVE.
 * @return TRUE, or FALSE: ECHILD (no child of the caller, ended and reaped already), EINVAL (null pointer).
 */
VLL_API BOOL vllGetExitCodeProcess(DWORD dwProcessId, LPDWORD lpExitCode);

/**
 * Ends a process: the calling one with _exit(2), any other with SIGKILL.
 *
 * @param dwProcessId  the process id (no handle); 0 and values above INT_MAX name no process.
 * @param uExitCode    the exit status of the calling process; not used for another.
 * @return TRUE, or FALSE: ESRCH (no such process), EPERM.
 */
VLL_API BOOL vllTerminateProcess(DWORD dwProcessId, UINT uExitCode);

/**
 * Sets the scheduling of a process, sched_setscheduler(2) and setpriority(2).
 *
 * @param dwProcessId  the process id; 0 is the calling process.
 * @param nPolicy      0 SCHED_OTHER, 1 SCHED_FIFO, 2 SCHED_RR.
 * @param nPriority    for SCHED_OTHER a nice value from -20 to 20, else the real-time priority.
 * @return TRUE, or FALSE: EINVAL (policy or priority refused), EPERM, EACCES, ESRCH.
 */
VLL_API BOOL vllSetPriorityClass(DWORD dwProcessId, int32_t nPolicy, int32_t nPriority);

/**
 * Reads a thread's scheduling, pthread_getschedparam(3).
 *
 * @param threadId    a POSIX thread id (vllGetCurrentThreadId()) of a live thread; no handle.
 * @param lpPolicy    where the policy is stored.
 * @param lpPriority  where the real-time priority is stored; 0 with SCHED_OTHER.
 * @return TRUE, or FALSE: ESRCH, EINVAL (null pointer); nothing is stored then.
 */
VLL_API BOOL vllGetThreadPriority(uintptr_t threadId, int32_t *lpPolicy, int32_t *lpPriority);

/**
 * Sets a thread's scheduling, pthread_setschedparam(3).
 *
 * @param threadId   a POSIX thread id of a live thread; no handle.
 * @param nPolicy    0 SCHED_OTHER, 1 SCHED_FIFO, 2 SCHED_RR.
 * @param nPriority  the real-time priority; 0 with SCHED_OTHER.
 * @return TRUE, or FALSE: EINVAL, EPERM, ESRCH.
 */
VLL_API BOOL vllSetThreadPriority(uintptr_t threadId, int32_t nPolicy, int32_t nPriority);

/**
 * Sleeps, through signals, for the whole time; the thread may be cancelled in it. 0 yields the processor.
 *
 * @param dwMilliseconds  1 to 0x7FFFFFFF; there is no infinite sleep: larger values are refused, INFINITE too.
 * @return 0, or -1: EINVAL.
 */
VLL_API int32_t vllSleep(DWORD dwMilliseconds);

/**
 * Looks a running program up by name with pidof(8), which must be on PATH. Waits for its answer; the thread
 * may be cancelled meanwhile.
 *
 * @param lpProgramName  at most 43 bytes: letters, digits and the characters . _ - + / : @ , % = only, not
 *                       beginning with '-'. Any other name is refused and nothing is run.
 * @return the process id, of several the one that pidof names first; -1 when there is none, or with EINVAL,
 *         ENAMETOOLONG, or the error of popen(3).
 */
VLL_API int32_t vllGetDaemonPID(LPCSTR lpProgramName);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_PROCESS_H */
