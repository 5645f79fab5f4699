// Links, moves and deletions.
#include <sys/mount.h>

#include "files/filemanage_test.h"
#include "support/child.h"

namespace {

const char *const kSource = "/var/tmp/source";
const char *const kTarget = "/var/tmp/target";
const char *const kOther = "/other/target";
const char *const kHardLink = "/var/tmp/hard_link";
const char *const kSymlink = "/var/tmp/symlink";
const char *const kOtherSymlink = "/other/symlink";
const char *const kUpload = "/var/tmp/upload";  // a directory
const char *const kNone = "/var/tmp/none";

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

// How a row links or moves: the flags of vllMoveFileEx(), or one of these.
constexpr int64_t kLinkNew = -1, kLink = -2, kMove = -3;
constexpr int64_t kReplace = MOVE_REPLACE_EXISTING, kCopy = MOVE_COPY_ALLOWED,
                  kDefer = MOVE_DELAY_UNTIL_REBOOT;

BOOL run(int64_t how, const char *from, const char *to) {
    switch (how) {
        case kLinkNew:
        case kLink:
            return vllLinkOrCopyFile(from, to, how == kLinkNew);
        case kMove:
            return vllMoveFile(from, to);
        default:
            return vllMoveFileEx(from, to, static_cast<DWORD>(how));
    }
}

// An operation that succeeds leaves the source's content under the new name, one that fails leaves both as they were.
TEST_F(FileTest, linked_and_moved) {
    const struct {
        int64_t how;
        const char *from, *to;
        bool exists;  // there is a target
        int error;
        bool stays = false;  // the old name, where the operation succeeds
    } rows[] = {
        {kLinkNew, kSource, kTarget, false, 0, true},
        {kLinkNew, kSource, kTarget, true, EEXIST},
        {kLink, kSource, kTarget, true, 0, true},
        {kLink, kSource, kSource, false, 0, true},
        {kLink, kHardLink, kSource, false, 0, true},
        {kLink, kSymlink, kSource, false, 0, true},
        {kLink, kOtherSymlink, kSource, false, 0, true},
        {kLink, kSource, kUpload, false, EISDIR},
        {kLink, kNone, kTarget, true, ENOENT},
        {kLink, nullptr, kTarget, true, EINVAL},
        {kLink, kSource, nullptr, false, EINVAL},
        {kLinkNew, kSource, kOther, false, 0, true},
        {kLinkNew, kSource, kOther, true, EEXIST},
        {kLink, kSource, kOther, true, 0, true},
        {kLink, "/dev/zero", kOther, false, ENOSPC},
        {kMove, kSource, kTarget, false, 0},
        {kMove, kSource, kTarget, true, EEXIST},
        {kMove, kSource, kOther, false, EXDEV},
        {kMove, kSource, nullptr, false, EINVAL},
        {kMove, nullptr, kTarget, true, EINVAL},
        {0, kSource, kTarget, false, 0},
        {0, kSource, kTarget, true, EINVAL},
        {0, kSource, kOther, false, EINVAL},
        {0, kSource, nullptr, false, EINVAL},
        {kReplace, kSource, kTarget, false, 0},
        {kReplace, kSource, kTarget, true, 0},
        {kReplace, kSource, kOther, false, EINVAL},
        {kCopy, kSource, kTarget, true, EEXIST},
        {kCopy, kSource, kOther, false, 0},
        {kCopy, kSource, kOther, true, EEXIST},
        {kCopy, kNone, kTarget, true, ENOENT},
        {kCopy | kReplace, kSource, kTarget, true, 0},
        {kCopy | kReplace, kSource, kOther, true, 0},
        {kCopy | kReplace, kUpload, kSource, false, EISDIR},
        {kDefer, nullptr, kTarget, true, EINVAL},
        {kDefer | kReplace, kSource, nullptr, false, EINVAL},
        {kDefer | kCopy, kSource, kTarget, true, EINVAL},
        // Both names are one file already.
        {kMove, kSource, kHardLink, false, EEXIST},
        {kCopy, kSource, kSource, false, EEXIST},
        {kCopy | kReplace, kSource, kSource, false, 0, true},
        {kCopy | kReplace, kSource, "/var/tmp/../tmp/source", false, 0, true},
        {kCopy | kReplace, kSource, kHardLink, false, 0},
        {kCopy | kReplace, kSource, kSymlink, false, 0},
        {kCopy | kReplace, kSource, kOtherSymlink, false, 0},
        {kCopy | kReplace, kSymlink, kSource, false, 0},
        {kCopy | kReplace, kSymlink, kHardLink, false, 0},
        {kCopy | kReplace, kOtherSymlink, kSource, false, 0},
        {kCopy | kReplace, kSource, "/mounted/source", false, 0, true},
        {kCopy | kReplace, kSource, "/mounted/hard_link", false, 0},
        {kCopy | kReplace, kSymlink, "/mounted/source", false, 0},
        {kReplace, kUpload, "/var/tmp/moved", false, 0},
    };
    ASSERT_TRUE(mkdir("/mounted", 0755) == 0 || errno == EEXIST);
    ASSERT_EQ(mount("/var/tmp", "/mounted", nullptr, MS_BIND, nullptr), 0);
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        makeFiles(row.exists ? row.to : nullptr);
        EXPECT_THAT(run(row.how, row.from, row.to), Outcome(row.error));
        struct stat status;
        if (row.error != 0) {
            EXPECT_EQ(readFile(kSource), "content");
            EXPECT_TRUE(!row.exists || readFile(row.to) == "old");
            EXPECT_EQ(exists(kOther), row.exists && row.to == kOther);
        } else {
            EXPECT_EQ(lstat(row.from, &status) == 0, row.stays);
            EXPECT_EQ(readFile(row.to), row.from == kUpload ? "" : "content");
        }
        if (row.how == kLink || row.how == kLinkNew) {
            ASSERT_EQ(stat(kSource, &status), 0);
            EXPECT_EQ(status.st_nlink, row.error == 0 && row.to == kTarget ? 3U : 2U);
        }
    }
    ASSERT_EQ(umount("/mounted"), 0);
}

// The second of two steps fails: nothing is lost.
TEST_F(FileTest, a_link_or_move_that_fails_half_way) {
    makeFiles(nullptr);
    {
        const FailCall fail("unlink", 1, EPERM);
        EXPECT_THAT(vllMoveFile(kSource, kTarget), FailsWith(EPERM));
        EXPECT_FALSE(exists(kTarget));
    }
    {
        const FailCall fail("unlink", 1, EPERM);
        EXPECT_THAT(vllMoveFileEx(kSource, kHardLink, kReplace | kCopy), FailsWith(EPERM));
        EXPECT_EQ(readFile(kSource) + readFile(kHardLink), "contentcontent");
    }
    writeFile(kTarget, "old");
    const FailCall fail("link", 2, EMLINK);
    EXPECT_THAT(vllLinkOrCopyFile(kSource, kTarget, FALSE), FailsWith(EMLINK));
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
    const auto defer = [](char letter) {
        const std::string name(1000, letter);
        for (int line = 0; line < 200; ++line) {
            EXPECT_TRUE(vllMoveFileEx(name.c_str(), nullptr, MOVE_DELAY_UNTIL_REBOOT));
        }
        return 0;
    };
    const pid_t children[] = {startChild([&] { return defer('a'); }), startChild([&] { return defer('b'); })};
    for (const pid_t child : children) {
        expectSuccess(child);
    }
    std::ifstream file("/etc/moved.conf");
    int lines = 0;
    for (std::string line; std::getline(file, line); ++lines) {
        ASSERT_EQ(line, std::string(1000, line[0]) + "  NULL");
    }
    EXPECT_EQ(lines, 400);
}

}  // namespace
