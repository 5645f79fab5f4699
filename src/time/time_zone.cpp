// The zone record of the current year, from the zone file (RFC 8536). Offsets and the instants of changes come from the
// file, dates and names from the C library's own conversion to local time. Full files list all changes up to 2037 in
// their first block, and nothing else is read; slim files leave that block empty.
#include "time/time_zone.h"

#include <fcntl.h>
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "base/descriptor.h"
#include "base/guards.h"
#include "time/time_convert.h"
#include "time/time_zone_rule.h"

static_assert(sizeof(off_t) == 8);
static_assert(sizeof(TIME_ZONE_INFORMATION) == 176, "record layout");
static_assert(offsetof(TIME_ZONE_INFORMATION, StandardDate) == 36 &&
                  offsetof(TIME_ZONE_INFORMATION, StandardBias) == 52 &&
                  offsetof(TIME_ZONE_INFORMATION, DaylightName) == 56 &&
                  offsetof(TIME_ZONE_INFORMATION, DaylightDate) == 88 &&
                  offsetof(TIME_ZONE_INFORMATION, DaylightBias) == 104 &&
                  offsetof(TIME_ZONE_INFORMATION, TimeZoneKeyName) == 112,
              "record layout");

namespace {

constexpr char kZoneFile[] = "/etc/localtime";

// Offsets in the header of a block of the file, and the size of a type.
constexpr size_t kVersion = 4;
constexpr size_t kCounts = 20;
constexpr size_t kTransitionCount = 32;
constexpr size_t kHeaderSize = 44;
constexpr off_t kTypeSize = 6;

// A rule is much shorter.
constexpr size_t kRuleSize = 128;

// No two instants of one year in one zone are further apart: 366 days, and zones from -24 to +26 hours.
constexpr int64_t kYearAtMost = (366 + 3) * int64_t{86400};

// A shorter file is a failure.
bool readAt(int fd, off_t offset, void *data, size_t size) {
    return vlliReadFullyAt(fd, data, size, offset) == static_cast<ssize_t>(size);
}

int64_t bigEndian(const uint8_t *bytes, size_t size) {
    int64_t value = bytes[0] < 0x80 ? 0 : -1;
    for (size_t i = 0; i < size; ++i) {
        value = value * 256 + bytes[i];
    }
    return value;
}

// One of the file's two blocks: the first has times of 4 bytes, the second, of later versions, times of 8.
struct ZoneBlock {
    int fd;
    size_t time_size;
    uint8_t version;
    uint32_t transitions;
    uint32_t used;  // of the transitions, those that count
    uint32_t types;
    off_t times;
    off_t end;  // where the second block begins, or the closing rule
};

// Reads the header of a block. False when it is none, or ends before the number of transitions.
bool readBlock(int fd, off_t start, size_t time_size, ZoneBlock *block) {
    uint8_t header[kHeaderSize] = {};
    if (vlliReadFullyAt(fd, header, sizeof header, start) < static_cast<ssize_t>(kTransitionCount + 4) ||
        memcmp(header, "TZif", 4) != 0) {
        return false;
    }
    uint32_t counts[6];  // isutcnt, isstdcnt, leapcnt, timecnt, typecnt, charcnt
    for (size_t i = 0; i < 6; ++i) {
        counts[i] = static_cast<uint32_t>(bigEndian(header + kCounts + 4 * i, 4));
    }
    block->fd = fd;
    block->time_size = time_size;
    block->version = header[kVersion];
    block->transitions = block->used = counts[3];
    block->types = counts[4];
    block->times = start + off_t{kHeaderSize};
    const auto time = static_cast<off_t>(time_size);
    block->end = block->times + (time + 1) * counts[3] + kTypeSize * counts[4] + counts[5] +
                 (time + 4) * counts[2] + counts[1] + counts[0];
    return true;
}

// The closing rule behind a block: false when there is none with daylight-saving time.
bool readRule(const ZoneBlock &block, ZoneRule *rule) {
    char text[kRuleSize];
    const ssize_t size = vlliReadFullyAt(block.fd, text, sizeof text, block.end);
    if (size < 1 || text[0] != '\n') {
        return false;
    }
    const std::string_view rest(text + 1, static_cast<size_t>(size - 1));
    const size_t end = rest.find('\n');
    return end != rest.npos && vlliParseZoneRule(rest.substr(0, end), rule);
}

// The year that holds the present, and its first two changes.
struct Year {
    time_t now;
    int local_year;  // since 1900
    int count;
    struct {
        ZoneChange change;
        tm local;  // as the clock reads after the change
    } changes[2];

    // Whether an instant lies in the year: then *local is what the clock reads. Instants that the first block could not
    // hold do not count.
    bool holds(int64_t instant, tm *local) const {
        if (instant != static_cast<int32_t>(instant) || std::abs(instant - now) > kYearAtMost) {
            return false;
        }
        const auto seconds = static_cast<time_t>(instant);
        return localtime_r(&seconds, local) != nullptr && local->tm_year == local_year;
    }

    // False when the change lies in another year.
    bool add(const ZoneChange &change) {
        changes[count].change = change;
        return holds(change.instant, &changes[count].local) && ++count != 0;
    }
};

// The first transition of the year: its index, or the number of those that count when there is none.
uint32_t findFirstOfYear(const ZoneBlock &block, const Year &year) {
    uint8_t times[1024];
    const uint32_t most = sizeof times / static_cast<uint32_t>(block.time_size);
    for (uint32_t base = 0; base < block.used;) {
        const size_t wanted = std::min(block.used - base, most) * block.time_size;
        const ssize_t got = vlliReadFullyAt(block.fd, times, wanted,
                                            block.times + static_cast<off_t>(block.time_size) * base);
        if (got < static_cast<ssize_t>(block.time_size)) {
            break;
        }
        const uint32_t count = static_cast<uint32_t>(static_cast<size_t>(got) / block.time_size);
        for (uint32_t i = 0; i < count; ++i) {
            tm local;
            if (year.holds(bigEndian(times + i * block.time_size, block.time_size), &local)) {
                return base + i;
            }
        }
        base += count;
    }
    return block.used;
}

// Reads a transition and the index of its type: false when it is incomplete.
bool readTransition(const ZoneBlock &block, uint32_t index, ZoneChange *change, uint8_t *type) {
    const auto time_size = static_cast<off_t>(block.time_size);
    const off_t type_indexes = block.times + time_size * block.transitions;
    const off_t types = type_indexes + block.transitions;
    uint8_t time[8];
    uint8_t record[kTypeSize];
    if (index >= block.transitions ||
        !readAt(block.fd, block.times + time_size * index, time, block.time_size) ||
        !readAt(block.fd, type_indexes + index, type, sizeof *type)) {
        return false;
    }
    // No valid zone file counts 0 types: then the end of the file is the only limit.
    if ((block.types != 0 && *type >= block.types) ||
        !readAt(block.fd, types + kTypeSize * *type, record, sizeof record)) {
        return false;
    }
    *change = {bigEndian(time, block.time_size), static_cast<int32_t>(bigEndian(record, 4)), record[4] != 0};
    return true;
}

// Adds the changes of the year that a rule gives after the last transition.
void addRuleChanges(const ZoneRule &rule, ZoneChange last, Year *year) {
    // The file's zone may be another than the process's, and end its years at another time.
    ZoneChange changes[6];
    ZoneChange *next = changes;
    for (int i = -1; i <= 1; ++i, next += 2) {
        vlliGetRuleChanges(rule, year->local_year + 1900 + i, next);
    }
    std::sort(std::begin(changes), std::end(changes),
              [](const ZoneChange &a, const ZoneChange &b) { return a.instant < b.instant; });
    for (size_t i = 0; i < 6 && year->count < 2; ++i) {
        const ZoneChange &change = changes[i];
        if (i < 5 && change.instant == changes[i + 1].instant) {
            ++i;  // daylight-saving time ends when it begins again
        } else if (change.instant > last.instant &&
                   (change.utc_offset != last.utc_offset || change.daylight != last.daylight)) {
            year->add(change);
            last = change;
        }
    }
}

// Finds the changes of the year in a block.
void findTransitions(const ZoneBlock &block, Year *year) {
    ZoneChange change;
    uint8_t type;
    for (uint32_t index = findFirstOfYear(block, *year); year->count < 2 && index < block.used; ++index) {
        if (!readTransition(block, index, &change, &type) || !year->add(change)) {
            return;
        }
    }
}

// Finds the changes of the year in a file whose first block is empty: those of the second block, then those of the rule.
void findLaterChanges(const ZoneBlock &first_block, Year *year) {
    ZoneBlock block;
    if (!readBlock(first_block.fd, first_block.end, 8, &block)) {
        return;
    }
    ZoneChange last = {INT64_MIN, INT32_MIN, false};
    ZoneChange before;
    uint8_t type;
    uint8_t type_before;
    const uint32_t count = block.transitions;
    const bool complete = count == 0 || readTransition(block, count - 1, &last, &type);
    // The list may end with an instant at which nothing changes but that the rule takes over.
    if (complete && count > 1 && readTransition(block, count - 2, &before, &type_before) &&
        type == type_before) {
        --block.used;
    }
    findTransitions(block, year);
    ZoneRule rule;
    if (year->count < 2 && complete && readRule(block, &rule)) {
        addRuleChanges(rule, last, year);
    }
}

// Fills date and bias of the half of the record that begins with a change.
void fillHalf(const ZoneChange &change, const tm &local, TIME_ZONE_INFORMATION *zone) {
    SYSTEMTIME *date = change.daylight ? &zone->DaylightDate : &zone->StandardDate;
    LONG *bias = change.daylight ? &zone->DaylightBias : &zone->StandardBias;
    vlliTmToSystemTime(local, date);
    date->wMilliseconds = 0;
    *bias = -(change.utc_offset / 60) - zone->Bias;
}

}  // namespace

LONG vlliReadTimeZone(int fd, time_t now, TIME_ZONE_INFORMATION *zone) {
    tm local;
    ZoneBlock block;
    if (localtime_r(&now, &local) == nullptr || !readBlock(fd, 0, 4, &block)) {
        return TIME_ZONE_ID_INVALID;
    }
    *zone = {};
    zone->Bias = static_cast<LONG>(timezone / 60);
    Year year = {};
    year.now = now;
    year.local_year = local.tm_year;
    if (block.transitions == 0 && block.version >= '2') {
        findLaterChanges(block, &year);
    } else {
        findTransitions(block, &year);
    }
    if (year.count == 0) {
        return TIME_ZONE_ID_UNKNOWN;
    }
    char *const name = year.changes[0].change.daylight ? zone->DaylightName : zone->StandardName;
    strncpy(name, year.changes[0].local.tm_zone, sizeof zone->StandardName - 1);
    if (year.count == 2) {
        for (const auto &each : year.changes) {
            fillHalf(each.change, each.local, zone);
        }
    }
    return local.tm_isdst > 0 ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
}

LONG vllGetTimeZoneInformation(TIME_ZONE_INFORMATION *lpTimeZoneInformation) {
    const NoCancel no_cancel;
    const time_t now = time(nullptr);
    if (now == -1) {
        return TIME_ZONE_ID_INVALID;
    }
    // Without O_NONBLOCK a pipe in the file's place would block the caller.
    const Fd fd(open(kZoneFile, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd) {
        return TIME_ZONE_ID_INVALID;
    }
    return vlliReadTimeZone(fd.get(), now, lpTimeZoneInformation);
}
