/**
 * @file
 * Serial ports: purging, modem lines, and waiting for events.
 *
 * A serial port is a file: its handle is the descriptor. Waiting for events uses the caller's overlapped
 * record, one per port, set to zero before its first use.
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
 * (PURGE_TXCLEAR): one of them per call, the received first.
 *
 * @return TRUE, or FALSE: EINVAL (neither flag), or the error of isatty(3) (ENOTTY, EBADF).
 */
VLL_API BOOL vllPurgeComm(int32_t hFile, DWORD dwFlags);

/**
 * Reads the modem lines.
 *
 * @param lpModemStat  receives the MS_... values of the active lines; untouched on failure.
 * @return TRUE, or FALSE: EINVAL (null pointer), or the error of ioctl(2) TIOCMGET.
 */
VLL_API BOOL vllGetCommModemStatus(int32_t hFile, LPDWORD lpModemStat);

/**
 * Raises or drops DTR or RTS.
 *
 * @return TRUE, or FALSE: EINVAL (a function that is none), or the error of ioctl(2) TIOCMBIS or TIOCMBIC.
 */
VLL_API BOOL vllEscapeCommFunction(int32_t hFile, DWORD dwFunc);

/**
 * Sets the events to wait for; the first mask also starts the watchers that it needs, and 0 stops them.
 *
 * The record's `event` must be set before. A mask without EV_RXCHAR, or without modem events, starts no
 * watcher for them; later masks do not start one either: stop with 0 and set anew. EV_RXCHAR, once watched
 * for, is reported whatever later masks say. Stopping signals the event, so that a pending wait ends with the
 * events 0, drops DTR, takes at least 100 ms, and returns when both watchers are gone.
 *
 * @param hFile       the port; only the first mask's counts.
 * @param dwEvtMask   EV_... values, or 0.
 * @param overlapped  the port's record; it, its event and the variable given to vllWaitCommEvent() stay
 *                    valid until the watchers are stopped.
 * @return TRUE, or FALSE: EINVAL (null record), or the watchers could not be started (ENOMEM, EMFILE, EAGAIN): stop
 *         with 0 then, which also gives FALSE, before trying again; or one had ended before it was stopped
 *         (ESRCH). What was started is given back in every case.
 */
VLL_API BOOL vllSetCommMask(int32_t hFile, DWORD dwEvtMask, OverlappedRecord *overlapped);

/**
 * Waits for the next event in the overlapped way.
 *
 * When events have occurred since the last call (the record's event is signalled), it resets the event and
 * succeeds; the variable of the earlier call holds them. Otherwise it arms the watchers and the caller waits
 * on the record's event.
 *
 * Data that are there, and changes of the modem lines from this moment on, are events; earlier changes are not: read
 * the lines after arming. A watcher that was armed stays so until its event has come, also when the other one has ended
 * the wait before. So EV_RXCHAR may be reported once more for data that were read meanwhile: read without blocking.
 * Modem events need a driver that counts (TIOCGICOUNT) and waits (TIOCMIWAIT).
 *
 * @param hFile      not used.
 * @param lpEvtMask  set to 0, then receives EV_... values when they occur.
 * @return TRUE, or FALSE: EINPROGRESS while none has occurred; EINVAL for a null argument or a record without
 *         a mask.
 */
VLL_API BOOL vllWaitCommEvent(int32_t hFile, uint32_t *lpEvtMask, OverlappedRecord *overlapped);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SERIAL_H */
