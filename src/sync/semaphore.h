// Semaphores, as the other modules use them. Not named semaphore.h, which is the C library's.
#pragma once

#include <semaphore.h>

#include "core/objmem.h"
#include "vwincompat/semaphore.h"

// Makes a process-shared semaphore: TRUE, or FALSE with errno.
BOOL vlliInitSemaphore(sem_t *semaphore, uint32_t count);

BOOL vlliCloseSemaphore(ObjectRecord *record);
BOOL vlliDuplicateSemaphore(ObjectRecord *record, const ObjectRecord *source);
