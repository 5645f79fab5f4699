/**
 * @file
 * Modules over the dynamic loader and the process's memory map, and the command line. A module handle is the
 * loader's own, not one of the handle table. dlerror(3) explains what the loader refuses.
 *
 * Example: call a function of a plug-in.
 *
 * @code{.c}
 * BOOL startPlugIn(LPCSTR file) {
 *     union { LPVOID address; int (*start)(void); } symbol; // C has no cast from one to the other
 *     BOOL started = FALSE;
 *     HMODULE module = vllLoadLibrary(file);
 *     if (module == NULL) {
 *         return FALSE; // dlerror(3) has the reason
 *     }
 *     symbol.address = vllGetProcAddress(module, "startPlugIn");
 *     if (symbol.address != NULL) {
 *         started = symbol.start() == 0;
 *     }
 *     if (!started) {
 *         vllFreeLibrary(module);
 *     }
 *     return started;
 * }
 * @endcode
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
 * Loads a shared object with dlopen(3) and RTLD_LAZY | RTLD_GLOBAL: once per process, with a count of its
 * loads. Its initialisers run in the calling thread.
 *
 * @param lpLibFileName  a path, or a name without '/' that the loader searches for. Null is the program
 *                       itself.
 * @return  the module, or null.
 * @error others  as the loader left them; dlerror(3) has the reason.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HMODULE vllLoadLibrary(LPCSTR lpLibFileName);

/**
 * Loads a shared object: vllLoadLibrary() under its other name, which takes only the file name.
 *
 * @param lpLibFileName  a path, or a name without '/' that the loader searches for. Null is the program
 *                       itself.
 * @return  the module, or null.
 * @error others  as the loader left them; dlerror(3) has the reason.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HMODULE vllLoadLibraryEx(LPCSTR lpLibFileName);

/**
 * Takes one load of a module back with dlclose(3). With the last one its finalisers run in the calling
 * thread, and its code may not be used any more.
 *
 * @param hLibModule  the module; not null.
 * @return  TRUE, or FALSE.
 * @error EINVAL  the module is null.
 * @error others  as the loader left them; dlerror(3) has the reason.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllFreeLibrary(HMODULE hLibModule);

/**
 * Finds a symbol with dlsym(3).
 *
 * @param hModule     the module. Null looks in the program and everything that was loaded with it or by
 *                    vllLoadLibrary().
 * @param lpProcName  the symbol's name; not null.
 * @return  its address, or null.
 * @error EINVAL  the name is null.
 * @error others  as the loader left them; dlerror(3) has the reason.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API LPVOID vllGetProcAddress(HMODULE hModule, LPCSTR lpProcName);

/**
 * Finds a module that is loaded already, without counting as a load: do not pass it to vllFreeLibrary().
 * Nothing is ever loaded.
 *
 * @param lpModuleName  the name as it was loaded. Null is the program itself.
 * @return  the module, or null when it is not loaded.
 * @error others  as the loader left them; dlerror(3) has the reason.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API HMODULE vllGetModuleHandle(LPCSTR lpModuleName);

/**
 * Names the file that code comes from, without " (deleted)" where it was replaced since.
 *
 * @param lpAddress   an address in a module's code. Null is the program itself.
 * @param lpFilename  receives the path; VLL_MODULE_NAME_SIZE bytes; not null. Untouched when the operation
 *                    fails.
 * @return  TRUE, or FALSE.
 * @error EINVAL  lpFilename is null.
 * @error ENOENT  no module's code is at the address, or the program's file was deleted.
 * @error ENAMETOOLONG  the path has VLL_MODULE_NAME_SIZE bytes or more.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as fopen(3) gives them for /proc/self/maps; for the program itself, as readlink(2) and
 *                stat(2) give them.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API BOOL vllGetModuleFileName(LPCVOID lpAddress, LPSTR lpFilename);

/**
 * Returns the name under which the program was started, in a static area that the next call overwrites.
 *
 * The further arguments follow it, each after a NUL, up to 4,095 bytes or the first newline; an empty
 * argument 0 looks like the end.
 *
 * @return  the name, or null when /proc/self/cmdline cannot be read or is empty.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as fopen(3) and fgets(3) give them.
 * @cancel  Not a cancellation point.
 * @thread  One thread at a time, until it has used the result.
 */
VLL_API LPSTR vllGetCommandLine(void);

/**
 * Appends to a text one line for each code segment of each loaded shared object (".so" in its path), in
 * ascending order: `%-20s start = %08X end = %08X\r\n`, with path, first address, and the address after the
 * last.
 *
 * @param lpBuffer  a terminated string, empty at first; not null. There is no size argument: the list comes
 *                  to about 100 bytes a segment, and the text never grows beyond VLL_MODULE_LIST_SIZE bytes,
 *                  terminator included.
 * @return  TRUE, or FALSE with the text as it was.
 * @error EINVAL  the buffer is null, or has no terminator in its first VLL_MODULE_LIST_SIZE bytes.
 * @error ENOBUFS  the text would grow beyond VLL_MODULE_LIST_SIZE bytes.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as fopen(3) gives them for /proc/self/maps.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. A buffer is used by one thread at a time.
 */
VLL_API BOOL vllEnumerateLoadedModules(LPSTR lpBuffer);

/**
 * Finds where a module's code begins. The result stands in a static area that the next call overwrites.
 *
 * @param lpModuleName  any part of the module's line in /proc/self/maps, such as its file name; not null.
 * @return  the address as eight or more hexadecimal digits; when no module matched, the previous result,
 *          which is empty at first. Null after a failure.
 * @error EINVAL  the name is null.
 * @error EMFILE, ENFILE  no descriptor is left.
 * @error others  as fopen(3) gives them for /proc/self/maps.
 * @cancel  Not a cancellation point.
 * @thread  One thread at a time, until it has used the result.
 */
VLL_API LPSTR vllGetModuleStartingAddress(LPCSTR lpModuleName);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_MODULE_H */
