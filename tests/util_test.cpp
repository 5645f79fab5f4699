#include "util.h"

#include <syslog.h>

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
    EXPECT_EQ(vlliCmpTime({1, 5}, {1, 5}), 0);
    EXPECT_EQ(vlliCmpTime({2, 0}, {1, 999999999}), 1);
    EXPECT_EQ(vlliCmpTime({1, 999999999}, {2, 0}), -1);
    EXPECT_EQ(vlliCmpTime({1, 6}, {1, 5}), 1);
    EXPECT_EQ(vlliCmpTime({1, 4}, {1, 5}), -1);
    EXPECT_EQ(vlliCmpTime({-1, 0}, {0, 0}), -1);
}

std::vector<std::string> stackLines() {
    std::vector<std::string> lines;
    for (const LogLine &line : TakeLog()) {
        EXPECT_EQ(line.priority, LOG_ERR);
        lines.push_back(line.text);
    }
    return lines;
}

__attribute__((noinline)) int dumpAtDepth(volatile int depth) {
    if (depth == 0) {
        vlliPrintBacktrace();
        return 0;
    }
    return dumpAtDepth(depth - 1) + 1;  // no tail call
}

TEST_F(UtilTest, a_dump_has_a_line_for_each_frame_and_100_at_most) {
    for (const int depth : {0, 200}) {
        errno = 77;
        EXPECT_EQ(dumpAtDepth(depth), depth);
        EXPECT_EQ(errno, 77);
        const std::vector<std::string> lines = stackLines();
        ASSERT_FALSE(lines.empty());
        int frames = 0;
        ASSERT_EQ(sscanf(lines[0].c_str(), "VLL: STACK: backtrace depth = %d\n", &frames), 1);
        EXPECT_EQ(lines.size(), static_cast<size_t>(frames) + 1);
        EXPECT_GT(frames, 1);
        EXPECT_TRUE(depth == 0 || frames == 100) << frames;
        for (size_t i = 1; i < lines.size(); ++i) {
            const std::string &line = lines[i];
            const size_t open = line.rfind(" (0x");
            ASSERT_NE(open, std::string::npos) << line;
            EXPECT_EQ(line.compare(0, 12, "VLL: STACK: "), 0) << line;
            EXPECT_GE(line.size() - open, sizeof " (0x00000000)\n" - 1) << line;
            EXPECT_EQ(line.substr(line.size() - 2), ")\n");
        }
    }
}

TEST_F(UtilTest, a_dump_without_text_ends_after_the_depth) {
    const FailCall fail("backtrace_symbols", 1, ENOMEM);
    vlliPrintBacktrace();
    EXPECT_TRUE(fail.happened());
    EXPECT_EQ(stackLines().size(), 1U);
}

}  // namespace
