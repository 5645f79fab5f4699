// Numbers as text, and beeps.
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
#include "support/objects.h"
#include "support/private_machine.h"
#include "support/syslog_capture.h"

namespace {

TEST(Numbers, as_text) {
    const struct {
        int32_t value;
        int32_t radix;
        const char *text;
    } rows[] = {
        {0, 10, "0"},
        {-1, 16, "ffffffff"},
        {-255, 16, "ffffff01"},
        {-255, 10, "-255"},
        {36, 36, "10"},
        {INT32_MAX, 10, "2147483647"},
        {INT32_MIN, 10, "-2147483648"},
        {INT32_MIN, 2, "10000000000000000000000000000000"},
        {-1, 36, "1z141z3"},
        {-1, 9, "12068657453"},
    };
    for (const auto &row : rows) {
        char buffer[34];
        memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(vllitoa(row.value, buffer, row.radix), buffer);
        EXPECT_STREQ(buffer, row.text);
        EXPECT_EQ(buffer[33], '#');
    }
    for (int32_t radix = -1; radix <= 40; ++radix) {
        for (const uint32_t value : {0U, 1U, 35U, 36U, 123456789U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
            char buffer[33] = "kept";
            if (radix >= 2 && radix <= 36) {
                EXPECT_THAT(vllultoa(value, buffer, radix), Yields(testing::Eq(buffer), 0));
                EXPECT_EQ(strtoul(buffer, nullptr, radix), value);
            } else {
                EXPECT_THAT(vllultoa(value, buffer, radix), FailsWith(EINVAL));
                EXPECT_THAT(vllitoa(1, buffer, radix), FailsWith(EINVAL));
                EXPECT_STREQ(buffer, "kept");
            }
        }
    }
    EXPECT_THAT(vllitoa(1, nullptr, 10), FailsWith(EINVAL));
    EXPECT_THAT(vllultoa(1, nullptr, 10), FailsWith(EINVAL));
}

class BeepTest : public LibraryTest {};

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
    const struct {
        DWORD frequency, duration;
        uint32_t argument;  // that the console takes; 0: it takes none
        int error;          // 0: it sounds
        int64_t ms;
    } rows[] = {
        {1000, 200, 0x00C804A9, 0, 225},
        {1000, 0x30000 + 200, 0x00C804A9, 0, 225},
        {static_cast<DWORD>(-1000), 0, static_cast<uint32_t>(-1193), 0, 25},
        {1000, static_cast<DWORD>(-30), 0xFFE204A9, 0, 0},
        {32767, 0, 36, 0, 25},
        {0x8000, 0x8000, 0x80000000U - 36, 0, 0},
        {1000, 200, (125U << 16) + 1704, EDOM, 0},
        {1000, 200, 0, ENOTTY, 0},
        {0x10000, 10, 0, EINVAL, 0},
        {0, 10, 0, EINVAL, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.argument);
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
            EXPECT_TRUE(row.argument == 0 || expectTone(row.argument));
            const int64_t start = nowMs();
            EXPECT_THAT(vllBeep(row.frequency, row.duration), Yields(row.error == 0, row.error));
            EXPECT_GE(nowMs() - start + 1, row.ms);
            EXPECT_TRUE(row.argument != (125U << 16) + 1704 || vllMessageBeep(0x30));
            return 0;
        });
        const std::string line =
            format("vllBeep: ioctl error playing sound %d - %s\n", row.error, strerror(row.error));
        EXPECT_EQ(takeErrors(), row.error == 0 || row.error == EINVAL ? Errors{} : Errors{line});
    }
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
    EXPECT_EQ(takeErrors(), Errors{"vllBeep: Error opening console 2 - No such file or directory\n"});
}

TEST_F(BeepTest, sounds_on_a_real_console) {
    if (!onTarget()) {
        GTEST_SKIP() << "no machine of the tests' own";
    }
    const int64_t start = nowMs();
    EXPECT_THAT(vllBeep(1000, 200), Yields(TRUE, 0));
    EXPECT_GE(nowMs() - start + 1, 225);
    EXPECT_THAT(vllMessageBeep(0), Yields(TRUE, 0));
    EXPECT_EQ(takeErrors(), Errors{});
}

}  // namespace
