/**
 * @file
 * Console handles: the standard streams of the process, and the terminal behind them.
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
 * Makes a console handle with a duplicate of a standard descriptor of its own. Close it with vllCloseHandle(),
 * which leaves the standard stream open. A wait on the handle returns while input is available (a line, or in
 * raw mode a character) and reads nothing.
 *
 * @param nStdHandle  0, 1 or 2.
 * @return the handle, or INVALID_HANDLE_VALUE: EINVAL, ENOMEM (no free record), EBADF (stream closed), EMFILE.
 */
VLL_API HANDLE vllGetStdHandle(DWORD nStdHandle);

/**
 * Reads the terminal's mode.
 *
 * @param lpMode  where the mode is stored.
 * @return TRUE, or FALSE: EINVAL (handle not open, null pointer), ENOTTY (no terminal); nothing is stored then.
 */
VLL_API BOOL vllGetConsoleMode(HANDLE hConsole, LPDWORD lpMode);

/**
 * Sets the terminal's mode at once; its other settings stay. The mode is the terminal's, so it holds for all
 * handles and processes that use it, and outlives the process: set it back at the end.
 *
 * @return TRUE, or FALSE: EINVAL (handle not open), ENOTTY (no terminal).
 */
VLL_API BOOL vllSetConsoleMode(HANDLE hConsole, DWORD dwMode);

/** Discards input that was received and not read. TRUE, or FALSE: EINVAL (handle not open), ENOTTY. */
VLL_API BOOL vllFlushConsoleInputBuffer(HANDLE hConsole);

/**
 * Counts the bytes (not input records) that a read would give at once. In line mode an unfinished line counts
 * as nothing.
 *
 * @param lpcNumberOfEvents  where the count is stored.
 * @return TRUE, or FALSE: EINVAL (handle not open, null pointer), ENOTTY and others of ioctl(2).
 */
VLL_API BOOL vllGetNumberOfConsoleInputEvents(HANDLE hConsole, LPDWORD lpcNumberOfEvents);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_CONSOLE_H */
