// Attributes, searches and directories.
#include <glob.h>
#include <map>
#include <set>

#include "base/descriptor.h"
#include "files/filemanage_test.h"

namespace {

using Names = std::set<std::string>;

std::map<std::string, FindDataRecord> search(const std::string &pattern) {
    std::map<std::string, FindDataRecord> found;
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

Names names(const std::string &pattern) {
    Names result;
    for (const auto &entry : search(pattern)) {
        result.insert(entry.first);
    }
    return result;
}

TEST_F(FileTest, a_directory_is_searched) {
    ASSERT_EQ(mkdir("/var/log", 0755), 0);
    ASSERT_EQ(mkdir("/var/log/sub", 0755), 0);
    const std::string longest(255, 'n');
    for (const std::string &name :
         {std::string("a.txt"), std::string(".hidden"), std::string("plain"), longest}) {
        writeFile("/var/log/" + name, "12345");
    }
    ASSERT_EQ(symlink("sub", "/var/log/link"), 0);
    struct stat status;
    ASSERT_EQ(stat("/var/log/a.txt", &status), 0);

    EXPECT_EQ(names("/var/log/"), (Names{".", "..", ".hidden", "a.txt", "link", longest, "plain", "sub"}));
    EXPECT_EQ(names("/var/log/*.*"), (Names{".", "..", ".hidden", "a.txt"}));
    EXPECT_EQ(names("/var/log/plain"), Names{"plain"});
    EXPECT_EQ(names("/v*/log/[ap]*"), (Names{"a.txt", "plain"}));
    setenv("HOME", "/var/log", 1);
    EXPECT_EQ(names("~/*.txt"), Names{"a.txt"});
    EXPECT_EQ(names("/"), names("/*"));
    const auto found = search("/var/log/");
    const FindDataRecord &file = found.at("a.txt");
    EXPECT_EQ(file.attributes, unsigned{ATTR_REGULAR});
    EXPECT_EQ(file.size, 5U);
    EXPECT_EQ(file.lastWriteTime, status.st_mtime);
    EXPECT_EQ(file.lastAccessTime, status.st_atime);
    EXPECT_EQ(file.creationTime, status.st_ctime);
    EXPECT_EQ(found.at("sub").attributes, unsigned{ATTR_DIRECTORY});
    EXPECT_EQ(found.at("link").attributes, unsigned{ATTR_DIRECTORY});
    EXPECT_EQ(found.at(".hidden").attributes, unsigned{ATTR_REGULAR});
}

TEST_F(FileTest, large_files_and_late_times_in_a_search) {
    const Fd file(open("/var/tmp/large", O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    const timespec late[2] = {{0, 0}, {static_cast<time_t>(int64_t{1} << 32), 0}};
    for (const int64_t size : {int64_t{0x80000000}, int64_t{0xFFFFFFFE}, int64_t{1} << 33}) {
        ASSERT_EQ(ftruncate(file.get(), size), 0);
        ASSERT_EQ(futimens(file.get(), late), 0);
        const FindDataRecord found = search("/var/tmp/large").at("large");
        EXPECT_EQ(found.size, std::min(size, int64_t{0xFFFFFFFF}));
        EXPECT_EQ(found.lastWriteTime, sizeof(time_t) > sizeof(FILETIME) ? -1 : late[1].tv_sec);
    }
}

TEST_F(FileTest, searches_that_go_wrong) {
    FindDataRecord data;
    ASSERT_EQ(symlink("nowhere", "/var/tmp/dangling"), 0);
    const auto long_name = [](size_t size) { return std::string(size, 'x'); };
    for (const auto &[pattern, error] : {std::pair{std::string("/var/tmp/none"), ENOENT},
                                         {"/var/tmp/none*", ENOENT},
                                         {"/var/tmp/dangling", ENOENT},
                                         {"/none/*", EACCES},
                                         {"", ENOENT},
                                         {long_name(4095), ENOENT},
                                         {long_name(4096), ENAMETOOLONG},
                                         {long_name(4093) + "/", EACCES},
                                         {long_name(4094) + "/", ENAMETOOLONG}}) {
        EXPECT_THAT(vllFindFirstFile(pattern.c_str(), &data), FailsWith(error, INVALID_FIND_HANDLE))
            << pattern;
    }
    EXPECT_THAT(vllFindFirstFile(nullptr, &data), FailsWith(EINVAL, INVALID_FIND_HANDLE));
    EXPECT_THAT(vllFindFirstFile("/var/*", nullptr), FailsWith(EINVAL, INVALID_FIND_HANDLE));
    for (SearchRecord *handle : {static_cast<SearchRecord *>(nullptr), INVALID_FIND_HANDLE}) {
        EXPECT_THAT(vllFindNextFile(handle, &data), FailsWith(EINVAL));
        EXPECT_THAT(vllFindClose(handle), FailsWith(EINVAL));
    }
    const FailCall fail("glob64", 1, GLOB_NOSPACE);
    EXPECT_THAT(vllFindFirstFile("/var/*", &data), FailsWith(ENOMEM, INVALID_FIND_HANDLE));
}

// An entry that has vanished is passed over: the search goes on behind it.
TEST_F(FileTest, entries_that_vanish_during_a_search) {
    FindDataRecord data;
    for (const char *name : {"/var/tmp/1", "/var/tmp/2", "/var/tmp/3"}) {
        writeFile(name, "");
    }
    SearchRecord *handle = vllFindFirstFile("/var/tmp/[123]", &data);
    ASSERT_NE(handle, INVALID_FIND_HANDLE);
    EXPECT_THAT(vllFindNextFile(handle, nullptr), FailsWith(EINVAL));
    EXPECT_EQ(unlink(data.name[0] == '1' ? "/var/tmp/2" : "/var/tmp/1"), 0);
    const bool second = vllFindNextFile(handle, &data) != FALSE;
    EXPECT_TRUE(second || errno == ENOENT);
    EXPECT_EQ(vllFindNextFile(handle, &data), !second);
    EXPECT_THAT(vllFindNextFile(handle, &data), FailsWith(ENOENT));
    EXPECT_TRUE(vllFindClose(handle));
}

TEST_F(FileTest, attributes) {
    ASSERT_EQ(mkdir("/var/tmp/closed", 0711), 0);
    ASSERT_EQ(symlink("/var/ulmex", "/var/tmp/link"), 0);
    const struct {
        const char *path;
        mode_t mode;
        DWORD attributes;
    } rows[] = {{"/var/tmp/readonly", 0444, ATTR_REGULAR | ATTR_READONLY},
                {"/var/tmp/program", 0555, ATTR_REGULAR},
                {"/var/tmp/secret", 0, ATTR_REGULAR},
                {"/var/tmp/.dot", 0666, ATTR_REGULAR}};
    for (const auto &row : rows) {
        writeFile(row.path, "");
        ASSERT_EQ(chmod(row.path, row.mode), 0);
    }
    EXPECT_EQ(vllGetFileAttributes("/var/tmp/link"), unsigned{ATTR_DIRECTORY});
    EXPECT_EQ(vllGetFileAttributes("/dev/null"), unsigned{ATTR_OTHER});
    EXPECT_THAT(vllGetFileAttributes("/none"), FailsWith(ENOENT, INVALID_FILE_ATTRIBUTES));
    EXPECT_THAT(vllGetFileAttributes(nullptr), FailsWith(EINVAL, INVALID_FILE_ATTRIBUTES));
    asUser([&] {
        FindDataRecord data;
        EXPECT_THAT(vllFindFirstFile("/var/tmp/closed/*", &data), FailsWith(EACCES, INVALID_FIND_HANDLE));
        for (const auto &row : rows) {
            EXPECT_THAT(vllGetFileAttributes(row.path), Yields(row.attributes, 0)) << row.path;
        }
    });
}

TEST_F(FileTest, directories) {
    const std::string path = "/var/tmp/new";
    EXPECT_TRUE(vllCreateDirectory(path.c_str()));
    EXPECT_EQ(modeOf(path), 0750U);
    EXPECT_THAT(vllCreateDirectory(path.c_str()), FailsWith(EEXIST));
    EXPECT_TRUE(vllSetCurrentDirectory(path.c_str()));

    const auto need = static_cast<DWORD>(path.size() + 1);
    std::string buffer(64, '#');
    EXPECT_EQ(vllGetCurrentDirectory(need - 1, buffer.data()), need);
    EXPECT_EQ(vllGetCurrentDirectory(need, nullptr), need);
    char *part = nullptr;
    EXPECT_EQ(vllGetFullPathName("/f", need + 1, buffer.data(), &part), need + 2);
    EXPECT_EQ(buffer, std::string(64, '#'));
    EXPECT_EQ(part, nullptr);
    EXPECT_EQ(vllGetCurrentDirectory(need, buffer.data()), need - 1);
    EXPECT_EQ(buffer, path + '\0' + std::string(64 - need, '#'));
    EXPECT_EQ(vllGetFullPathName("/f", 32, buffer.data(), &part), need + 2);
    EXPECT_EQ(buffer, path + "/f" + std::string(32 - path.size() - 2, '\0') + std::string(32, '#'));
    EXPECT_EQ(part, buffer.data() + path.size());
    EXPECT_EQ(vllGetFullPathName("f", need + 1, buffer.data(), nullptr), need + 1);
    EXPECT_STREQ(buffer.c_str(), "/var/tmp/newf");
    EXPECT_THAT(vllGetFullPathName(nullptr, 64, buffer.data(), nullptr), FailsWith(EINVAL));

    EXPECT_TRUE(vllRemoveDirectory(path.c_str()));  // the current directory is gone
    EXPECT_THAT(vllGetCurrentDirectory(64, buffer.data()), FailsWith(ENOENT));
    EXPECT_THAT(vllGetFullPathName("f", 64, buffer.data(), nullptr), FailsWith(ENOENT));
    EXPECT_TRUE(vllSetCurrentDirectory("/"));
    EXPECT_THAT(vllRemoveDirectory("/none"), FailsWith(ENOENT));
    EXPECT_THAT(vllSetCurrentDirectory("/none"), FailsWith(ENOENT));
    for (BOOL (*operation)(LPCSTR) : {vllCreateDirectory, vllRemoveDirectory, vllSetCurrentDirectory}) {
        EXPECT_THAT(operation(nullptr), FailsWith(EINVAL));
    }
}

}  // namespace
