#include "vwincompat/eventlog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>

#include "eventlog/eventlog_map.h"
#include "eventlog/eventlog_record.h"

#include "support/child.h"
#include "support/clock.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/private_machine.h"

namespace {

constexpr char kCurrent[] = "/var/log/vservices";
constexpr char kOlder[] = "/var/log/vservices.0";
constexpr DWORD kForwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD kBackwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;
constexpr DWORD kSeek = EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD kSeekBack = EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ;

void put(const char *path, const std::string &content, int flags = O_TRUNC) {
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644);
    ASSERT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
}

std::string line(const std::string &message) {
    return "Nov 16 16:21:16 unit1 user.info gateway: " + message + "\n";
}

std::string numberedLines(int count) {
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += line(std::to_string(i));
    }
    return text;
}

struct Record {
    uint32_t number;
    WORD type;
    FILETIME time;
    std::string source, computer, message;

    bool operator==(const Record &other) const {
        return number == other.number && type == other.type && time == other.time && source == other.source &&
               computer == other.computer && message == other.message;
    }
};

// Takes a buffer of records apart and checks all that does not depend on the lines.
std::vector<Record> split(const char *data, size_t size) {
    std::vector<Record> records;
    for (size_t at = 0; at < size;) {
        EVENTLOGRECORD head;
        memcpy(&head, data + at, sizeof head);
        EXPECT_LE(at + head.Length, size);
        if (head.Length < 72 || at + head.Length > size) {
            ADD_FAILURE() << "length " << head.Length << " at " << at;
            break;
        }
        const char *const text = data + at + sizeof head;
        const std::string source = text;
        const std::string computer = text + source.size() + 1;
        const std::string message = data + at + head.StringOffset;
        const size_t end = 67 + source.size() + computer.size() + message.size();
        uint32_t copy;
        memcpy(&copy, data + at + head.Length - 4, sizeof copy);
        EXPECT_EQ(head.Length, (end + 3) / 4 * 4 + 4);
        EXPECT_EQ(copy, head.Length);
        EXPECT_EQ(std::string(data + at + end, head.Length - 4 - end),
                  std::string(head.Length - 4 - end, '\0'));
        EXPECT_EQ(head.StringOffset, 66 + source.size() + computer.size());
        EXPECT_EQ(memcmp(&head.Reserved, "LfLe", 4), 0);
        EXPECT_EQ(head.TimeWritten, head.TimeGenerated);
        EXPECT_EQ(head.NumStrings, 1);
        const std::string zeros(12, '\0');
        EXPECT_EQ(head.EventID | head.EventCategory | head.ReservedFlags | head.ClosingRecordNumber, 0U);
        EXPECT_EQ(memcmp(&head.UserSidLength, std::string(24, '\0').data(), 24), 0);
        records.push_back({head.RecordNumber, head.EventType, head.TimeGenerated, source, computer, message});
        at += head.Length;
    }
    return records;
}

class EventLogTest : public LibraryTest {
  protected:
    static void SetUpTestSuite() { coverDirectory("/var/log", "256m"); }
    void SetUp() override {
        remove(kCurrent);
        remove(kOlder);
        LibraryTest::SetUp();
    }
    void TearDown() override {
        if (log != nullptr) {
            EXPECT_TRUE(vllCloseEventLog(log));
        }
        EXPECT_EQ(SyslogMappings[0].pData, nullptr);
        EXPECT_EQ(SyslogMappings[1].pData, nullptr);
        EXPECT_EQ(nSyslogRecordsTotal, 0U);
        LibraryTest::TearDown();
    }
    void openLog() {
        log = vllOpenEventLog(nullptr, nullptr);
        ASSERT_NE(log, nullptr);
    }
    void closeLog() {
        EXPECT_TRUE(vllCloseEventLog(log));
        log = nullptr;
    }
    static uint32_t count() {
        DWORD number = 4711;
        EXPECT_TRUE(vllGetNumberOfEventLogRecords(nullptr, &number));
        return number;
    }
    // One read with a buffer of this size; error is 0 when it succeeds.
    std::vector<Record> read(DWORD flags, DWORD number, DWORD size = 65536) {
        std::vector<char> buffer(size);  // exactly so many bytes, for the sanitizer
        DWORD got = 4711;
        needed = 4711;
        errno = 0;
        const BOOL ok = vllReadEventLog(log, flags, number, buffer.data(), size, &got, &needed);
        error = ok ? 0 : errno;
        EXPECT_EQ(ok, got != 0);
        return split(buffer.data(), got);
    }
    // All that sequential reads bring, in pieces of the buffer's size.
    std::vector<Record> readAll(DWORD flags, DWORD size = 65536) {
        std::vector<Record> all;
        do {
            const std::vector<Record> some = read(flags, 0, size);
            all.insert(all.end(), some.begin(), some.end());
        } while (error == 0);
        EXPECT_EQ(error, ERANGE);
        return all;
    }
    std::vector<std::string> messages(const std::vector<Record> &records) {
        std::vector<std::string> texts;
        for (const Record &record : records) {
            texts.push_back(record.message);
        }
        return texts;
    }

    void *log = nullptr;
    DWORD needed = 0;
    int error = 0;
};

using Texts = std::vector<std::string>;

TEST_F(EventLogTest, an_empty_log) {
    const std::pair<std::string, std::string> cases[] = {{"missing", "missing"},
                                                         {"", ""},
                                                         {std::string(1, '\0'), "\n"},
                                                         {std::string("\0\0\n\n", 4), "no newline"}};
    for (const auto &[older, current] : cases) {
        if (older != "missing") {
            put(kOlder, older);
            put(kCurrent, current);
        }
        openLog();
        EXPECT_EQ(count(), 0U) << current;
        EXPECT_TRUE(readAll(kForwards).empty()) << current;
        EXPECT_TRUE(readAll(kBackwards).empty()) << current;
        for (const DWORD number : {0U, 1U, 2U, 0x80000000U, UINT32_MAX}) {
            for (const DWORD flags : {kSeek, kSeekBack}) {
                EXPECT_TRUE(read(flags, number).empty());
                EXPECT_EQ(error, ENOMSG) << current << number;
            }
        }
        DWORD oldest = 0;
        EXPECT_TRUE(vllGetOldestEventLogRecord(log, &oldest));
        EXPECT_EQ(oldest, 1U);
        closeLog();
    }
}

TEST_F(EventLogTest, numbers_run_from_the_older_file_to_the_current_one) {
    put(kOlder, line("one") + line("two") + line("three"));
    put(kCurrent, line("four") + line("five") + "Nov 16 16:21:16 unit1 user.info gateway: unfinished");
    EXPECT_EQ(count(), 5U);  // with no handle open: nothing stays
    EXPECT_EQ(SyslogMappings[0].pData, nullptr);
    openLog();
    EXPECT_EQ(count(), 5U);
    EXPECT_EQ(messages(readAll(kForwards)), (Texts{"one", "two", "three", "four", "five"}));
    const std::vector<Record> from_four = read(kSeek, 4);
    EXPECT_EQ(messages(from_four), (Texts{"four", "five"}));
    EXPECT_EQ(from_four[0].number, 4U);
    EXPECT_EQ(messages(read(kSeekBack, 2)), (Texts{"two", "one"}));
    EXPECT_TRUE(read(kSeek, 6).empty());
    EXPECT_EQ(error, ENOMSG);
    EXPECT_TRUE(read(kSeekBack, 0).empty());
    EXPECT_EQ(error, ENOMSG);

    // What is appended shows after the next count.
    put(kCurrent, "\n" + line("seven"), O_APPEND);
    EXPECT_EQ(messages(read(kSeek, 4)), (Texts{"four", "five"}));
    EXPECT_EQ(count(), 7U);
    EXPECT_EQ(messages(read(kSeek, 4)), (Texts{"four", "five", "unfinished", "seven"}));
}

TEST_F(EventLogTest, where_records_begin_and_end) {
    const std::string nul(1, '\0');
    const struct {
        int line;
        std::string older, current;
        uint32_t count;
        Texts texts;
        uint32_t last;  // number of the last one
    } cases[] = {
        {__LINE__, "", "\n" + line("one") + "\n" + line("two"), 3, {"one", "two"}, 3},
        {__LINE__, line("one") + "\n\n", "\n\n" + line("two"), 5, {"one", "two"}, 5},
        // A NUL ends a file, but as its first byte.
        {__LINE__,
         line("one") + nul + line("two"),
         nul + line("three") + line("four"),
         3,
         {"one", "four"},
         3},
        {__LINE__, nul + "\n", line("one"), 2, {"one"}, 2},
    };
    for (const auto &c : cases) {
        put(kOlder, c.older);
        put(kCurrent, c.current);
        openLog();
        EXPECT_EQ(count(), c.count) << "line " << c.line;
        EXPECT_EQ(messages(readAll(kForwards)), c.texts) << "line " << c.line;
        const std::vector<Record> last = read(kSeekBack, c.count);
        EXPECT_EQ(last.empty() ? 0 : last[0].number, c.last) << "line " << c.line;
        closeLog();
    }
    // A NUL far behind the start.
    std::string text = numberedLines(5000);
    const size_t end = text.size() / 2;
    text[end] = '\0';
    put(kOlder, "");
    put(kCurrent, text);
    EXPECT_EQ(count(), std::count(text.begin(), text.begin() + static_cast<ssize_t>(end), '\n'));
}

// The time that the tests of lines run at: 2026-11-16 16:21:16 UTC.
constexpr time_t kNow = 1794846076;

TEST_F(EventLogTest, records_of_lines) {
    const FakeTime now(kNow);
    const Record none = {};
    const auto info = [](const std::string &source, const std::string &computer, const std::string &message) {
        return Record{1, 4, kNow, source, computer, message};
    };
    // Of the source "gateway" on the host "u".
    const auto typed = [](WORD type) { return Record{1, type, kNow, "gateway", "u", "a"}; };
    const std::string host63(63, 'h');
    const std::string long_text(600, 'x');
    const std::string stamp = "Nov 16 16:21:16 ";
    const std::string prefix = stamp + "unit1 user.info ";
    const Record cut = info("gateway", "unit1", long_text.substr(0, 470));
    const struct {
        int number;
        std::string text;
        Record expected;
    } cases[] = {
        {__LINE__, prefix + "gatekeeper: call set up", info("gatekeeper", "unit1", "call set up")},
        {__LINE__, prefix + "GATEKEEPER; up", info("GATEKEEPER", "unit1", "up")},
        {__LINE__, stamp + "u user.warning gateway: a", typed(2)},
        {__LINE__, stamp + "u USER.DEBUG gateway: a", typed(4)},
        {__LINE__, stamp + "u user.error gateway: a", typed(1)},
        {__LINE__, stamp + "u user.er gateway: a", typed(0)},
        {__LINE__, stamp + "u daemon.err gateway: a", typed(0)},
        {__LINE__, stamp + "u user.notice gateway: a", typed(0)},
        {__LINE__, stamp + "u user.crit gateway: a", typed(0)},
        {__LINE__, prefix + "gateway: two  blanks\tand a ", info("gateway", "unit1", "two  blanks\tand a ")},
        {__LINE__, stamp + "  unit1\tuser.info  gateway:  x", info("gateway", "unit1", " x")},
        {__LINE__, prefix + "gateway:", info("gateway", "unit1", "")},
        {__LINE__, prefix + "gateway: ", info("gateway", "unit1", "")},
        // The first place of the name counts.
        {__LINE__, stamp + "gateway user.info gateway: up",
         info("gateway", "gateway", "ser.info gateway: up")},
        // Not ours.
        {__LINE__, prefix + "gateway[123]: up", none},
        {__LINE__, prefix + "gateways: up", none},
        {__LINE__, prefix + "gateway:x", none},
        {__LINE__, prefix + "gatewa: up", none},
        {__LINE__, prefix + "init: gateway: up", none},
        {__LINE__, prefix + "x", none},
        {__LINE__, prefix, none},
        {__LINE__, stamp + "unit1 gateway: up", none},
        {__LINE__, "", none},
        {__LINE__, " ", none},
        {__LINE__, prefix + "gateway: about VLL: this", none},
        {__LINE__, prefix + "gateway: vll:", none},
        {__LINE__, prefix + "gateway: xvLli:x", none},
        {__LINE__, stamp + "vll: user.info gateway: up", none},
        {__LINE__, prefix + "gateway: vll vlli", info("gateway", "unit1", "vll vlli")},
        // Limits: 63 characters of the host's name, 511 of the line.
        {__LINE__, stamp + host63 + " user.info gateway: a", info("gateway", host63, "a")},
        {__LINE__, stamp + host63 + "h user.info gateway: a", info("gateway", host63, "a")},
        {__LINE__, stamp + long_text + " user.info gateway: a", none},
        {__LINE__, stamp + "u user.info" + host63 + host63 + " gateway: a", typed(4)},
        {__LINE__, prefix + std::string(63, 'g') + ": up", none},
        {__LINE__, (prefix + "gateway: " + long_text).substr(0, 511), cut},
        {__LINE__, (prefix + "gateway: " + long_text).substr(0, 512), cut},
        {__LINE__, prefix + "gateway: " + std::string(100000, 'x'), cut},
        {__LINE__, stamp + "u" + std::string(480, ' ') + "user.info gateway: cut", none},
        // The largest record fits its buffer.
        {__LINE__, stamp + "gatekeeper" + host63 + " user.info gatekeeper: " + long_text,
         info("gatekeeper", "gatekeeper" + host63.substr(10),
              (host63.substr(2) + " user.info gatekeeper: " + long_text).substr(0, 511 - 28))},
    };
    for (const auto &c : cases) {
        put(kCurrent, c.text + "\n");
        openLog();
        // A line without a character counts as no record when it is the first.
        EXPECT_EQ(count(), c.text.empty() ? 0U : 1U) << "line " << c.number;
        const std::vector<Record> all = readAll(kForwards);
        ASSERT_EQ(all.size(), c.expected.number) << "line " << c.number;
        EXPECT_TRUE(all.empty() || all[0] == c.expected)
            << "line " << c.number << " with message " << all[0].message;
        closeLog();
    }
}

TEST_F(EventLogTest, record_times) {
    const struct {
        const char *line;
        time_t now;
        FILETIME time;
    } cases[] = {
        {"Nov 16 16:21:16 unit1", kNow, kNow},
        {"nov 16 16:21:16 unit1", kNow, kNow},
        {"Nov  1 00:00:00 unit1", kNow, 1793491200},
        {"Dec 31 23:59:59 unit1", 1767225600, 1767225599},  // read in January 2026
        {"Dec  1 00:00:00 unit1", kNow, 1764547200},        // December 2025, in November 2026
        {"Jan 31 00:00:00 unit1", kNow, 1769817600},
        {"Xyz 16 16:21:16 unit1", kNow, kNow},  // no month: the current one
        {"16 Nov 16:21:16 unit1", kNow,
         1793406076},  // neither month nor day nor hour: the day before the first
        {"Feb 29 00:00:00 unit1", kNow, 1772323200},  // carried over
        {"Nov 99999999999 x", kNow, 0},               // whatever, but no fault
        {"Nov", kNow, 1793404800},
        {"", kNow, 1793404800},
        {"Nov 16 -1:-1:-1", kNow, 0},
    };
    for (const auto &c : cases) {
        const FakeTime now(c.now);
        const FILETIME time = vlliGetRecordTime(c.line);
        if (c.time != 0) {
            EXPECT_EQ(time, c.time) << c.line;
        }
    }
    const FakeTime none(-1);
    EXPECT_EQ(vlliGetRecordTime("Nov 16 16:21:16 unit1"), -1);
}

TEST_F(EventLogTest, every_buffer_size) {
    put(kCurrent, "not ours\n" + line("a") + line("of another length"));
    openLog();
    const std::vector<Record> whole = readAll(kForwards);
    ASSERT_EQ(whole.size(), 2U);
    const DWORD first = 80 + 4;   // 67 + 7 + 5 + 1, and the copy of the length
    const DWORD second = 96 + 4;  // 67 + 7 + 5 + 17
    for (DWORD size = 0; size <= first + second + 8; ++size) {
        const std::vector<Record> some = read(kSeek, 1, size);
        if (size < first) {
            EXPECT_EQ(error, ENOBUFS) << size;
            EXPECT_EQ(needed, first) << size;
            // It stays current: passed-over lines are not gone through again.
            EXPECT_EQ(read(kForwards, 0)[0].number, 1U + 1U);
        } else {
            EXPECT_EQ(some.size(), size < first + second ? 1U : 2U) << size;
            EXPECT_EQ(needed, 4711U);
            const std::vector<Record> rest = read(kForwards, 0);
            EXPECT_EQ(rest.size(), 2 - some.size()) << size;
            EXPECT_EQ(error, rest.empty() ? ERANGE : 0);
        }
    }
    DWORD got = 7;
    EXPECT_THAT(vllReadEventLog(log, kSeek, 1, nullptr, 0, nullptr, nullptr), FailsWith(ENOBUFS));
    EXPECT_THAT(vllReadEventLog(log, kSeek, 1, nullptr, 1, &got, nullptr), FailsWith(EINVAL));
    EXPECT_EQ(got, 7U);
}

TEST_F(EventLogTest, every_combination_of_flags) {
    put(kCurrent, line("a") + line("b"));
    openLog();
    for (DWORD flags = 0; flags < 32; ++flags) {
        const DWORD where = flags & 3;
        const DWORD direction = flags & 12;
        const bool valid = (where == 1 || where == 2) && (direction == 4 || direction == 8);
        char buffer[1024];
        DWORD got = 7;
        DWORD more = 7;
        errno = 0;
        void *const fresh = vllOpenEventLog("server", "source");
        EXPECT_EQ(vllReadEventLog(fresh, flags, 2, buffer, sizeof buffer, &got, &more), valid) << flags;
        if (valid) {
            EXPECT_EQ(split(buffer, got)[0].message, flags & 1 && flags & 4 ? "a" : "b") << flags;
        } else {
            EXPECT_EQ(errno, EINVAL) << flags;
            EXPECT_EQ(got, 7U) << flags;
        }
        EXPECT_EQ(more, 7U);
        EXPECT_TRUE(vllCloseEventLog(fresh));
    }
}

TEST_F(EventLogTest, sequential_reads_turn_round_where_they_are) {
    put(kCurrent, line("a") + line("b") + line("c"));
    openLog();
    const DWORD one = 84;
    EXPECT_EQ(messages(read(kBackwards, 0, one)), Texts{"c"});
    EXPECT_EQ(messages(read(kForwards, 0, one)), Texts{"b"});
    EXPECT_EQ(messages(read(kBackwards, 0, one)), Texts{"c"});
    EXPECT_EQ(messages(readAll(kBackwards, one)), (Texts{"b", "a"}));
    EXPECT_TRUE(read(kForwards, 0).empty());  // at 0, outside
    EXPECT_EQ(error, ERANGE);
    EXPECT_EQ(messages(read(kSeek, 3)), Texts{"c"});
    EXPECT_TRUE(read(kBackwards, 0).empty());
    EXPECT_EQ(error, ERANGE);
    // A seek that passes over lines to the end found nothing either.
    put(kCurrent, "not ours\n");
    EXPECT_EQ(count(), 1U);
    errno = ENOMSG;
    EXPECT_TRUE(read(kSeek, 1).empty());
    EXPECT_EQ(error, ERANGE);
}

// A log file of so many random lines. What they say goes to *messages, nothing for those that are none of ours.
std::string randomLog(std::mt19937 &random, int lines, Texts *messages) {
    std::string text;
    for (int i = 0; i < lines; ++i) {
        const auto kind = random() % 8;
        const std::string message = std::string(random() % 90, 'm') + std::to_string(i);
        text += kind == 0 ? "\n" : kind == 1 ? "other line\n" : line(message);
        if (text != "\n") {
            messages->push_back(kind < 2 ? "" : message);
        }
    }
    return text;
}

TEST_F(EventLogTest, reads_from_anywhere_find_the_same_lines) {
    std::mt19937 random(7);
    for (int round = 0; round < 20; ++round) {
        Texts lines;
        put(kOlder, randomLog(random, static_cast<int>(random() % 30), &lines));
        put(kCurrent, randomLog(random, static_cast<int>(random() % 300), &lines));
        openLog();
        void *second = vllOpenEventLog(nullptr, nullptr);
        ASSERT_EQ(count(), lines.size());
        for (int step = 0; step < 400; ++step) {
            const uint32_t number = static_cast<uint32_t>(random() % (lines.size() + 1));
            std::swap(log, second);
            for (const Record &record : read(random() % 2 ? kSeek : kSeekBack, number, 600)) {
                ASSERT_EQ(record.message, lines.at(record.number - 1)) << "round " << round;
            }
        }
        EXPECT_TRUE(vllCloseEventLog(second));
        lines.erase(std::remove(lines.begin(), lines.end(), ""), lines.end());
        const DWORD size = 200 + static_cast<DWORD>(random() % 500);
        for (const DWORD flags : {kForwards, kBackwards}) {
            closeLog();
            openLog();
            EXPECT_EQ(messages(readAll(flags, size)), lines);
            std::reverse(lines.begin(), lines.end());
        }
        closeLog();
    }
}

TEST_F(EventLogTest, files_that_cannot_be_read) {
    const auto expectFailure = [](int reason, const char *what) {
        EXPECT_THAT(vllOpenEventLog(nullptr, nullptr), FailsWith(reason)) << what;
        DWORD number = 4711;
        EXPECT_THAT(vllGetNumberOfEventLogRecords(nullptr, &number), FailsWith(reason)) << what;
        EXPECT_EQ(number, 4711U) << what;
    };
    ASSERT_EQ(mkdir(kCurrent, 0755), 0);
    expectFailure(EISDIR, "directory");
    rmdir(kCurrent);
    ASSERT_EQ(mkfifo(kCurrent, 0644), 0);
    expectFailure(EISDIR, "pipe");
    remove(kCurrent);
    ASSERT_EQ(symlink("vservices", kCurrent), 0);
    expectFailure(ELOOP, "loop");
    remove(kCurrent);
    put(kCurrent, line("a"));
    ASSERT_EQ(truncate(kCurrent, off_t{INT32_MAX} + 1), 0);
    expectFailure(EFBIG, "larger than the counts");
    remove(kCurrent);

    put(kCurrent, line("a"));
    for (const char *call : {"mmap64", "pread64"}) {
        const FailCall fail(call, 1, ENOMEM, 2);
        expectFailure(ENOMEM, call);
        EXPECT_TRUE(fail.happened());
    }
    {
        const FailCall fail("malloc", 1, ENOMEM);
        EXPECT_THAT(vllOpenEventLog(nullptr, nullptr), FailsWith(ENOMEM));
    }

    // A failure behind an open handle: what is still to be had is counted, and comes back.
    openLog();
    EXPECT_EQ(count(), 1U);
    put(kCurrent, line("a") + line("b"));
    ASSERT_EQ(mkdir(kOlder, 0755), 0);
    EXPECT_FALSE(vllGetNumberOfEventLogRecords(log, nullptr));
    EXPECT_EQ(messages(readAll(kForwards)), (Texts{"a", "b"}));
    rmdir(kOlder);
    EXPECT_EQ(count(), 2U);
    EXPECT_EQ(messages(read(kSeekBack, 2)), (Texts{"b", "a"}));
    {
        const FailCall fail("munmap", 1, EINVAL);
        EXPECT_THAT(vllCloseEventLog(log), FailsWith(EINVAL));
    }
    log = nullptr;
}

TEST_F(EventLogTest, handles_that_are_none) {
    put(kCurrent, line("a"));
    openLog();
    int local = 0;
    void *const closed = vllOpenEventLog(nullptr, nullptr);
    EXPECT_TRUE(vllCloseEventLog(closed));
    char buffer[100];
    DWORD got;
    for (void *none :
         {static_cast<void *>(nullptr), static_cast<void *>(&local), closed, reinterpret_cast<void *>(-1)}) {
        EXPECT_THAT(vllCloseEventLog(none), FailsWith(EINVAL));
        EXPECT_THAT(vllReadEventLog(none, kForwards, 0, buffer, sizeof buffer, &got, &got),
                    FailsWith(EINVAL));
    }
    EXPECT_EQ(messages(readAll(kForwards)), Texts{"a"});  // the mappings were not given back
}

TEST_F(EventLogTest, refreshes_see_every_change) {
    openLog();
    int changed = 0;
    const auto expectTexts = [&](const Texts &texts, const char *what) {
        EXPECT_EQ(count(), texts.size()) << what;
        EXPECT_EQ(messages(read(kSeek, 1)), texts) << what;
    };
    put(kCurrent, line("a") + line("b"));
    expectTexts({"a", "b"}, "appears");
    put(kCurrent, line("c") + line("d"));
    expectTexts({"c", "d"}, "rewritten in place with the same size");
    put("/var/log/new", line("e") + line("f"));
    ASSERT_EQ(rename("/var/log/new", kCurrent), 0);
    expectTexts({"e", "f"}, "replaced by a file of the same size");
    put(kCurrent, "\n" + line("g") + line("h").substr(1));
    count();
    put(kCurrent, line("i") + line("j"));
    expectTexts({"i", "j"}, "other lines in the same size");
    ASSERT_EQ(rename(kCurrent, kOlder), 0);
    put(kCurrent, line("k"));
    expectTexts({"i", "j", "k"}, "rotated");
    ASSERT_EQ(truncate(kOlder, static_cast<off_t>(line("i").size())), 0);
    expectTexts({"i", "k"}, "cut");
    remove(kOlder);
    expectTexts({"k"}, "older one gone");

    // Just written, it is looked into: the next change might not show in its time stamps. A file at rest is left alone.
    const char *const data = SyslogMappings[0].pData;
    const auto readsOfRefresh = [&] {
        resetCallCounts();
        EXPECT_TRUE(vlliMapSyslogFiles(&changed));
        return callCount("pread64");
    };
    EXPECT_GT(readsOfRefresh(), 0U);
    const timespec past[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, kCurrent, past, 0), 0);
    EXPECT_TRUE(waitUntil([&] { return readsOfRefresh() == 0; }));
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(SyslogMappings[0].pData, data);
}

TEST_F(EventLogTest, clearing) {
    put(kOlder, line("a"));
    put(kCurrent, line("b"));
    EXPECT_TRUE(vllClearEventLog(nullptr, nullptr));  // no handle needed
    struct stat status;
    EXPECT_EQ(stat(kOlder, &status), -1);
    EXPECT_EQ(stat(kCurrent, &status), 0);
    EXPECT_EQ(status.st_size, 0);

    put(kOlder, line("a"));
    put(kCurrent, line("b"));
    openLog();
    EXPECT_TRUE(vllClearEventLog(log, "/var/log/backup"));
    EXPECT_TRUE(readAll(kForwards).empty());  // without another count
    EXPECT_NE(access("/var/log/backup", F_OK), 0);
    EXPECT_EQ(count(), 0U);
    remove(kCurrent);
    EXPECT_TRUE(vllClearEventLog(log, nullptr));
}

// Rewrites, cuts, rotates and replaces the files for as long as it lives.
int disturb() {
    std::mt19937 random(static_cast<unsigned>(getpid()));
    for (;;) {
        Texts unused;
        switch (random() % 6) {
            case 0:
                EXPECT_TRUE(truncate(kCurrent, static_cast<off_t>(random() % 100000)) == 0 ||
                            errno == ENOENT);
                break;
            case 1:
                rename(kCurrent, kOlder);
                break;
            case 2:
                remove(kOlder);
                break;
            case 3:
                EXPECT_TRUE(truncate(kCurrent, 0) == 0 || errno == ENOENT);
                break;
            default:
                put(kCurrent, randomLog(random, 2000, &unused), random() % 2 ? O_TRUNC : O_APPEND);
        }
    }
}

TEST_F(EventLogTest, files_that_change_under_readers) {
    const pid_t other = startChild(disturb);
    std::atomic<bool> done{false};
    const auto reader = [&](DWORD flags) {
        std::vector<char> buffer(5000);
        while (!done) {
            void *const mine = vllOpenEventLog(nullptr, nullptr);
            ASSERT_NE(mine, nullptr);
            DWORD got;
            DWORD more;
            while (vllReadEventLog(mine, flags, 0, buffer.data(), 5000, &got, &more)) {
                for (const Record &record : split(buffer.data(), got)) {
                    ASSERT_EQ(record.source, "gateway");
                }
            }
            ASSERT_EQ(errno, ERANGE);
            ASSERT_TRUE(vllCloseEventLog(mine));
        }
    };
    std::thread forwards(reader, kForwards);
    std::thread backwards(reader, kBackwards);
    const int64_t end = nowMs() + 1500;
    while (nowMs() < end) {
        count();
    }
    done = true;
    forwards.join();
    backwards.join();
    kill(other, SIGKILL);
    EXPECT_EQ(finishChild(other).status, SIGKILL);
}

TEST_F(EventLogTest, a_file_with_fewer_bytes_than_it_said) {
    constexpr char kShort[] = "/sys/kernel/uevent_seqnum";  // says one page, holds a number
    if (access(kShort, R_OK) != 0) {
        GTEST_SKIP() << "no " << kShort;
    }
    ASSERT_EQ(symlink(kShort, kCurrent), 0);
    put(kOlder, line("a"));
    openLog();
    EXPECT_EQ(count(), 2U);
    EXPECT_LT(SyslogMappings[0].nSize, 100U);
    EXPECT_EQ(messages(readAll(kForwards)), Texts{"a"});
}

TEST_F(EventLogTest, threads_share_one_handle) {
    put(kCurrent, numberedLines(3000));
    openLog();
    std::vector<std::atomic<int>> seen(3001);
    const auto reader = [&] {
        char buffer[400];
        DWORD got;
        DWORD more;
        while (vllReadEventLog(log, kForwards, 0, buffer, sizeof buffer, &got, &more)) {
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

void useEverything(void *handle) {
    char buffer[1000];
    DWORD got;
    vllGetNumberOfEventLogRecords(nullptr, &got);
    vllReadEventLog(handle, kForwards, 0, buffer, sizeof buffer, &got, &got);
    void *const mine = vllOpenEventLog(nullptr, nullptr);
    vllCloseEventLog(mine);
}

TEST_F(EventLogTest, a_cancelled_reader_leaves_the_lock) {
    put(kCurrent, line("a"));
    openLog();
    pthread_t thread;
    // The cancelled frame is empty: AddressSanitizer does not see frames with arrays unwound.
    const auto routine = [](void *handle) -> void * {
        pthread_cancel(pthread_self());
        useEverything(handle);
        pthread_testcancel();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, routine, log), 0);
    void *result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    EXPECT_EQ(pthread_mutex_trylock(&syslogMutex), 0);
    pthread_mutex_unlock(&syslogMutex);
    EXPECT_TRUE(readAll(kForwards).empty());  // the thread had read it
}

}  // namespace
