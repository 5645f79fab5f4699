// Any bytes as a zone file. The first four bytes are the present time.
#include <sys/mman.h>
#include <unistd.h>
#include <cstring>

#include "check.h"
#include "time/time_zone.h"

namespace {

bool isDate(const SYSTEMTIME &date) {
    return date.wMonth <= 12 && date.wDay <= 31 && date.wHour <= 23 && date.wMinute <= 59 &&
           date.wSecond <= 60 && date.wMilliseconds == 0;
}

// A file that is emptied and filled again for each input.
int zoneFile(const uint8_t *data, size_t size) {
    static const int fd = memfd_create("zone", MFD_CLOEXEC);
    VLL_CHECK(ftruncate(fd, 0) == 0);
    VLL_CHECK(pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    int32_t now = 0;
    if (size < sizeof now) {
        return 0;
    }
    memcpy(&now, data, sizeof now);
    TIME_ZONE_INFORMATION zone;
    memset(&zone, 0xA5, sizeof zone);
    const TIME_ZONE_INFORMATION untouched = zone;
    const LONG result = vlliReadTimeZone(zoneFile(data + sizeof now, size - sizeof now), now, &zone);
    VLL_CHECK(result >= TIME_ZONE_ID_INVALID && result <= TIME_ZONE_ID_DAYLIGHT);
    if (result == TIME_ZONE_ID_INVALID) {
        VLL_CHECK(memcmp(&zone, &untouched, sizeof zone) == 0);
        return 0;
    }
    VLL_CHECK(isDate(zone.StandardDate) && isDate(zone.DaylightDate));
    VLL_CHECK(zone.Reserved == 0 && zone.TimeZoneKeyName[0] == '\0');
    VLL_CHECK(zone.StandardName[31] == '\0' && zone.DaylightName[31] == '\0');
    VLL_CHECK(zone.StandardName[0] == '\0' || zone.DaylightName[0] == '\0');
    VLL_CHECK(result != TIME_ZONE_ID_UNKNOWN || (zone.StandardBias == 0 && zone.DaylightBias == 0));
    return 0;
}
