// Freeing several heap blocks at once.

#include "base/allocate.h"

#include <cstdarg>

void vlliFreeMemory(int32_t count, ...) {
    va_list pointers;
    va_start(pointers, count);
    for (int32_t i = 0; i < count; ++i) {
        free(va_arg(pointers, void *));  // NOLINT(clang-analyzer-valist.Uninitialized): va_start() is above
    }
    va_end(pointers);
}
