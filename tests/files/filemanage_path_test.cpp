// Windows paths, path strings, free space and random bytes.
#include <sys/mount.h>
#include <sys/statfs.h>
#include <array>
#include <cstring>
#include <filesystem>
#include <set>

#include "files/filemanage.h"
#include "files/filemanage_test.h"
#include "support/private_machine.h"
#include "support/rows.h"

namespace {

// The Linux path, or "" when the conversion fails.
std::string convert(const std::string &path) {
    std::string out(path.size() + 16, '#');
    const bool done = vlliConvertToLinuxPath(out.data(), path.c_str()) == 0;
    EXPECT_EQ(out.substr(path.size() + 9), std::string(7, '#')) << path;
    return done ? out.c_str() : "";
}

TEST_F(FileTest, windows_paths_become_linux_paths) {
    writeFile("/var/tmp/Report.TXT", "");
    writeFile("/var/tmp/\xC3\x84.txt", "");
    ASSERT_EQ(symlink("/var/ulmex/a", "/var/tmp/Link"), 0);
    ASSERT_EQ(symlink("nowhere", "/var/tmp/Dangling"), 0);
    ASSERT_EQ(symlink("Loop", "/var/tmp/Loop"), 0);
    for (const char *row : {"D:\\Tolvane\\Config -> /Ulmex/config",
                            "d:\\tOLVANE\\config\\x -> /Ulmex/config/x",
                            "D:\\Tolvane\\ -> /Ulmex/",
                            "e:\\logs\\/x.txt -> /var/ulmex/logs/x.txt",
                            "X:\\upload -> /var/tmp/upload",
                            "E:\\LOGS\\ -> /var/ulmex/logs/",
                            "E:\\a\\/\\b//c -> /var/ulmex/a/b/c",
                            "E:\\A\\B\\C -> /var/ulmex/a/b/C",
                            "X:\\report.txt -> /var/tmp/Report.TXT",
                            "X:\\\xC3\x84.TXT -> /var/tmp/\xC3\x84.txt",
                            "X:\\\xC3\xA4.txt -> /var/tmp/\xC3\xA4.txt",
                            "X:\\link\\B -> /var/tmp/Link/b",
                            "X:\\dangling -> /var/tmp/Dangling",
                            "X:\\ -> /var/tmp/",
                            "\\var\\tmp\\a -> /var/tmp/a",
                            " -> /",
                            "\\ -> /",
                            "X:\\newdir\\new.txt -> ",
                            "X:\\Report.TXT\\ -> ",
                            "X:\\loop\\x -> ",
                            "X: -> ",
                            "D -> ",
                            "D:\\Tolvane -> ",
                            "D:/Tolvane/x -> ",
                            "D:\\Tolvan -> ",
                            "C:\\anything -> ",
                            "\\VAR\\tmp\\a -> ",
                            "\\none -> ",
                            "a\\ -> "}) {
        EXPECT_EQ(convert(splitRow(row).first), splitRow(row).second) << row;
    }
    EXPECT_EQ(convert("X:\\" + std::string(5000, 'n')), "/var/tmp/" + std::string(5000, 'n'));
}

TEST_F(FileTest, an_exact_name_wins_and_then_the_first_that_the_directory_lists) {
    ASSERT_EQ(mkdir("/var/tmp/case", 0777), 0);
    for (const char *name : {"NAME", "Name", "name"}) {
        writeFile(std::string("/var/tmp/case/") + name, "");
        EXPECT_EQ(convert(std::string("X:\\case\\") + name), std::string("/var/tmp/case/") + name);
    }
    const auto first = std::filesystem::directory_iterator("/var/tmp/case")->path();
    EXPECT_EQ(convert("X:\\case\\nAmE"), first);
}

TEST_F(FileTest, a_right_path_costs_one_stat_per_component_and_no_scan) {
    for (const auto &[path, scans] : {std::pair{"E:\\a\\b\\c", 1U}, std::pair{"E:\\A\\b\\c", 2U}}) {
        resetCallCounts();
        EXPECT_EQ(convert(path), "/var/ulmex/a/b/c");
        EXPECT_EQ(callCount("stat64"), 3U);
        EXPECT_EQ(callCount("opendir"), scans);
    }
}

TEST_F(FileTest, an_unreadable_directory_has_no_other_spelling) {
    ASSERT_EQ(mkdir("/var/tmp/closed", 0711), 0);
    writeFile("/var/tmp/closed/File", "");
    asUser([] {
        EXPECT_EQ(convert("X:\\closed\\File"), "/var/tmp/closed/File");
        EXPECT_EQ(convert("X:\\closed\\file"), "");
    });
}

TEST_F(FileTest, path_strings) {
    const struct {
        const char *path, *name;
        std::string parts;         // drive|directory|name|extension
        const char *without_name;  // null: the path stays
    } rows[] = {
        {"/usr/bin/ls", "ls", "|/usr/bin/|ls|", "/usr/bin/"},
        {"./a", "a", "|./|a|", "./"},
        {"../a.x", "a.x", "|../|a|.x", "../"},
        {"usr/bin/ls", "usr/bin/ls", "|usr/bin/|ls|", nullptr},
        {"/tmp/", "/tmp/", "|/tmp/||", "/tmp"},
        {"/", "/", "|/||", ""},
        {"", "", "|||", nullptr},
        {"file.txt", "file.txt", "||file|.txt", nullptr},
        {"/home/.bashrc", ".bashrc", "|/home/|.bashrc|", "/home/"},
        {"a.b.c", "a.b.c", "||a.b|.c", nullptr},
        {"a.", "a.", "||a|.", nullptr},
        {"dir.d/file", "dir.d/file", "|dir.d/|file|", nullptr},
        {"/lib/libx.so.1", "libx.so.1", "|/lib/|libx.so|.1", "/lib/"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.path);
        EXPECT_STREQ(vllPathFindFileName(row.path), row.name);
        EXPECT_EQ(vllPathFindExtension(row.path), row.parts.substr(row.parts.rfind('|') + 1));
        std::array<char[64], 4> parts = {"#", "#", "#", "#"};
        vll_splitpath(row.path, parts[0], parts[1], parts[2], parts[3]);
        EXPECT_EQ(std::string(parts[0]) + "|" + parts[1] + "|" + parts[2] + "|" + parts[3], row.parts);
        std::string buffer = row.path;
        EXPECT_EQ(vllPathRemoveFileSpec(buffer.data()), row.without_name != nullptr);
        EXPECT_STREQ(buffer.c_str(), row.without_name != nullptr ? row.without_name : row.path);
    }
    for (const auto &[path, more, expected] :
         {std::array{"/tmp", "./x", "/tmp/x"}, std::array{"/tmp/", "/x", "/tmp/x"},
          std::array{"/tmp/", "x", "/tmp/x"}, std::array{"/tmp", "/x", "/tmp/x"},
          std::array{"/tmp", "", "/tmp/"}, std::array{"", "./x", "x"}}) {
        std::array<char, 64> buffer = {};
        stpcpy(buffer.data(), path);
        EXPECT_EQ(vllPathAppend(buffer.data(), more), buffer.data());
        EXPECT_STREQ(buffer.data(), expected);
    }
    std::array<char, 8> nothing = {"#"};
    vll_splitpath(nullptr, nullptr, nothing.data(), nullptr, nullptr);
    EXPECT_STREQ(nothing.data(), "");
    EXPECT_EQ(vllPathFindFileName(nullptr), nullptr);
    EXPECT_EQ(vllPathFindExtension(nullptr), nullptr);
    EXPECT_EQ(vllPathAppend(nullptr, "x"), nullptr);
    EXPECT_FALSE(vllPathRemoveFileSpec(nullptr));
}

TEST_F(FileTest, free_space) {
    ASSERT_EQ(mkdir("/var/tmp/big", 0777), 0);
    coverDirectory("/var/tmp/big", "5g");
    writeFile("/var/tmp/big/file", "content");
    struct statfs status;
    ASSERT_EQ(statfs("/var/tmp/big", &status), 0);
    uint64_t all_free = 1;
    uint64_t total = 1;
    uint64_t available = 1;
    EXPECT_TRUE(vllGetDiskFreeSpaceEx("/var/tmp/big", &all_free, &total, &available));
    EXPECT_EQ(total, uint64_t{5} << 30);
    EXPECT_EQ(all_free, static_cast<uint64_t>(status.f_bsize) * status.f_bfree);
    EXPECT_EQ(available, static_cast<uint64_t>(status.f_bsize) * status.f_bavail);
    EXPECT_TRUE(vllGetDiskFreeSpaceEx("/var/tmp/big", nullptr, nullptr, nullptr));
    ASSERT_EQ(umount("/var/tmp/big"), 0);
    EXPECT_THAT(vllGetDiskFreeSpaceEx("/none", &all_free, &total, nullptr), FailsWith(ENOENT));
    EXPECT_THAT(vllGetDiskFreeSpaceEx(nullptr, &all_free, &total, nullptr), FailsWith(EINVAL));
}

TEST_F(FileTest, random_bytes) {
    std::vector<BYTE> bytes(40 << 20);  // more than one read gives
    const FailCall interrupted("read", 1, EINTR);
    EXPECT_TRUE(vllCryptGenRandom(static_cast<DWORD>(bytes.size()) - 1, bytes.data()));
    EXPECT_GT(std::set<BYTE>(bytes.end() - 4096, bytes.end()).size(), 200U);
    EXPECT_EQ(bytes.back(), 0);
    EXPECT_THAT(vllCryptGenRandom(0, bytes.data()), FailsWith(EINVAL));
    EXPECT_THAT(vllCryptGenRandom(16, nullptr), FailsWith(EINVAL));
    for (const auto &[call, error] : {std::pair{"open64", ENOENT}, std::pair{"read", EIO}}) {
        const FailCall fail(call, 1, error);
        EXPECT_THAT(vllCryptGenRandom(16, bytes.data()), FailsWith(error));
    }
}

}  // namespace
