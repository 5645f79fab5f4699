// The free lists of the two tables. A record is taken from the head and returned at the tail, so that an index is
// used again as late as possible. The callers hold objMemMutex.
#pragma once

#include "core/objmem.h"

// Chains the records 0 to last.
template <typename Record>
void vlliChainFree(Record *records, uint32_t last) {
    for (uint32_t i = 0; i < last; ++i) {
        records[i].next = i + 1;
    }
    records[last].next = kNoNext;
}

// Takes the index at the head of a list that is not empty. The record is zeroed and has one reference.
template <typename Record>
uint32_t vlliTakeFree(Record *records, uint32_t *first, uint32_t *last) {
    const uint32_t index = *first;
    *first = records[index].next;
    if (*first == kNoNext) {
        *last = kNoNext;
    }
    records[index] = Record{};
    records[index].refCount = 1;
    return index;
}

// Returns an index at the tail of a list.
template <typename Record>
void vlliReturnFree(Record *records, uint32_t *first, uint32_t *last, uint32_t index) {
    records[index].next = kNoNext;
    if (*last == kNoNext) {
        *first = index;
    } else {
        records[*last].next = index;
    }
    *last = index;
}
