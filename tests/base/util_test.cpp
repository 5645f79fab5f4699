#include "base/util.h"

#include <syslog.h>
#include <cinttypes>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class UtilTest : public LibraryTest {};

// Ascending, so that the row numbers say how two times compare; sum is the time plus 0.999999999 s.
TEST_F(UtilTest, times_are_added_and_compared) {
    const struct {
        timespec time, sum;
    } rows[] = {
        {{-1, 0}, {-1, 999999999}}, {{0, 0}, {0, 999999999}}, {{1, 0}, {1, 999999999}},
        {{1, 1}, {2, 0}},           {{1, 5}, {2, 4}},         {{1, 999999999}, {2, 999999998}},
        {{2, 0}, {2, 999999999}},
    };
    for (const auto &row : rows) {
        timespec sum = row.time;
        vlliAddTime(&sum, {0, 999999999});
        EXPECT_EQ(vlliCmpTime(sum, row.sum), 0) << sum.tv_sec << ' ' << sum.tv_nsec;
        for (const auto &other : rows) {
            EXPECT_EQ(vlliCmpTime(row.time, other.time), (&row > &other) - (&row < &other));
        }
    }
    timespec sum = {1, 2};
    vlliAddTime(&sum, {3, 4});
    EXPECT_EQ(vlliCmpTime(sum, {4, 6}), 0);
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
        for (size_t i = 0; i < lines.size(); ++i) {
            const std::string &text = lines[i].text;
            EXPECT_EQ(lines[i].priority, LOG_ERR);
            const size_t at = i > 0 ? text.rfind(" (0x") : text.size();
            ASSERT_NE(at, std::string::npos) << text;
            uintptr_t address = 0;
            EXPECT_TRUE(i == 0 || sscanf(text.c_str() + at, " (0x%" SCNxPTR, &address) == 1);
            EXPECT_EQ(text.substr(at), i > 0 ? format(" (0x%08" PRIXPTR ")\n", address) : "");
            EXPECT_EQ(text.compare(0, 12, "VLL: STACK: "), 0) << text;
        }
    }
}

TEST_F(UtilTest, a_dump_without_text_ends_after_the_depth) {
    const FailCall fail("backtrace_symbols", 1, ENOMEM);
    vlliPrintBacktrace();
    EXPECT_EQ(takeLog().size(), 1U);
}

}  // namespace
