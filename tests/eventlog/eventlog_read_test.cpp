// Numbers, positions and buffers of reads.
#include "eventlog_fixture.h"

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

namespace {

// Numbers run from the older file to the current one.
TEST_F(EventLogTest, where_records_begin_and_end) {
    const std::string nul(1, '\0');
    std::string half = numberedLines(2000);
    half[half.rfind(line("1000")) + 5] = '\0';
    const struct {
        const char *what;
        std::string older, current;
        uint32_t count;
        Texts texts;
    } cases[] = {
        {"empty", "", "", 0, {}},
        {"no line", nul, "\n", 0, {}},
        {"NULs", nul + nul + "\n\n", "no newline", 0, {}},
        {"both", line("a") + line("b"), line("c") + line("d") + line("e"), 5, {"a", "b", "c", "d", "e"}},
        {"unfinished", "", line("a") + line("b").substr(0, 42), 1, {"a"}},
        {"a newline first", "", "\n" + line("a") + "\n" + line("b"), 3, {"a", "b"}},
        {"empty lines", line("a") + "\n\n", "\n\n" + line("b"), 5, {"a", "b"}},
        {"a NUL ends a file", line("a") + nul + line("b"), line("c"), 2, {"a", "c"}},
        {"but not as its first byte", nul + "\n", nul + line("a") + line("b"), 3, {"b"}},
        {"a NUL far behind the start", "", half, 999, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        put(kOlder, c.older);
        put(kCurrent, c.current);
        EXPECT_EQ(count(), c.count);
        EXPECT_EQ(SyslogMappings[0].pData, nullptr);  // without a handle nothing is kept
        openLog();
        const std::vector<Record> all = readAll(kForwards);
        EXPECT_TRUE(c.count == 999 || messages(all) == c.texts);
        const std::vector<Record> back = read(kSeekBack, c.count);
        EXPECT_EQ(back.empty(), all.empty());
        EXPECT_TRUE(all.empty() || (all.back().number == c.count && back[0].number == c.count));
        for (const DWORD number : {0U, c.count + 1, c.count + 2, 0x80000000U, UINT32_MAX}) {
            expectNothing(kSeek, number, ENOMSG);
            expectNothing(kSeekBack, number, ENOMSG);
        }
        DWORD oldest = 0;
        EXPECT_TRUE(vllGetOldestEventLogRecord(log, &oldest));
        EXPECT_EQ(oldest, 1U);
        closeLog();
    }
}

TEST_F(EventLogTest, every_buffer_size) {
    put(kCurrent, "other\n" + line("a") + line("of another length"));
    openLog();
    constexpr DWORD kFirst = 80 + 4;   // 67 + 7 + 5 + 1, and the copy of the length
    constexpr DWORD kSecond = 96 + 4;  // 67 + 7 + 5 + 17
    for (DWORD size = 0; size <= kFirst + kSecond + 8; ++size) {
        const size_t some = read(kSeek, 1, size).size();
        EXPECT_EQ(some, size < kFirst ? 0U : size < kFirst + kSecond ? 1U : 2U) << size;
        EXPECT_EQ(error, size < kFirst ? ENOBUFS : 0) << size;
        EXPECT_EQ(needed, size < kFirst ? kFirst : 4711U) << size;
        // A record that did not fit stays current.
        const std::vector<Record> rest = read(kForwards, 0);
        EXPECT_EQ(rest.size(), 2 - some) << size;
        EXPECT_TRUE(rest.empty() || rest[0].number == 2 + some) << size;
    }
    DWORD got = 7;
    EXPECT_THAT(vllReadEventLog(log, kSeek, 1, nullptr, 0, nullptr, nullptr), FailsWith(ENOBUFS));
    EXPECT_THAT(vllReadEventLog(log, kSeek, 1, nullptr, 1, &got, nullptr), FailsWith(EINVAL));
    EXPECT_EQ(got, 7U);
}

TEST_F(EventLogTest, every_combination_of_flags) {
    put(kCurrent, line("a") + line("b"));
    for (DWORD flags = 0; flags < 32; ++flags) {
        SCOPED_TRACE(flags);
        const DWORD where = flags & 3;
        const DWORD direction = flags & 12;
        const bool valid = (where == 1 || where == 2) && (direction == 4 || direction == 8);
        char buffer[1024];
        DWORD got = 7;
        log = vllOpenEventLog("server", "source");
        EXPECT_THAT(vllReadEventLog(log, flags, 2, buffer, sizeof buffer, &got, nullptr),
                    Yields(BOOL{valid}, valid ? 0 : EINVAL));
        if (valid) {
            EXPECT_EQ(split(buffer, got)[0].message, flags & 1 && flags & 4 ? "a" : "b");
        } else {
            EXPECT_EQ(got, 7U);
        }
        closeLog();
    }
}

TEST_F(EventLogTest, sequential_reads_turn_round_where_they_are) {
    put(kCurrent, line("a") + line("b") + line("c"));
    openLog();
    constexpr DWORD kOne = 84;
    EXPECT_EQ(messages(read(kBackwards, 0, kOne)), Texts{"c"});
    EXPECT_EQ(messages(read(kForwards, 0, kOne)), Texts{"b"});
    EXPECT_EQ(messages(read(kBackwards, 0, kOne)), Texts{"c"});
    EXPECT_EQ(messages(readAll(kBackwards, kOne)), (Texts{"b", "a"}));
    expectNothing(kForwards, 0, ERANGE);  // at 0, outside
    EXPECT_EQ(messages(read(kSeek, 2)), (Texts{"b", "c"}));
    expectNothing(kBackwards, 0, ERANGE);
    EXPECT_EQ(messages(read(kSeekBack, 2)), (Texts{"b", "a"}));
    put(kCurrent, "other\n");
    EXPECT_EQ(count(), 1U);
    expectNothing(kSeek, 1, ERANGE);  // a seek that passes over all lines up to the end
}

// Lines of many lengths with these numbers; of each eight one is empty and one of another program.
std::string mixedLines(int first, int last) {
    std::string text;
    for (int i = first; i <= last; ++i) {
        const std::string message = std::to_string(i) + std::string(static_cast<size_t>(i * 37 % 90), 'm');
        text += i % 8 == 0 ? "\n" : i % 8 == 1 ? "other\n" : line(message);
    }
    return text;
}

TEST_F(EventLogTest, reads_from_anywhere_find_the_same_lines) {
    std::mt19937 random(7);
    for (int older : {0, 2, 26}) {
        put(kOlder, mixedLines(1, older));
        put(kCurrent, mixedLines(older + 1, 300));
        for (const DWORD flags : {kForwards, kBackwards}) {
            openLog();
            uint32_t previous = flags == kForwards ? 1 : 301;
            for (const Record &record : readAll(flags, 500)) {
                const auto passed = flags == kForwards ? record.number - previous : previous - record.number;
                ASSERT_TRUE(passed == 1 ||
                            (passed == 3 && record.number % 8 == (flags == kForwards ? 2 : 7)));
                previous = record.number;
            }
            EXPECT_EQ(previous, flags == kForwards ? 300U : 2U);
            closeLog();
        }
        openLog();
        void *second = vllOpenEventLog(nullptr, nullptr);
        for (int step = 0; step < 4000; ++step) {
            std::swap(log, second);
            for (const Record &record :
                 read(random() % 2 ? kSeek : kSeekBack, static_cast<DWORD>(random() % 301), 600)) {
                ASSERT_EQ(std::stoul(record.message), record.number);
            }
        }
        EXPECT_TRUE(vllCloseEventLog(second));
        closeLog();
    }
}

TEST_F(EventLogTest, threads_share_one_handle) {
    put(kCurrent, numberedLines(3000));
    openLog();
    std::vector<std::atomic<int>> seen(3001);
    const auto reader = [&] {
        char buffer[400];
        DWORD got;
        while (vllReadEventLog(log, kForwards, 0, buffer, sizeof buffer, &got, nullptr)) {
            for (const Record &record : split(buffer, got)) {
                ++seen[record.number];
            }
        }
    };
    std::thread first(reader);
    std::thread second(reader);
    first.join();
    second.join();
    EXPECT_EQ(std::count(seen.begin() + 1, seen.end(), 1), 3000);  // each record to one of them
}

TEST_F(EventLogTest, handles_that_are_none) {
    put(kCurrent, line("a"));
    openLog();
    int local = 0;
    void *const closed = vllOpenEventLog(nullptr, nullptr);
    EXPECT_TRUE(vllCloseEventLog(closed));
    char buffer[100];
    for (void *none : {static_cast<void *>(nullptr), static_cast<void *>(&local), closed}) {
        EXPECT_THAT(vllCloseEventLog(none), FailsWith(EINVAL));
        EXPECT_THAT(vllReadEventLog(none, kForwards, 0, buffer, sizeof buffer, nullptr, nullptr),
                    FailsWith(EINVAL));
    }
    EXPECT_EQ(messages(readAll(kForwards)), Texts{"a"});  // the copies are still there
}

}  // namespace
