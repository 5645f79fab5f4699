// Events, as the other modules use them.
#pragma once

#include "core/objmem.h"
#include "vwincompat/event.h"

BOOL vlliCloseEvent(ObjectRecord *record);
BOOL vlliDuplicateEvent(ObjectRecord *record, const ObjectRecord *source);
