/**
 * @file
 * Serial ports: purging, modem lines, and waiting for events.
 *
 * A serial port is a file: its handle is the descriptor. Waiting for events uses the caller's overlapped
 * record, one per port, set to zero before its first use.
 *
 * Example: wait for input without a time limit, and read it.
 *
 * @code{.c}
 * // The record was set to zero before its first use. The port is open for reading without blocking.
 * BOOL readPort(int32_t port, OverlappedRecord *record, char *buffer, DWORD size, DWORD *count) {
 *     uint32_t events;
 *     BOOL done = FALSE;
 *     record->event = vllCreateEvent(TRUE, FALSE, NULL);
 *     if (record->event == 0) {
 *         return FALSE;
 *     }
 *     if (vllSetCommMask(port, EV_RXCHAR, record)) {
 *         done = (vllWaitCommEvent(port, &events, record) || vllGetOverlappedResult(record, NULL, TRUE)) &&
 *                vllReadFile((HANDLE)port, buffer, size, count, NULL);
 *     }
 *     vllSetCommMask(port, 0, record); // gives back what was started, also after a failure
 *     vllCloseHandle(record->event);
 *     return done;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_SERIAL_H
#define VWINCOMPAT_SERIAL_H

#include "vwincompat/overlapped.h"
#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** What vllPurgeComm() discards. The values are the library's own. */
enum { PURGE_RXCLEAR = 1, PURGE_TXCLEAR = 2 };

/** Lines that are active, as vllGetCommModemStatus() reports them. */
enum { MS_CTS_ON = 0x10, MS_DSR_ON = 0x20, MS_RING_ON = 0x40, MS_RLSD_ON = 0x80 };

/** Functions of vllEscapeCommFunction(). The values are the library's own. */
enum { CLRDTR = 1, CLRRTS = 2, SETDTR = 4, SETRTS = 8 };

/** Events of a serial port. */
enum { EV_RXCHAR = 0x1, EV_CTS = 0x8, EV_DSR = 0x10, EV_RLSD = 0x20, EV_RING = 0x100 };

/**
 * Discards received data that nobody has read (PURGE_RXCLEAR), or else written data that are not sent
 * (PURGE_TXCLEAR), with tcflush(3): one of them per call, the received first.
 *
 * @param hFile    the port.
 * @param dwFlags  PURGE_RXCLEAR or PURGE_TXCLEAR.
 * @return  TRUE, or FALSE.
 * @error EINVAL  neither flag is given.
 * @error EBADF  hFile is no open descriptor.
 * @error ENOTTY  the descriptor is no terminal.
 * @error others  as isatty(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllPurgeComm(int32_t hFile, DWORD dwFlags);

/**
 * Reads the modem lines (ioctl_tty(2), TIOCMGET).
 *
 * @param hFile        the port.
 * @param lpModemStat  receives the MS_... values of the active lines; not null. Untouched when the operation
 *                     fails.
 * @return  TRUE, or FALSE.
 * @error EINVAL  lpModemStat is null.
 * @error EBADF  hFile is no open descriptor.
 * @error ENOTTY  the descriptor is no terminal, or one without modem lines.
 * @error others  as ioctl(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllGetCommModemStatus(int32_t hFile, LPDWORD lpModemStat);

/**
 * Raises or drops DTR or RTS (ioctl_tty(2), TIOCMBIS and TIOCMBIC).
 *
 * @param hFile   the port.
 * @param dwFunc  CLRDTR, CLRRTS, SETDTR or SETRTS.
 * @return  TRUE, or FALSE.
 * @error EINVAL  there is no such function.
 * @error EBADF  hFile is no open descriptor.
 * @error ENOTTY  the descriptor is no terminal, or one without modem lines.
 * @error others  as ioctl(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllEscapeCommFunction(int32_t hFile, DWORD dwFunc);

/**
 * Sets the events to wait for; the first mask also starts the watchers that it needs, and 0 stops them.
 *
 * The record's `event` must be set before. A mask without EV_RXCHAR, or without modem events, starts no
 * watcher for them; later masks do not start one either: stop with 0 and set anew. EV_RXCHAR, once watched
 * for, is reported whatever later masks say. Stopping signals the event, so that a pending wait ends with the
 * events 0, drops DTR, takes at least 100 ms, and returns when both watchers are gone. Nothing is reported
 * any more while a record is being stopped. The event stays signalled: the first vllWaitCommEvent() of the
 * next mask reports the events 0 for it, unless it was reset.
 *
 * The watchers run with all signals blocked. A child process of fork(2) has none: stopping the record there
 * fails with ESRCH, gives everything back, and signals the event that parent and child share.
 *
 * @param hFile       the port; only the first mask's counts.
 * @param dwEvtMask   EV_... values, or 0.
 * @param overlapped  the port's record; not null. It, its event and the variable given to vllWaitCommEvent()
 *                    stay valid until the watchers are stopped.
 * @return  TRUE, or FALSE. When the watchers could not be started, stop with 0 before trying again: that,
 *          too, gives FALSE, with the last error unchanged. A stop gives everything back in every case.
 * @error EINVAL  the record is null.
 * @error ENOMEM, EMFILE, ENFILE  a watcher cannot be started: no record of the handle table, or no
 *                descriptor, is left.
 * @error EAGAIN  a watcher cannot be started: the system has no thread left.
 * @error ESRCH  a watcher had ended before it was stopped, or is the parent's.
 * @error others  as vllCreateEvent() and vllCreateThread() give them.
 * @cancel  Not a cancellation point.
 * @thread  One thread at a time for one record; another may be in vllWaitCommEvent() meanwhile.
 */
VLL_API BOOL vllSetCommMask(int32_t hFile, DWORD dwEvtMask, OverlappedRecord *overlapped);

/**
 * Begins to wait for the next event, in the overlapped way: it does not block.
 *
 * When events have occurred since the last call (the record's event is signalled), it resets the event and
 * succeeds; the variable of the earlier call holds them. When there was no earlier call since the watchers
 * were started, it sets the variable to 0. Otherwise it arms the watchers, and the caller waits on the
 * record's event.
 *
 * While another thread stops the record, it succeeds for the event that the stop signals, and arms nothing.
 *
 * Data that are there, and changes of the modem lines from this moment on, are events; earlier changes are
 * not: read the lines after arming. A watcher that was armed stays so until its event has come, also when the
 * other one has ended the wait before. So EV_RXCHAR may be reported once more for data that were read
 * meanwhile: read without blocking. Modem events need a driver that counts (TIOCGICOUNT) and waits
 * (TIOCMIWAIT).
 *
 * @param hFile       not used.
 * @param lpEvtMask   set to 0 when the watchers are armed, then receives EV_... values when they occur; not
 *                    null.
 * @param overlapped  the port's record, with a mask in force; not null.
 * @return  TRUE, or FALSE.
 * @error EINPROGRESS  no event has occurred; the watchers are armed.
 * @error EINVAL  an argument is null, the record has no mask or is being stopped, or its event is not open.
 * @cancel  Not a cancellation point.
 * @thread  One thread at a time for one record; another may be in vllSetCommMask() meanwhile.
 */
VLL_API BOOL vllWaitCommEvent(int32_t hFile, uint32_t *lpEvtMask, OverlappedRecord *overlapped);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SERIAL_H */
