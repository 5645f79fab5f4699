// The pool of memory-object records, as the handle table uses it.
#pragma once

#include "core/objmem.h"

// Empties the pool. Needs objMemMutex.
void vlliInitObjmemPool();

// True when no record is free. Needs objMemMutex.
bool vlliIsObjmemPoolEmpty();

// Takes a record out of the pool, which is not empty. Needs objMemMutex.
ObjmemRecord *vlliTakeObjmem();

// Returns the records of closed mutexes whose owners have ended or released them since. Takes objMemMutex.
void vlliReclaimObjmem();
