/**
 * @file
 * Start-up, shutdown, last error and error messages.
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
 * The first call in a process prepares the handle table and sets the open-file limit (RLIMIT_NOFILE, soft
 * and hard) to 256. Handles cannot be made before it: creation then fails with ENOMEM.
 */
VLL_API void vllvwincompatMain(void);

/**
 * Ends the use of the library. Nothing is released: handles and background threads stay as they are, and
 * a later vllvwincompatMain() finds them again.
 */
VLL_API void vllvwincompatExit(void);

/** Returns the calling thread's last error: its `errno`. */
VLL_API DWORD vllGetLastError(void);

/** Sets the calling thread's last error (`errno`) to @p code. */
VLL_API void vllSetLastError(DWORD code);

/**
 * Composes "prefix: error text - formatted text".
 *
 * @param message  where the address of the message is stored; the caller frees it with vllFreeMemory(). May be
 *                 null: the message is then only measured. Untouched when the operation fails.
 * @param prefix   text that comes first, followed by ": "; nothing of it appears when null or empty.
 * @param error    a POSIX error number, turned into the system's text (cut at 127 bytes).
 * @param format   a printf(3) format for what follows the " - ", or null: the message then ends in " - ".
 * @return the length of the message in bytes without its terminator, or -1: ENOMEM, or what vsnprintf(3) set.
 */
VLL_API int32_t vllFormatErrorMessage(char **message, const char *prefix, int32_t error, const char *format,
                                      ...) VLL_PRINTF(4, 5);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_LIBRARY_H */
