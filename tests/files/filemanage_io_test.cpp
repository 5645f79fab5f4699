#include <pthread.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <array>
#include <atomic>
#include <cstring>

#include "base/descriptor.h"
#include "files/filemanage_test.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

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

    for (const char *path : {"C:", "C:\\x", "E:\\none\\x", "\\", "E:\\logs\\log.txt\\"}) {
        errno = 0;
        EXPECT_EQ(vllCreateFile(path, O_WRONLY, 0, OPEN_EXISTING), INVALID_HANDLE_VALUE) << path;
        EXPECT_EQ(errno, strcmp(path, "\\") == 0 ? EISDIR : EACCES) << path;
    }
    const FailCall fail("malloc", 1, ENOMEM);
    EXPECT_THAT(vllCreateFile("E:\\x", O_RDONLY, 0, OPEN_EXISTING), FailsWith(ENOMEM, INVALID_HANDLE_VALUE));
}

TEST_F(FileTest, dispositions) {
    struct Row {
        DWORD disposition;
        bool exists;
        int error;  // 0: opened
        const char *left;
    };
    const Row rows[] = {
        {CREATE_NEW, false, 0, ""},         {CREATE_NEW, true, EEXIST, "old"},
        {CREATE_ALWAYS, false, 0, ""},      {CREATE_ALWAYS, true, 0, ""},
        {OPEN_EXISTING, false, ENOENT, ""}, {OPEN_EXISTING, true, 0, "old"},
        {OPEN_ALWAYS, false, 0, ""},        {OPEN_ALWAYS, true, 0, "old"},
        {TRUNCATE_EXISTING, true, 0, ""},   {TRUNCATE_EXISTING, false, ENOENT, ""},
        {0, true, EINVAL, "old"},           {6, true, EINVAL, "old"},
        {0xFFFFFFFF, true, EINVAL, "old"},
    };
    const char *path = "/var/tmp/file";
    for (const Row &row : rows) {
        SCOPED_TRACE(row.disposition);
        unlink(path);
        if (row.exists) {
            writeFile(path, "old");
        }
        errno = 0;
        const HANDLE file = vllCreateFile(path, O_RDWR, 0666, row.disposition);
        EXPECT_EQ(file == INVALID_HANDLE_VALUE, row.error != 0);
        EXPECT_EQ(readFile(path), row.left);
        if (row.error != 0) {
            EXPECT_EQ(errno, row.error);
        } else {
            EXPECT_EQ(modeOf(path), 0644U);
            EXPECT_TRUE(vllCloseHandle(file));
        }
    }
    EXPECT_THAT(vllCreateFile(nullptr, O_RDWR, 0666, CREATE_NEW), FailsWith(EINVAL, INVALID_HANDLE_VALUE));
    EXPECT_THAT(vllCreateFile("", O_RDWR, 0666, CREATE_NEW), FailsWith(ENOENT, INVALID_HANDLE_VALUE));
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
    EXPECT_THAT(vllSetFilePointer(file, -11, FILE_END), FailsWith(EINVAL, 0xFFFFFFFFU));
    EXPECT_THAT(vllSetFilePointer(file, 0, 9), FailsWith(EINVAL, 0xFFFFFFFFU));
    EXPECT_TRUE(vllFlushFileBuffers(file));
    EXPECT_TRUE(vllCloseHandle(file));

    count = 5;
    EXPECT_THAT(vllReadFile(9999, buffer.data(), 16, &count, nullptr), FailsWith(EBADF));
    EXPECT_EQ(count, 0xFFFFFFFFU);
    EXPECT_THAT(vllWriteFile(9999, buffer.data(), 16, &count, nullptr), FailsWith(EBADF));
    EXPECT_FALSE(vllFlushFileBuffers(9999));
    EXPECT_THAT(vllGetFileSize(9999), FailsWith(EBADF, 0xFFFFFFFFU));
    EXPECT_EQ(vllSetFilePointer(9999, 0, 0), 0xFFFFFFFFU);

    std::array<int, 2> pipe_fds;
    ASSERT_EQ(pipe(pipe_fds.data()), 0);
    const Fd reader(pipe_fds[0]);
    const Fd writer(pipe_fds[1]);
    const Fd directory(open("/var", O_RDONLY | O_CLOEXEC));
    for (const Fd *fd : {&reader, &directory}) {
        EXPECT_THAT(vllGetFileSize(static_cast<HANDLE>(fd->get())), FailsWith(EISDIR, 0xFFFFFFFFU));
    }
    EXPECT_THAT(vllSetFilePointer(static_cast<HANDLE>(reader.get()), 0, FILE_BEGIN),
                FailsWith(ESPIPE, 0xFFFFFFFFU));
}

TEST_F(FileTest, times_of_an_open_file) {
    const HANDLE file = vllCreateFile("/var/tmp/file", O_RDWR, 0600, CREATE_NEW);
    const auto fd = static_cast<int>(file);
    const timespec times[2] = {{1000000, 0}, {-5, 0}};
    ASSERT_EQ(futimens(fd, times), 0);
    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    FileInfoRecord info = {77, 0, 0, 0};
    EXPECT_EQ(vllGetFileInformationByHandle(file, &info), &info);
    EXPECT_EQ(info.attributes, 77U);
    EXPECT_EQ(info.creationTime, status.st_ctime);
    EXPECT_EQ(info.lastAccessTime, 1000000);
    EXPECT_EQ(info.lastWriteTime, -5);
    if (sizeof(time_t) > sizeof(FILETIME)) {
        const timespec late[2] = {{0, 0}, {static_cast<time_t>(int64_t{1} << 32), 0}};
        ASSERT_EQ(futimens(fd, late), 0);
        EXPECT_THAT(vllGetFileInformationByHandle(file, &info), FailsWith(EOVERFLOW));
        EXPECT_EQ(info.lastWriteTime, -5);
    }
    EXPECT_THAT(vllGetFileInformationByHandle(file, nullptr), FailsWith(EINVAL));
    EXPECT_TRUE(vllCloseHandle(file));
    EXPECT_THAT(vllGetFileInformationByHandle(9999, &info), FailsWith(EBADF));
}

// Threads cancelled inside the blocking operations end, and leave nothing behind.
TEST_F(FileTest, blocked_operations_are_cancelled) {
    ASSERT_EQ(mkfifo("/var/tmp/fifo", 0666), 0);
    std::array<int, 2> fds;
    ASSERT_EQ(pipe(fds.data()), 0);
    const Fd reader(fds[0]);
    const Fd writer(fds[1]);
    const auto from = static_cast<HANDLE>(fds[0]);
    const auto to = static_cast<HANDLE>(fds[1]);
    std::vector<char> much(100000);
    const std::function<void()> bodies[] = {
        [] { vllCreateFile("/var/tmp/fifo", O_RDONLY, 0, OPEN_EXISTING); },
        [] { vllCreateFile("X:\\FIFO", O_RDONLY, 0, OPEN_EXISTING); },
        [&] { vllReadFile(from, much.data(), 1, nullptr, nullptr); },
        [&] { vllWriteFile(to, much.data(), static_cast<DWORD>(much.size()), nullptr, nullptr); },
    };
    for (const auto &body : bodies) {
        std::atomic<pid_t> tid{0};
        const auto run = [&] {
            tid = gettid();
            body();
        };
        const HANDLE thread = startThread(run);
        ASSERT_TRUE(waitUntil([&] { return tid != 0; }));
        EXPECT_TRUE(waitUntilAsleep(tid));
        EXPECT_TRUE(vllTerminateThread(thread, 0));
        finishThread(thread);
    }
    takeLog();
}

}  // namespace
