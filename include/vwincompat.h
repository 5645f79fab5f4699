/**
 * @file
 * The public interface of libvwincompat: Win32 operations, prefixed `vll`, on Linux.
 *
 * Each operation has a contract: what it does, its parameters, its result, and then
 * - `@error`, the last error after a failure: the error number, and what causes it. Several numbers with one
 *   cause share a line. "others" stands for the further errors of the system calls that are named there.
 *   "none" says that the operation cannot fail, or that it leaves the last error alone.
 * - `@cancel`, whether a thread can be cancelled (pthread_cancel(3), vllTerminateThread()) in the operation,
 *   and what then becomes of what it was doing. An operation that is a cancellation point gives back every
 *   reference, descriptor and block of memory that it holds. No operation is async-cancel-safe (pthreads(7)).
 * - `@thread`, which threads may call the operation, and what they must not do meanwhile. For a variable it
 *   says what guards it.
 * - `@since`, the version that brought it, when that is later than 1.0.
 *
 * Conventions that hold for every operation:
 * - The result says whether the operation failed, and the last error says why. The last error is the calling
 *   thread's `errno`, a POSIX error number. After a success it is unspecified unless said otherwise.
 * - A pointer must point at valid memory unless the operation says that it may be null.
 * - vllvwincompatMain() is called before any other operation.
 * - No operation is async-signal-safe (signal-safety(7)) unless it says so.
 * - Faults are logged with syslog(3) at LOG_ERR, notices at LOG_INFO. Logging does not change the last error
 *   and is not a cancellation point.
 *
 * Example: a program that lets a thread do some work and waits for it.
 *
 * @code{.c}
 * #include <stdio.h>
 *
 * uint32_t work(LPVOID text) {
 *     puts((const char *)text);
 *     return 0;
 * }
 *
 * int main(void) {
 *     HANDLE thread;
 *     vllvwincompatMain();
 *     thread = vllCreateThread(0, work, "at work", NULL, 0);
 *     if (thread == 0 || vllWaitForSingleObject(thread, INFINITE) != WAIT_OBJECT_0) {
 *         fprintf(stderr, "no work was done: error %u\n", (unsigned)vllGetLastError());
 *         return 1;
 *     }
 *     vllCloseHandle(thread);
 *     vllvwincompatExit();
 *     return 0;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_H
#define VWINCOMPAT_H

#include "vwincompat/types.h"

/* handle and object core */
#include "vwincompat/console.h"
#include "vwincompat/handle.h"
#include "vwincompat/library.h"

/* waitable objects */
#include "vwincompat/event.h"
#include "vwincompat/mutex.h"
#include "vwincompat/semaphore.h"
#include "vwincompat/timer.h"
#include "vwincompat/wait.h"

/* threads, processes, memory */
#include "vwincompat/memory.h"
#include "vwincompat/process.h"
#include "vwincompat/security.h"
#include "vwincompat/thread.h"

/* sharing */
#include "vwincompat/mapping.h"
#include "vwincompat/sharing.h"

/* files */
#include "vwincompat/asyncio.h"
#include "vwincompat/file.h"
#include "vwincompat/fileops.h"
#include "vwincompat/overlapped.h"
#include "vwincompat/path.h"

/* configuration */
#include "vwincompat/profile.h"

/* event log */
#include "vwincompat/eventlog.h"

/* time */
#include "vwincompat/datetime.h"

/* sockets, serial */
#include "vwincompat/serial.h"
#include "vwincompat/socket.h"

/* modules, services */
#include "vwincompat/module.h"
#include "vwincompat/system.h"

#endif /* VWINCOMPAT_H */
