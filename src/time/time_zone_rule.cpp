// Reading and applying the closing rule of a zone file, such as "CET-1CEST,M3.5.0,M10.5.0/3".
#include "time/time_zone_rule.h"

namespace {

constexpr int32_t kHour = 3600;
constexpr int32_t kDay = 24 * kHour;
constexpr int kMostOffsetHours = 24;
constexpr int kMostTimeHours = 167;
constexpr int kFirstWeekday = 4;  // 1970 began on a Thursday

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isLetter(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Takes a rule apart from left to right. Every operation is false when its part is not there.
class RuleReader {
  public:
    explicit RuleReader(std::string_view text) : rest_(text) {}

    bool atEnd() const { return rest_.empty(); }

    bool take(char c) {
        if (rest_.empty() || rest_[0] != c) {
            return false;
        }
        rest_.remove_prefix(1);
        return true;
    }

    // Letters, or anything in angle brackets. What a zone is called does not matter here.
    bool skipName() {
        size_t length = 0;
        if (take('<')) {
            length = rest_.find('>');
            if (length == rest_.npos) {
                return false;
            }
            rest_.remove_prefix(length + 1);
            return true;
        }
        while (length < rest_.size() && isLetter(rest_[length])) {
            ++length;
        }
        rest_.remove_prefix(length);
        return length != 0;
    }

    bool takeNumber(int least, int most, int *number) {
        *number = 0;
        size_t length = 0;
        while (length < rest_.size() && length < 3 && isDigit(rest_[length])) {
            *number = *number * 10 + (rest_[length] - '0');
            ++length;
        }
        rest_.remove_prefix(length);
        return length != 0 && *number >= least && *number <= most;
    }

    // [+|-]hh[:mm[:ss]]
    bool takeTime(int most_hours, int32_t *seconds) {
        const bool negative = take('-');
        if (!negative) {
            take('+');
        }
        int part;
        if (!takeNumber(0, most_hours, &part)) {
            return false;
        }
        *seconds = part * kHour;
        for (int32_t unit = 60; unit >= 1 && take(':'); unit /= 60) {
            if (!takeNumber(0, 59, &part)) {
                return false;
            }
            *seconds += part * unit;
        }
        *seconds = negative ? -*seconds : *seconds;
        return true;
    }

    // Jn, n, or Mm.w.d; then, unless it is 02:00, the time behind a slash.
    bool takeMoment(YearlyMoment *moment) {
        *moment = {YearlyMoment::kDayOfYear, 0, 0, 0, 2 * kHour};
        bool taken;
        if (take('M')) {
            moment->kind = YearlyMoment::kWeekday;
            taken = takeNumber(1, 12, &moment->month) && take('.') && takeNumber(1, 5, &moment->week) &&
                    take('.') && takeNumber(0, 6, &moment->day);
        } else if (take('J')) {
            moment->kind = YearlyMoment::kDayOfYearWithoutLeapDay;
            taken = takeNumber(1, 365, &moment->day);
        } else {
            taken = takeNumber(0, 365, &moment->day);
        }
        return taken && (!take('/') || takeTime(kMostTimeHours, &moment->seconds));
    }

  private:
    std::string_view rest_;
};

bool isLeapYear(int year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

// Days from 1970-01-01 to the first day of a year.
int64_t daysBeforeYear(int year) {
    const int64_t past = int64_t{year} - 1;
    return past * 365 + past / 4 - past / 100 + past / 400 - 719162;
}

// Days from the first day of the year to the first day of a month.
int daysBeforeMonth(int year, int month) {
    static constexpr int kDays[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};
    return kDays[month - 1] + (month > 2 && isLeapYear(year) ? 1 : 0);
}

int dayOfYear(const YearlyMoment &moment, int year) {
    if (moment.kind == YearlyMoment::kDayOfYear) {
        return moment.day;
    }
    if (moment.kind == YearlyMoment::kDayOfYearWithoutLeapDay) {
        return moment.day - (moment.day < 60 || !isLeapYear(year) ? 1 : 0);
    }
    const int first = daysBeforeMonth(year, moment.month);
    const int next = daysBeforeMonth(year, moment.month + 1);
    const auto weekday = static_cast<int>((daysBeforeYear(year) + first) % 7) + 7 + kFirstWeekday;
    const int day = first + (moment.day + 14 - weekday % 7) % 7 + (moment.week - 1) * 7;
    return day < next ? day : day - 7;
}

int64_t instantOf(const YearlyMoment &moment, int year, int32_t utc_offset) {
    return (daysBeforeYear(year) + dayOfYear(moment, year)) * kDay + moment.seconds - utc_offset;
}

}  // namespace

bool vlliParseZoneRule(std::string_view text, ZoneRule *rule) {
    RuleReader reader(text);
    int32_t west;  // the text counts its offsets to the west
    if (!reader.skipName() || !reader.takeTime(kMostOffsetHours, &west)) {
        return false;
    }
    rule->standard_offset = -west;
    rule->daylight_offset = kHour - west;
    if (!reader.skipName()) {
        return false;
    }
    if (!reader.take(',')) {
        if (!reader.takeTime(kMostOffsetHours, &west) || !reader.take(',')) {
            return false;
        }
        rule->daylight_offset = -west;
    }
    return reader.takeMoment(&rule->daylight_start) && reader.take(',') &&
           reader.takeMoment(&rule->daylight_end) && reader.atEnd();
}

void vlliGetRuleChanges(const ZoneRule &rule, int year, ZoneChange *changes) {
    changes[0] = {instantOf(rule.daylight_start, year, rule.standard_offset), rule.daylight_offset, true};
    changes[1] = {instantOf(rule.daylight_end, year, rule.daylight_offset), rule.standard_offset, false};
}
