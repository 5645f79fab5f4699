// File handles: opening, reading, writing, positions, sizes and times.
#include <sys/socket.h>
#include <syslog.h>
#include <array>

#include "base/descriptor.h"
#include "files/filemanage_test.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

constexpr DWORD kFailed = 0xFFFFFFFF;

HANDLE toHandle(const Fd &fd) {
    return static_cast<HANDLE>(fd.get());
}

TEST_F(FileTest, windows_paths_are_converted_and_logged) {
    writeFile("/var/ulmex/logs/log.txt", "here");
    takeLog();
    const HANDLE file = vllCreateFile("E:\\Logs\\Log.txt", O_RDONLY, 0, OPEN_EXISTING);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(vllCloseHandle(file));
    const std::vector<LogLine> log = takeLog();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].priority, LOG_INFO);
    EXPECT_EQ(log[0].text,
              "VLL: CreateFile: 'E:\\Logs\\Log.txt' path converted to '/var/ulmex/logs/log.txt'\n");
    for (const char *path : {"C:", "C:\\x", "E:\\none\\x", "E:\\logs\\log.txt\\"}) {
        EXPECT_THAT(vllCreateFile(path, O_WRONLY, 0, OPEN_EXISTING), FailsWith(EACCES, INVALID_HANDLE_VALUE));
    }
    EXPECT_THAT(vllCreateFile("\\", O_WRONLY, 0, OPEN_EXISTING), FailsWith(EISDIR, INVALID_HANDLE_VALUE));
    const FailCall fail("malloc", 1, ENOMEM);
    EXPECT_THAT(vllCreateFile("E:\\x", O_RDONLY, 0, OPEN_EXISTING), FailsWith(ENOMEM, INVALID_HANDLE_VALUE));
}

TEST_F(FileTest, dispositions) {
    const char *const path = "/var/tmp/file";
    const struct {
        DWORD disposition;
        bool exists;
        int error;  // 0: opened
        const char *left;
    } rows[] = {
        {CREATE_NEW, false, 0, ""},         {CREATE_NEW, true, EEXIST, "old"},
        {CREATE_ALWAYS, false, 0, ""},      {CREATE_ALWAYS, true, 0, ""},
        {OPEN_EXISTING, false, ENOENT, ""}, {OPEN_EXISTING, true, 0, "old"},
        {OPEN_ALWAYS, false, 0, ""},        {OPEN_ALWAYS, true, 0, "old"},
        {TRUNCATE_EXISTING, true, 0, ""},   {TRUNCATE_EXISTING, false, ENOENT, ""},
        {0, true, EINVAL, "old"},           {6, true, EINVAL, "old"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(&row - rows);
        unlink(path);
        if (row.exists) {
            writeFile(path, "old");
        }
        errno = 0;
        const HANDLE file = vllCreateFile(path, O_RDWR, 0666, row.disposition);
        EXPECT_EQ(errno, row.error);
        EXPECT_EQ(file == INVALID_HANDLE_VALUE, row.error != 0);
        EXPECT_EQ(readFile(path), row.left);
        EXPECT_EQ(modeOf(path), exists(path) ? 0644U : 0U);
        EXPECT_TRUE(row.error != 0 || vllCloseHandle(file));
    }
    EXPECT_THAT(vllCreateFile(nullptr, O_RDWR, 0666, CREATE_NEW), FailsWith(EINVAL, INVALID_HANDLE_VALUE));
}

TEST_F(FileTest, read_write_position_size) {
    const HANDLE file = vllCreateFile("/var/tmp/file", O_RDWR | O_APPEND, 0600, CREATE_NEW);
    DWORD count = 0;
    std::array<char, 16> buffer = {};
    EXPECT_TRUE(vllWriteFile(file, "0123456789", 10, &count, nullptr));
    EXPECT_EQ(count, 10U);
    EXPECT_EQ(vllGetFileSize(file), 10U);
    EXPECT_EQ(vllSetFilePointer(file, 4, FILE_BEGIN), 4U);
    EXPECT_EQ(vllSetFilePointer(file, -1, FILE_CURRENT), 3U);
    EXPECT_EQ(vllSetFilePointer(file, -8, FILE_END), 2U);
    EXPECT_TRUE(vllReadFile(file, buffer.data(), 5, &count, nullptr));
    EXPECT_EQ(std::string(buffer.data(), count), "23456");
    EXPECT_TRUE(vllReadFile(file, buffer.data(), 16, nullptr, nullptr));
    EXPECT_TRUE(vllReadFile(file, buffer.data(), 16, &count, nullptr));
    EXPECT_EQ(count, 0U);
    EXPECT_THAT(vllSetFilePointer(file, -11, FILE_END), FailsWith(EINVAL, kFailed));
    EXPECT_TRUE(vllFlushFileBuffers(file));
    EXPECT_TRUE(vllCloseHandle(file));

    count = 5;
    EXPECT_THAT(vllReadFile(9999, buffer.data(), 16, &count, nullptr), FailsWith(EBADF));
    EXPECT_EQ(count, kFailed);
    EXPECT_THAT(vllWriteFile(9999, buffer.data(), 16, &count, nullptr), FailsWith(EBADF));
    EXPECT_THAT(vllFlushFileBuffers(9999), FailsWith(EBADF));
    EXPECT_THAT(vllGetFileSize(9999), FailsWith(EBADF, kFailed));
    std::array<int, 2> pipe_fds;
    ASSERT_EQ(pipe(pipe_fds.data()), 0);
    const Fd reader(pipe_fds[0]);
    const Fd writer(pipe_fds[1]);
    EXPECT_THAT(vllGetFileSize(toHandle(reader)), FailsWith(EISDIR, kFailed));
    EXPECT_THAT(vllSetFilePointer(toHandle(reader), 0, FILE_BEGIN), FailsWith(ESPIPE, kFailed));
}

TEST_F(FileTest, positions_and_sizes_over_2_gib) {
    const Fd file(open("/var/tmp/file", O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    for (const DWORD size : {kFailed - 1, kFailed}) {
        ASSERT_EQ(ftruncate(file.get(), size), 0);
        EXPECT_EQ(vllSetFilePointer(toHandle(file), 0x7FFFFFFF, FILE_BEGIN), 0x7FFFFFFFU);
        EXPECT_EQ(vllSetFilePointer(toHandle(file), 1, FILE_CURRENT), 0x80000000U);
        const int error = size == kFailed ? EOVERFLOW : 0;
        EXPECT_THAT(vllGetFileSize(toHandle(file)), Yields(size, error));
        EXPECT_THAT(vllSetFilePointer(toHandle(file), 0, FILE_END), Yields(size, error));
        EXPECT_EQ(lseek(file.get(), 0, SEEK_CUR), error == 0 ? off_t{size} : off_t{1} << 31);
    }
}

TEST_F(FileTest, times_of_an_open_file) {
    const Fd file(open("/var/tmp/file", O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    const timespec times[2] = {{1000000, 0}, {-5, 0}};
    ASSERT_EQ(futimens(file.get(), times), 0);
    struct stat status;
    ASSERT_EQ(fstat(file.get(), &status), 0);
    FileInfoRecord info = {77, 0, 0, 0};
    EXPECT_EQ(vllGetFileInformationByHandle(toHandle(file), &info), &info);
    EXPECT_EQ(info.attributes, 77U);
    EXPECT_EQ(info.creationTime, status.st_ctime);
    EXPECT_EQ(info.lastAccessTime, 1000000);
    EXPECT_EQ(info.lastWriteTime, -5);
    if (sizeof(time_t) > sizeof(FILETIME)) {
        const timespec late[2] = {{0, 0}, {static_cast<time_t>(int64_t{1} << 32), 0}};
        ASSERT_EQ(futimens(file.get(), late), 0);
        EXPECT_THAT(vllGetFileInformationByHandle(toHandle(file), &info), FailsWith(EOVERFLOW));
        EXPECT_EQ(info.lastWriteTime, -5);
    }
    EXPECT_THAT(vllGetFileInformationByHandle(toHandle(file), nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllGetFileInformationByHandle(9999, &info), FailsWith(EBADF));
}

// Threads that are cancelled inside the blocking operations end, and leave nothing behind.
TEST_F(FileTest, blocked_operations_are_cancelled) {
    ASSERT_EQ(mkfifo("/var/tmp/fifo", 0666), 0);
    std::array<int, 2> fds;
    ASSERT_EQ(pipe(fds.data()), 0);
    const Fd reader(fds[0]);
    const Fd writer(fds[1]);
    std::vector<char> much(100000);
    const std::function<void()> bodies[] = {
        [] { vllCreateFile("/var/tmp/fifo", O_RDONLY, 0, OPEN_EXISTING); },
        [] { vllCreateFile("X:\\FIFO", O_RDONLY, 0, OPEN_EXISTING); },
        [&] { vllReadFile(toHandle(reader), much.data(), 1, nullptr, nullptr); },
        [&] { vllWriteFile(toHandle(writer), much.data(), 100000, nullptr, nullptr); },
    };
    for (const auto &body : bodies) {
        const Sleeper thread(body);
        EXPECT_TRUE(vllTerminateThread(thread.handle(), 0));
    }
    takeLog();
}

}  // namespace
