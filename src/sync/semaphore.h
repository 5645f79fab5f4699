// Semaphores: references on them, their initialiser, and the functions of their row in the table of types.
#pragma once

#include <semaphore.h>

#include "core/ref.h"
#include "vwincompat/semaphore.h"

// A reference on a semaphore of either kind.
using SemaphoreRef = Ref<OBJ_SEMAPHORE, OBJ_NAMED_SEMAPHORE>;
using PinnedSemaphore = PinnedRecord<OBJ_SEMAPHORE, OBJ_NAMED_SEMAPHORE>;

// Makes a process-shared semaphore: TRUE, or FALSE with errno.
BOOL vlliInitSemaphore(sem_t *semaphore, uint32_t count);

BOOL vlliCloseSemaphore(ObjectRecord *record);
BOOL vlliDuplicateSemaphore(ObjectRecord *record, const ObjectRecord *source);
