/**
 * @file
 * Console handles: the standard streams of the process, and the terminal behind them.
 *
 * The operations do not look at the handle's type: the terminal calls refuse what is no terminal.
 *
 * Example: read a password without showing it.
 *
 * @code{.c}
 * #include <unistd.h>
 *
 * ssize_t readHidden(char *text, size_t size) {
 *     DWORD mode;
 *     ssize_t length = -1;
 *     HANDLE console = vllGetStdHandle(STD_INPUT_HANDLE);
 *     if (console == INVALID_HANDLE_VALUE) {
 *         return -1;
 *     }
 *     if (vllGetConsoleMode(console, &mode) && vllSetConsoleMode(console, mode & ~ENABLE_ECHO_INPUT)) {
 *         length = read(STDIN_FILENO, text, size);
 *         vllSetConsoleMode(console, mode);
 *     }
 *     vllCloseHandle(console);
 *     return length;
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_CONSOLE_H
#define VWINCOMPAT_CONSOLE_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The standard streams, by their descriptors: not the Win32 values -10 to -12. */
#define STD_INPUT_HANDLE 0U
#define STD_OUTPUT_HANDLE 1U
#define STD_ERROR_HANDLE 2U

/** Console modes, by the terminal flag that carries each (termios(3)). No other mode bit has a meaning. */
#define ENABLE_LINE_INPUT 0x1U      /**< ICANON: input comes a line at a time */
#define ENABLE_ECHO_INPUT 0x2U      /**< ECHO: what is typed is shown */
#define ENABLE_PROCESSED_INPUT 0x4U /**< ISIG: interrupt, quit and suspend characters raise signals */

/**
 * Makes a console handle, which holds its own duplicate of a standard descriptor. The caller closes it with
 * vllCloseHandle(), which leaves the standard stream open. A wait on the handle returns while input is
 * available (a line, or in raw mode a character) and reads nothing.
 *
 * @param nStdHandle  STD_INPUT_HANDLE, STD_OUTPUT_HANDLE or STD_ERROR_HANDLE.
 * @return  the handle, or INVALID_HANDLE_VALUE.
 * @error EINVAL  nStdHandle is none of the three.
 * @error EBADF  the standard stream is closed.
 * @error ENOMEM  no record of the handle table is left, or vllvwincompatMain() was not called.
 * @error EMFILE  no descriptor is left.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HANDLE vllGetStdHandle(DWORD nStdHandle);

/**
 * Reads the terminal's mode with tcgetattr(3).
 *
 * @param hConsole  the console handle.
 * @param lpMode    receives the mode, a sum of the ENABLE_ bits; not null. Untouched when the operation
 *                  fails.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hConsole is not open, or lpMode is null.
 * @error ENOTTY  the stream is no terminal.
 * @error EBADF  hConsole is a handle of an unnamed mutex or semaphore.
 * @error others  as tcgetattr(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllGetConsoleMode(HANDLE hConsole, LPDWORD lpMode);

/**
 * Sets the terminal's mode at once with tcsetattr(3); its other settings stay. The mode is the terminal's, so
 * it holds for all handles and processes that use it, and outlives the process: set it back at the end. A
 * process in the background is stopped by SIGTTOU, as tcsetattr(3) has it.
 *
 * @param hConsole  the console handle.
 * @param dwMode    the mode, a sum of the ENABLE_ bits; other bits are ignored.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hConsole is not open.
 * @error ENOTTY  the stream is no terminal.
 * @error EBADF  hConsole is a handle of an unnamed mutex or semaphore.
 * @error others  as tcgetattr(3) and tcsetattr(3) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. The mode is read, changed and set: when two threads or processes do so at
 *          once, one change can be lost.
 */
VLL_API BOOL vllSetConsoleMode(HANDLE hConsole, DWORD dwMode);

/**
 * Discards the input that was received and not read, with tcflush(3). A process in the background is stopped
 * by SIGTTOU, as tcflush(3) has it.
 *
 * @param hConsole  the console handle.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hConsole is not open.
 * @error ENOTTY  the stream is no terminal.
 * @error EBADF  hConsole is a handle of an unnamed mutex or semaphore.
 * @error others  as tcflush(3) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllFlushConsoleInputBuffer(HANDLE hConsole);

/**
 * Counts the bytes (not input records) that a read would give at once, with the FIONREAD request of ioctl(2).
 * In line mode an unfinished line counts as nothing. A stream that is a pipe, a socket or a regular file has
 * a count, too.
 *
 * @param hConsole           the console handle.
 * @param lpcNumberOfEvents  receives the count; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  hConsole is not open, or lpcNumberOfEvents is null.
 * @error ENOTTY  the stream has no such count, as with /dev/null.
 * @error EBADF  hConsole is a handle of an unnamed mutex or semaphore.
 * @error others  as ioctl(2) gives them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API BOOL vllGetNumberOfConsoleInputEvents(HANDLE hConsole, LPDWORD lpcNumberOfEvents);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_CONSOLE_H */
