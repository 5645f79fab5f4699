// The zone record, from a zone file.
#pragma once

#include <ctime>

#include "vwincompat/datetime.h"

// Fills the record from the zone file (TZif) open at fd, as vllGetTimeZoneInformation() would at the moment now.
LONG vlliReadTimeZone(int fd, time_t now, TIME_ZONE_INFORMATION *zone);
