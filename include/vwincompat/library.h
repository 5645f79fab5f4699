/**
 * @file
 * Start-up, shutdown, last error and error messages.
 *
 * Every operation reports its failures through the last error, which is the calling thread's `errno`: a POSIX
 * error number such as EINVAL, not a Win32 one.
 *
 * Example: report the last error, with what was being done.
 *
 * @code{.c}
 * #include <stdio.h>
 *
 * void reportFailure(const char *operation, HANDLE handle) {
 *     char *message = NULL;
 *     int32_t error = (int32_t)vllGetLastError();
 *     if (vllFormatErrorMessage(&message, operation, error, "handle 0x%X", (unsigned)handle) != -1) {
 *         fprintf(stderr, "%s\n", message); // "vllSetEvent: Invalid argument - handle 0x10003"
 *         vllFreeMemory(message);
 *     }
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_LIBRARY_H
#define VWINCOMPAT_LIBRARY_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Starts the library. Call it once, before any other operation; further calls do nothing.
 *
 * The first call in a process prepares the handle table and sets the open-file limit (RLIMIT_NOFILE, soft and
 * hard) to 256. A limit that cannot be set stays as it is. Handles cannot be made before the first call:
 * creation then fails with ENOMEM.
 *
 * @error none  the operation reports nothing and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. No other operation may be called before the first call has returned.
 */
VLL_API void vllvwincompatMain(void);

/**
 * Ends the use of the library. Nothing is released: handles and background threads stay as they are, and a
 * later vllvwincompatMain() finds them again.
 *
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API void vllvwincompatExit(void);

/**
 * Returns the calling thread's last error: its `errno`.
 *
 * @return  a POSIX error number, or what vllSetLastError() stored.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API DWORD vllGetLastError(void);

/**
 * Sets the calling thread's last error: its `errno`.
 *
 * @param code  any value.
 * @error none  the operation cannot fail; the last error is @p code.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API void vllSetLastError(DWORD code);

/**
 * Composes the message "prefix: error text - formatted text".
 *
 * @param message  receives the address of the message, which the caller frees with vllFreeMemory(). May be
 *                 null: the message is then only measured. Untouched when the operation fails.
 * @param prefix   the text that comes first, followed by ": ". When it is null or empty, both are left out.
 * @param error    a POSIX error number, which is turned into the system's text (cut at 127 bytes).
 * @param format   a printf(3) format for what follows the " - ". May be null: the message then ends in " - ".
 * @param ...      the arguments of the format.
 * @return  the length of the message in bytes without its terminator, or -1.
 * @error ENOMEM  no memory is left.
 * @error EOVERFLOW  the message would be longer than INT32_MAX bytes.
 * @error others  as vsnprintf(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API int32_t vllFormatErrorMessage(char **message, const char *prefix, int32_t error, const char *format,
                                      ...) VLL_PRINTF(4, 5);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_LIBRARY_H */
