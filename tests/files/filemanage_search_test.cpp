#include <glob.h>
#include <malloc.h>
#include <cstring>
#include <map>
#include <set>

#include "base/descriptor.h"
#include "files/filemanage_test.h"

#include "support/matchers.h"

namespace {

using Found = std::map<std::string, FindDataRecord>;

Found search(const std::string &pattern) {
    Found found;
    FindDataRecord data;
    SearchRecord *handle = vllFindFirstFile(pattern.c_str(), &data);
    if (handle == INVALID_FIND_HANDLE) {
        return found;
    }
    do {
        found[data.name] = data;
    } while (vllFindNextFile(handle, &data));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(vllFindNextFile(handle, &data), FailsWith(ENOENT));
    EXPECT_TRUE(vllFindClose(handle));
    return found;
}

std::set<std::string> names(const std::string &pattern) {
    std::set<std::string> result;
    for (const auto &entry : search(pattern)) {
        result.insert(entry.first);
    }
    return result;
}

TEST_F(FileTest, a_directory_is_searched) {
    ASSERT_EQ(mkdir("/var/log", 0755), 0);
    ASSERT_EQ(mkdir("/var/log/sub", 0755), 0);
    writeFile("/var/log/a.txt", "12345");
    writeFile("/var/log/.hidden", "");
    writeFile("/var/log/plain", "");
    ASSERT_EQ(symlink("sub", "/var/log/link"), 0);
    const std::string longest(255, 'n');
    writeFile("/var/log/" + longest, "");
    struct stat status;
    ASSERT_EQ(stat("/var/log/a.txt", &status), 0);

    using Names = std::set<std::string>;
    EXPECT_EQ(names("/var/log/"), (Names{".", "..", ".hidden", "a.txt", "link", longest, "plain", "sub"}));
    EXPECT_EQ(names("/var/log/*.*"), (Names{".", "..", ".hidden", "a.txt"}));
    EXPECT_EQ(names("/var/log/plain"), Names{"plain"});
    EXPECT_EQ(names("/v*/log/[ap]*"), (Names{"a.txt", "plain"}));
    EXPECT_EQ(names("/var/log/none*"), Names{});
    EXPECT_EQ(names("/var/log/sub/none"), Names{});
    const Found found = search("/var/log/");
    const FindDataRecord &file = found.at("a.txt");
    EXPECT_EQ(file.attributes & 7U, unsigned{ATTR_REGULAR});
    EXPECT_EQ(file.size, 5U);
    EXPECT_EQ(file.lastWriteTime, status.st_mtime);
    EXPECT_EQ(file.lastAccessTime, status.st_atime);
    EXPECT_EQ(file.creationTime, status.st_ctime);
    EXPECT_EQ(found.at("sub").attributes, unsigned{ATTR_DIRECTORY});
    EXPECT_EQ(found.at("link").attributes, unsigned{ATTR_DIRECTORY});
    EXPECT_EQ(found.at(".hidden").attributes & ATTR_HIDDEN, 0U);
    setenv("HOME", "/var/log", 1);
    EXPECT_EQ(names("~/*.txt"), Names{"a.txt"});
    EXPECT_EQ(names("/"), names("/*"));
}

TEST_F(FileTest, large_files_and_late_times_in_a_search) {
    const Fd file(open("/var/tmp/large", O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    const timespec late[2] = {{0, 0}, {static_cast<time_t>(int64_t{1} << 32), 0}};
    for (const int64_t size : {int64_t{0x80000000}, int64_t{0xFFFFFFFE}, int64_t{1} << 33}) {
        ASSERT_EQ(ftruncate(file.get(), size), 0);
        EXPECT_EQ(search("/var/tmp/large").at("large").size, std::min(size, int64_t{0xFFFFFFFF}));
    }
    if (sizeof(time_t) > sizeof(FILETIME)) {
        ASSERT_EQ(futimens(file.get(), late), 0);
        EXPECT_EQ(search("/var/tmp/large").at("large").lastWriteTime, -1);
    }
}

TEST_F(FileTest, searches_that_go_wrong) {
    FindDataRecord data;
    struct Row {
        std::string pattern;
        int error;
    };
    const Row rows[] = {
        {"/var/tmp/none", ENOENT},
        {"/none/*", EACCES},
        {"", ENOENT},
        {std::string(4095, 'x'), ENOENT},
        {std::string(4096, 'x'), ENAMETOOLONG},
        {std::string(100000, 'x'), ENAMETOOLONG},
        {std::string(4093, 'x') + "/", EACCES},
        {std::string(4094, 'x') + "/", ENAMETOOLONG},
        {std::string(4095, '/'), ENAMETOOLONG},
    };
    for (const Row &row : rows) {
        errno = 0;
        EXPECT_EQ(vllFindFirstFile(row.pattern.c_str(), &data), INVALID_FIND_HANDLE) << row.pattern.size();
        EXPECT_EQ(errno, row.error) << row.pattern.size();
    }
    EXPECT_THAT(vllFindFirstFile(nullptr, &data), FailsWith(EINVAL, INVALID_FIND_HANDLE));
    EXPECT_THAT(vllFindFirstFile("/var/*", nullptr), FailsWith(EINVAL, INVALID_FIND_HANDLE));
    for (SearchRecord *handle : {static_cast<SearchRecord *>(nullptr), INVALID_FIND_HANDLE}) {
        EXPECT_THAT(vllFindNextFile(handle, &data), FailsWith(EINVAL));
        EXPECT_THAT(vllFindClose(handle), FailsWith(EINVAL));
    }
    for (const auto &[code, error] : {std::pair{GLOB_NOSPACE, ENOMEM}, std::pair{GLOB_ABORTED, EACCES}}) {
        const FailCall fail("glob64", 1, code);
        EXPECT_EQ(vllFindFirstFile("/var/*", &data), INVALID_FIND_HANDLE);
        EXPECT_EQ(errno, error);
    }
}

TEST_F(FileTest, entries_that_vanish_during_a_search) {
    FindDataRecord data;
    ASSERT_EQ(mkdir("/var/tmp/some", 0755), 0);
    writeFile("/var/tmp/some/1", "");
    writeFile("/var/tmp/some/2", "");
    writeFile("/var/tmp/some/3", "");
    SearchRecord *handle = vllFindFirstFile("/var/tmp/some/[123]", &data);
    ASSERT_NE(handle, INVALID_FIND_HANDLE);
    EXPECT_EQ(unlink(data.name[0] == '1' ? "/var/tmp/some/2" : "/var/tmp/some/1"), 0);
    const bool second = vllFindNextFile(handle, &data) != FALSE;
    EXPECT_TRUE(second || errno == ENOENT);
    EXPECT_EQ(vllFindNextFile(handle, &data), !second);
    EXPECT_THAT(vllFindNextFile(handle, &data), FailsWith(ENOENT));
    EXPECT_TRUE(vllFindClose(handle));
    // The first one: a link that leads nowhere.
    ASSERT_EQ(symlink("nowhere", "/var/tmp/some/link"), 0);
    EXPECT_THAT(vllFindFirstFile("/var/tmp/some/link", &data), FailsWith(ENOENT, INVALID_FIND_HANDLE));
}

TEST_F(FileTest, an_ordinary_user_sees_what_is_closed_to_him) {
    ASSERT_EQ(mkdir("/var/tmp/closed", 0711), 0);
    const struct {
        const char *path;
        mode_t mode;
        DWORD attributes;
    } rows[] = {{"/var/tmp/readonly", 0444, ATTR_REGULAR | ATTR_READONLY},
                {"/var/tmp/program", 0555, ATTR_REGULAR},
                {"/var/tmp/secret", 0, ATTR_REGULAR}};
    for (const auto &row : rows) {
        writeFile(row.path, "");
        ASSERT_EQ(chmod(row.path, row.mode), 0);
    }
    AsUser([&] {
        FindDataRecord data;
        EXPECT_THAT(vllFindFirstFile("/var/tmp/closed/*", &data), FailsWith(EACCES, INVALID_FIND_HANDLE));
        for (const auto &row : rows) {
            EXPECT_EQ(vllGetFileAttributes(row.path), row.attributes) << row.path;
        }
    });
}

TEST_F(FileTest, attributes) {
    writeFile("/var/tmp/.dot", "");
    ASSERT_EQ(symlink("/var/ulmex", "/var/tmp/link"), 0);
    EXPECT_EQ(vllGetFileAttributes("/var/tmp/.dot"), unsigned{ATTR_REGULAR});
    EXPECT_EQ(vllGetFileAttributes("/var/tmp/link"), unsigned{ATTR_DIRECTORY});
    EXPECT_EQ(vllGetFileAttributes("/dev/null"), unsigned{ATTR_OTHER});
    for (const auto &[path, error] :
         {std::pair{"/none", ENOENT}, std::pair{static_cast<const char *>(nullptr), EINVAL}}) {
        EXPECT_EQ(vllGetFileAttributes(path), INVALID_FILE_ATTRIBUTES);
        EXPECT_EQ(errno, error);
    }
}

TEST_F(FileTest, every_search_is_freed) {
    const auto round = [] {
        FindDataRecord data;
        SearchRecord *handle = vllFindFirstFile("/var/*", &data);
        ASSERT_NE(handle, INVALID_FIND_HANDLE);
        EXPECT_TRUE(vllFindClose(handle));
        EXPECT_EQ(vllFindFirstFile("/none/*", &data), INVALID_FIND_HANDLE);
    };
    for (int i = 0; i < 10; ++i) {
        round();
    }
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 1000; ++i) {
        round();
    }
    EXPECT_LT(mallinfo2().uordblks, before + 10000);
}

TEST_F(FileTest, directories) {
    EXPECT_TRUE(vllCreateDirectory("/var/tmp/new"));
    EXPECT_EQ(modeOf("/var/tmp/new"), 0750U);
    EXPECT_THAT(vllCreateDirectory("/var/tmp/new"), FailsWith(EEXIST));
    EXPECT_TRUE(vllSetCurrentDirectory("/var/tmp/new"));

    const std::string path = "/var/tmp/new";
    const auto need = static_cast<DWORD>(path.size() + 1);
    std::string buffer(64, '#');
    EXPECT_EQ(vllGetCurrentDirectory(need - 1, buffer.data()), need);
    EXPECT_EQ(buffer, std::string(64, '#'));
    EXPECT_EQ(vllGetCurrentDirectory(0, nullptr), need);
    EXPECT_EQ(vllGetCurrentDirectory(need, buffer.data()), need - 1);
    EXPECT_EQ(buffer, path + '\0' + std::string(64 - need, '#'));

    buffer.assign(64, '#');
    char *part = nullptr;
    EXPECT_EQ(vllGetFullPathName("/f", need + 1, buffer.data(), &part), need + 2);
    EXPECT_EQ(buffer, std::string(64, '#'));
    EXPECT_EQ(part, nullptr);
    EXPECT_EQ(vllGetFullPathName("/f", 32, buffer.data(), &part), need + 2);
    EXPECT_EQ(buffer, path + "/f" + std::string(32 - path.size() - 2, '\0') + std::string(32, '#'));
    EXPECT_EQ(part, buffer.data() + path.size());
    EXPECT_EQ(vllGetFullPathName("f", 64, buffer.data(), nullptr), need + 1);
    EXPECT_STREQ(buffer.c_str(), "/var/tmp/newf");
    EXPECT_EQ(vllGetFullPathName(nullptr, 64, buffer.data(), nullptr), 0U);
    {
        const FailCall fail("getcwd", 1, EACCES, 2);
        EXPECT_THAT(vllGetCurrentDirectory(64, buffer.data()), FailsWith(EACCES));
        EXPECT_EQ(vllGetFullPathName("f", 64, buffer.data(), nullptr), 0U);
    }
    EXPECT_TRUE(vllRemoveDirectory("/var/tmp/new"));
    EXPECT_EQ(vllGetCurrentDirectory(64, buffer.data()), 0U);  // the directory is gone
    EXPECT_EQ(errno, ENOENT);
    EXPECT_TRUE(vllSetCurrentDirectory("/"));
    EXPECT_THAT(vllRemoveDirectory("/var/tmp/new"), FailsWith(ENOENT));
    EXPECT_THAT(vllSetCurrentDirectory("/none"), FailsWith(ENOENT));
    for (BOOL (*operation)(LPCSTR) : {vllCreateDirectory, vllRemoveDirectory, vllSetCurrentDirectory}) {
        EXPECT_THAT(operation(nullptr), FailsWith(EINVAL));
    }
}

}  // namespace
