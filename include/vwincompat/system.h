/**
 * @file
 * System services: power, locale, names, expansion, system information, beeps, numbers as text.
 *
 * Example: the name of a report, such as "unit1-2026-11-16".
 *
 * @code{.c}
 * DWORD makeReportName(char *buffer, DWORD size) {
 *     DWORD length = size;
 *     if (!vllGetComputerName(buffer, &length)) {
 *         return 0; // vllGetLastError() has the reason
 *     }
 *     return vllGetDateFormat(buffer + length, size - length, "-%Y-%m-%d", NULL);
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_SYSTEM_H
#define VWINCOMPAT_SYSTEM_H

#include <sys/utsname.h>

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** What vllGetLocaleInfo() can return. */
#define VLL_LOCALE_DATE_FORMAT 1U /**< the locale's date format, as strftime(3) takes it */
#define VLL_LOCALE_TIME_FORMAT 2U /**< the locale's time format */

/**
 * Switches the machine off at once with reboot(2) and RB_POWER_OFF, or reboots it by running /sbin/reboot
 * in a shell, as system(3) does, for which it waits. Both take the privilege to do so.
 *
 * When it switches off, nothing is stopped or written back first: call sync(2) before. Where the outcome of
 * /sbin/reboot cannot be read, since the process ignores SIGCHLD, the reboot counts as started.
 *
 * @param uFlags  0 switches off; any other value reboots.
 * @return  TRUE when the action was started, or FALSE.
 * @error EPERM  the caller is not privileged to switch off (CAP_SYS_BOOT).
 * @error ENOENT  /sbin/reboot cannot be run.
 * @error EIO  /sbin/reboot failed.
 * @error others  as reboot(2), clone(2) and, for the shell, execve(2) give them.
 * @cancel  A cancellation point while it waits for /sbin/reboot: the shell that runs it is killed. Otherwise
 *          it is not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllExitWindowsEx(UINT uFlags);

/**
 * Starts the command shutdown (searched for along PATH), which stops the machine one minute from now.
 *
 * The command is a child of the caller, which is not waited for; whether it could be run shows in its exit
 * status only (an error number). A caller that lives on reaps it with waitpid(2).
 *
 * @param bRebootAfterShutdown  0 runs "shutdown -h +1"; any other value runs "shutdown -r +1".
 * @return  TRUE when the child was made, or FALSE.
 * @error EAGAIN, ENOMEM  a child cannot be made.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, but not while another one changes the environment (setenv(3)).
 */
VLL_API BOOL vllInitiateSystemShutdown(BOOL bRebootAfterShutdown);

/**
 * Copies a text of the current locale (nl_langinfo(3)).
 *
 * @param dwCode    VLL_LOCALE_DATE_FORMAT or VLL_LOCALE_TIME_FORMAT.
 * @param lpBuffer  receives the text with its terminator. May be null when the size is 0.
 * @param dwSize    the buffer's size in bytes; 0 asks for the size that is needed.
 * @return  the length without the terminator; with size 0 the size that is needed, terminator included; 0
 *          after a failure.
 * @error EINVAL  there is no such code, or the buffer is null although its size is not 0.
 * @error ENOBUFS  the buffer is too small; it is untouched.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, but not while another one sets the locale (vllSetLocale()).
 */
VLL_API DWORD vllGetLocaleInfo(DWORD dwCode, LPSTR lpBuffer, DWORD dwSize);

/**
 * Formats a date and time with strftime(3).
 *
 * @param lpBuffer  receives the text with its terminator; not null. What it holds after ENOBUFS is undefined.
 * @param dwSize    the buffer's size in bytes.
 * @param lpFormat  a format of strftime(3), not a Win32 date picture; not null.
 * @param lpDate    what to format, as it is; milliseconds are not used, and the day of the year and the zone
 *                  are those of the present. Null is the present local time.
 * @return  the length without the terminator; 0 after a failure.
 * @error EINVAL  the buffer or the format is null.
 * @error ENOBUFS  the buffer is too small, or the text is empty.
 * @error EOVERFLOW  the clock is past what the system's time_t or the calendar holds.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, but not while another one sets the locale (vllSetLocale()).
 */
VLL_API DWORD vllGetDateFormat(LPSTR lpBuffer, DWORD dwSize, LPCSTR lpFormat, const SYSTEMTIME *lpDate);

/**
 * Sets the locale of the whole process, setlocale(3) with LC_ALL.
 *
 * @param lpLocale  a name such as "C" or "de_DE.UTF-8"; "" takes it from the environment; not null.
 * @return  TRUE, or FALSE with the locale unchanged.
 * @error EINVAL  there is no such locale, it cannot be loaded, or the name is null.
 * @cancel  Not a cancellation point.
 * @thread  Not while other threads use the locale.
 */
VLL_API BOOL vllSetLocale(LPCSTR lpLocale);

/**
 * Copies the host name (gethostname(2)).
 *
 * @param lpBuffer  receives the name with its terminator; not null. What it holds after ENOBUFS is undefined.
 * @param lpnSize   in: the buffer's size in bytes; out, on success: the length without the terminator; not
 *                  null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  an argument is null.
 * @error ENOBUFS  the buffer is too small.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllGetComputerName(LPSTR lpBuffer, LPDWORD lpnSize);

/**
 * Copies the name of the user that the process runs as (its real user id), or USER from the environment when
 * the password database does not know the user.
 *
 * @param lpBuffer  receives the name with its terminator; not null. Untouched when the operation fails.
 * @param lpnSize   in: the buffer's size in bytes; out, on success: the length without the terminator; not
 *                  null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  an argument is null.
 * @error ENOBUFS  the buffer is too small.
 * @error ENOENT  the user has no name.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, but not while another one changes the environment (setenv(3)).
 */
VLL_API BOOL vllGetUserName(LPSTR lpBuffer, LPDWORD lpnSize);

/**
 * Expands a string as the shell expands words, with wordexp(3): $NAME and ${NAME}, ~, arithmetic, $(command),
 * quote removal; the words are joined by single blanks. %NAME% is left alone. (The name of the operation is
 * spelled so.)
 *
 * COMMANDS IN THE STRING ARE RUN, and the operation waits for them: never pass text from outside.
 *
 * @param lpSrc     the string; not null.
 * @param lpBuffer  receives the result with its terminator. May be null when the size is 0.
 * @param dwSize    the buffer's size in bytes.
 * @return  the length without the terminator; 0 for a string without words, which leaves an empty buffer; the
 *          size that is needed, terminator included, when the buffer is too small; 0 after another failure. A
 *          success leaves the last error alone: to tell an empty result from a failure, clear it before the
 *          call.
 * @error EINVAL  the string has a syntax error or a character that is not allowed, it is null, or the buffer
 *                is null although its size is not 0.
 * @error ENOBUFS  the buffer is too small; it is untouched.
 * @error ENOMEM  there is no memory for the words.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, but not while another one changes the environment (setenv(3)).
 */
VLL_API DWORD vllExpandEnvironmnentStrings(LPCSTR lpSrc, LPSTR lpBuffer, DWORD dwSize);

/**
 * Describes the system, with uname(2).
 *
 * @param lpSystemInfo  receives the description; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  lpSystemInfo is null.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API BOOL vllGetSystemInfo(struct utsname *lpSystemInfo);

/**
 * Sounds a tone on the console speaker (/dev/tty10) and returns when it is over: after the duration and 25 ms
 * more.
 *
 * Faults of the console are logged.
 *
 * @param dwFreq      the frequency in hertz, 19 to 32767: its low 16 bits are taken, as a signed number.
 * @param dwDuration  the duration in milliseconds, 0 to 32767: its low 16 bits are taken, as a signed number.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the low 16 bits of the frequency are 0.
 * @error EPERM, EACCES  the caller may not use the console.
 * @error ENOENT, ENXIO  there is no console.
 * @error others  as open(2) and ioctl(2) give them.
 * @cancel  A cancellation point while it waits for the end of the tone: the console is closed, and the tone
 *          goes on.
 * @thread  Safe from any thread. A further tone replaces the one before.
 */
VLL_API BOOL vllBeep(DWORD dwFreq, DWORD dwDuration);

/**
 * Sounds a tone of 700 Hz and 125 ms, as vllBeep() does.
 *
 * @param uType  not used.
 * @return  TRUE, or FALSE.
 * @error EPERM, EACCES  the caller may not use the console.
 * @error ENOENT, ENXIO  there is no console.
 * @error others  as open(2) and ioctl(2) give them.
 * @cancel  A cancellation point while it waits for the end of the tone: the console is closed, and the tone
 *          goes on.
 * @thread  Safe from any thread. A further tone replaces the one before.
 */
VLL_API BOOL vllMessageBeep(UINT uType);

/**
 * Writes a number in a radix, with digits 0-9a-z. Radix 10 shows the sign; any other takes the value as
 * unsigned: -1 in radix 16 is ffffffff.
 *
 * @param nValue    the number.
 * @param lpBuffer  receives the text with its terminator, at most 33 bytes (radix 2: 32 digits and the
 *                  terminator); not null. Untouched when the operation fails.
 * @param nRadix    2 to 36.
 * @return  the buffer, or null.
 * @error EINVAL  the buffer is null, or there is no such radix.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API LPSTR vllitoa(int32_t nValue, LPSTR lpBuffer, int32_t nRadix);

/**
 * Writes an unsigned number in a radix, as vllitoa() does.
 *
 * @param nValue    the number.
 * @param lpBuffer  receives the text with its terminator, at most 33 bytes (radix 2: 32 digits and the
 *                  terminator); not null. Untouched when the operation fails.
 * @param nRadix    2 to 36.
 * @return  the buffer, or null.
 * @error EINVAL  the buffer is null, or there is no such radix.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. Async-signal-safe.
 */
VLL_API LPSTR vllultoa(uint32_t nValue, LPSTR lpBuffer, int32_t nRadix);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SYSTEM_H */
