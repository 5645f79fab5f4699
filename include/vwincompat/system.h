/**
 * @file
 * System services: power, locale, names, expansion, system information, beeps, numbers as text.
 */
#ifndef VWINCOMPAT_SYSTEM_H
#define VWINCOMPAT_SYSTEM_H

#include <sys/utsname.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** What vllGetLocaleInfo() can be asked for. */
#define VLL_LOCALE_DATE_FORMAT 1U /**< the locale's date format, as strftime(3) takes it */
#define VLL_LOCALE_TIME_FORMAT 2U /**< the locale's time format */

/**
 * Switches the machine off at once, or reboots it. Both take the privilege to do so.
 *
 * @param uFlags  0: reboot(2) with RB_POWER_OFF. Nothing is stopped or written back first: sync(2) before.
 *                Any other value runs /sbin/reboot and waits for it (cancellable).
 * @return TRUE when the action was started, or FALSE: EPERM, the error of system(3), ENOENT (/sbin/reboot cannot
 *         be run), EIO (it failed).
 */
VLL_API BOOL vllExitWindowsEx(UINT uFlags);

/**
 * Starts the command shutdown (searched for along PATH), which stops the machine one minute from now. It is a
 * child of the caller, which is not waited for; whether the command could be run shows in its exit status only
 * (an error number). A caller that lives on reaps it with waitpid(2).
 *
 * @param bRebootAfterShutdown  not 0: shutdown -r +1; 0: shutdown -h +1.
 * @return TRUE when the child was made, or FALSE: EAGAIN, ENOMEM.
 */
VLL_API BOOL vllInitiateSystemShutdown(BOOL bRebootAfterShutdown);

/**
 * Copies a text of the current locale.
 *
 * @param dwCode    VLL_LOCALE_DATE_FORMAT or VLL_LOCALE_TIME_FORMAT.
 * @param lpBuffer  receives the text; may be null with size 0.
 * @param dwSize    bytes in the buffer; 0 asks for the size needed.
 * @return the length without the terminator; with size 0 the size needed, terminator included; 0: ENOBUFS (buffer
 *         too small), EINVAL (other code, null buffer).
 */
VLL_API DWORD vllGetLocaleInfo(DWORD dwCode, LPSTR lpBuffer, DWORD dwSize);

/**
 * Formats a date and time with strftime(3).
 *
 * @param lpFormat  a strftime format, not a Win32 date picture.
 * @param lpDate    what to format, as it is; milliseconds are not used, and the day of the year and the zone are
 *                  those of the present. Null: the present local time.
 * @return the length without the terminator; 0: ENOBUFS (buffer too small, or the text is empty), EINVAL (null
 *         buffer or format), EOVERFLOW (the clock cannot be broken down).
 */
VLL_API DWORD vllGetDateFormat(LPSTR lpBuffer, DWORD dwSize, LPCSTR lpFormat, const SYSTEMTIME *lpDate);

/**
 * Sets the locale of the whole process, setlocale(3) with LC_ALL. Not while other threads use the locale.
 *
 * @param lpLocale  such as "C" or "de_DE.UTF-8"; "" takes it from the environment.
 * @return TRUE, or FALSE: EINVAL (no such locale, null).
 */
VLL_API BOOL vllSetLocale(LPCSTR lpLocale);

/**
 * Copies the host name.
 *
 * @param lpnSize  in: bytes in the buffer; out, on success: the length without the terminator.
 * @return TRUE, or FALSE: ENOBUFS (buffer too small; what is in it is undefined), EINVAL (null pointer).
 */
VLL_API BOOL vllGetComputerName(LPSTR lpBuffer, LPDWORD lpnSize);

/**
 * Copies the name of the user that the process runs as (its real user id), or USER from the environment when the
 * password database does not know the user.
 *
 * @param lpnSize  in: bytes in the buffer; out, on success: the length without the terminator.
 * @return TRUE, or FALSE: ENOBUFS (buffer too small), ENOENT (no name), EINVAL (null pointer).
 */
VLL_API BOOL vllGetUserName(LPSTR lpBuffer, LPDWORD lpnSize);

/**
 * Expands a string as the shell expands words, wordexp(3): $NAME and ${NAME}, ~, arithmetic, $(command), quote
 * removal; the words are joined by single blanks. %NAME% is left alone. COMMANDS IN THE STRING ARE RUN: never
 * pass text from outside. (The name is spelled so.)
 *
 * @param lpSrc     the string.
 * @param lpBuffer  receives the result; may be null with size 0.
 * @param dwSize    bytes in the buffer.
 * @return the length without the terminator; 0 for a string without words, which leaves an empty buffer. When the
 *         buffer is too small: the size needed, terminator included, with ENOBUFS and nothing written. 0 with
 *         ENOMEM, or EINVAL (syntax, character not allowed, null pointer). To tell an empty result from a
 *         failure, clear the last error before the call.
 */
VLL_API DWORD vllExpandEnvironmnentStrings(LPCSTR lpSrc, LPSTR lpBuffer, DWORD dwSize);

/** Describes the system, uname(2). TRUE, or FALSE: EINVAL (null pointer). */
VLL_API BOOL vllGetSystemInfo(struct utsname *lpSystemInfo);

/**
 * Sounds a tone on the console speaker (/dev/tty10) and returns when it is over: the duration and 25 ms more
 * (cancellable).
 *
 * @param dwFreq      hertz; its low 16 bits are taken, as a signed number.
 * @param dwDuration  milliseconds, likewise.
 * @return TRUE, or FALSE: EINVAL (0 Hz), the error of open(2) or ioctl(2), which is logged.
 */
VLL_API BOOL vllBeep(DWORD dwFreq, DWORD dwDuration);

/** vllBeep() with 700 Hz and 125 ms; the type is not used. */
VLL_API BOOL vllMessageBeep(UINT uType);

/**
 * Writes a number in a radix, with digits 0-9a-z. Radix 10 shows the sign; any other takes the value as
 * unsigned: -1 in radix 16 is ffffffff.
 *
 * @param lpBuffer  receives at most 33 bytes (radix 2: 32 digits and the terminator).
 * @param nRadix    2 to 36.
 * @return the buffer, or null with EINVAL and nothing written.
 */
VLL_API LPSTR vllitoa(int32_t nValue, LPSTR lpBuffer, int32_t nRadix);

/** vllitoa() for unsigned numbers. */
VLL_API LPSTR vllultoa(uint32_t nValue, LPSTR lpBuffer, int32_t nRadix);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SYSTEM_H */
