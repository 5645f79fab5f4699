// Lookups in the system's account databases, without their static storage.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "base/allocate.h"

// What the strings of an entry point into.
struct AccountText {
    HeapBlock<char> block;
    size_t size = 0;
};

// Runs a lookup of the getpwnam_r(3) family, lookup(buffer, size) -> error number, with as much room as it asks
// for, up to a megabyte: its error number, or ENOMEM.
template <typename Lookup>
int vlliLookUpAccount(AccountText *text, Lookup lookup) {
    constexpr size_t kFirstSize = 1024;
    constexpr size_t kLargestSize = size_t{1024} * 1024;
    for (size_t size = kFirstSize;; size *= 2) {
        if (size > text->size) {
            text->block.reset(static_cast<char *>(malloc(size)));
            text->size = text->block != nullptr ? size : 0;
        }
        if (text->block == nullptr) {
            return ENOMEM;
        }
        const int error = lookup(text->block.get(), text->size);
        if (error != ERANGE || size >= kLargestSize) {
            return error;
        }
    }
}
