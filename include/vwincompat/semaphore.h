/**
 * @file
 * Semaphores: unnamed, or shared by name among processes.
 *
 * vllWaitForSingleObject() takes one unit. There is no maximum count; a program that needs an upper bound keeps
 * it itself. A named semaphore exists while some process holds a handle of it (mapping.h tells about names).
 */
#ifndef VWINCOMPAT_SEMAPHORE_H
#define VWINCOMPAT_SEMAPHORE_H

#include "vwincompat/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Makes a semaphore, or opens the named one that exists.
 *
 * @param lInitialCount  0 to SEM_VALUE_MAX. Ignored when the named one exists.
 * @param lpName         as in vllCreateMutex().
 * @return as vllCreateMutex() does; also EINVAL for a count out of range.
 */
VLL_API HANDLE vllCreateSemaphore(LONG lInitialCount, LPCSTR lpName);

/**
 * Adds one unit to a semaphore. Never blocks.
 *
 * @return TRUE, or FALSE: EINVAL (no open handle of a semaphore), EOVERFLOW (the count is at SEM_VALUE_MAX).
 */
VLL_API BOOL vllReleaseSemaphore(HANDLE hSemaphore);

#ifdef __cplusplus
}
#endif

#endif /* VWINCOMPAT_SEMAPHORE_H */
