/**
 * @file
 * Memory: status, allocation, pointer probes, and counters that are atomic across processes.
 */
#ifndef VWINCOMPAT_MEMORY_H
#define VWINCOMPAT_MEMORY_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Physical memory in bytes; on a 32-bit machine the counts wrap at 4 GiB. */
typedef struct MEMORYSTATUS {
    SIZE_T dwTotalPhys;
    SIZE_T dwAvailPhys;
} MEMORYSTATUS;

/** Fills the record; a null pointer is ignored. */
VLL_API void vllGetMemoryStatus(MEMORYSTATUS *lpBuffer);

/**
 * Allocates memory, to be freed with vllFreeMemory().
 *
 * @param size   in bytes; 0 as malloc(3) takes it.
 * @param bZero  not 0: all bytes are zero.
 * @return the memory, or null: ENOMEM.
 */
VLL_API LPVOID vllAllocateMemory(SIZE_T size, BOOL bZero);

/**
 * Changes the size of a block as realloc(3) does; null allocates one, and size 0 frees it.
 *
 * @return the block, which may have moved, or null: ENOMEM, the old block is kept.
 */
VLL_API LPVOID vllReAllocateMemory(LPVOID memory, SIZE_T size);

/** Frees a block of the library or of malloc(3); null is ignored. */
VLL_API void vllFreeMemory(LPVOID memory);

/**
 * Tells whether reading some byte of a range faults, by reading each, lowest address first. The last error is
 * unchanged.
 *
 * Probes run one at a time in a process. During a probe the process's SIGSEGV and SIGBUS actions are the
 * library's, and the caller's other signals are held back; both are restored before it returns. A thread that faults
 * elsewhere meanwhile ends the probe with TRUE and then meets its own action. Not async-signal-safe.
 *
 * @param address  any value.
 * @param length   in bytes; with 0 nothing is probed.
 * @return TRUE when a byte faulted, else FALSE.
 */
VLL_API BOOL vllIsBadReadPtr(LPCVOID address, SIZE_T length);

/**
 * The same for reading and writing: each byte is read and written back, so nobody else may write to the range
 * at that moment.
 */
VLL_API BOOL vllIsBadWritePtr(LPVOID address, SIZE_T length);

/**
 * Adds 1 to a counter, atomic among all threads and processes that use these two operations (and the
 * compiler's atomic operations), through the named mutex "InterlockingMutex": several system calls each. It wraps at
 * its limits. The last error is unchanged. Blocks while another thread is inside; not a cancellation point.
 *
 * @param lpAddend  an aligned counter, usually in shared memory.
 * @return the new value.
 */
VLL_API LONG vllInterlockedIncrement(volatile LONG *lpAddend);

/** Subtracts 1, in the same way. */
VLL_API LONG vllInterlockedDecrement(volatile LONG *lpAddend);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_MEMORY_H */
