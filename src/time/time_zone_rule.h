// The rule that closes a zone file: a POSIX TZ string (RFC 8536) for the changes after the last one that is listed.
#pragma once

#include <cstdint>
#include <string_view>

// A change of the zone's offset.
struct ZoneChange {
    int64_t instant;     // seconds since 1970, UTC
    int32_t utc_offset;  // seconds east of UTC after the change
    bool daylight;       // whether daylight-saving time holds after it
};

// One day of every year, and a time of day there.
struct YearlyMoment {
    enum { kDayOfYear, kDayOfYearWithoutLeapDay, kWeekday } kind;
    int day;          // from 0 with a leap day, from 1 without; or the weekday from 0, Sunday
    int month, week;  // of a weekday: 1 to 12, 1 to 5 (the last)
    int32_t seconds;  // from 00:00 on the clock before the change
};

struct ZoneRule {
    int32_t standard_offset, daylight_offset;  // seconds east of UTC
    YearlyMoment daylight_start, daylight_end;
};

// Reads a rule: false for a text that is none, or one without daylight-saving time.
bool vlliParseZoneRule(std::string_view text, ZoneRule *rule);

// Stores the two changes of a year: to daylight-saving time, then to standard time. Either may be the earlier one.
void vlliGetRuleChanges(const ZoneRule &rule, int year, ZoneChange *changes);
