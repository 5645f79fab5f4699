// Copies of files.
#include <sys/file.h>
#include <sys/resource.h>
#include <csignal>
#include <tuple>

#include "base/descriptor.h"
#include "files/filemanage_test.h"
#include "support/child.h"
#include "support/objects.h"

namespace {

const char *const kSource = "/var/tmp/source";
const char *const kTarget = "/var/tmp/target";

// Total, copied, chunk size, bytes of the chunk; its number, reason; whether the descriptors are open.
using Call = std::tuple<LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, DWORD, DWORD, bool>;

struct Routine {
    std::vector<DWORD> answers;  // the last one for all further calls
    std::vector<Call> calls;
};

DWORD progress(LARGE_INTEGER total, LARGE_INTEGER copied, LARGE_INTEGER chunk_size, LARGE_INTEGER chunk_bytes,
               DWORD chunk, DWORD reason, HANDLE source, HANDLE target, LPVOID data) {
    auto *routine = static_cast<Routine *>(data);
    const bool open = fcntl(static_cast<int>(source), F_GETFL) != -1 &&
                      (fcntl(static_cast<int>(target), F_GETFL) & O_ACCMODE) == O_WRONLY;
    routine->calls.push_back({total, copied, chunk_size, chunk_bytes, chunk, reason, open});
    const size_t call = std::min(routine->calls.size(), routine->answers.size());
    return call == 0 ? PROGRESS_CONTINUE : routine->answers[call - 1];
}

std::string content(size_t size) {
    std::string bytes(size, 'x');
    for (size_t i = 0; i < size; i += 7) {
        bytes[i] = static_cast<char>(i);
    }
    return bytes;
}

TEST_F(FileTest, copies_of_all_sizes) {
    for (const size_t size : {0U, 1U, 4095U, 4096U, 4097U, 70000U}) {
        writeFile(kSource, content(size));
        ASSERT_EQ(chmod(kSource, 0640), 0);
        EXPECT_TRUE(vllCopyFile(kSource, kTarget, FALSE)) << size;
        EXPECT_TRUE(readFile(kTarget) == content(size)) << size;
        EXPECT_EQ(modeOf(kTarget), 0640U);
    }
}

TEST_F(FileTest, an_existing_target) {
    writeFile(kSource, "new");
    writeFile(kTarget, "old");
    ASSERT_EQ(link(kTarget, "/var/tmp/other_link"), 0);
    EXPECT_THAT(vllCopyFile(kSource, kTarget, TRUE), FailsWith(EEXIST));
    EXPECT_EQ(readFile(kTarget), "old");
    EXPECT_TRUE(vllCopyFile(kSource, kTarget, FALSE));
    EXPECT_EQ(readFile("/var/tmp/other_link"), "old");
    const struct {
        const char *source, *target;
        int error;
    } refused[] = {{kSource, "/var/tmp/upload", EEXIST},  // a directory cannot be unlinked
                   {"/var/tmp/upload", kTarget, EISDIR},  // and costs no target as source
                   {"/var/tmp/none", kTarget, ENOENT},   {kSource, "/none/target", ENOENT},
                   {nullptr, kTarget, EINVAL},           {kSource, nullptr, EINVAL}};
    for (const auto &row : refused) {
        EXPECT_THAT(vllCopyFile(row.source, row.target, FALSE), FailsWith(row.error));
        EXPECT_EQ(readFile(kTarget), "new");
    }
}

TEST_F(FileTest, a_file_copied_to_itself_is_not_lost) {
    const char *const symbolic_link = "/var/tmp/symlink";
    writeFile(kSource, "content");
    ASSERT_EQ(link(kSource, "/var/tmp/hard_link"), 0);
    for (const char *name : {kSource, "/var/tmp/../tmp/source", "/var/tmp/hard_link", symbolic_link}) {
        unlink(symbolic_link);
        ASSERT_EQ(symlink(kSource, symbolic_link), 0);
        EXPECT_TRUE(vllCopyFile(symbolic_link, kSource, FALSE));
        EXPECT_THAT(vllCopyFile(kSource, name, TRUE), FailsWith(EEXIST)) << name;
        EXPECT_TRUE(vllCopyFile(kSource, name, FALSE)) << name;
        EXPECT_EQ(readFile(kSource) + readFile(name), "contentcontent") << name;
    }
}

TEST_F(FileTest, progress_is_reported_after_every_16th_chunk) {
    constexpr size_t kStep = 65536;  // from one call to the next
    constexpr size_t kAll = 4 * kStep + 1;
    const struct {
        std::vector<DWORD> answers;
        size_t calls;
        int error;           // 0: the copy succeeds
        size_t target_size;  // 0: deleted
    } rows[] = {
        {{PROGRESS_CONTINUE}, 4, 0, kAll},  {{4, 99, 0xFFFFFFFF}, 4, 0, kAll},
        {{PROGRESS_STOP}, 1, EINTR, kStep}, {{PROGRESS_CANCEL}, 1, EINTR, 0},
        {{PROGRESS_QUIET}, 1, 0, kAll},     {{0, 1}, 2, EINTR, 2 * kStep},
        {{0, 0, 2}, 3, EINTR, 0},           {{0, 3}, 2, 0, kAll},
    };
    writeFile(kSource, content(kAll));
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        Routine routine;
        routine.answers = row.answers;
        BOOL cancel = TRUE;  // is not used
        EXPECT_THAT(vllCopyFileEx(kSource, kTarget, progress, &routine, &cancel, 0), Outcome(row.error));
        EXPECT_EQ(routine.calls.size(), row.calls);
        EXPECT_EQ(routine.calls[0], (Call{kAll, kStep, 4096, 4096, 16, 0, true}));
        EXPECT_EQ(exists(kTarget), row.target_size != 0);
        EXPECT_TRUE(readFile(kTarget) == content(kAll).substr(0, row.target_size));
    }
    // A size that does not fit 32 bits.
    ASSERT_EQ(truncate(kSource, (off_t{5} << 30) + 1), 0);
    Routine routine;
    routine.answers = {PROGRESS_CANCEL};
    EXPECT_FALSE(vllCopyFileEx(kSource, kTarget, progress, &routine, nullptr, 0));
    EXPECT_EQ(std::get<0>(routine.calls.at(0)), (off_t{5} << 30) + 1);
}

TEST_F(FileTest, sources_of_no_known_size) {
    ASSERT_EQ(mkfifo("/var/tmp/fifo", 0666), 0);
    const pid_t writer = startChild([] {
        writeFile("/var/tmp/fifo", content(100000));
        return 0;
    });
    EXPECT_TRUE(vllCopyFile("/var/tmp/fifo", kTarget, FALSE));
    expectSuccess(writer);
    EXPECT_TRUE(readFile(kTarget) == content(100000));
    Routine routine;  // the source has no end, the file system of the target has one
    EXPECT_THAT(vllCopyFileEx("/dev/zero", "/other/zeros", progress, &routine, nullptr, 0),
                FailsWith(ENOSPC));
    EXPECT_FALSE(exists("/other/zeros"));
    EXPECT_EQ(std::get<0>(routine.calls.at(0)), -1);
}

TEST_F(FileTest, failures_leave_no_target) {
    writeFile(kSource, content(20000));
    using Fault = std::tuple<const char *, int, int>;
    for (const auto &[call, nth, error] :
         {Fault{"read", 3, EIO}, Fault{"write", 3, EDQUOT}, Fault{"fsync", 1, EIO},
          Fault{"open64", 1, EMFILE}, Fault{"open64", 2, EROFS}}) {
        const FailCall fail(call, nth, error);
        EXPECT_THAT(vllCopyFile(kSource, kTarget, FALSE), FailsWith(error)) << call;
        EXPECT_FALSE(exists(kTarget)) << call;
    }
    // Interruptions, and a file system that does not support fsync(2), do no harm.
    for (const auto &[call, error] : {std::pair{"open64", EINTR},
                                      {"read", EINTR},
                                      {"write", EINTR},
                                      {"fsync", EINTR},
                                      {"fsync", EINVAL}}) {
        const FailCall harmless(call, 1, error);
        EXPECT_TRUE(vllCopyFile(kSource, kTarget, FALSE)) << call;
        EXPECT_TRUE(harmless.happened() && readFile(kTarget) == content(20000)) << call;
    }
    // A write that is cut short.
    expectInChild([] {
        const rlimit limit = {6000, 6000};
        signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_THAT(vllCopyFile(kSource, kTarget, FALSE), FailsWith(ENOSPC));
        EXPECT_FALSE(exists(kTarget));
        return 0;
    });
}

// A thread that is cancelled in the routine or in a read leaves neither descriptor nor target.
TEST_F(FileTest, a_copy_is_cancelled) {
    writeFile(kSource, content(70000));
    ASSERT_EQ(mkfifo("/var/tmp/fifo", 0666), 0);
    const Fd fifo(open("/var/tmp/fifo", O_RDWR | O_CLOEXEC));
    const LPPROGRESS_ROUTINE sleep = [](LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, DWORD,
                                        DWORD, HANDLE, HANDLE, LPVOID never) -> DWORD {
        return vllWaitForSingleObject(*static_cast<const HANDLE *>(never), INFINITE);
    };
    const Owned event(makeManualEvent());
    HANDLE never = event;
    for (const char *source : {"/var/tmp/fifo", kSource}) {
        Sleeper thread([&] { vllCopyFileEx(source, kTarget, sleep, &never, nullptr, 0); });
        EXPECT_TRUE(waitUntil([] { return exists(kTarget); }));
        EXPECT_TRUE(vllTerminateThread(thread.handle(), 0));
        thread.finish();
        EXPECT_FALSE(exists(kTarget));
    }
}

}  // namespace
