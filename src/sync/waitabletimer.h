// Waitable timers: the functions of their row in the table of types.
#pragma once

#include "core/objmem.h"
#include "vwincompat/timer.h"

BOOL vlliCloseWaitableTimer(ObjectRecord *record);
BOOL vlliDuplicateWaitableTimer(ObjectRecord *record, const ObjectRecord *source);
