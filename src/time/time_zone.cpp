// The zone record of the current year, from the first block of the zone file (RFC 8536). Offsets and the instants of
// changes come from the file, dates and names from the C library's own conversion to local time.
#include "time/time_zone.h"

#include <endian.h>
#include <fcntl.h>
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/descriptor.h"
#include "base/guards.h"
#include "time/time_convert.h"

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

// Offsets in the file.
constexpr off_t kTransitionCount = 32;
constexpr off_t kTypeCount = 36;
constexpr off_t kTransitions = 44;
constexpr off_t kTypeSize = 6;

// No two instants of one year in one zone are further apart: 366 days, and zones from -24 to +26 hours.
constexpr int64_t kYearAtMost = (366 + 3) * int64_t{86400};

// A shorter file is a failure.
bool readAt(int fd, off_t offset, void *data, size_t size) {
    return vlliReadFullyAt(fd, data, size, offset) == static_cast<ssize_t>(size);
}

bool readCount(int fd, off_t offset, uint32_t *count) {
    if (!readAt(fd, offset, count, sizeof *count)) {
        return false;
    }
    *count = be32toh(*count);
    return true;
}

struct ZoneFile {
    int fd;
    uint32_t transitions;
    uint32_t types;
};

// A change of the year that holds the present.
struct Transition {
    tm local;  // as the clock reads after the change
    int32_t utc_offset;
    bool daylight;
};

bool inSameYear(int32_t instant, time_t now, int local_year, tm *local) {
    if (std::abs(static_cast<int64_t>(instant) - now) > kYearAtMost) {
        return false;
    }
    const time_t seconds = instant;
    return localtime_r(&seconds, local) != nullptr && local->tm_year == local_year;
}

// The first transition of the year: its index, or the number of transitions when there is none.
uint32_t findFirstOfYear(const ZoneFile &file, time_t now, int local_year) {
    int32_t times[256];
    for (uint32_t base = 0; base < file.transitions;) {
        const uint32_t wanted = std::min<uint32_t>(file.transitions - base, sizeof times / sizeof times[0]);
        const ssize_t got =
            vlliReadFullyAt(file.fd, times, wanted * sizeof times[0], kTransitions + off_t{4} * base);
        if (got < static_cast<ssize_t>(sizeof times[0])) {
            break;
        }
        const uint32_t count = static_cast<uint32_t>(got) / sizeof times[0];
        for (uint32_t i = 0; i < count; ++i) {
            tm local;
            const int32_t instant = static_cast<int32_t>(be32toh(static_cast<uint32_t>(times[i])));
            if (inSameYear(instant, now, local_year, &local)) {
                return base + i;
            }
        }
        base += count;
    }
    return file.transitions;
}

// Reads a transition: false when it is incomplete, or not one of this year.
bool readTransition(const ZoneFile &file, uint32_t index, time_t now, int local_year,
                    Transition *transition) {
    if (index >= file.transitions) {
        return false;
    }
    const off_t type_indexes = kTransitions + off_t{4} * file.transitions;
    const off_t types = type_indexes + file.transitions;
    uint32_t instant = 0;
    uint8_t type = 0;
    uint8_t record[kTypeSize] = {};
    if (!readAt(file.fd, kTransitions + off_t{4} * index, &instant, sizeof instant) ||
        !inSameYear(static_cast<int32_t>(be32toh(instant)), now, local_year, &transition->local) ||
        !readAt(file.fd, type_indexes + index, &type, sizeof type)) {
        return false;
    }
    // No valid zone file counts 0 types: then the end of the file is the only limit.
    if ((file.types != 0 && type >= file.types) ||
        !readAt(file.fd, types + kTypeSize * type, record, sizeof record)) {
        return false;
    }
    uint32_t utc_offset = 0;
    memcpy(&utc_offset, record, sizeof utc_offset);
    transition->utc_offset = static_cast<int32_t>(be32toh(utc_offset));
    transition->daylight = record[4] != 0;
    return true;
}

// Fills date and bias of the half of the record that begins with the transition.
void fillHalf(const Transition &transition, TIME_ZONE_INFORMATION *zone) {
    SYSTEMTIME *date = transition.daylight ? &zone->DaylightDate : &zone->StandardDate;
    LONG *bias = transition.daylight ? &zone->DaylightBias : &zone->StandardBias;
    vlliTmToSystemTime(transition.local, date);
    date->wMilliseconds = 0;
    *bias = -(transition.utc_offset / 60) - zone->Bias;
}

void fillName(const Transition &transition, TIME_ZONE_INFORMATION *zone) {
    char *name = transition.daylight ? zone->DaylightName : zone->StandardName;
    strncpy(name, transition.local.tm_zone, sizeof zone->StandardName - 1);
}

}  // namespace

LONG vlliReadTimeZone(int fd, time_t now, TIME_ZONE_INFORMATION *zone) {
    tm local;
    char magic[4];
    ZoneFile file = {fd, 0, 0};
    if (localtime_r(&now, &local) == nullptr || !readAt(fd, 0, magic, sizeof magic) ||
        memcmp(magic, "TZif", sizeof magic) != 0 || !readCount(fd, kTransitionCount, &file.transitions)) {
        return TIME_ZONE_ID_INVALID;
    }
    if (!readCount(fd, kTypeCount, &file.types)) {
        file.transitions = 0;
    }
    *zone = {};
    zone->Bias = static_cast<LONG>(timezone / 60);

    const uint32_t first = findFirstOfYear(file, now, local.tm_year);
    Transition transition;
    if (!readTransition(file, first, now, local.tm_year, &transition)) {
        return TIME_ZONE_ID_UNKNOWN;
    }
    fillHalf(transition, zone);
    fillName(transition, zone);
    if (readTransition(file, first + 1, now, local.tm_year, &transition)) {
        fillHalf(transition, zone);
    } else {
        zone->StandardDate = {};
        zone->DaylightDate = {};
        zone->StandardBias = 0;
        zone->DaylightBias = 0;
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
