// Setting the clock and the zone: with stand-ins for the clock and the commands, and on the target with the real ones.
#include <fcntl.h>
#include <linux/rtc.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <climits>
#include <cstring>
#include <thread>

#include "support/child.h"
#include "support/clock.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/private_machine.h"

namespace {

constexpr char kLink[] = "/etc/localtime";

TEST(TimeSetTest, setting_the_clock) {
    setenv("TZ", "XST-2XDT,M3.5.0,M10.5.0", 1);
    tzset();
    const struct {
        int line;
        BOOL (*set)(const SYSTEMTIME *);
        SYSTEMTIME time;
        time_t seconds;  // -1: refused before the clock is touched
    } cases[] = {
        {__LINE__, vllSetSystemTime, {2026, 11, 0, 16, 12, 0, 0, 250}, 1794830400},
        {__LINE__, vllSetSystemTime, {2025, 13, 0, 1, 0, 0, 0, 0}, 1767225600},
        {__LINE__, vllSetSystemTime, {1969, 12, 0, 31, 23, 59, 59, 250}, -1},
        {__LINE__, vllSetSystemTime, {2038, 1, 0, 19, 3, 14, 8, 250}, -1},
        {__LINE__, vllSetLocalTime, {2026, 11, 0, 16, 12, 0, 0, 250}, 1794830400 - 2 * 3600},
        {__LINE__, vllSetLocalTime, {2026, 7, 0, 7, 12, 0, 0, 0}, 1783425600 - 3 * 3600},
        {__LINE__, vllSetLocalTime, {1970, 1, 0, 1, 1, 59, 59, 0}, -1},
        {__LINE__, vllSetLocalTime, {2038, 1, 0, 19, 5, 14, 8, 0}, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        const CatchClockSetting clock;
        EXPECT_EQ(c.set(&c.time), c.seconds != -1);
        EXPECT_EQ(clock.calls, c.seconds != -1);
        EXPECT_FALSE(clock.with_zone);  // the kernel's zone stays as it is
        if (c.seconds == -1) {
            continue;
        }
        EXPECT_EQ(clock.value.tv_sec, c.seconds);
        EXPECT_EQ(clock.value.tv_usec, c.time.wMilliseconds * 1000);
        if (c.set == vllSetLocalTime) {
            const FakeTime set(clock.value.tv_sec);
            SYSTEMTIME back;
            EXPECT_TRUE(vllGetLocalTime(&back));  // reads back as it was set
            EXPECT_EQ(memcmp(&back.wDay, &c.time.wDay, 8), 0);
        }
    }
    for (const int error : {EPERM, EINVAL}) {
        const CatchClockSetting clock(error);
        EXPECT_THAT(vllSetSystemTime(&cases[0].time), FailsWith(error));
    }
    unsetenv("TZ");
    tzset();
}

// On the target: the clock, the hardware clock and a read-only root file system of the test's own.
class RealClockTest : public testing::Test {
  protected:
    void SetUp() override {
        if (!onTarget()) {
            GTEST_SKIP() << "needs a clock that may be set";
        }
        clock_gettime(CLOCK_REALTIME, &before);
        started_ms = nowMs();
    }
    // Gives the machine its time back.
    void TearDown() override {
        if (onTarget()) {
            before.tv_sec += static_cast<time_t>((nowMs() - started_ms) / 1000);
            clock_settime(CLOCK_REALTIME, &before);
        }
    }
    timespec before = {};
    int64_t started_ms = 0;
};

TEST_F(RealClockTest, set_and_read_back) {
    const SYSTEMTIME wanted = {2026, 11, 0, 16, 12, 0, 0, 250};
    ASSERT_TRUE(vllSetSystemTime(&wanted));
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t ms = int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
    EXPECT_GE(ms, 1794830400250);
    EXPECT_LT(ms, 1794830400250 + 5000);
    expectInChild([&] {
        EXPECT_EQ(setresuid(65534, 65534, 65534), 0);
        EXPECT_THAT(vllSetSystemTime(&wanted), FailsWith(EPERM));
        return 0;
    });
}

constexpr char kUtc[] = "/usr/share/zoneinfo/UTC";
constexpr char kParis[] = "/usr/share/zoneinfo/Europe/Paris";

TIME_ZONE_INFORMATION named(const std::string &name) {
    TIME_ZONE_INFORMATION zone = {};
    memcpy(zone.TimeZoneKeyName, name.data(), std::min(name.size(), sizeof zone.TimeZoneKeyName));
    return zone;
}

std::string linkTarget() {
    char target[256] = {};
    return readlink(kLink, target, sizeof target - 1) == -1 ? "none" : target;
}

// In November 2026.
void expectParis() {
    TIME_ZONE_INFORMATION zone;
    EXPECT_EQ(vllGetTimeZoneInformation(&zone), TIME_ZONE_ID_STANDARD);
    EXPECT_EQ(zone.Bias, -60);
    EXPECT_STREQ(zone.DaylightName, "CEST");
}

// A root file system of its own, read-only, with what the commands need.
void enterReadOnlyRoot() {
    const std::string root = "/run";
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount("root", root.c_str(), "tmpfs", 0, nullptr), 0);
    for (const std::string directory : {"/bin", "/sbin", "/lib", "/usr", "/dev", "/proc"}) {
        struct stat status;
        char target[256] = {};
        ASSERT_EQ(lstat(directory.c_str(), &status), 0) << directory;
        if (readlink(directory.c_str(), target, sizeof target - 1) > 0) {
            ASSERT_EQ(symlink(target, (root + directory).c_str()), 0);
            continue;
        }
        ASSERT_EQ(mkdir((root + directory).c_str(), 0755), 0);
        ASSERT_EQ(mount(directory.c_str(), (root + directory).c_str(), nullptr, MS_BIND | MS_REC, nullptr),
                  0);
    }
    ASSERT_EQ(mkdir((root + "/etc").c_str(), 0755), 0);
    ASSERT_EQ(symlink(kUtc, (root + kLink).c_str()), 0);
    ASSERT_EQ(mount(nullptr, root.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    ASSERT_EQ(chroot(root.c_str()), 0);
    ASSERT_EQ(chdir("/"), 0);
}

TEST_F(RealClockTest, the_zone_and_the_hardware_clock) {
    expectInChild([] {
        enterReadOnlyRoot();
        if (HasFatalFailure()) {
            return 1;  // the machine's own root must not be changed
        }
        tzset();
        const TIME_ZONE_INFORMATION paris = named("Europe/Paris");
        const SYSTEMTIME wanted = {2026, 11, 0, 16, 12, 0, 0, 0};
        EXPECT_TRUE(vllSetSystemTime(&wanted));
        EXPECT_TRUE(vllSetTimeZoneInformation(&paris)) << strerror(errno);
        EXPECT_EQ(linkTarget(), kParis);
        struct statvfs root;
        EXPECT_EQ(statvfs("/", &root), 0);
        EXPECT_NE(root.f_flag & ST_RDONLY, 0U);
        expectParis();
        rtc_time hardware = {};
        const int rtc = open("/dev/rtc0", O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(ioctl(rtc, RTC_RD_TIME, &hardware), 0);
        close(rtc);
        EXPECT_EQ(hardware.tm_mday, 16);
        EXPECT_EQ(hardware.tm_hour, 13);  // local time
        EXPECT_LT(hardware.tm_min, 2);
        return 0;
    });
}

// The commands as stand-ins that note how they were called; /etc is empty and the test's own.
class ZoneTest : public LibraryTest {
  protected:
    static void SetUpTestSuite() {
        if (onTarget()) {
            return;
        }
        coverDirectory("/etc");
        for (const char *command : {"/bin/mount", "/bin/ln", "/sbin/hwclock"}) {
            coverFile(command, std::string("#!/bin/sh\n"
                                           "echo \"$0 $*\" >>/dev/commands\n"
                                           "if test -e /dev/fail-") +
                                   basename(command) + " && grep -qe \"$1\" /dev/fail-" + basename(command) +
                                   "; then exit 1; fi\n"
                                   "if test ${0##*/} = ln; then cp -P /dev/new-link \"$3\"; fi\n");
            ASSERT_EQ(chmod(command, 0755), 0);
        }
    }
    void SetUp() override {
        unsetenv("TZ");
        LibraryTest::SetUp();
        if (onTarget()) {
            GTEST_SKIP() << "the target has the real commands";
        }
        link(kUtc, kLink);
        link(kParis, "/dev/new-link");
        tzset();
        for (const char *file : {"/dev/commands", "/dev/fail-mount", "/dev/fail-ln", "/dev/fail-hwclock"}) {
            remove(file);
        }
    }
    static void link(const char *target, const char *path) {
        remove(path);
        ASSERT_EQ(symlink(target, path), 0);
    }
    static int64_t commandsRun() {
        const std::string commands = readFile("/dev/commands");
        return std::count(commands.begin(), commands.end(), '\n');
    }
};

TEST_F(ZoneTest, paris) {
    const TIME_ZONE_INFORMATION paris = named("Europe/Paris");
    ASSERT_TRUE(vllSetTimeZoneInformation(&paris));
    EXPECT_EQ(readFile("/dev/commands"),
              "/bin/mount -oremount,rw /\n"
              "/bin/ln -s /usr/share/zoneinfo/Europe/Paris /etc/localtime\n"
              "/bin/mount -oremount,ro /\n"
              "/sbin/hwclock -wl\n");
    const FakeTime now(1794846076);
    expectParis();
    SYSTEMTIME local;
    EXPECT_TRUE(vllGetLocalTime(&local));
    EXPECT_EQ(local.wHour, 17);  // 16:21 UTC
}

TEST_F(ZoneTest, names_that_never_reach_a_command) {
    const std::pair<std::string, int> cases[] = {
        {"", EINVAL},
        {"Nowhere/Land", ENOENT},
        {"Europe", EISDIR},
        {"Europe/", EISDIR},
        {"UTC/", ENOTDIR},
        {"../../../etc/passwd", EINVAL},
        {"UTC;touch /dev/owned", EINVAL},
        {"UTC\n", EINVAL},
        {"UTC:", EINVAL},
        {"Europe/Par\xEFs", EINVAL},
        {std::string(63, 'a'), ENOENT},
        {std::string(64, 'a'), EINVAL},  // no NUL in its field
    };
    for (const auto &[name, error] : cases) {
        const TIME_ZONE_INFORMATION zone = named(name);
        EXPECT_THAT(vllSetTimeZoneInformation(&zone), FailsWith(error)) << name;
    }
    EXPECT_EQ(commandsRun(), 0);
    EXPECT_EQ(linkTarget(), kUtc);
}

TEST_F(ZoneTest, a_step_that_fails_is_the_last) {
    const struct {
        const char *file, *argument;
        int commands;
        const char *target;
    } cases[] = {
        {"/dev/fail-mount", "-oremount,rw", 1, kUtc},
        {"/dev/fail-ln", "-s", 2, "none"},
        {"/dev/fail-mount", "-oremount,ro", 3, kParis},
        {"/dev/fail-hwclock", "-wl", 4, kParis},
    };
    const TIME_ZONE_INFORMATION paris = named("Europe/Paris");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.argument);
        link(kUtc, kLink);
        remove("/dev/commands");
        writeFile(c.file, c.argument);
        EXPECT_FALSE(vllSetTimeZoneInformation(&paris));
        EXPECT_EQ(commandsRun(), c.commands);
        EXPECT_EQ(linkTarget(), c.target);
        remove(c.file);
    }
    const FakeTime now(1794846076);
    SYSTEMTIME local;
    EXPECT_TRUE(vllGetLocalTime(&local));
    EXPECT_EQ(local.wHour, 16);  // linked, but not loaded by this process

    link(kUtc, kLink);
    ASSERT_EQ(chmod("/bin/mount", 0644), 0);
    EXPECT_THAT(vllSetTimeZoneInformation(&paris), FailsWith(EACCES));
    ASSERT_EQ(chmod("/bin/mount", 0755), 0);
    EXPECT_EQ(linkTarget(), kUtc);
}

TEST_F(ZoneTest, a_cancelled_thread_finishes_the_change) {
    bool reached = false;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        const TIME_ZONE_INFORMATION paris = named("Europe/Paris");
        EXPECT_TRUE(vllSetTimeZoneInformation(&paris));
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        reached = true;
    });
    thread.join();
    EXPECT_TRUE(reached);
    EXPECT_EQ(commandsRun(), 4);
}

}  // namespace
