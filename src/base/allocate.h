// Heap blocks. They come from malloc(3): some are handed to callers who free them, and no exception may leave the
// library.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

struct FreeDeleter {
    void operator()(void *block) const { free(block); }
};

// A block that is freed at the end of its scope.
template <typename T>
using HeapBlock = std::unique_ptr<T, FreeDeleter>;

// Allocates an uninitialised block for count objects of a trivial type: null with ENOMEM when there is none.
template <typename T>
HeapBlock<T> vlliAllocate(size_t count = 1) {
    size_t size;
    void *block = __builtin_mul_overflow(count, sizeof(T), &size) ? nullptr : malloc(size);
    if (block == nullptr) {
        errno = ENOMEM;
    }
    return HeapBlock<T>(static_cast<T *>(block));
}

// Copies a string to the heap: null with ENOMEM when there is no memory.
inline HeapBlock<char> vlliCopyString(const char *text) {
    const size_t size = strlen(text) + 1;
    HeapBlock<char> copy = vlliAllocate<char>(size);
    if (copy != nullptr) {
        memcpy(copy.get(), text, size);
    }
    return copy;
}

// Frees each of count pointers that is not null.
void vlliFreeMemory(int32_t count, ...);
