/**
 * @file
 * Memory: status, allocation, pointer probes, and counters that are atomic across processes.
 *
 * Example: give each process that uses a block of shared memory a number of its own.
 *
 * @code{.c}
 * typedef struct {
 *     LONG last_number;
 *     char text[60];
 * } Block;
 *
 * // The number, from 1 on, or 0 when there is no block.
 * LONG join(Block *block) {
 *     if (vllIsBadWritePtr(block, sizeof *block)) {
 *         return 0;
 *     }
 *     return vllInterlockedIncrement(&block->last_number);
 * }
 * @endcode
 */
#ifndef VWINCOMPAT_MEMORY_H
#define VWINCOMPAT_MEMORY_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Physical memory in bytes; on a 32-bit machine the counts wrap at 4 GiB. */
typedef struct MEMORYSTATUS {
    SIZE_T dwTotalPhys; /**< what the machine has */
    SIZE_T dwAvailPhys; /**< what is not in use, the page cache counted as in use */
} MEMORYSTATUS;

/**
 * Reads the size of the physical memory with sysconf(3).
 *
 * @param lpBuffer  receives the sizes; null is ignored.
 * @error none  the operation cannot fail.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API void vllGetMemoryStatus(MEMORYSTATUS *lpBuffer);

/**
 * Allocates memory with malloc(3), to be freed with vllFreeMemory().
 *
 * @param size   the size in bytes; 0 gives a block without bytes.
 * @param bZero  not 0: all bytes are zero.
 * @return  the block, or null.
 * @error ENOMEM  no memory is left.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread.
 */
VLL_API LPVOID vllAllocateMemory(SIZE_T size, BOOL bZero);

/**
 * Changes the size of a block with realloc(3).
 *
 * @param memory  a block of the library or of malloc(3). Null: a block is allocated.
 * @param size    the new size in bytes. 0 frees a block that is not null, and gives null.
 * @return  the block, which may have moved; or null. After a failure the old block is kept.
 * @error ENOMEM  no memory is left.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread; no other thread may use the block meanwhile.
 */
VLL_API LPVOID vllReAllocateMemory(LPVOID memory, SIZE_T size);

/**
 * Frees a block with free(3).
 *
 * @param memory  a block of the library or of malloc(3); null is ignored.
 * @error none  the operation cannot fail.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread; no other thread may use the block meanwhile.
 */
VLL_API void vllFreeMemory(LPVOID memory);

/**
 * Reports whether reading some byte of a range faults, by reading each byte, lowest address first.
 *
 * Probes run one at a time in a process. During a probe the process's SIGSEGV and SIGBUS actions are the
 * library's, and the caller's other signals are blocked; both are restored before the operation returns. A
 * thread that faults elsewhere meanwhile ends the probe with TRUE; its own fault is then handled as usual.
 *
 * @param address  any value, also null.
 * @param length   the size of the range in bytes; with 0 nothing is probed.
 * @return  TRUE when a byte faulted, else FALSE.
 * @error none  the operation leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. No thread may change the actions of SIGSEGV and SIGBUS (sigaction(2))
 *          meanwhile.
 */
VLL_API BOOL vllIsBadReadPtr(LPCVOID address, SIZE_T length);

/**
 * Reports whether reading or writing some byte of a range faults, by reading each byte and writing it back.
 * Otherwise it is as vllIsBadReadPtr().
 *
 * @param address  any value, also null.
 * @param length   the size of the range in bytes; with 0 nothing is probed.
 * @return  TRUE when a byte faulted, else FALSE.
 * @error none  the operation leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread. No thread may change the actions of SIGSEGV and SIGBUS (sigaction(2))
 *          meanwhile, and nobody else may write to the range: what is written between the reading of a byte
 *          and its writing back is lost.
 */
VLL_API BOOL vllIsBadWritePtr(LPVOID address, SIZE_T length);

/**
 * Adds 1 to a counter. The counter wraps at its limits.
 *
 * The change is atomic among all threads and processes that use the two operations or the compiler's atomic
 * operations. Every call opens, acquires and closes the named mutex "InterlockingMutex" (mutex.h), which
 * takes several system calls, and blocks while another thread or process holds the mutex. Where no handle or
 * no descriptor is left for the mutex, the change is made without it and is atomic all the same.
 *
 * @param lpAddend  the counter, aligned to 4 bytes, usually in shared memory; not null.
 * @return  the new value.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API LONG vllInterlockedIncrement(volatile LONG *lpAddend);

/**
 * Subtracts 1 from a counter. Otherwise it is as vllInterlockedIncrement().
 *
 * @param lpAddend  the counter, aligned to 4 bytes, usually in shared memory; not null.
 * @return  the new value.
 * @error none  the operation cannot fail and leaves the last error alone.
 * @cancel  Not a cancellation point.
 * @thread  Safe from any thread, also on one object at once.
 */
VLL_API LONG vllInterlockedDecrement(volatile LONG *lpAddend);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_MEMORY_H */
