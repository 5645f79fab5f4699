// Lookups in the system's account databases by the functions of the getpwnam_r(3) family, which use no static storage.
#pragma once

#include <cerrno>
#include <cstddef>

#include "base/allocate.h"

// The buffer that holds the strings of an entry.
struct AccountText {
    HeapBlock<char> block;
    size_t size = 0;
};

// Calls lookup(buffer, size), which returns an error number, with a larger buffer for as long as it returns ERANGE, up to
// a megabyte: the error number, or ENOMEM.
template <typename Lookup>
int vlliLookUpAccount(AccountText *text, Lookup lookup) {
    constexpr size_t kFirstSize = 1024;
    constexpr size_t kLargestSize = size_t{1024} * 1024;
    for (size_t size = kFirstSize;; size *= 2) {
        if (size > text->size) {
            text->block = vlliAllocate<char>(size);
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
