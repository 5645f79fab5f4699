/**
 * @file
 * The public interface of libvwincompat: Win32 operations, prefixed `vll`, on Linux.
 *
 * Conventions that hold for every operation:
 * - A failure is told by the result and explained by the last error, which is the calling thread's
 *   `errno` (a POSIX error number). After a success the last error is unspecified unless said otherwise.
 * - A pointer must point at valid memory unless the operation says that it may be null.
 * - Every operation may be called by any thread at any time after vllvwincompatMain(), also for the same
 *   object, unless it says otherwise. None is async-signal-safe unless it says so.
 * - Faults are logged with syslog(3) at LOG_ERR, notices at LOG_INFO.
 * - A thread may be cancelled (pthread_cancel(3), vllTerminateThread()) inside the blocking operations; they
 *   give back whatever they hold. The others are not cancellation points.
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
