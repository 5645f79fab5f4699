// The zone record: from zone files of the machine, and from files made by hand.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cstring>

#include "time/time_zone.h"

#include "support/clock.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/private_machine.h"

namespace {

constexpr char kLink[] = "/etc/localtime";

class TimeZoneTest : public LibraryTest {
  protected:
    static void SetUpTestSuite() { coverDirectory("/etc"); }
    void SetUp() override {
        unsetenv("TZ");
        LibraryTest::SetUp();
    }
    void TearDown() override {
        remove(kLink);
        LibraryTest::TearDown();
    }

    void linkZone(const std::string &path) {
        remove(kLink);
        ASSERT_EQ(symlink(path.c_str(), kLink), 0);
        tzset();
    }
};

TIME_ZONE_INFORMATION record(LONG bias, const char *standard_name, SYSTEMTIME standard_date,
                             LONG standard_bias, const char *daylight_name, SYSTEMTIME daylight_date,
                             LONG daylight_bias) {
    TIME_ZONE_INFORMATION zone = {};
    zone.Bias = bias;
    strcpy(zone.StandardName, standard_name);
    zone.StandardDate = standard_date;
    zone.StandardBias = standard_bias;
    strcpy(zone.DaylightName, daylight_name);
    zone.DaylightDate = daylight_date;
    zone.DaylightBias = daylight_bias;
    return zone;
}

TEST_F(TimeZoneTest, zones_and_years) {
    const SYSTEMTIME none = {};
    const TIME_ZONE_INFORMATION paris =
        record(-60, "", {2026, 10, 0, 25, 2, 0, 0, 0}, 0, "CEST", {2026, 3, 0, 29, 3, 0, 0, 0}, -60);
    const TIME_ZONE_INFORMATION istanbul =
        record(-180, "", {2016, 9, 3, 7, 0, 0, 0, 0}, 0, "EEST", {2016, 3, 0, 27, 4, 0, 0, 0}, 0);
    const struct {
        const char *zone;
        SYSTEMTIME now;  // UTC
        LONG result;
        TIME_ZONE_INFORMATION expected;
    } cases[] = {
        {"Europe/Paris", {2026, 11, 0, 16, 12, 0, 0, 0}, 1, paris},
        {"Europe/Paris", {2026, 7, 0, 1, 12, 0, 0, 0}, 2, paris},
        {"Europe/Paris", {2026, 1, 0, 1, 0, 0, 0, 0}, 1, paris},
        {"Europe/Paris", {2026, 12, 0, 31, 22, 59, 59, 0}, 1, paris},
        {"Europe/Istanbul", {2016, 10, 0, 1, 12, 0, 0, 0}, 1, istanbul},
        // South of the equator, by half an hour.
        {"Australia/Lord_Howe",
         {2026, 7, 0, 1, 12, 0, 0, 0},
         1,
         record(-630, "+1030", {2026, 4, 0, 5, 1, 30, 0, 0}, 0, "", {2026, 10, 0, 4, 2, 30, 0, 0}, -30)},
        // Standard time in summer; four changes in a year; changes at one minute past midnight.
        {"Europe/Dublin",
         {2026, 7, 0, 1, 12, 0, 0, 0},
         1,
         record(-60, "IST", {2026, 3, 0, 29, 2, 0, 0, 0}, 0, "", {2026, 10, 0, 25, 1, 0, 0, 0}, 60)},
        {"Africa/Casablanca",
         {2012, 7, 0, 1, 12, 0, 0, 0},
         2,
         record(-60, "", {2012, 7, 5, 20, 2, 0, 0, 0}, 60, "+01", {2012, 4, 0, 29, 3, 0, 0, 0}, 0)},
        {"America/St_Johns",
         {1990, 1, 0, 1, 12, 0, 0, 0},
         1,
         record(210, "", {1990, 10, 6, 27, 23, 1, 0, 0}, 0, "NDT", {1990, 4, 0, 1, 1, 1, 0, 0}, -60)},
        // Before 1970; one change; none.
        {"Asia/Kolkata",
         {1942, 11, 0, 1, 12, 0, 0, 0},
         2,
         record(-330, "IST", {1942, 5, 4, 14, 23, 0, 0, 0}, 0, "", {1942, 9, 2, 1, 1, 0, 0, 0}, -60)},
        {"America/Caracas", {2016, 6, 0, 1, 12, 0, 0, 0}, 1, record(240, "-04", none, 0, "", none, 0)},
        {"Asia/Tokyo", {2026, 5, 0, 5, 12, 0, 0, 0}, 0, record(-540, "", none, 0, "", none, 0)},
        {"UTC", {2026, 5, 0, 5, 12, 0, 0, 0}, 0, record(0, "", none, 0, "", none, 0)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.zone);
        linkZone(std::string("/usr/share/zoneinfo/") + c.zone);
        FILETIME seconds;
        EXPECT_TRUE(vllSystemTimeToFileTime(&c.now, &seconds));
        const FakeTime now(seconds);
        TIME_ZONE_INFORMATION zone;
        memset(&zone, 0xAA, sizeof zone);
        EXPECT_EQ(vllGetTimeZoneInformation(&zone), c.result);
        EXPECT_EQ(memcmp(&zone, &c.expected, sizeof zone), 0);
    }
}

TEST_F(TimeZoneTest, what_is_no_zone_file_leaves_the_record) {
    TIME_ZONE_INFORMATION zone;
    memset(&zone, 0xAA, sizeof zone);
    const TIME_ZONE_INFORMATION untouched = zone;
    const std::pair<int, std::function<int()>> cases[] = {
        {ENOENT, [] { return 0; }},
        {EISDIR, [] { return mkdir(kLink, 0755); }},
        {ESPIPE, [] { return mkfifo(kLink, 0644); }},
        {0, [] { return symlink("/dev/zero", kLink); }},  // other magic
    };
    for (const auto &[error, make] : cases) {
        SCOPED_TRACE(error);
        ASSERT_EQ(make(), 0);
        EXPECT_THAT(vllGetTimeZoneInformation(&zone), FailsWith(error, TIME_ZONE_ID_INVALID));
        EXPECT_EQ(memcmp(&zone, &untouched, sizeof zone), 0);
        remove(kLink);
    }
}

// A zone file by hand, with the counts and types as given.
struct ZoneBuilder {
    std::string magic = "TZif";
    uint32_t count = 0;
    uint32_t types = 0;
    std::vector<int32_t> times;
    std::string indexes;
    std::string records;

    static std::string word(uint32_t value) {
        value = htonl(value);
        return std::string(reinterpret_cast<const char *>(&value), sizeof value);
    }
    void setOffsets(int32_t standard, int32_t daylight) {
        records = word(static_cast<uint32_t>(standard)) + std::string("\0\0", 2) +
                  word(static_cast<uint32_t>(daylight)) + std::string("\1\0", 2);
    }
    std::string bytes() const {
        std::string out = magic + std::string(28, '\0') + word(count) + word(types) + word(0);
        for (const int32_t time : times) {
            out += word(static_cast<uint32_t>(time));
        }
        return out + indexes + records;
    }
};

LONG readBytes(const std::string &bytes, time_t now, TIME_ZONE_INFORMATION *zone) {
    const int fd = memfd_create("zone", MFD_CLOEXEC);
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    memset(zone, 0xAA, sizeof *zone);
    const LONG result = vlliReadTimeZone(fd, now, zone);
    close(fd);
    return result;
}

// Two changes in 2026, to type 0 (3600 s, standard) and type 1 (7200 s, daylight).
ZoneBuilder twoChanges() {
    ZoneBuilder zone;
    zone.count = 3;
    zone.types = 2;
    zone.times = {1000, 1774746000, 1792890000};
    zone.indexes = std::string("\0\1\0", 3);
    zone.setOffsets(3600, 7200);
    return zone;
}

constexpr time_t kNow = 1794846076;

TEST_F(TimeZoneTest, truncated_files) {
    const std::string whole = twoChanges().bytes();
    for (size_t length = 0; length <= 200; ++length) {
        TIME_ZONE_INFORMATION zone;
        std::string bytes = whole.substr(0, length);
        if (length > whole.size()) {
            bytes.resize(length, '\xFF');
        }
        const LONG result = readBytes(bytes, kNow, &zone);
        // The second change needs type 0, that is the first record; the first one needs the second record.
        const bool complete = length >= whole.size();
        ASSERT_EQ(result, length < 36 ? TIME_ZONE_ID_INVALID : complete ? 1 : 0) << length;
        ASSERT_EQ(zone.DaylightDate.wMonth, length < 36 ? 0xAAAA : complete ? 3 : 0) << length;
        ASSERT_EQ(zone.StandardDate.wMonth, length < 36 ? 0xAAAA : complete ? 10 : 0) << length;
    }
}

TEST_F(TimeZoneTest, hostile_files) {
    struct Case {
        const char *what;
        std::function<void(ZoneBuilder &)> change;
        LONG result;
        int month;  // of the change to daylight-saving time
    };
    const Case cases[] = {
        {"as it should be", [](ZoneBuilder &) {}, 1, 3},
        {"other magic", [](ZoneBuilder &z) { z.magic = "TZjf"; }, -1, 0xAAAA},
        {"no transition", [](ZoneBuilder &z) { z.count = 0; }, 0, 0},
        {"one transition, long past", [](ZoneBuilder &z) { z.count = 1; }, 0, 0},
        {"2^31 transitions", [](ZoneBuilder &z) { z.count = 0x80000000U; }, 0, 0},
        {"2^32 - 1 transitions", [](ZoneBuilder &z) { z.count = UINT32_MAX; }, 0, 0},
        {"types not counted", [](ZoneBuilder &z) { z.types = 0; }, 1, 3},
        {"first type past the count", [](ZoneBuilder &z) { z.types = 1; }, 0, 0},
        {"first type past the end", [](ZoneBuilder &z) { z.types = 0, z.indexes[1] = '\xFF'; }, 0, 0},
        {"second type past the end: one change", [](ZoneBuilder &z) { z.types = 0, z.indexes[2] = '\xFF'; },
         1, 0},
        {"offsets at the limits", [](ZoneBuilder &z) { z.setOffsets(INT32_MIN, INT32_MAX); }, 1, 3},
        {"times in disorder", [](ZoneBuilder &z) { z.times[0] = INT32_MAX, z.times[2] = INT32_MIN; }, 1, 0},
    };
    for (const Case &c : cases) {
        ZoneBuilder builder = twoChanges();
        c.change(builder);
        TIME_ZONE_INFORMATION zone;
        EXPECT_EQ(readBytes(builder.bytes(), kNow, &zone), c.result) << c.what;
        EXPECT_EQ(zone.DaylightDate.wMonth, c.month) << c.what;
        EXPECT_EQ(zone.Reserved, c.result == -1 ? 0xAAAAAAAAU : 0U) << c.what;
    }
}

TEST_F(TimeZoneTest, biases_are_truncated_toward_zero) {
    ZoneBuilder builder = twoChanges();
    TIME_ZONE_INFORMATION zone;
    for (const int32_t offset : {-3599, 3599, 59, -59, 60}) {
        builder.setOffsets(offset, -offset);
        ASSERT_EQ(readBytes(builder.bytes(), kNow, &zone), 1);
        EXPECT_EQ(zone.StandardBias, -(offset / 60) - zone.Bias) << offset;
        EXPECT_EQ(zone.DaylightBias, offset / 60 - zone.Bias) << offset;
    }
    EXPECT_EQ(readBytes(builder.bytes(), INT32_MIN, &zone), 0);
    EXPECT_EQ(readBytes(builder.bytes(), INT32_MAX, &zone), 0);
}

}  // namespace
