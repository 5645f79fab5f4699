/**
 * @file
 * Modules over the dynamic loader and the process's memory map, and the command line. A module handle is the
 * loader's own, not one of the handle table. dlerror(3) explains what the loader refuses.
 */
#ifndef VWINCOMPAT_MODULE_H
#define VWINCOMPAT_MODULE_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void *HMODULE;

/** The size that a buffer for a module's file name must have. */
#define VLL_MODULE_NAME_SIZE 4096

/** The most that vllEnumerateLoadedModules() lets a buffer hold, terminator included. */
#define VLL_MODULE_LIST_SIZE 65536

/**
 * Loads a shared object, dlopen(3) with RTLD_LAZY | RTLD_GLOBAL: once per process, with a count of its loads.
 *
 * @param lpLibFileName  a path, or a name without '/' that the loader searches for; null is the program itself.
 * @return the module, or null.
 */
VLL_API HMODULE vllLoadLibrary(LPCSTR lpLibFileName);

/** vllLoadLibrary() under its other name; takes only the file name. */
VLL_API HMODULE vllLoadLibraryEx(LPCSTR lpLibFileName);

/** Takes one load back, dlclose(3). TRUE, or FALSE: a null module gives EINVAL. */
VLL_API BOOL vllFreeLibrary(HMODULE hLibModule);

/**
 * Finds a symbol, dlsym(3).
 *
 * @param hModule     the module; null looks in the program and everything that was loaded.
 * @param lpProcName  the symbol's name; null gives null with EINVAL.
 * @return its address, or null.
 */
VLL_API LPVOID vllGetProcAddress(HMODULE hModule, LPCSTR lpProcName);

/**
 * Finds a module that is loaded already, without counting as a load: do not pass it to vllFreeLibrary().
 *
 * @param lpModuleName  as it was loaded; null is the program itself.
 * @return the module, or null when it is not loaded; nothing is ever loaded.
 */
VLL_API HMODULE vllGetModuleHandle(LPCSTR lpModuleName);

/**
 * Names the file that code comes from.
 *
 * @param lpAddress   an address in a module's code; null: the program itself.
 * @param lpFilename  receives the path; VLL_MODULE_NAME_SIZE bytes.
 * @return TRUE, or FALSE: no module's code is there (ENOENT), ENAMETOOLONG, EINVAL (null buffer), or the error
 *         of fopen(3), readlink(2) or stat(2); a program whose file was deleted has no name (ENOENT).
 */
VLL_API BOOL vllGetModuleFileName(LPCVOID lpAddress, LPSTR lpFilename);

/**
 * Returns the name under which the program was started, in a static area that the next call overwrites: one
 * thread at a time. The further arguments follow it, each after a NUL, up to 4,095 bytes or the first newline;
 * an empty argument 0 looks like the end. Null when /proc/self/cmdline cannot be read.
 */
VLL_API LPSTR vllGetCommandLine(void);

/**
 * Appends to a text one line for each code segment of each loaded shared object (".so" in its path), in
 * ascending order: "%-20s start = %08X end = %08X\r\n", with path, first address, and the address after the last.
 *
 * @param lpBuffer  a terminated string, empty at first. There is no size argument: what the list comes to is
 *                  about 100 bytes a segment, and the text never grows beyond VLL_MODULE_LIST_SIZE bytes.
 * @return TRUE, or FALSE with the text as it was: ENOBUFS (over VLL_MODULE_LIST_SIZE), EINVAL (null, or not
 *         terminated), or the error of fopen(3).
 */
VLL_API BOOL vllEnumerateLoadedModules(LPSTR lpBuffer);

/**
 * Finds where a module's code begins: eight or more hexadecimal digits, in a static area that the next call
 * overwrites (one thread at a time).
 *
 * @param lpModuleName  any part of the module's line in /proc/self/maps, such as its file name.
 * @return the digits; when no module matched the previous result, empty at first. Null: EINVAL (null name), or
 *         the error of fopen(3).
 */
VLL_API LPSTR vllGetModuleStartingAddress(LPCSTR lpModuleName);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_MODULE_H */
