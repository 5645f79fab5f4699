// The zone record: from zone files of the machine, and from files made by hand.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cstring>
#include <filesystem>

#include "time/time_zone.h"

#include "support/clock.h"
#include "support/files.h"
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

// A slim file: its first block is empty. Type 0 is standard time, an hour east; type 1 daylight-saving time, two.
std::string slimFile(const std::vector<int64_t> &times, const std::string &indexes, const std::string &rule) {
    const auto header = [](uint32_t transitions, uint32_t types, uint32_t characters) {
        return "TZif2" + std::string(27, '\0') + ZoneBuilder::word(transitions) + ZoneBuilder::word(types) +
               ZoneBuilder::word(characters);
    };
    std::string out =
        header(0, 1, 1) + std::string(7, '\0') + header(static_cast<uint32_t>(times.size()), 2, 4);
    for (const int64_t time : times) {
        out += ZoneBuilder::word(static_cast<uint32_t>(time >> 32)) +
               ZoneBuilder::word(static_cast<uint32_t>(time));
    }
    ZoneBuilder types;
    types.setOffsets(3600, 7200);
    return out + indexes + types.records + "abc" + std::string(1, '\0') + "\n" + rule + "\n";
}

// The dates of a record, in the order of the record.
std::string datesOf(const TIME_ZONE_INFORMATION &zone) {
    std::string text;
    for (const auto &[date, bias] :
         {std::pair(zone.StandardDate, zone.StandardBias), std::pair(zone.DaylightDate, zone.DaylightBias)}) {
        char part[80];
        snprintf(part, sizeof part, "%02d-%02d %02d:%02d:%02d %d ", date.wMonth, date.wDay, date.wHour,
                 date.wMinute, date.wSecond, bias);
        text += date.wYear == 0 ? "none " : part;
    }
    return text;
}

// The process's zone is UTC, so that dates are the instants themselves.
TEST_F(TimeZoneTest, slim_files) {
    const int64_t spring = 1774746000;  // 2026-03-29 01:00
    const int64_t autumn = 1792890000;  // 2026-10-25 01:00
    const char *const paris = "CET-1CEST,M3.5.0,M10.5.0/3";
    const struct {
        time_t now;
        std::string file;
        LONG result;
        const char *dates;
    } cases[] = {
        {kNow, slimFile({-5000000000, spring, autumn, 5000000000}, {"\0\1\0\1", 4}, ""), 1,
         "10-25 01:00:00 -60 03-29 01:00:00 -120 "},
        {kNow, slimFile({spring - 86400}, "\1", paris), 1, "10-25 01:00:00 -60 03-28 01:00:00 -120 "},
        // At the last instant of the list only the rule takes over.
        {kNow, slimFile({spring - 86400, spring - 3600}, "\1\1", paris), 1,
         "10-25 01:00:00 -60 03-28 01:00:00 -120 "},
        {kNow, slimFile({autumn}, std::string(1, '\0'), paris), 1, "none none "},
        {kNow, slimFile({}, "", paris), 1, "10-25 01:00:00 -60 03-29 01:00:00 -120 "},
        {kNow, slimFile({}, "", "IST-1GMT0,M10.5.0,M3.5.0/1"), 1, "03-29 01:00:00 -60 10-25 01:00:00 0 "},
        {kNow, slimFile({}, "", "<-02>2<-01>,M3.5.0/-1,M10.5.0/0"), 1,
         "10-25 01:00:00 120 03-29 01:00:00 60 "},
        {kNow, slimFile({}, "", "<+0330>-3:30<+0430>,J79/24,J263/24"), 1,
         "09-20 19:30:00 -210 03-20 20:30:00 -270 "},
        {kNow, slimFile({}, "", "A+0:00:30B,59,J60/-24:30:30"), 1, "02-27 22:30:00 0 03-01 02:00:30 -59 "},
        {kNow, slimFile({}, "", "A0B,M1.1.4/0,M2.5.6/167"), 1, "03-06 22:00:00 0 01-01 00:00:00 -60 "},
        {kNow, slimFile({}, "", "A0B,M1.1.3,M12.4.4"), 1, "12-24 01:00:00 0 01-07 02:00:00 -60 "},
        {1858004476, slimFile({}, "", "A0B,J60,J70"), 1, "03-11 01:00:00 0 03-01 02:00:00 -60 "},  // 2028
        {-290000000, slimFile({}, "", "A0B,M3.1.1,M10.5.0"), 1,
         "10-30 01:00:00 0 03-07 02:00:00 -60 "},                           // 1960
        {kNow, slimFile({}, "", "XXX3EDT4,0/0,J365/23"), 0, "none none "},  // daylight-saving time all year
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file.substr(c.file.rfind('\n', c.file.size() - 2) + 1));
        TIME_ZONE_INFORMATION zone;
        EXPECT_EQ(readBytes(c.file, c.now, &zone), c.result);
        EXPECT_EQ(datesOf(zone), c.dates);
        for (size_t length = 44; length < c.file.size(); ++length) {
            EXPECT_NE(readBytes(c.file.substr(0, length), kNow, &zone), TIME_ZONE_ID_INVALID) << length;
        }
    }
    for (const char *wrong : {"",
                              "UTC0",
                              "CET-1CEST",
                              "CET-1CEST,M3.5.0",
                              "CET-1CEST,M3.5.0,M10.5.0x",
                              "CET-1CEST;M3.5.0,M10.5.0",
                              "CET-1CEST,M13.5.0,M10.5.0",
                              "CET-1CEST,M0.5.0,M10.5.0",
                              "CET-1CEST,M3.6.0,M10.5.0",
                              "CET-1CEST,M3.0.0,M10.5.0",
                              "CET-1CEST,M3.5.7,M10.5.0",
                              "CET-1CEST,J0,M10.5.0",
                              "CET-1CEST,J366,M10.5.0",
                              "CET-1CEST,366,M10.5.0",
                              "CET-1CEST,M3.5.0/168,M10.5.0",
                              "CET-1:60CEST,M3.5.0,M10.5.0",
                              "CET-25CEST,M3.5.0,M10.5.0",
                              "CETCEST,M3.5.0,M10.5.0",
                              "-1CEST,M3.5.0,M10.5.0",
                              "<CET-1CEST,M3.5.0,M10.5.0"}) {
        TIME_ZONE_INFORMATION zone;
        EXPECT_EQ(readBytes(slimFile({}, "", wrong), kNow, &zone), TIME_ZONE_ID_UNKNOWN) << wrong;
    }
}

TEST_F(TimeZoneTest, slim_files_give_what_full_ones_give) {
    constexpr char kSource[] = "/usr/share/zoneinfo/tzdata.zi";
    const std::string directory = freshDirectory();
    for (const char *form : {"fat", "slim"}) {
        const std::string command =
            std::string("zic -b ") + form + " -d " + directory + "/" + form + " " + kSource;
        if (access(kSource, R_OK) != 0 || system((command + " 2>/dev/null").c_str()) != 0) {
            GTEST_SKIP() << "no " << kSource << ", or no zic that knows both forms";
        }
    }
    int compared = 0;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(directory + "/fat")) {
        if (!entry.is_regular_file()) {
            continue;
        }
        const std::string full = entry.path();
        const std::string slim = directory + "/slim" + full.substr(directory.size() + 4);
        linkZone(full);
        for (const int year : {1945, 1976, 1997, 2012, 2016, 2023, 2026, 2037}) {
            const time_t now = (year - 1970) * time_t{31556952} + 15000000;
            TIME_ZONE_INFORMATION expected;
            TIME_ZONE_INFORMATION zone;
            ASSERT_EQ(readBytes(readFile(slim), now, &zone), readBytes(readFile(full), now, &expected))
                << full << year;
            ASSERT_EQ(memcmp(&zone, &expected, sizeof zone), 0) << full << year;
            ++compared;
        }
    }
    EXPECT_GT(compared, 2000);
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
