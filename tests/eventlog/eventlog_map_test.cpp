// Log files that change, are missing or cannot be read.
#include "eventlog_fixture.h"

#include <sys/stat.h>
#include <atomic>
#include <climits>
#include <random>
#include <thread>

#include "support/child.h"
#include "support/faults.h"
#include "support/files.h"

namespace {

TEST_F(EventLogTest, files_that_cannot_be_read) {
    const auto expectFailure = [](int reason) {
        EXPECT_THAT(vllOpenEventLog(nullptr, nullptr), FailsWith(reason));
        DWORD number = 4711;
        EXPECT_THAT(vllGetNumberOfEventLogRecords(nullptr, &number), FailsWith(reason));
        EXPECT_EQ(number, 4711U);
    };
    const struct {
        int error;
        std::function<int()> make;
    } cases[] = {
        {EISDIR, [] { return mkdir(kCurrent, 0755); }},
        {EISDIR, [] { return mkfifo(kCurrent, 0644); }},
        {ELOOP, [] { return symlink("vservices", kCurrent); }},
        {EFBIG, [] { return put(kCurrent, "a"), truncate(kCurrent, off_t{INT32_MAX} + 1); }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.error);
        ASSERT_EQ(c.make(), 0);
        expectFailure(c.error);
        remove(kCurrent);
    }
    put(kCurrent, line("a"));
    for (const char *call : {"mmap64", "pread64"}) {
        SCOPED_TRACE(call);
        const FailCall fail(call, 1, ENOMEM, 2);
        expectFailure(ENOMEM);
    }
    {
        const FailCall fail("malloc", 1, ENOMEM);
        EXPECT_THAT(vllOpenEventLog(nullptr, nullptr), FailsWith(ENOMEM));
    }

    // A failure while a handle is open: the file that can be read is counted.
    openLog();
    put(kCurrent, line("a") + line("b"));
    ASSERT_EQ(mkdir(kOlder, 0755), 0);
    EXPECT_THAT(vllGetNumberOfEventLogRecords(log, nullptr), FailsWith(EISDIR));
    EXPECT_EQ(messages(readAll(kForwards)), (Texts{"a", "b"}));
    rmdir(kOlder);
    EXPECT_EQ(count(), 2U);
    const FailCall fail("munmap", 1, EINVAL);
    EXPECT_THAT(vllCloseEventLog(log), FailsWith(EINVAL));
    log = nullptr;
}

TEST_F(EventLogTest, refreshes_see_every_change) {
    openLog();
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
    const std::string large = numberedLines(1000);  // more than one block of the comparison
    put(kCurrent, large);
    EXPECT_EQ(count(), 1000U);
    put(kCurrent, large.substr(0, large.size() - 4) + "xyz\n");
    count();
    EXPECT_EQ(messages(read(kSeek, 1000)), Texts{"1xyz"});
}

// The next change of a file that was just written might not show in its time stamps, so that it is read. A file at rest
// is left alone.
TEST_F(EventLogTest, a_file_at_rest_is_not_read_again) {
    put(kCurrent, line("a"));
    openLog();
    const char *const data = SyslogMappings[0].pData;
    int changed = 0;
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
    for (const bool open : {false, true}) {
        put(kOlder, line("a"));
        put(kCurrent, line("b"));
        if (open) {
            openLog();
        }
        EXPECT_TRUE(vllClearEventLog(log, "/var/log/backup"));
        EXPECT_FALSE(exists(kOlder));
        EXPECT_TRUE(exists(kCurrent));
        EXPECT_EQ(readFile(kCurrent), "");
        EXPECT_FALSE(exists("/var/log/backup"));
    }
    EXPECT_TRUE(readAll(kForwards).empty());  // without another count
    EXPECT_EQ(count(), 0U);
    remove(kCurrent);
    EXPECT_TRUE(vllClearEventLog(log, nullptr));
}

// Rewrites, cuts and rotates the files for as long as it lives.
int disturb() {
    std::mt19937 random(static_cast<unsigned>(getpid()));
    for (;;) {
        switch (random() % 4) {
            case 0:
                EXPECT_TRUE(truncate(kCurrent, random() % 100000) == 0 || errno == ENOENT);
                break;
            case 1:
                rename(kCurrent, kOlder);
                break;
            default:
                put(kCurrent, numberedLines(2000), random() % 2 ? O_TRUNC : O_APPEND);
        }
    }
}

TEST_F(EventLogTest, files_that_change_under_readers) {
    const pid_t other = startChild(disturb);
    std::atomic<bool> done{false};
    const auto reader = [&](DWORD flags) {
        std::vector<char> buffer(5000);
        DWORD got;
        while (!done) {
            void *const mine = vllOpenEventLog(nullptr, nullptr);
            while (vllReadEventLog(mine, flags, 0, buffer.data(), 5000, &got, nullptr)) {
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
    for (const int64_t end = nowMs() + 1500; nowMs() < end;) {
        count();
        EXPECT_TRUE(vllClearEventLog(nullptr, nullptr));
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

TEST_F(EventLogTest, no_operation_is_a_cancellation_point) {
    put(kCurrent, line("a"));
    bool reached = false;
    std::thread thread([&] {
        pthread_cancel(pthread_self());
        openLog();
        EXPECT_EQ(count(), 1U);
        EXPECT_EQ(messages(readAll(kForwards)), Texts{"a"});
        EXPECT_TRUE(vllClearEventLog(log, nullptr));
        closeLog();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        reached = true;
    });
    thread.join();
    EXPECT_TRUE(reached);
}

// A child finds the log in order, also when another thread was in the middle of a count.
TEST_F(EventLogTest, forked_while_other_threads_count) {
    SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS();
    put(kCurrent, numberedLines(5000));
    openLog();
    std::atomic<bool> done{false};
    std::thread counter([&] {
        while (!done) {
            utimensat(AT_FDCWD, kCurrent, nullptr, 0);  // so that the next count compares the file
            count();
        }
    });
    for (int i = 0; i < 50; ++i) {
        expectInChild([] { return count() == 5000 ? 0 : 1; });
    }
    done = true;
    counter.join();
}

}  // namespace
