// Console handles: the row of the type table.
#pragma once

#include "core/objmem.h"
#include "vwincompat/console.h"

BOOL vlliCloseConsole(ObjectRecord *record);
BOOL vlliDuplicateConsole(ObjectRecord *record, const ObjectRecord *source);
