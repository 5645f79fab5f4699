#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <array>
#include <csignal>
#include <tuple>

#include "base/descriptor.h"
#include "files/filemanage_test.h"
#include "support/child.h"
#include "support/matchers.h"
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
    for (const size_t size : {0U, 1U, 4095U, 4096U, 4097U, 65536U, 70000U}) {
        const std::string bytes = content(size);
        writeFile(kSource, bytes);
        ASSERT_EQ(chmod(kSource, 0640), 0);
        EXPECT_TRUE(vllCopyFile(kSource, kTarget, FALSE)) << size;
        EXPECT_TRUE(readFile(kTarget) == bytes) << size;
        EXPECT_EQ(modeOf(kTarget), 0640U);
    }
}

TEST_F(FileTest, an_existing_target) {
    writeFile(kSource, "new");
    writeFile(kTarget, "old");
    ASSERT_EQ(link(kTarget, "/var/tmp/other_link"), 0);
    ASSERT_EQ(chmod(kSource, 0600), 0);
    EXPECT_THAT(vllCopyFile(kSource, kTarget, TRUE), FailsWith(EEXIST));
    EXPECT_EQ(readFile(kTarget), "old");
    EXPECT_TRUE(vllCopyFile(kSource, kTarget, FALSE));
    EXPECT_EQ(readFile(kTarget), "new");
    EXPECT_EQ(modeOf(kTarget), 0600U);
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
    writeFile(kSource, "content");
    ASSERT_EQ(symlink(kSource, "/var/tmp/symlink"), 0);
    ASSERT_EQ(link(kSource, "/var/tmp/hard_link"), 0);
    for (const char *name : {kSource, "/var/tmp/../tmp/source", "/var/tmp/hard_link", "/var/tmp/symlink"}) {
        EXPECT_THAT(vllCopyFile(kSource, name, TRUE), FailsWith(EEXIST)) << name;
        EXPECT_TRUE(vllCopyFile(kSource, name, FALSE)) << name;
        EXPECT_EQ(readFile(kSource), "content") << name;
        EXPECT_EQ(readFile(name), "content") << name;
    }
    ASSERT_EQ(unlink("/var/tmp/symlink"), 0);
    ASSERT_EQ(symlink(kSource, "/var/tmp/symlink"), 0);
    EXPECT_TRUE(vllCopyFile("/var/tmp/symlink", kSource, FALSE));
    EXPECT_EQ(readFile(kSource), "content");
}

TEST_F(FileTest, progress_is_told_after_every_16th_chunk) {
    writeFile(kSource, content(70000));
    Routine routine;
    EXPECT_TRUE(vllCopyFileEx(kSource, kTarget, progress, &routine, nullptr, 0));
    EXPECT_EQ(routine.calls, (std::vector<Call>{{70000, 65536, 4096, 4096, 16, 0, true}}));
}

TEST_F(FileTest, what_the_routine_answers) {
    constexpr size_t kStep = 65536;  // from one call to the next
    constexpr size_t kAll = 4 * kStep + 1;
    struct Row {
        std::vector<DWORD> answers;
        size_t calls;
        BOOL result;
        size_t target_size;  // 0: deleted
    };
    const Row rows[] = {
        {{0}, 4, TRUE, kAll},          {{4, 99, 0xFFFFFFFF}, 4, TRUE, kAll},
        {{1}, 1, FALSE, kStep},        {{2}, 1, FALSE, 0},
        {{0, 1}, 2, FALSE, 2 * kStep}, {{0, 0, 2}, 3, FALSE, 0},
        {{3}, 1, TRUE, kAll},          {{0, 3}, 2, TRUE, kAll},
    };
    const std::string bytes = content(kAll);
    writeFile(kSource, bytes);
    for (const Row &row : rows) {
        Routine routine;
        routine.answers = row.answers;
        BOOL cancel = TRUE;  // nobody looks at it
        errno = 0;
        EXPECT_EQ(vllCopyFileEx(kSource, kTarget, progress, &routine, &cancel, 0), row.result);
        EXPECT_EQ(routine.calls.size(), row.calls);
        EXPECT_EQ(errno == EINTR, row.result == FALSE);
        EXPECT_EQ(exists(kTarget), row.target_size != 0);
        EXPECT_TRUE(readFile(kTarget) == bytes.substr(0, row.target_size));
    }
}

TEST_F(FileTest, a_source_that_grows_or_shrinks) {
    const auto resize = [](LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, LARGE_INTEGER, DWORD chunk, DWORD,
                           HANDLE, HANDLE, LPVOID size) -> DWORD {
        return chunk == 16 && truncate(kSource, *static_cast<off_t *>(size)) != 0 ? PROGRESS_CANCEL
                                                                                  : PROGRESS_CONTINUE;
    };
    for (off_t size : {off_t{300000}, off_t{70000}, off_t{1}}) {
        writeFile(kSource, content(200000));
        EXPECT_TRUE(vllCopyFileEx(kSource, kTarget, resize, &size, nullptr, 0));
        EXPECT_EQ(readFile(kTarget).size(), std::max<size_t>(65536, static_cast<size_t>(size)));
    }
}

TEST_F(FileTest, sources_that_are_no_regular_files) {
    ASSERT_EQ(mkfifo("/var/tmp/fifo", 0666), 0);
    const pid_t writer = startChild([] {
        writeFile("/var/tmp/fifo", content(100000));
        return 0;
    });
    Routine routine;
    EXPECT_TRUE(vllCopyFileEx("/var/tmp/fifo", kTarget, progress, &routine, nullptr, 0));
    EXPECT_TRUE(finishChild(writer).exited);
    EXPECT_TRUE(readFile(kTarget) == content(100000));
    EXPECT_TRUE(vllCopyFile("/dev/null", kTarget, FALSE));
    EXPECT_EQ(readFile(kTarget), "");
    // Without end, until the target is full.
    routine = {};
    EXPECT_THAT(vllCopyFileEx("/dev/zero", "/other/zeros", progress, &routine, nullptr, 0),
                FailsWith(ENOSPC));
    EXPECT_FALSE(exists("/other/zeros"));
    ASSERT_FALSE(routine.calls.empty());
    EXPECT_EQ(std::get<0>(routine.calls[0]), -1);
}

TEST_F(FileTest, failures_leave_no_target) {
    writeFile(kSource, content(2000000));
    EXPECT_THAT(vllCopyFile(kSource, "/other/target", FALSE), FailsWith(ENOSPC));
    EXPECT_FALSE(exists("/other/target"));
    struct Row {
        const char *call;
        int nth, error;
    };
    for (const Row &row : {Row{"read", 3, EIO}, Row{"write", 3, EDQUOT}, Row{"fsync", 1, EIO},
                           Row{"open64", 1, EMFILE}, Row{"open64", 2, EROFS}}) {
        const FailCall fail(row.call, row.nth, row.error);
        EXPECT_THAT(vllCopyFile(kSource, kTarget, FALSE), FailsWith(row.error)) << row.call;
        EXPECT_FALSE(exists(kTarget)) << row.call;
    }
    for (const char *call : {"open64", "read", "write", "fsync"}) {
        const FailCall interrupted(call, 1, EINTR);
        EXPECT_TRUE(vllCopyFile(kSource, kTarget, FALSE)) << call;
        EXPECT_TRUE(interrupted.happened());
        EXPECT_TRUE(readFile(kTarget) == content(2000000)) << call;
    }
    const FailCall unsupported("fsync", 1, EINVAL);
    EXPECT_TRUE(vllCopyFile(kSource, kTarget, FALSE));
}

TEST_F(FileTest, a_write_that_is_cut_short_fails_the_copy) {
    writeFile(kSource, content(10000));
    const ChildResult result = runInChild([] {
        const rlimit limit = {6000, 6000};
        signal(SIGXFSZ, SIG_IGN);
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
        EXPECT_THAT(vllCopyFile(kSource, kTarget, FALSE), FailsWith(ENOSPC));
        EXPECT_FALSE(exists(kTarget));
        return 0;
    });
    EXPECT_TRUE(result.exited && result.status == 0) << result.status;
}

TEST_F(FileTest, files_over_2_gib_are_copied_whole) {
    // Seen through the size alone: the copy ends in the progress routine.
    const off_t size = (off_t{5} << 30) + 1;
    const Fd file(open(kSource, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    ASSERT_EQ(ftruncate(file.get(), size), 0);
    Routine routine;
    routine.answers = {PROGRESS_CANCEL};
    EXPECT_FALSE(vllCopyFileEx(kSource, kTarget, progress, &routine, nullptr, 0));
    ASSERT_EQ(routine.calls.size(), 1U);
    EXPECT_EQ(std::get<0>(routine.calls[0]), size);
    // And whole, between descriptors that are read from beyond 2 GiB.
    EXPECT_EQ(vllSetFilePointer(static_cast<HANDLE>(file.get()), 0x7FFFFFFF, FILE_BEGIN), 0x7FFFFFFFU);
    EXPECT_EQ(vllSetFilePointer(static_cast<HANDLE>(file.get()), 1, FILE_CURRENT), 0x80000000U);
    EXPECT_THAT(vllSetFilePointer(static_cast<HANDLE>(file.get()), 0, FILE_END),
                FailsWith(EOVERFLOW, 0xFFFFFFFFU));
    EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), off_t{1} << 31);
    EXPECT_THAT(vllGetFileSize(static_cast<HANDLE>(file.get())), FailsWith(EOVERFLOW, 0xFFFFFFFFU));
    ASSERT_EQ(ftruncate(file.get(), 0xFFFFFFFE), 0);
    EXPECT_EQ(vllGetFileSize(static_cast<HANDLE>(file.get())), 0xFFFFFFFEU);
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
        const auto copy = [&] { vllCopyFileEx(source, kTarget, sleep, &never, nullptr, 0); };
        const HANDLE thread = startThread(copy);
        EXPECT_TRUE(waitUntil([] { return exists(kTarget); }));
        EXPECT_TRUE(vllTerminateThread(thread, 0));
        finishThread(thread);
        EXPECT_FALSE(exists(kTarget));
    }
}

TEST_F(FileTest, linked_or_copied) {
    const char *const other = "/other/target";
    const std::string much = content(2000000);  // more than /other holds
    struct Row {
        const char *source, *target;
        BOOL fail_if_exists;
        bool exists;
        int error;  // 0: the target has the source's content
    };
    const Row rows[] = {
        {kSource, kTarget, TRUE, false, 0},
        {kSource, kTarget, TRUE, true, EEXIST},
        {kSource, kTarget, FALSE, true, 0},
        {kSource, kSource, FALSE, false, 0},
        {"/var/tmp/hard_link", kSource, FALSE, false, 0},
        {"/var/tmp/symlink", kSource, FALSE, false, 0},
        {"/other/symlink", kSource, FALSE, false, 0},
        {kSource, "/var/tmp/upload", FALSE, false, EISDIR},
        {"/var/tmp/none", kTarget, FALSE, true, ENOENT},
        {nullptr, kTarget, FALSE, true, EINVAL},
        {kSource, nullptr, FALSE, false, EINVAL},
        {kSource, other, TRUE, false, 0},
        {kSource, other, TRUE, true, EEXIST},
        {kSource, other, FALSE, true, 0},
        {"/var/tmp/much", other, TRUE, false, ENOSPC},
    };
    writeFile("/var/tmp/much", much);
    writeFile(kSource, "content");
    ASSERT_EQ(link(kSource, "/var/tmp/hard_link"), 0);
    ASSERT_EQ(symlink(kSource, "/var/tmp/symlink"), 0);
    ASSERT_EQ(symlink(kSource, "/other/symlink"), 0);
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        unlink(kTarget);
        unlink(other);
        if (row.exists) {
            writeFile(row.target, "old");
        }
        errno = 0;
        EXPECT_EQ(vllLinkOrCopyFile(row.source, row.target, row.fail_if_exists), row.error == 0);
        EXPECT_EQ(row.error == 0 ? 0 : errno, row.error);
        EXPECT_EQ(readFile(kSource), "content");
        if (row.error == 0 || row.exists) {
            EXPECT_EQ(readFile(row.target), row.error == 0 ? "content" : "old");
        }
        struct stat status;
        ASSERT_EQ(stat(kSource, &status), 0);
        EXPECT_EQ(status.st_nlink, row.error == 0 && row.target == kTarget ? 3U : 2U);
    }
    EXPECT_FALSE(exists(other));
    // The second link fails as the first one did not.
    writeFile(kTarget, "old");
    const FailCall fail("link", 2, EMLINK);
    EXPECT_THAT(vllLinkOrCopyFile(kSource, kTarget, FALSE), FailsWith(EMLINK));
}

TEST_F(FileTest, moved) {
    const char *const other = "/other/target";
    constexpr int64_t kPlain = -1;  // vllMoveFile()
    struct Row {
        const char *target;
        int64_t flags;
        bool exists;
        int error;  // 0: moved
    };
    const Row rows[] = {
        {kTarget, kPlain, false, 0},
        {kTarget, kPlain, true, EEXIST},
        {other, kPlain, false, EXDEV},
        {kTarget, 0, false, 0},
        {kTarget, 0, true, EINVAL},
        {kTarget, MOVE_REPLACE_EXISTING, false, 0},
        {kTarget, MOVE_REPLACE_EXISTING, true, 0},
        {kTarget, MOVE_COPY_ALLOWED, true, EEXIST},
        {kTarget, MOVE_COPY_ALLOWED | MOVE_REPLACE_EXISTING, true, 0},
        {other, 0, false, EINVAL},
        {other, MOVE_REPLACE_EXISTING, false, EINVAL},
        {other, MOVE_COPY_ALLOWED, false, 0},
        {other, MOVE_COPY_ALLOWED, true, EEXIST},
        {other, MOVE_COPY_ALLOWED | MOVE_REPLACE_EXISTING, true, 0},
        {nullptr, kPlain, false, EINVAL},
        {nullptr, 0, false, EINVAL},
        {nullptr, MOVE_DELAY_UNTIL_REBOOT | MOVE_REPLACE_EXISTING, false, EINVAL},
        {kTarget, MOVE_COPY_ALLOWED | MOVE_DELAY_UNTIL_REBOOT, false, EINVAL},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(&row - rows);
        unlink(kTarget);
        unlink(other);
        writeFile(kSource, "moved");
        if (row.exists) {
            writeFile(row.target, "old");
        }
        const auto flags = static_cast<DWORD>(row.flags);
        errno = 0;
        const BOOL moved = row.flags == kPlain ? vllMoveFile(kSource, row.target)
                                               : vllMoveFileEx(kSource, row.target, flags);
        EXPECT_EQ(moved, row.error == 0);
        EXPECT_EQ(moved ? 0 : errno, row.error);
        EXPECT_EQ(exists(kSource), !moved);
        if (row.target != nullptr) {
            EXPECT_EQ(readFile(row.target), moved ? "moved" : row.exists ? "old" : "");
        }
    }
}

TEST_F(FileTest, moves_that_go_wrong) {
    EXPECT_THAT(vllMoveFile(nullptr, kTarget), FailsWith(EINVAL));
    EXPECT_THAT(vllMoveFileEx(nullptr, kTarget, MOVE_DELAY_UNTIL_REBOOT), FailsWith(EINVAL));
    EXPECT_THAT(vllMoveFileEx("/var/tmp/none", kTarget, MOVE_COPY_ALLOWED), FailsWith(ENOENT));
    writeFile(kSource, "content");
    {
        const FailCall fail("unlink", 1, EPERM);  // then the new link goes again
        EXPECT_THAT(vllMoveFile(kSource, kTarget), FailsWith(EPERM));
    }
    EXPECT_FALSE(exists(kTarget));
    // A directory moves only by rename; a copy of it costs nothing that exists.
    writeFile(kTarget, "target");
    EXPECT_FALSE(vllMoveFileEx("/var/tmp/upload", kTarget, MOVE_REPLACE_EXISTING | MOVE_COPY_ALLOWED));
    EXPECT_EQ(readFile(kTarget), "target");
    EXPECT_TRUE(vllMoveFileEx("/var/tmp/upload", "/var/tmp/moved", MOVE_REPLACE_EXISTING));
}

// The names of a move may be one file already. Whatever they are, its content is under the new one afterwards, and the
// old one is gone unless it is the same.
TEST_F(FileTest, a_file_moved_to_itself_is_not_lost) {
    const char *const hard_link = "/var/tmp/hard_link";
    const char *const symbolic_link = "/var/tmp/symlink";
    const char *const other_link = "/other/link";
    constexpr DWORD kReplaceOrCopy = MOVE_REPLACE_EXISTING | MOVE_COPY_ALLOWED;
    const auto make_links = [&] {
        for (const char *name : {kSource, symbolic_link, hard_link, other_link}) {
            unlink(name);
        }
        writeFile(kSource, "content");
        EXPECT_EQ(link(kSource, hard_link), 0);
        EXPECT_EQ(symlink(kSource, symbolic_link), 0);
        EXPECT_EQ(symlink(kSource, other_link), 0);
    };
    struct Row {
        const char *from, *to;
        bool gone;
    };
    const Row rows[] = {
        {kSource, kSource, false},
        {kSource, "/var/tmp/../tmp/source", false},
        {kSource, hard_link, true},
        {symbolic_link, kSource, true},
        {symbolic_link, hard_link, true},
        {other_link, kSource, true},
        {kSource, symbolic_link, true},
        {kSource, other_link, true},
        {kSource, "/var/ulmex/mounted/source", false},
        {kSource, "/var/ulmex/mounted/hard_link", true},
        {symbolic_link, "/var/ulmex/mounted/source", true},
    };
    ASSERT_EQ(mkdir("/var/ulmex/mounted", 0755), 0);
    ASSERT_EQ(mount("/var/tmp", "/var/ulmex/mounted", nullptr, MS_BIND, nullptr), 0);
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string(row.from) + " to " + row.to);
        make_links();
        EXPECT_FALSE(vllMoveFile(row.from, row.to));
        EXPECT_THAT(vllMoveFileEx(row.from, row.to, 0), FailsWith(EINVAL));
        EXPECT_THAT(vllMoveFileEx(row.from, row.to, MOVE_COPY_ALLOWED), FailsWith(EEXIST));
        EXPECT_EQ(readFile(row.from) + readFile(row.to), "contentcontent");
        EXPECT_TRUE(vllMoveFileEx(row.from, row.to, kReplaceOrCopy));
        struct stat status;
        EXPECT_EQ(lstat(row.from, &status) == -1, row.gone);
        EXPECT_EQ(readFile(row.to), "content");
    }
    ASSERT_EQ(umount("/var/ulmex/mounted"), 0);
    // A name that cannot be removed stays, and costs neither link nor content.
    make_links();
    const FailCall fail("unlink", 1, EPERM);
    EXPECT_THAT(vllMoveFileEx(kSource, hard_link, kReplaceOrCopy), FailsWith(EPERM));
    EXPECT_EQ(readFile(kSource) + readFile(hard_link), "contentcontent");
}

TEST_F(FileTest, deleted) {
    writeFile(kTarget, "");
    EXPECT_TRUE(vllDeleteFile(kTarget));
    EXPECT_THAT(vllDeleteFile(kTarget), FailsWith(ENOENT));
    EXPECT_TRUE(vllDeleteFile("/var/tmp/upload"));
    EXPECT_THAT(vllDeleteFile("/var/ulmex"), FailsWith(ENOTEMPTY));
    EXPECT_THAT(vllDeleteFile(nullptr), FailsWith(EINVAL));
}

TEST_F(FileTest, deferred_moves) {
    EXPECT_TRUE(vllMoveFileEx("/a/old", "/a/new", MOVE_DELAY_UNTIL_REBOOT | MOVE_REPLACE_EXISTING));
    EXPECT_TRUE(vllMoveFileEx("/b/old", "/b/new", MOVE_DELAY_UNTIL_REBOOT));
    EXPECT_TRUE(vllMoveFileEx("/c/old", nullptr, MOVE_DELAY_UNTIL_REBOOT));
    EXPECT_THAT(vllMoveFileEx("/d\n/old", "/d/new", MOVE_DELAY_UNTIL_REBOOT), FailsWith(EINVAL));
    EXPECT_EQ(readFile("/etc/moved.conf"), "/a/old /a/new replace_existing\n/b/old  NULL\n/c/old  NULL\n");

    // A full file system takes no half line.
    ASSERT_EQ(unlink("/etc/moved.conf"), 0);
    ASSERT_EQ(symlink("/other/moved.conf", "/etc/moved.conf"), 0);
    writeFile("/other/moved.conf", "/first  NULL\n");
    EXPECT_FALSE(vllCopyFile("/dev/zero", "/other/filler", FALSE));
    writeFile("/other/filler", std::string(2 << 20, 'f'));
    const std::string long_name = "/" + std::string(8000, 'l');
    EXPECT_THAT(vllMoveFileEx(long_name.c_str(), nullptr, MOVE_DELAY_UNTIL_REBOOT), FailsWith(ENOSPC));
    EXPECT_EQ(readFile("/other/moved.conf"), "/first  NULL\n");
    ASSERT_EQ(unlink("/etc/moved.conf"), 0);
    ASSERT_EQ(mkdir("/etc/moved.conf", 0755), 0);
    EXPECT_THAT(vllMoveFileEx("/b/old", nullptr, MOVE_DELAY_UNTIL_REBOOT), FailsWith(EISDIR));
}

TEST_F(FileTest, deferred_moves_of_several_processes_are_whole_lines) {
    constexpr int kProcesses = 4;
    constexpr int kLines = 200;
    std::array<pid_t, kProcesses> children;
    for (int i = 0; i < kProcesses; ++i) {
        children[static_cast<size_t>(i)] = startChild([i] {
            const std::string name(static_cast<size_t>(1000 + i), static_cast<char>('a' + i));
            for (int line = 0; line < kLines; ++line) {
                if (!vllMoveFileEx(name.c_str(), nullptr, MOVE_DELAY_UNTIL_REBOOT)) {
                    return 1;
                }
            }
            return 0;
        });
    }
    for (const pid_t child : children) {
        EXPECT_EQ(finishChild(child).status, 0);
    }
    std::ifstream file("/etc/moved.conf");
    int lines = 0;
    for (std::string line; std::getline(file, line); ++lines) {
        const auto i = static_cast<size_t>(line[0] - 'a');
        ASSERT_EQ(line, std::string(1000 + i, line[0]) + "  NULL");
    }
    EXPECT_EQ(lines, kProcesses * kLines);
}

}  // namespace
