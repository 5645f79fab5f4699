#include "files/filemanage_test.h"

#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/statfs.h>
#include <array>
#include <cstring>
#include <filesystem>
#include <set>

#include "support/child.h"
#include "support/matchers.h"
#include "support/private_machine.h"

namespace {

// Empties a directory on which something may be mounted.
void makeEmpty(const std::string &path) {
    for (const auto &entry : std::filesystem::directory_iterator(path)) {
        std::filesystem::remove_all(entry.path());
    }
}

}  // namespace

void FileTest::SetUp() {
    LibraryTest::SetUp();
    static bool machine_is_ready = false;
    if (!machine_is_ready) {
        machine_is_ready = true;
        enterPrivateRoot();
        umask(022);
        for (const char *path : {"/Ulmex", "/other"}) {
            ASSERT_EQ(mkdir(path, 0755), 0) << path;
        }
        coverDirectory("/var");
        coverDirectory("/etc");
        coverDirectory("/other", "1m");
    }
    for (const char *path : {"/Ulmex", "/var", "/etc", "/other"}) {
        makeEmpty(path);
    }
    for (const char *path : {"/Ulmex/config", "/var/ulmex", "/var/ulmex/a", "/var/ulmex/a/b",
                             "/var/ulmex/logs", "/var/tmp", "/var/tmp/upload"}) {
        ASSERT_EQ(mkdir(path, 0755), 0) << path;
    }
    errno = 0;
}

void FileTest::AsUser(const std::function<void()> &body) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    const ChildResult result = runInChild([&] {
        EXPECT_TRUE(setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0);
        body();
        return 0;
    });
    EXPECT_TRUE(result.exited && result.status == 0) << result.status;
}

namespace {

// "" when the conversion fails.
std::string convert(const std::string &path) {
    std::string out(path.size() + 16, '#');
    if (vlliConvertToLinuxPath(out.data(), path.c_str()) != 0) {
        return "";
    }
    const size_t length = strlen(out.c_str());
    EXPECT_LE(length, path.size() + 8) << path;
    return out.substr(0, length);
}

TEST_F(FileTest, windows_paths_become_linux_paths) {
    writeFile("/var/tmp/Report.TXT", "");
    writeFile("/var/tmp/\xC3\x84.txt", "");
    struct Row {
        const char *windows;
        const char *linux_path;  // "" when it fails
    };
    const Row rows[] = {
        {"D:\\Tolvane\\Config\\app.ini", "/Ulmex/config/app.ini"},
        {"d:\\tOLVANE\\config\\app.ini", "/Ulmex/config/app.ini"},
        {"D:\\Tolvane\\", "/Ulmex/"},
        {"e:\\logs\\/x.txt", "/var/ulmex/logs/x.txt"},
        {"X:\\upload", "/var/tmp/upload"},
        {"E:\\logs\\", "/var/ulmex/logs/"},
        {"E:\\LOGS\\", "/var/ulmex/logs/"},
        {"E:\\a\\/\\b//c", "/var/ulmex/a/b/c"},
        {"E:\\A\\B\\C", "/var/ulmex/a/b/C"},
        {"X:\\report.txt", "/var/tmp/Report.TXT"},
        {"X:\\\xC3\x84.TXT", "/var/tmp/\xC3\x84.txt"},
        {"X:\\\xC3\xA4.txt", "/var/tmp/\xC3\xA4.txt"},  // no other letter folds
        {"X:\\new.txt", "/var/tmp/new.txt"},
        {"X:\\newdir\\new.txt", ""},
        {"X:\\Report.TXT\\", ""},
        {"X:\\", "/var/tmp/"},
        {"X:", ""},
        {"D:/Tolvane/x", ""},
        {"D:\\Tolvan", ""},
        {"C:\\anything", ""},
        {"\\var\\tmp\\a", "/var/tmp/a"},
        {"\\VAR\\tmp\\a", ""},
        {"\\none", ""},
        {"", "/"},
        {"\\", "/"},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(convert(row.windows), row.linux_path) << row.windows;
    }
}

TEST_F(FileTest, an_exact_name_wins_and_then_the_first_that_the_directory_lists) {
    ASSERT_EQ(mkdir("/var/tmp/case", 0777), 0);
    writeFile("/var/tmp/case/NAME", "");
    writeFile("/var/tmp/case/Name", "");
    writeFile("/var/tmp/case/name", "");
    EXPECT_EQ(convert("X:\\case\\Name"), "/var/tmp/case/Name");
    const auto first = std::filesystem::directory_iterator("/var/tmp/case")->path();
    EXPECT_EQ(convert("X:\\case\\nAmE"), first);
}

TEST_F(FileTest, a_right_path_costs_one_stat_per_component_and_no_scan) {
    resetCallCounts();
    EXPECT_EQ(convert("E:\\a\\b"), "/var/ulmex/a/b");
    EXPECT_EQ(callCount("stat64"), 2U);
    EXPECT_EQ(callCount("opendir"), 0U);
    resetCallCounts();
    EXPECT_EQ(convert("E:\\A\\b\\c"), "/var/ulmex/a/b/c");
    EXPECT_EQ(callCount("stat64"), 3U);
    EXPECT_EQ(callCount("opendir"), 2U);
}

TEST_F(FileTest, long_components_and_links) {
    for (const size_t length : {255U, 256U, 5000U}) {
        const std::string name(length, 'n');
        EXPECT_EQ(convert("X:\\" + name), "/var/tmp/" + name);
        EXPECT_EQ(convert("X:\\" + name + "\\x"), "");
    }
    const std::string upper(255, 'L');
    const std::string lower(255, 'l');
    writeFile("/var/tmp/" + upper, "");
    EXPECT_EQ(convert("X:\\" + lower), "/var/tmp/" + upper);

    ASSERT_EQ(symlink("/var/ulmex/a", "/var/tmp/Link"), 0);
    ASSERT_EQ(symlink("nowhere", "/var/tmp/Dangling"), 0);
    ASSERT_EQ(symlink("Loop", "/var/tmp/Loop"), 0);
    EXPECT_EQ(convert("X:\\link\\B"), "/var/tmp/Link/b");
    EXPECT_EQ(convert("X:\\dangling"), "/var/tmp/Dangling");
    EXPECT_EQ(convert("X:\\loop\\x"), "");
}

TEST_F(FileTest, a_directory_of_50000_entries) {
    ASSERT_EQ(mkdir("/var/tmp/many", 0777), 0);
    for (int i = 0; i < 50000; ++i) {
        const std::string path = "/var/tmp/many/entry" + std::to_string(i);
        ASSERT_EQ(mknod(path.c_str(), S_IFREG | 0600, 0), 0);
    }
    EXPECT_EQ(convert("X:\\many\\ENTRY49999"), "/var/tmp/many/entry49999");
    EXPECT_EQ(convert("X:\\many\\ENTRY50000"), "/var/tmp/many/ENTRY50000");
}

TEST_F(FileTest, an_unreadable_directory_has_no_other_spelling) {
    ASSERT_EQ(mkdir("/var/tmp/closed", 0711), 0);
    writeFile("/var/tmp/closed/File", "");
    AsUser([] {
        EXPECT_EQ(convert("X:\\closed\\File"), "/var/tmp/closed/File");
        EXPECT_EQ(convert("X:\\closed\\file"), "");
    });
}

TEST_F(FileTest, a_path_is_not_read_beyond_its_end) {
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    auto *pages = static_cast<char *>(
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(pages, MAP_FAILED);
    ASSERT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
    for (const char *text : {"", "D", "D:", "D:\\Tolvane", "E:", "X:\\", "X:\\upload", "a\\"}) {
        char *at_end = pages + page - strlen(text) - 1;
        stpcpy(at_end, text);
        convert(at_end);
        const HANDLE file = vllCreateFile(at_end, O_RDONLY | O_DIRECTORY, 0, OPEN_EXISTING);
        if (file != INVALID_HANDLE_VALUE) {
            vllCloseHandle(file);
        }
    }
    munmap(pages, 2 * page);
}

TEST_F(FileTest, strings) {
    struct Row {
        const char *path, *name, *extension, *dir, *fname, *without_name;  // the last: null when it stays
    };
    const Row rows[] = {
        {"/usr/bin/ls", "ls", "", "/usr/bin/", "ls", "/usr/bin/"},
        {"./a", "a", "", "./", "a", "./"},
        {"../a.x", "a.x", ".x", "../", "a", "../"},
        {"usr/bin/ls", "usr/bin/ls", "", "usr/bin/", "ls", nullptr},
        {"/tmp/", "/tmp/", "", "/tmp/", "", "/tmp"},
        {"/", "/", "", "/", "", ""},
        {"", "", "", "", "", nullptr},
        {"file", "file", "", "", "file", nullptr},
        {"file.txt", "file.txt", ".txt", "", "file", nullptr},
        {".bashrc", ".bashrc", "", "", ".bashrc", nullptr},
        {"/home/.bashrc", ".bashrc", "", "/home/", ".bashrc", "/home/"},
        {"a.b.c", "a.b.c", ".c", "", "a.b", nullptr},
        {"a.", "a.", ".", "", "a", nullptr},
        {"dir.d/file", "dir.d/file", "", "dir.d/", "file", nullptr},
        {"/usr/lib/libx.so.1", "libx.so.1", ".1", "/usr/lib/", "libx.so", "/usr/lib/"},
        {"/etc/", "/etc/", "", "/etc/", "", "/etc"},
        {"/a/b/c.txt", "c.txt", ".txt", "/a/b/", "c", "/a/b/"},
    };
    for (const Row &row : rows) {
        EXPECT_STREQ(vllPathFindFileName(row.path), row.name) << row.path;
        EXPECT_STREQ(vllPathFindExtension(row.path), row.extension) << row.path;
        std::array<char[64], 4> parts = {"#", "#", "#", "#"};
        vll_splitpath(row.path, parts[0], parts[1], parts[2], parts[3]);
        EXPECT_STREQ(parts[0], "");
        EXPECT_STREQ(parts[1], row.dir) << row.path;
        EXPECT_STREQ(parts[2], row.fname) << row.path;
        EXPECT_STREQ(parts[3], row.extension) << row.path;
        vll_splitpath(row.path, nullptr, nullptr, nullptr, nullptr);
        std::string buffer = row.path;
        EXPECT_EQ(vllPathRemoveFileSpec(buffer.data()), row.without_name != nullptr) << row.path;
        EXPECT_STREQ(buffer.c_str(), row.without_name != nullptr ? row.without_name : row.path);
    }
    EXPECT_EQ(vllPathFindFileName(nullptr), nullptr);
    EXPECT_EQ(vllPathFindExtension(nullptr), nullptr);
    EXPECT_EQ(vllPathAppend(nullptr, "x"), nullptr);
    EXPECT_FALSE(vllPathRemoveFileSpec(nullptr));
    std::array<char, 8> nothing = {"#"};
    vll_splitpath(nullptr, nullptr, nothing.data(), nullptr, nullptr);
    EXPECT_STREQ(nothing.data(), "");
    const char *const appends[][3] = {
        {"/tmp", "./x", "/tmp/x"},
        {"/tmp/", "/x", "/tmp/x"},
        {"/tmp/", "x", "/tmp/x"},
        {"/tmp", "/x", "/tmp/x"},
        {"/tmp", "x", "/tmp/x"},
        {"/tmp", "", "/tmp/"},
        {"", "x", "x"},
        {"", "./x", "x"},
    };
    for (const auto &row : appends) {
        std::array<char, 64> buffer = {};
        stpcpy(buffer.data(), row[0]);
        EXPECT_EQ(vllPathAppend(buffer.data(), row[1]), buffer.data());
        EXPECT_STREQ(buffer.data(), row[2]);
    }
}

TEST_F(FileTest, free_space) {
    struct statfs status;
    ASSERT_EQ(statfs("/other", &status), 0);
    uint64_t all_free = 1;
    uint64_t total = 1;
    uint64_t available = 1;
    EXPECT_TRUE(vllGetDiskFreeSpaceEx("/other", &all_free, &total, &available));
    const auto block = static_cast<uint64_t>(status.f_bsize);
    EXPECT_EQ(all_free, block * status.f_bfree);
    EXPECT_EQ(total, block * status.f_blocks);
    EXPECT_EQ(available, block * status.f_bavail);
    EXPECT_TRUE(vllGetDiskFreeSpaceEx("/other", &all_free, &total, nullptr));

    ASSERT_EQ(mkdir("/var/tmp/big", 0777), 0);
    coverDirectory("/var/tmp/big", "5g");
    EXPECT_TRUE(vllGetDiskFreeSpaceEx("/var/tmp/big", &all_free, &total, nullptr));
    EXPECT_EQ(total, uint64_t{5} << 30);
    ASSERT_EQ(umount("/var/tmp/big"), 0);
    EXPECT_THAT(vllGetDiskFreeSpaceEx("/none", &all_free, &total, nullptr), FailsWith(ENOENT));
    EXPECT_THAT(vllGetDiskFreeSpaceEx(nullptr, &all_free, &total, nullptr), FailsWith(EINVAL));
}

TEST_F(FileTest, random_bytes) {
    std::array<BYTE, 17> first = {};
    std::array<BYTE, 17> second = {};
    EXPECT_TRUE(vllCryptGenRandom(16, first.data()));
    EXPECT_TRUE(vllCryptGenRandom(16, second.data()));
    EXPECT_NE(first, second);
    EXPECT_EQ(first[16], 0);
    EXPECT_FALSE(vllCryptGenRandom(0, first.data()));
    for (const auto &[call, error] : {std::pair{"open64", ENOENT}, std::pair{"read", EIO}}) {
        const FailCall fail(call, 1, error);
        EXPECT_THAT(vllCryptGenRandom(16, first.data()), FailsWith(error));
    }
    const FailCall interrupted("read", 1, EINTR);
    EXPECT_TRUE(vllCryptGenRandom(16, first.data()));
    std::vector<BYTE> many(40 << 20);  // more than one read gives
    EXPECT_TRUE(vllCryptGenRandom(static_cast<DWORD>(many.size()), many.data()));
    EXPECT_GT(std::set<BYTE>(many.end() - 4096, many.end()).size(), 200U);
}

}  // namespace
