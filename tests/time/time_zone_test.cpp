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
#include "support/private_machine.h"

namespace {

constexpr char kLink[] = "/etc/localtime";
constexpr time_t kDay = 86400;

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

// The zone files of the machine: those that begin as such.
std::vector<std::string> installedZones() {
    namespace fs = std::filesystem;
    std::vector<std::string> zones;
    for (const auto &entry : fs::recursive_directory_iterator(
             "/usr/share/zoneinfo", fs::directory_options::follow_directory_symlink)) {
        if (entry.is_regular_file() && readFile(entry.path()).substr(0, 4) == "TZif") {
            zones.push_back(entry.path());
        }
    }
    return zones;
}

tm localAt(time_t instant) {
    tm local = {};
    localtime_r(&instant, &local);
    return local;
}

bool sameRules(time_t a, time_t b) {
    const tm before = localAt(a);
    const tm after = localAt(b);
    return before.tm_gmtoff == after.tm_gmtoff && before.tm_isdst == after.tm_isdst &&
           strcmp(before.tm_zone, after.tm_zone) == 0;
}

// The instants of a local year at which the system's own conversion changes its rules.
std::vector<time_t> changesOf(int local_year, time_t from, time_t to) {
    std::vector<time_t> changes;
    for (time_t day = from; day < to; day += kDay) {
        time_t low = day;
        time_t high = day + kDay;
        if (sameRules(low, high)) {
            continue;
        }
        while (high - low > 1) {
            const time_t middle = low + (high - low) / 2;
            (sameRules(low, middle) ? low : high) = middle;
        }
        if (localAt(high).tm_year + 1900 == local_year) {
            changes.push_back(high);
        }
    }
    return changes;
}

// What the record must be, from the system's own rules.
TIME_ZONE_INFORMATION expectedRecord(const std::vector<time_t> &changes) {
    TIME_ZONE_INFORMATION zone = {};
    zone.Bias = static_cast<LONG>(timezone / 60);
    for (size_t i = 0; i < changes.size() && i < 2; ++i) {
        const tm local = localAt(changes[i]);
        const auto word = [](int value) { return static_cast<WORD>(value); };
        const bool summer = local.tm_isdst > 0;
        if (i == 0) {
            strncpy(summer ? zone.DaylightName : zone.StandardName, local.tm_zone, 31);
        }
        if (changes.size() == 1) {
            break;
        }
        (summer ? zone.DaylightDate : zone.StandardDate) = {
            word(local.tm_year + 1900), word(local.tm_mon + 1), word(local.tm_wday), word(local.tm_mday),
            word(local.tm_hour),        word(local.tm_min),     word(local.tm_sec),  0};
        (summer ? zone.DaylightBias : zone.StandardBias) =
            -static_cast<LONG>(local.tm_gmtoff / 60) - zone.Bias;
    }
    return zone;
}

// A zone file with leap seconds ends their list with a transition that changes nothing. It counts as one of the
// year, but the system's conversions do not show it: of such a zone only result and bias can be foretold.
bool hasLeapSeconds(const std::string &path) {
    return readFile(path).substr(28, 4) != std::string(4, '\0');
}

void expectZoneThroughYear(const std::string &name, int year) {
    tm start = {};
    start.tm_year = year - 1900;
    start.tm_mday = 1;
    const time_t new_year = timegm(&start);
    const std::vector<time_t> changes = changesOf(year, new_year - 2 * kDay, new_year + 368 * kDay);
    const TIME_ZONE_INFORMATION expected = expectedRecord(changes);
    const size_t compared =
        hasLeapSeconds(name) ? offsetof(TIME_ZONE_INFORMATION, StandardName) : sizeof expected;
    FakeTime now(new_year);
    for (time_t instant = new_year + kDay; instant < new_year + 364 * kDay; instant += 13 * kDay) {
        now.set(instant);
        TIME_ZONE_INFORMATION zone;
        memset(&zone, 0xAA, sizeof zone);
        const LONG result = vllGetTimeZoneInformation(&zone);
        const LONG in_force = localAt(instant).tm_isdst > 0 ? TIME_ZONE_ID_DAYLIGHT : TIME_ZONE_ID_STANDARD;
        if (compared == sizeof zone) {
            ASSERT_EQ(result, changes.empty() ? TIME_ZONE_ID_UNKNOWN : in_force) << name << " at " << instant;
        } else {
            ASSERT_TRUE(result == in_force || (changes.empty() && result == TIME_ZONE_ID_UNKNOWN)) << name;
        }
        ASSERT_EQ(memcmp(&zone, &expected, compared), 0) << name << " at " << instant;
    }
}

TEST_F(TimeZoneTest, every_zone_of_the_machine_through_a_year) {
    const std::vector<std::string> zones = installedZones();
    ASSERT_FALSE(zones.empty());
    for (const std::string &zone : zones) {
        linkZone(zone);
        expectZoneThroughYear(zone, 2026);
        if (HasFatalFailure()) {
            return;
        }
    }
}

TEST_F(TimeZoneTest, zones_with_another_past) {
    const struct {
        const char *zone;
        int year;
    } cases[] = {
        {"Europe/Paris", 1996},    {"Europe/Paris", 1970},        {"America/New_York", 2007},
        {"Asia/Kolkata", 1942},    {"Australia/Lord_Howe", 2000}, {"Africa/Casablanca", 2012},
        {"Europe/Istanbul", 2016}, {"Asia/Tehran", 2022},
    };
    for (const auto &c : cases) {
        const std::string path = std::string("/usr/share/zoneinfo/") + c.zone;
        if (access(path.c_str(), F_OK) == 0) {
            linkZone(path);
            expectZoneThroughYear(path, c.year);
        }
    }
}

TEST_F(TimeZoneTest, paris_in_november) {
    linkZone("/usr/share/zoneinfo/Europe/Paris");
    const FakeTime now(1794846076);  // 2026-11-16
    TIME_ZONE_INFORMATION zone;
    ASSERT_EQ(vllGetTimeZoneInformation(&zone), TIME_ZONE_ID_STANDARD);
    EXPECT_EQ(zone.Bias, -60);
    EXPECT_STREQ(zone.StandardName, "");
    EXPECT_STREQ(zone.DaylightName, "CEST");
    EXPECT_EQ(zone.StandardBias, 0);
    EXPECT_EQ(zone.DaylightBias, -60);
    const SYSTEMTIME summer = {2026, 3, 0, 29, 3, 0, 0, 0};
    const SYSTEMTIME winter = {2026, 10, 0, 25, 2, 0, 0, 0};
    EXPECT_EQ(memcmp(&zone.DaylightDate, &summer, sizeof summer), 0);
    EXPECT_EQ(memcmp(&zone.StandardDate, &winter, sizeof winter), 0);
}

TEST_F(TimeZoneTest, what_is_no_zone_file_leaves_the_record) {
    TIME_ZONE_INFORMATION zone;
    memset(&zone, 0xAA, sizeof zone);
    const TIME_ZONE_INFORMATION untouched = zone;
    const auto expectInvalid = [&](const char *what) {
        EXPECT_EQ(vllGetTimeZoneInformation(&zone), TIME_ZONE_ID_INVALID) << what;
        EXPECT_EQ(memcmp(&zone, &untouched, sizeof zone), 0) << what;
        remove(kLink);
    };
    expectInvalid("nothing there");
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(mkdir(kLink, 0755), 0);
    expectInvalid("directory");
    ASSERT_EQ(mkfifo(kLink, 0644), 0);
    expectInvalid("pipe without a writer");
    ASSERT_EQ(mkfifo(kLink, 0644), 0);
    const int writer = open(kLink, O_RDWR | O_CLOEXEC);
    expectInvalid("pipe with a writer");
    close(writer);
    ASSERT_EQ(symlink("/dev/zero", kLink), 0);
    expectInvalid("other magic");
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

TEST_F(TimeZoneTest, clocks_at_the_ends_of_time) {
    const std::string bytes = twoChanges().bytes();
    TIME_ZONE_INFORMATION zone;
    EXPECT_EQ(readBytes(bytes, INT32_MIN, &zone), 0);
    EXPECT_EQ(readBytes(bytes, INT32_MAX, &zone), 0);
    EXPECT_EQ(readBytes(bytes, 0, &zone), 1);  // a transition in the first hour of 1970
}

TEST_F(TimeZoneTest, biases_are_truncated_toward_zero) {
    ZoneBuilder builder = twoChanges();
    for (const int32_t offset : {-3599, 3599, 59, -59, 60}) {
        builder.setOffsets(offset, -offset);
        TIME_ZONE_INFORMATION zone;
        ASSERT_EQ(readBytes(builder.bytes(), kNow, &zone), 1);
        EXPECT_EQ(zone.StandardBias, -(offset / 60) - zone.Bias) << offset;
        EXPECT_EQ(zone.DaylightBias, offset / 60 - zone.Bias) << offset;
    }
}

}  // namespace
