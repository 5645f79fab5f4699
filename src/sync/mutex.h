// Mutexes: references on them, and the functions of their row in the table of types.
#pragma once

#include "core/ref.h"
#include "vwincompat/mutex.h"

// A reference on a mutex of either kind.
using MutexRef = Ref<OBJ_MUTEX, OBJ_NAMED_MUTEX>;
using PinnedMutex = PinnedRecord<OBJ_MUTEX, OBJ_NAMED_MUTEX>;

BOOL vlliCloseMutex(ObjectRecord *record);
BOOL vlliDuplicateMutex(ObjectRecord *record, const ObjectRecord *source);
