// The free lists of the tables. Records are taken from the head and given back at the tail, so that an index is used
// again as late as possible. All of it needs objMemMutex.
#pragma once

#include "core/objmem.h"

template <typename Record>
void chainRecords(Record *records, uint32_t last) {
    for (uint32_t i = 0; i < last; ++i) {
        records[i].next = i + 1;
    }
    records[last].next = kNoNext;
}

// Takes a record off a list that is not empty: zeroed, with one reference.
template <typename Record>
uint32_t popFree(Record *records, uint32_t *first, uint32_t *last) {
    const uint32_t index = *first;
    *first = records[index].next;
    if (*first == kNoNext) {
        *last = kNoNext;
    }
    records[index] = Record{};
    records[index].refCount = 1;
    return index;
}

template <typename Record>
void appendFree(Record *records, uint32_t *first, uint32_t *last, uint32_t index) {
    records[index].next = kNoNext;
    if (*last == kNoNext) {
        *first = index;
    } else {
        records[*last].next = index;
    }
    *last = index;
}
