#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/times.h>
#include <unistd.h>
#include <climits>
#include <random>

#include "time/time_convert.h"

#include "support/clock.h"
#include "support/fixture.h"
#include "support/matchers.h"

namespace {

class TimeTest : public LibraryTest {
  protected:
    // The process's zone for one test.
    void useZone(const char *zone) {
        setenv("TZ", zone, 1);
        tzset();
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
        LibraryTest::TearDown();
    }
};

bool operator==(const SYSTEMTIME &a, const SYSTEMTIME &b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

// Seconds since 1970 as the system counts them.
time_t secondsOf(const SYSTEMTIME &t) {
    tm fields = {};
    fields.tm_year = t.wYear - 1900;
    fields.tm_mon = t.wMonth - 1;
    fields.tm_mday = t.wDay;
    fields.tm_hour = t.wHour;
    fields.tm_min = t.wMinute;
    fields.tm_sec = t.wSecond;
    return timegm(&fields);
}

TEST_F(TimeTest, system_time_to_file_time) {
    const struct {
        int line;
        SYSTEMTIME in;
        FILETIME out;
    } cases[] = {
        {__LINE__, {1970, 1, 0, 1, 0, 0, 0, 0}, 0},
        {__LINE__, {2026, 11, 0, 16, 12, 0, 0, 250}, 1794830400},
        {__LINE__, {2026, 11, 65535, 16, 12, 0, 0, 65535}, 1794830400},  // weekday, milliseconds: no matter
        {__LINE__, {1969, 12, 0, 31, 23, 59, 58, 0}, -2},
        {__LINE__, {1969, 12, 0, 31, 23, 59, 59, 0}, -1},
        {__LINE__, {2038, 1, 0, 19, 3, 14, 7, 0}, INT32_MAX},
        {__LINE__, {2038, 1, 0, 19, 3, 14, 8, 0}, -1},
        {__LINE__, {1901, 12, 0, 13, 20, 45, 52, 0}, INT32_MIN},
        {__LINE__, {1901, 12, 0, 13, 20, 45, 51, 0}, -1},
        {__LINE__, {2025, 13, 0, 1, 0, 0, 0, 0}, 1767225600},   // January 2026
        {__LINE__, {2026, 0, 0, 1, 0, 0, 0, 0}, 1764547200},    // December 2025
        {__LINE__, {2026, 1, 0, 0, 0, 0, 0, 0}, 1767139200},    // the last of December
        {__LINE__, {2026, 1, 0, 1, 0, 59, 60, 0}, 1767229200},  // 01:00:00
        {__LINE__, {2026, 2, 0, 29, 0, 0, 0, 0}, 1772323200},   // 1 March
        {__LINE__, {0, 0, 0, 0, 0, 0, 0, 0}, -1},
        {__LINE__, {65535, 65535, 65535, 65535, 65535, 65535, 65535, 65535}, -1},
        {__LINE__, {1800, 65535, 0, 1, 0, 0, 0, 0}, -1},
    };
    for (const auto &c : cases) {
        FILETIME result = 77;
        errno = 0;
        EXPECT_EQ(vllSystemTimeToFileTime(&c.in, &result), c.out != -1) << "line " << c.line;
        EXPECT_EQ(result, c.out) << "line " << c.line;
        EXPECT_EQ(errno == EOVERFLOW, c.out == -1 && c.in.wYear != 1969) << "line " << c.line;
    }
}

TEST_F(TimeTest, random_records_convert_as_the_system_does) {
    std::mt19937 random(8);
    const auto from = [&](uint32_t first, uint32_t count) {
        return static_cast<WORD>(first + random() % count);
    };
    const auto any = [&] { return from(0, 65536); };
    for (int i = 0; i < 200000; ++i) {
        const SYSTEMTIME in = i % 2 == 1 ? SYSTEMTIME{any(), any(), any(), any(), any(), any(), any(), any()}
                                         : SYSTEMTIME{from(1890, 160), from(0, 14), any(),       from(0, 33),
                                                      from(0, 25),     from(0, 61), from(0, 62), any()};
        const time_t seconds = secondsOf(in);
        const FILETIME expected =
            seconds == static_cast<int32_t>(seconds) ? static_cast<FILETIME>(seconds) : -1;
        FILETIME result = 77;
        ASSERT_EQ(vllSystemTimeToFileTime(&in, &result), expected != -1) << i;
        ASSERT_EQ(result, expected) << i;
    }
}

TEST_F(TimeTest, every_file_time_breaks_down_and_comes_back) {
    const SYSTEMTIME epoch = {1970, 1, 4, 1, 0, 0, 0, 0};
    const SYSTEMTIME first = {1901, 12, 5, 13, 20, 45, 52, 0};
    const SYSTEMTIME last = {2038, 1, 2, 19, 3, 14, 7, 0};
    std::mt19937 random(81);
    std::vector<FILETIME> times = {0, -1, 1, INT32_MIN, INT32_MAX};
    for (int i = 0; i < 100000; ++i) {
        times.push_back(static_cast<FILETIME>(random()));
    }
    for (const FILETIME file_time : times) {
        SYSTEMTIME broken = {1, 1, 1, 1, 1, 1, 1, 1};
        ASSERT_TRUE(vllFileTimeToSystemTime(&file_time, &broken));
        ASSERT_EQ(secondsOf(broken), file_time);
        ASSERT_EQ(broken.wDayOfWeek, ((file_time / 86400 - (file_time % 86400 < 0) + 4) % 7 + 7) % 7);
        ASSERT_EQ(broken.wMilliseconds, 0);
        ASSERT_TRUE(file_time != 0 || broken == epoch);
        ASSERT_TRUE(file_time != INT32_MIN || broken == first);
        ASSERT_TRUE(file_time != INT32_MAX || broken == last);
    }
}

TEST_F(TimeTest, local_conversions) {
    useZone("XST-2XDT,M3.5.0,M10.5.0");  // two hours east, three in summer
    const struct {
        FILETIME utc, local;
    } cases[] = {
        {1794830400, 1794837600},  // November
        {1783425600, 1783436400},  // July
        {-7201, -1},
        {INT32_MIN, INT32_MIN + 7200},
        {INT32_MAX - 7200, INT32_MAX},
        {INT32_MAX - 7199, -1},
    };
    for (const auto &c : cases) {
        FILETIME local = 77;
        EXPECT_EQ(vllFileTimeToLocalFileTime(&c.utc, &local), c.local != -1) << c.utc;
        EXPECT_EQ(local, c.local) << c.utc;
    }

    SYSTEMTIME utc = {2026, 7, 0, 7, 22, 30, 60, 5};
    SYSTEMTIME local = {9, 9, 9, 9, 9, 9, 9, 4711};
    EXPECT_TRUE(vllSystemTimeToTzSpecificLocalTime(&utc, &local));
    EXPECT_TRUE(local == (SYSTEMTIME{2026, 7, 3, 8, 1, 31, 0, 4711}));
    EXPECT_TRUE(vllSystemTimeToTzSpecificLocalTime(&utc, &utc));
    EXPECT_TRUE(utc == (SYSTEMTIME{2026, 7, 3, 8, 1, 31, 0, 5}));

    const SYSTEMTIME before = local;
    const SYSTEMTIME late = {2038, 1, 0, 19, 3, 14, 8, 0};
    EXPECT_FALSE(vllSystemTimeToTzSpecificLocalTime(&late, &local));
    EXPECT_TRUE(local == before);
}

TEST_F(TimeTest, compare) {
    const FILETIME times[] = {INT32_MIN, -1, 5, 7, INT32_MAX};  // in their order
    for (const FILETIME &a : times) {
        for (const FILETIME &b : times) {
            EXPECT_EQ(vllCompareFileTime(&a, &b), (&a > &b) - (&a < &b)) << a << " and " << b;
        }
    }
}

TEST_F(TimeTest, the_clock) {
    useZone("XST5");
    SYSTEMTIME utc;
    SYSTEMTIME local;
    FILETIME seconds;
    const time_t before = time(nullptr);
    ASSERT_TRUE(vllGetSystemTimeAsFileTime(&seconds));
    ASSERT_TRUE(vllGetSystemTime(&utc));
    ASSERT_TRUE(vllGetLocalTime(&local));
    const time_t after = time(nullptr);
    EXPECT_LE(before, seconds);
    EXPECT_LE(seconds, secondsOf(utc));
    EXPECT_LE(secondsOf(utc), secondsOf(local) + 18000);
    EXPECT_LE(secondsOf(local) + 18000, after);
    EXPECT_LT(utc.wMilliseconds, 1000);
    EXPECT_LT(local.wMilliseconds, 1000);

    char text[10] = "xxxxxxxxx";
    FakeTime now(1794846076);  // 2026-11-16 16:21:16 UTC
    EXPECT_EQ(vll_strdate(text), text);
    EXPECT_STREQ(text, "11/16/26");
    EXPECT_EQ(vll_strtime(text), text);
    EXPECT_STREQ(text, "11:21:16");
    EXPECT_EQ(text[9], '\0');
}

TEST_F(TimeTest, no_clock) {
    const FakeTime none(-1);
    const SYSTEMTIME untouched = {1, 2, 3, 4, 5, 6, 7, 8};
    SYSTEMTIME record = untouched;
    FILETIME seconds = 5;
    char text[] = "unchanged";
    EXPECT_FALSE(vllGetSystemTime(&record));
    EXPECT_FALSE(vllGetLocalTime(&record));
    EXPECT_TRUE(record == untouched);
    EXPECT_FALSE(vllGetSystemTimeAsFileTime(&seconds));
    EXPECT_EQ(seconds, -1);
    EXPECT_EQ(vll_strdate(text), nullptr);
    EXPECT_EQ(vll_strtime(text), nullptr);
    EXPECT_STREQ(text, "unchanged");
    EXPECT_EQ(vllGetTimeZoneInformation(nullptr), TIME_ZONE_ID_INVALID);
}

#if __SIZEOF_LONG__ == 8
TEST_F(TimeTest, clock_past_2038) {
    const FakeTime late(time_t{INT32_MAX} + 1);
    SYSTEMTIME record;
    FILETIME seconds = 5;
    EXPECT_THAT(vllGetSystemTimeAsFileTime(&seconds), FailsWith(EOVERFLOW));
    EXPECT_EQ(seconds, -1);
    EXPECT_TRUE(vllGetSystemTime(&record));
    EXPECT_EQ(record.wYear, 2038);
}
#endif

TEST_F(TimeTest, file_times) {
    const int fd = memfd_create("times", MFD_CLOEXEC);
    ASSERT_NE(fd, -1);
    const HANDLE file = static_cast<HANDLE>(fd);
    FILETIME creation = 0;
    FILETIME access = 0;
    FILETIME write = 0;
    EXPECT_TRUE(vllGetFileTime(file, nullptr, nullptr, nullptr));
    struct stat status;
    const FILETIME given = 3000;
    const FILETIME early = -5;
    const struct {
        const FILETIME *access, *write;
        time_t access_after, write_after;
        long nanoseconds;
    } cases[] = {
        {nullptr, nullptr, 1000, 2000, 999999999},  // a creation time alone: nothing is done
        {nullptr, &given, 1000, 3000, 0},
        {&given, nullptr, 3000, 2000, 0},
        {&early, &given, -5, 3000, 0},
    };
    for (const auto &c : cases) {
        const timespec fine[2] = {{1000, 999999999}, {2000, 999999999}};
        ASSERT_EQ(futimens(fd, fine), 0);
        EXPECT_TRUE(vllSetFileTime(file, &given, c.access, c.write));
        ASSERT_EQ(fstat(fd, &status), 0);
        EXPECT_EQ(status.st_atim.tv_nsec, c.nanoseconds);
        EXPECT_EQ(status.st_mtim.tv_nsec, c.nanoseconds);
        EXPECT_TRUE(vllGetFileTime(file, &creation, &access, &write));
        EXPECT_EQ(creation, status.st_ctime);
        EXPECT_EQ(access, c.access_after);
        EXPECT_EQ(write, c.write_after);
    }

#if __SIZEOF_LONG__ == 8
    const timespec far[2] = {{1000, 0}, {time_t{INT32_MAX} + 1, 0}};
    ASSERT_EQ(futimens(fd, far), 0);
    access = write = 7;
    EXPECT_THAT(vllGetFileTime(file, nullptr, &access, &write), FailsWith(EOVERFLOW));
    EXPECT_EQ(access, 7);
    EXPECT_EQ(write, 7);
    EXPECT_TRUE(vllGetFileTime(file, nullptr, &access, nullptr));  // what is not asked for does not matter
#endif
    close(fd);

    for (const HANDLE none : {file, INVALID_HANDLE_VALUE, HANDLE{0x10000}}) {
        EXPECT_TRUE(vllSetFileTime(none, &given, nullptr, nullptr));
        EXPECT_THAT(vllSetFileTime(none, nullptr, &given, nullptr), FailsWith(EBADF));
        EXPECT_THAT(vllSetFileTime(none, nullptr, &given, &given), FailsWith(EBADF));
        EXPECT_THAT(vllGetFileTime(none, &creation, &access, &write), FailsWith(EBADF));
    }
}

TEST_F(TimeTest, ticks) {
    EXPECT_EQ(vlliTickCount({4294967, 295999999}), UINT32_MAX);
    EXPECT_EQ(vlliTickCount({4294967, 296000000}), 0U);
    EXPECT_EQ(vlliTickCount({INT32_MAX, 999999999}), static_cast<uint32_t>(INT32_MAX * int64_t{1000} + 999));

    const uint32_t before = static_cast<uint32_t>(nowMs());
    const uint32_t ticks = vllGetTickCount();
    EXPECT_LE(ticks - before, static_cast<uint32_t>(nowMs()) - before);

    LARGE_INTEGER frequency = 0;
    tms unused;
    const auto low = static_cast<int32_t>(times(&unused));
    const LARGE_INTEGER count = vllKeQueryPerformanceCounter(&frequency);
    const auto high = static_cast<int32_t>(times(&unused));
    EXPECT_EQ(frequency, sysconf(_SC_CLK_TCK));
    EXPECT_LE(low, count);
    EXPECT_LE(count, high);
    EXPECT_LE(high, vllKeQueryPerformanceCounter(nullptr));
}

}  // namespace
