// The hash that finds the record of a mapped view by its address. A record must leave its chain before it is freed,
// because the free list uses the same link.

#include <cstring>

#include "core/objmem.h"

namespace {

struct HashState {
    uint32_t a, b, c;
};

void mix(HashState *s) {
    s->a = (s->a - s->b - s->c) ^ (s->c >> 13);
    s->b = (s->b - s->c - s->a) ^ (s->a << 8);
    s->c = (s->c - s->a - s->b) ^ (s->b >> 13);
    s->a = (s->a - s->b - s->c) ^ (s->c >> 12);
    s->b = (s->b - s->c - s->a) ^ (s->a << 16);
    s->c = (s->c - s->a - s->b) ^ (s->b >> 5);
    s->a = (s->a - s->b - s->c) ^ (s->c >> 3);
    s->b = (s->b - s->c - s->a) ^ (s->a << 10);
    s->c = (s->c - s->a - s->b) ^ (s->b >> 15);
}

// Loads up to four bytes in little-endian order, also on a big-endian machine.
uint32_t load(const uint8_t *bytes, uint32_t count) {
    uint32_t word = 0;
    for (uint32_t i = 0; i < count && i < 4; ++i) {
        word |= uint32_t{bytes[i]} << (8 * i);
    }
    return word;
}

uint32_t bucketOf(const void *address) {
    uint8_t bytes[sizeof address];
    memcpy(bytes, &address, sizeof address);
    return vlliHash(bytes, sizeof bytes, 1) & (kMmapBuckets - 1);
}

}  // namespace

uint32_t vlliHash(const void *key, uint32_t length, uint32_t initial_value) {
    constexpr uint32_t kGoldenRatio = 0x9e3779b9;
    const auto *bytes = static_cast<const uint8_t *>(key);
    HashState s = {kGoldenRatio, kGoldenRatio, initial_value};
    uint32_t left = length;
    for (; left >= 12; left -= 12, bytes += 12) {
        s.a += load(bytes, 4);
        s.b += load(bytes + 4, 4);
        s.c += load(bytes + 8, 4);
        mix(&s);
    }
    // The algorithm keeps the lowest byte of c for the length.
    s.c += length;
    s.a += load(bytes, left);
    s.b += left > 4 ? load(bytes + 4, left - 4) : 0;
    s.c += left > 8 ? load(bytes + 8, left - 8) << 8 : 0;
    mix(&s);
    return s.c;
}

int vlliHashMMap(HANDLE handle) {
    ObjectRecord *record = vlliGetObjectAddress(handle);
    HANDLE *bucket = &mmapHashTable[bucketOf(record->addr)];
    const TableLock lock;
    if (!lock.held()) {
        return lock.error();
    }
    record->next = *bucket;
    *bucket = handle;
    return 0;
}

HANDLE vlliUnhashMMapp(const void *address) {
    HANDLE *link = &mmapHashTable[bucketOf(address)];
    const TableLock lock;
    if (!lock.held()) {
        return 0;
    }
    while (*link != 0) {
        ObjectRecord *record = vlliGetObjectAddress(*link);
        if (record->addr == address) {
            const HANDLE handle = *link;
            *link = record->next;
            return handle;
        }
        link = &record->next;
    }
    return 0;
}
