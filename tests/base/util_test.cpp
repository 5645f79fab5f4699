#include "base/util.h"

#include <syslog.h>
#include <cinttypes>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class UtilTest : public LibraryTest {};

TEST_F(UtilTest, addTime_carries_whole_seconds) {
    const struct {
        timespec t, d, sum;
    } rows[] = {
        {{1, 999999999}, {0, 1}, {2, 0}},
        {{1, 2}, {3, 4}, {4, 6}},
        {{0, 999999999}, {0, 999999999}, {1, 999999998}},
        {{5, 0}, {0, 999999999}, {5, 999999999}},
    };
    for (const auto &row : rows) {
        timespec t = row.t;
        vlliAddTime(&t, row.d);
        EXPECT_EQ(t.tv_sec, row.sum.tv_sec);
        EXPECT_EQ(t.tv_nsec, row.sum.tv_nsec);
    }
}

TEST_F(UtilTest, cmpTime_looks_at_seconds_first) {
    const timespec ordered[] = {{-1, 0}, {0, 0}, {1, 4}, {1, 5}, {1, 999999999}, {2, 0}};
    for (const timespec &a : ordered) {
        for (const timespec &b : ordered) {
            EXPECT_EQ(vlliCmpTime(a, b), (&a > &b) - (&a < &b)) << &a - ordered << ' ' << &b - ordered;
        }
    }
}

int dumpAtDepth(int depth);

// Called through a pointer that the compiler cannot see through: it would make a loop of the recursion, which has
// one frame only.
int (*volatile next_frame)(int) = dumpAtDepth;

int dumpAtDepth(int depth) {
    if (depth == 0) {
        vlliPrintBacktrace();
        return 0;
    }
    return next_frame(depth - 1) + 1;
}

TEST_F(UtilTest, a_dump_has_a_line_for_each_frame_and_100_at_most) {
    for (const int depth : {0, 200}) {
        errno = 77;
        EXPECT_EQ(dumpAtDepth(depth), depth);
        EXPECT_EQ(errno, 77);
        const std::vector<LogLine> lines = takeLog();
        ASSERT_GT(lines.size(), 2U);
        EXPECT_TRUE(depth == 0 || lines.size() == 101);
        EXPECT_EQ(lines[0].text, format("VLL: STACK: backtrace depth = %zu\n", lines.size() - 1));
        EXPECT_EQ(lines[0].priority, LOG_ERR);
        for (size_t i = 1; i < lines.size(); ++i) {
            const std::string &line = lines[i].text;
            EXPECT_EQ(lines[i].priority, LOG_ERR);
            EXPECT_EQ(line.compare(0, 12, "VLL: STACK: "), 0) << line;
            uintptr_t address = 0;
            const size_t open = line.rfind(" (0x");
            ASSERT_NE(open, std::string::npos) << line;
            EXPECT_EQ(sscanf(line.c_str() + open, " (0x%" SCNxPTR, &address), 1) << line;
            EXPECT_EQ(line.substr(open), format(" (0x%08" PRIXPTR ")\n", address));
        }
    }
}

TEST_F(UtilTest, a_dump_without_text_ends_after_the_depth) {
    const FailCall fail("backtrace_symbols", 1, ENOMEM);
    vlliPrintBacktrace();
    EXPECT_TRUE(fail.happened());
    EXPECT_EQ(takeLog().size(), 1U);
}

}  // namespace
