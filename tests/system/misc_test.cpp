#include "system/misc.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/kd.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "support/child.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/private_machine.h"
#include "support/syslog_capture.h"

namespace {

using Strings = std::vector<std::string>;

// ---- numbers ----

TEST(Numbers, as_text) {
    struct {
        int32_t value;
        int32_t radix;
        const char *text;
    } rows[] = {
        {0, 10, "0"},
        {0, 2, "0"},
        {-1, 16, "ffffffff"},
        {-255, 16, "ffffff01"},
        {-255, 10, "-255"},
        {255, 16, "ff"},
        {35, 36, "z"},
        {36, 36, "10"},
        {INT32_MAX, 10, "2147483647"},
        {INT32_MIN, 10, "-2147483648"},
        {INT32_MIN, 2, "10000000000000000000000000000000"},
        {-1, 2, "11111111111111111111111111111111"},
        {-1, 36, "1z141z3"},
        {INT32_MIN, 8, "20000000000"},
        {-1, 9, "12068657453"},
    };
    for (const auto &row : rows) {
        char buffer[34];
        memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(vllitoa(row.value, buffer, row.radix), buffer);
        EXPECT_STREQ(buffer, row.text);
        EXPECT_EQ(buffer[33], '#');
        if (row.value >= 0 || row.radix != 10) {
            EXPECT_EQ(vllultoa(static_cast<uint32_t>(row.value), buffer, row.radix), buffer);
            EXPECT_STREQ(buffer, row.text);
        }
    }
    char buffer[33];
    EXPECT_STREQ(vllultoa(UINT32_MAX, buffer, 10), "4294967295");
}

TEST(Numbers, every_radix_reads_back) {
    for (int32_t radix = -1; radix <= 40; ++radix) {
        const bool good = radix >= 2 && radix <= 36;
        for (const uint32_t value : {0U, 1U, 35U, 36U, 123456789U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
            char buffer[33] = "kept";
            errno = 0;
            EXPECT_EQ(vllultoa(value, buffer, radix), good ? buffer : nullptr);
            EXPECT_EQ(errno, good ? 0 : EINVAL);
            if (good) {
                EXPECT_EQ(strtoul(buffer, nullptr, radix), value);
            } else {
                EXPECT_STREQ(buffer, "kept");
                EXPECT_EQ(vllitoa(static_cast<int32_t>(value), buffer, radix), nullptr);
            }
        }
    }
    EXPECT_EQ(vllitoa(1, nullptr, 10), nullptr);
    EXPECT_EQ(vllitoa(1, nullptr, INT32_MAX), nullptr);
    EXPECT_EQ(vllultoa(1, nullptr, INT32_MIN), nullptr);
}

// ---- beeps ----

class BeepTest : public LibraryTest {};

TEST(Tone, argument) {
    EXPECT_EQ(vlliToneArgument(1000, 200), 0x00C804A9U);
    EXPECT_EQ(vlliToneArgument(700, 125), (125U << 16) + 1704U);
    EXPECT_EQ(vlliToneArgument(32767, 0), 36U);
    EXPECT_EQ(vlliToneArgument(1, 0), 1193180U);
    EXPECT_EQ(vlliToneArgument(-1000, 1), 0x10000U - 1193U);
    EXPECT_EQ(vlliToneArgument(1000, -1), 0xFFFF04A9U);
    EXPECT_EQ(vlliToneArgument(-32768, -32768), 0x80000000U - 36U);
}

TEST_F(BeepTest, no_frequency) {
    for (const DWORD frequency : {0U, 0x10000U, 0xFFFF0000U}) {
        EXPECT_THAT(vllBeep(frequency, 10), FailsWith(EINVAL));
    }
    EXPECT_EQ(takeErrors(), Strings{});
}

// In a child that sees a file in the console's place.
Strings errorsWithFileForConsole(const std::function<void()> &body) {
    expectInChild([&] {
        if (unshare(CLONE_NEWNS) != 0) {
            return 1;
        }
        if (access("/dev/tty10", F_OK) == 0) {
            coverFile("/dev/tty10", "");
        } else {
            coverDirectory("/dev");
            close(open("/dev/tty10", O_CREAT | O_WRONLY, 0600));
        }
        body();
        return 0;
    });
    return takeErrors();
}

TEST_F(BeepTest, the_console_does_not_sound) {
    const Strings errors =
        errorsWithFileForConsole([] { EXPECT_THAT(vllBeep(1000, 10), FailsWith(ENOTTY)); });
    EXPECT_EQ(errors, (Strings{"vllBeep: ioctl error playing sound 25 - Inappropriate ioctl for device\n"}));
}

TEST_F(BeepTest, there_is_no_console) {
    expectInChild([] {
        if (unshare(CLONE_NEWNS) != 0) {
            return 1;
        }
        coverDirectory("/dev");
        EXPECT_THAT(vllMessageBeep(0), FailsWith(ENOENT));
        return 0;
    });
    EXPECT_EQ(takeErrors(), (Strings{"vllBeep: Error opening console 2 - No such file or directory\n"}));
}

// The kernel answers the tone request with success when its argument is the one expected, and with EDOM when
// not: a console for machines that have none.
bool expectTone(uint32_t argument) {
    const auto offset = [](size_t of) { return static_cast<uint32_t>(of); };
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset(offsetof(seccomp_data, nr))),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ioctl, 0, 5),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset(offsetof(seccomp_data, args[1]))),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, KDMKTONE, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offset(offsetof(seccomp_data, args[2]))),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, argument, 2, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EDOM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | 0),
    };
    const sock_fprog program = {sizeof code / sizeof *code, code};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(BeepTest, sounds_and_returns_when_it_is_over) {
    struct {
        DWORD frequency;
        DWORD duration;
        uint32_t argument;
        int64_t ms;
    } rows[] = {
        {1000, 200, 0x00C804A9, 225},
        {1000, 0x30000 + 200, 0x00C804A9, 225},
        {static_cast<DWORD>(-1000), 0, static_cast<uint32_t>(-1193), 25},
        {1000, static_cast<DWORD>(-30), 0xFFE204A9, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.argument);
        EXPECT_EQ(errorsWithFileForConsole([&] {
                      ASSERT_TRUE(expectTone(row.argument));
                      const int64_t start = nowMs();
                      EXPECT_TRUE(vllBeep(row.frequency, row.duration));
                      EXPECT_GE(nowMs() - start + 1, row.ms);
                  }),
                  Strings{});
    }
    EXPECT_EQ(errorsWithFileForConsole([&] {
                  ASSERT_TRUE(expectTone((125U << 16) + 1704U));
                  EXPECT_TRUE(vllMessageBeep(0x30));
                  EXPECT_THAT(vllBeep(1000, 200), FailsWith(EDOM));
              }).size(),
              1U);
}

TEST_F(BeepTest, sounds_on_a_real_console) {
    if (!onTarget()) {
        GTEST_SKIP() << "no machine of the tests' own";
    }
    const int64_t start = nowMs();
    EXPECT_TRUE(vllBeep(1000, 200)) << strerror(errno);
    EXPECT_GE(nowMs() - start + 1, 225);
    EXPECT_TRUE(vllMessageBeep(0)) << strerror(errno);
    EXPECT_EQ(takeErrors(), Strings{});
}

}  // namespace
