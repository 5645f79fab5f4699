// Links, moves and deletions.
#include <sys/mount.h>
#include <array>

#include "files/filemanage_test.h"
#include "support/child.h"

namespace {

const char *const kSource = "/var/tmp/source";
const char *const kTarget = "/var/tmp/target";
const char *const kOther = "/other/target";
const char *const kHardLink = "/var/tmp/hard_link";
const char *const kSymlink = "/var/tmp/symlink";
const char *const kOtherSymlink = "/other/symlink";

// The source with its links, and no target.
void makeFiles(const char *existing_target) {
    for (const char *name : {kSource, kTarget, kOther, kHardLink, kSymlink, kOtherSymlink}) {
        unlink(name);
    }
    writeFile(kSource, "content");
    EXPECT_EQ(link(kSource, kHardLink), 0);
    EXPECT_EQ(symlink(kSource, kSymlink), 0);
    EXPECT_EQ(symlink(kSource, kOtherSymlink), 0);
    if (existing_target != nullptr) {
        writeFile(existing_target, "old");
    }
}

TEST_F(FileTest, linked_or_copied) {
    const struct {
        const char *source, *target;
        BOOL fail_if_exists;
        bool exists;
        int error;  // 0: the target has the source's content
    } rows[] = {
        {kSource, kTarget, TRUE, false, 0},
        {kSource, kTarget, TRUE, true, EEXIST},
        {kSource, kTarget, FALSE, true, 0},
        {kSource, kSource, FALSE, false, 0},
        {kHardLink, kSource, FALSE, false, 0},
        {kSymlink, kSource, FALSE, false, 0},
        {kOtherSymlink, kSource, FALSE, false, 0},
        {kSource, "/var/tmp/upload", FALSE, false, EISDIR},
        {"/var/tmp/none", kTarget, FALSE, true, ENOENT},
        {nullptr, kTarget, FALSE, true, EINVAL},
        {kSource, nullptr, FALSE, false, EINVAL},
        {kSource, kOther, TRUE, false, 0},
        {kSource, kOther, TRUE, true, EEXIST},
        {kSource, kOther, FALSE, true, 0},
        {"/var/tmp/much", kOther, TRUE, false, ENOSPC},
    };
    writeFile("/var/tmp/much", std::string(2000000, 'x'));  // more than /other holds
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        makeFiles(row.exists ? row.target : nullptr);
        EXPECT_THAT(vllLinkOrCopyFile(row.source, row.target, row.fail_if_exists), Outcome(row.error));
        EXPECT_EQ(readFile(kSource), "content");
        if (row.error == 0 || row.exists) {
            EXPECT_EQ(readFile(row.target), row.error == 0 ? "content" : "old");
        }
        struct stat status;
        ASSERT_EQ(stat(kSource, &status), 0);
        EXPECT_EQ(status.st_nlink, row.error == 0 && row.target == kTarget ? 3U : 2U);
    }
    EXPECT_FALSE(exists(kOther));
    writeFile(kTarget, "old");
    const FailCall fail("link", 2, EMLINK);
    EXPECT_THAT(vllLinkOrCopyFile(kSource, kTarget, FALSE), FailsWith(EMLINK));
}

TEST_F(FileTest, moved) {
    constexpr int64_t kPlain = -1;  // vllMoveFile()
    constexpr DWORD kReplaceOrCopy = MOVE_REPLACE_EXISTING | MOVE_COPY_ALLOWED;
    const struct {
        const char *target;
        int64_t flags;
        bool exists;
        int error;  // 0: moved
    } rows[] = {
        {kTarget, kPlain, false, 0},
        {kTarget, kPlain, true, EEXIST},
        {kOther, kPlain, false, EXDEV},
        {kTarget, 0, false, 0},
        {kTarget, 0, true, EINVAL},
        {kTarget, MOVE_REPLACE_EXISTING, false, 0},
        {kTarget, MOVE_REPLACE_EXISTING, true, 0},
        {kTarget, MOVE_COPY_ALLOWED, true, EEXIST},
        {kTarget, kReplaceOrCopy, true, 0},
        {kOther, 0, false, EINVAL},
        {kOther, MOVE_REPLACE_EXISTING, false, EINVAL},
        {kOther, MOVE_COPY_ALLOWED, false, 0},
        {kOther, MOVE_COPY_ALLOWED, true, EEXIST},
        {kOther, kReplaceOrCopy, true, 0},
        {nullptr, kPlain, false, EINVAL},
        {nullptr, 0, false, EINVAL},
        {nullptr, MOVE_DELAY_UNTIL_REBOOT | MOVE_REPLACE_EXISTING, false, EINVAL},
        {kTarget, MOVE_COPY_ALLOWED | MOVE_DELAY_UNTIL_REBOOT, false, EINVAL},
    };
    const auto move = [](const char *from, const char *to, int64_t flags) {
        return flags == kPlain ? vllMoveFile(from, to) : vllMoveFileEx(from, to, static_cast<DWORD>(flags));
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        makeFiles(row.exists ? row.target : nullptr);
        EXPECT_THAT(move(kSource, row.target, row.flags), Outcome(row.error));
        EXPECT_EQ(exists(kSource), row.error != 0);
        if (row.target != nullptr) {
            EXPECT_EQ(readFile(row.target), row.error == 0 ? "content" : row.exists ? "old" : "");
        }
        EXPECT_THAT(move(nullptr, kTarget, row.flags), FailsWith(EINVAL));
    }
    EXPECT_THAT(vllMoveFileEx("/var/tmp/none", kTarget, MOVE_COPY_ALLOWED), FailsWith(ENOENT));
    // A directory is moved by rename alone; a copy of it costs nothing that exists.
    EXPECT_THAT(vllMoveFileEx("/var/tmp/upload", kSource, kReplaceOrCopy), FailsWith(EISDIR));
    EXPECT_TRUE(vllMoveFileEx("/var/tmp/upload", "/var/tmp/moved", MOVE_REPLACE_EXISTING));
    // When the old name cannot be removed, the new one is removed again.
    makeFiles(nullptr);
    const FailCall fail("unlink", 1, EPERM);
    EXPECT_THAT(vllMoveFile(kSource, kTarget), FailsWith(EPERM));
    EXPECT_FALSE(exists(kTarget));
}

// The names of a move may be one file already. Whatever they are, its content is under the new one afterwards, and the
// old one is gone unless it is the same.
TEST_F(FileTest, a_file_moved_to_itself_is_not_lost) {
    constexpr DWORD kReplaceOrCopy = MOVE_REPLACE_EXISTING | MOVE_COPY_ALLOWED;
    const struct {
        const char *from, *to;
        bool gone;
    } rows[] = {
        {kSource, kSource, false},
        {kSource, "/var/tmp/../tmp/source", false},
        {kSource, kHardLink, true},
        {kSymlink, kSource, true},
        {kSymlink, kHardLink, true},
        {kOtherSymlink, kSource, true},
        {kSource, kSymlink, true},
        {kSource, kOtherSymlink, true},
        {kSource, "/var/ulmex/mounted/source", false},
        {kSource, "/var/ulmex/mounted/hard_link", true},
        {kSymlink, "/var/ulmex/mounted/source", true},
    };
    ASSERT_EQ(mkdir("/var/ulmex/mounted", 0755), 0);
    ASSERT_EQ(mount("/var/tmp", "/var/ulmex/mounted", nullptr, MS_BIND, nullptr), 0);
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.from) + " to " + row.to);
        makeFiles(nullptr);
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
    makeFiles(nullptr);
    const FailCall fail("unlink", 1, EPERM);
    EXPECT_THAT(vllMoveFileEx(kSource, kHardLink, kReplaceOrCopy), FailsWith(EPERM));
    EXPECT_EQ(readFile(kSource) + readFile(kHardLink), "contentcontent");
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
    EXPECT_TRUE(vllMoveFileEx("/b/old", "/b\n/new", MOVE_DELAY_UNTIL_REBOOT));
    EXPECT_TRUE(vllMoveFileEx("/c/old", nullptr, MOVE_DELAY_UNTIL_REBOOT));
    EXPECT_THAT(vllMoveFileEx("/d\n/old", "/d/new", MOVE_DELAY_UNTIL_REBOOT), FailsWith(EINVAL));
    EXPECT_THAT(vllMoveFileEx("/d/old", "/d\n/new", MOVE_DELAY_UNTIL_REBOOT | MOVE_REPLACE_EXISTING),
                FailsWith(EINVAL));
    EXPECT_EQ(readFile("/etc/moved.conf"), "/a/old /a/new replace_existing\n/b/old  NULL\n/c/old  NULL\n");

    // A full file system takes no half line.
    ASSERT_EQ(unlink("/etc/moved.conf"), 0);
    ASSERT_EQ(symlink("/other/moved.conf", "/etc/moved.conf"), 0);
    writeFile("/other/moved.conf", "/first  NULL\n");
    writeFile("/other/filler", std::string(2 << 20, 'f'));
    const std::string long_name = "/" + std::string(8000, 'l');
    EXPECT_THAT(vllMoveFileEx(long_name.c_str(), nullptr, MOVE_DELAY_UNTIL_REBOOT), FailsWith(ENOSPC));
    EXPECT_EQ(readFile("/other/moved.conf"), "/first  NULL\n");
    ASSERT_EQ(unlink("/etc/moved.conf"), 0);
    ASSERT_EQ(mkdir("/etc/moved.conf", 0755), 0);
    EXPECT_THAT(vllMoveFileEx("/b/old", nullptr, MOVE_DELAY_UNTIL_REBOOT), FailsWith(EISDIR));
}

TEST_F(FileTest, deferred_moves_of_several_processes_are_whole_lines) {
    constexpr int kLines = 200;
    std::array<pid_t, 4> children;
    for (size_t i = 0; i < children.size(); ++i) {
        children[i] = startChild([i] {
            const std::string name(1000 + i, static_cast<char>('a' + i));
            for (int line = 0; line < kLines; ++line) {
                EXPECT_TRUE(vllMoveFileEx(name.c_str(), nullptr, MOVE_DELAY_UNTIL_REBOOT));
            }
            return 0;
        });
    }
    for (const pid_t child : children) {
        expectSuccess(child);
    }
    std::ifstream file("/etc/moved.conf");
    int lines = 0;
    for (std::string line; std::getline(file, line); ++lines) {
        ASSERT_EQ(line, std::string(1000 + static_cast<size_t>(line[0] - 'a'), line[0]) + "  NULL");
    }
    EXPECT_EQ(lines, 4 * kLines);
}

}  // namespace
