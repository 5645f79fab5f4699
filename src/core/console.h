// Console handles: the functions of their row in the table of types.
#pragma once

#include "core/objmem.h"
#include "vwincompat/console.h"

BOOL vlliCloseConsole(ObjectRecord *record);
BOOL vlliDuplicateConsole(ObjectRecord *record, const ObjectRecord *source);
