// The one table of object types. A module adds itself by filling its row.
#pragma once

#include <cstdint>

#include "core/objmem.h"

struct ObjectType {
    uint32_t code;
    bool hasObjmem;  // comes with a memory-object record
    // Called without the table lock when the last reference goes, with a record that nobody else can reach.
    BOOL (*close)(ObjectRecord *record);
    // Fills a new record from a source; on failure returns FALSE with errno and the new record is closed.
    BOOL (*duplicate)(ObjectRecord *record, const ObjectRecord *source);
};

// The row of a type code, or null.
const ObjectType *vlliFindObjectType(uint32_t code);
