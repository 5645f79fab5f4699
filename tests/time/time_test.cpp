// Conversions, the clock, ticks and the times of files.
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
        SCOPED_TRACE(c.line);
        FILETIME result = 77;
        EXPECT_THAT(vllSystemTimeToFileTime(&c.in, &result),
                    Yields(BOOL{c.out != -1}, c.out == -1 && c.in.wYear != 1969 ? EOVERFLOW : 0));
        EXPECT_EQ(result, c.out);
    }
}

TEST_F(TimeTest, every_file_time_breaks_down_and_comes_back) {
    const std::pair<FILETIME, SYSTEMTIME> known[] = {{0, {1970, 1, 4, 1, 0, 0, 0, 0}},
                                                     {INT32_MIN, {1901, 12, 5, 13, 20, 45, 52, 0}},
                                                     {INT32_MAX, {2038, 1, 2, 19, 3, 14, 7, 0}}};
    SYSTEMTIME broken;
    for (const auto &[file_time, expected] : known) {
        EXPECT_TRUE(vllFileTimeToSystemTime(&file_time, &broken));
        EXPECT_TRUE(broken == expected) << file_time;
    }
    std::mt19937 random(81);
    for (int i = 0; i < 100000; ++i) {
        const auto file_time = static_cast<FILETIME>(random());
        FILETIME back;
        ASSERT_TRUE(vllFileTimeToSystemTime(&file_time, &broken));
        ASSERT_TRUE(vllSystemTimeToFileTime(&broken, &back));
        ASSERT_EQ(back, file_time);
    }
}

TEST_F(TimeTest, local_conversions) {
    useZone("XST-2XDT,M3.5.0,M10.5.0");  // two hours east, three in summer
    const std::pair<FILETIME, FILETIME> cases[] = {
        {1794830400, 1794837600},  // November
        {1783425600, 1783436400},  // July
        {-7201, -1},
        {INT32_MIN, INT32_MIN + 7200},
        {INT32_MAX - 7200, INT32_MAX},
        {INT32_MAX - 7199, -1},
    };
    for (const auto &[utc, expected] : cases) {
        FILETIME local = 77;
        EXPECT_EQ(vllFileTimeToLocalFileTime(&utc, &local), expected != -1) << utc;
        EXPECT_EQ(local, expected) << utc;
    }
    SYSTEMTIME utc = {2026, 7, 0, 7, 22, 30, 60, 5};
    SYSTEMTIME local = {9, 9, 9, 9, 9, 9, 9, 4711};
    EXPECT_TRUE(vllSystemTimeToTzSpecificLocalTime(&utc, &local));
    EXPECT_TRUE(local == (SYSTEMTIME{2026, 7, 3, 8, 1, 31, 0, 4711}));
    EXPECT_TRUE(vllSystemTimeToTzSpecificLocalTime(&utc, &utc));
    EXPECT_TRUE(utc == (SYSTEMTIME{2026, 7, 3, 8, 1, 31, 0, 5}));
    const SYSTEMTIME before = local;
    const SYSTEMTIME late = {2038, 1, 0, 19, 3, 14, 8, 0};
    EXPECT_THAT(vllSystemTimeToTzSpecificLocalTime(&late, &local), FailsWith(EOVERFLOW));
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
    FILETIME utc_seconds;
    FILETIME local_seconds;
    const time_t before = time(nullptr);
    ASSERT_TRUE(vllGetSystemTimeAsFileTime(&seconds) && vllGetSystemTime(&utc) && vllGetLocalTime(&local));
    const time_t after = time(nullptr);
    ASSERT_TRUE(vllSystemTimeToFileTime(&utc, &utc_seconds));
    ASSERT_TRUE(vllSystemTimeToFileTime(&local, &local_seconds));
    EXPECT_TRUE(before <= seconds && seconds <= utc_seconds && utc_seconds <= local_seconds + 18000 &&
                local_seconds + 18000 <= after);
    EXPECT_TRUE(utc.wMilliseconds < 1000 && local.wMilliseconds < 1000);

    char text[10] = "xxxxxxxxx";
    FakeTime now(1794846076);  // 2026-11-16 16:21:16 UTC
    EXPECT_EQ(vll_strdate(text), text);
    EXPECT_STREQ(text, "11/16/26");
    EXPECT_EQ(vll_strtime(text), text);
    EXPECT_STREQ(text, "11:21:16");
    EXPECT_EQ(text[9], '\0');
}

TEST_F(TimeTest, no_clock_and_one_past_2038) {
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
#if __SIZEOF_LONG__ == 8
    const FakeTime late(time_t{INT32_MAX} + 1);
    EXPECT_THAT(vllGetSystemTimeAsFileTime(&seconds), FailsWith(EOVERFLOW));
    EXPECT_EQ(seconds, -1);
    EXPECT_TRUE(vllGetSystemTime(&record));
    EXPECT_EQ(record.wYear, 2038);
#endif
}

TEST_F(TimeTest, file_times) {
    const int fd = memfd_create("times", MFD_CLOEXEC);
    ASSERT_NE(fd, -1);
    const auto file = static_cast<HANDLE>(fd);
    EXPECT_TRUE(vllGetFileTime(file, nullptr, nullptr, nullptr));
    FILETIME creation;
    FILETIME access;
    FILETIME write;
    const FILETIME given = 3000;
    const FILETIME early = -5;
    const struct {
        const FILETIME *access, *write;
        FILETIME access_after, write_after;
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
        struct stat status;
        ASSERT_EQ(fstat(fd, &status), 0);
        EXPECT_EQ(status.st_atim.tv_nsec, c.nanoseconds);
        EXPECT_EQ(status.st_mtim.tv_nsec, c.nanoseconds);
        EXPECT_TRUE(vllGetFileTime(file, &creation, &access, &write));
        EXPECT_TRUE(creation == status.st_ctime && access == c.access_after && write == c.write_after);
    }
#if __SIZEOF_LONG__ == 8
    const timespec far[2] = {{1000, 0}, {time_t{INT32_MAX} + 1, 0}};
    ASSERT_EQ(futimens(fd, far), 0);
    access = write = 7;
    EXPECT_THAT(vllGetFileTime(file, nullptr, &access, &write), FailsWith(EOVERFLOW));
    EXPECT_TRUE(access == 7 && write == 7);
    EXPECT_TRUE(vllGetFileTime(file, nullptr, &access, nullptr));  // only what is asked for counts
#endif
    close(fd);
    for (const HANDLE none : {file, INVALID_HANDLE_VALUE}) {
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
    const LARGE_INTEGER high = vllKeQueryPerformanceCounter(nullptr);
    EXPECT_EQ(frequency, sysconf(_SC_CLK_TCK));
    EXPECT_TRUE(low <= count && count <= high && high <= static_cast<int32_t>(times(&unused)));
}

}  // namespace
