#include "internal_async.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>
#include <array>
#include <climits>
#include <csignal>
#include <cstring>
#include <memory>

#include "internal.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/private_machine.h"
#include "support/syslog_capture.h"

namespace {

int serviceSet() {
    return __atomic_load_n(&epoll_fd, __ATOMIC_ACQUIRE);
}

// Runs the service in a thread, as an application would.
class AsyncTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        StartService();
    }
    void TearDown() override {
        StopService();
        LibraryTest::TearDown();
    }

    void StartService() {
        service_ = vllCreateThread(0, vlliAsyncIo, nullptr, &service_id_, 0);
        ASSERT_NE(service_, 0U);
        ASSERT_TRUE(WaitUntil([] { return serviceSet() != -1; }));
    }
    void StopService() {
        if (service_ != 0) {
            EXPECT_TRUE(vllTerminateThread(service_, 0));
            EXPECT_EQ(vllWaitForSingleObject(service_, 20000), WAIT_OBJECT_0);
            EXPECT_EQ(serviceSet(), -1);
            vllCloseHandle(service_);
            service_ = 0;
        }
    }
    double ServiceCpuSeconds() const {
        clockid_t clock;
        timespec time;
        EXPECT_EQ(pthread_getcpuclockid(service_id_, &clock), 0);
        clock_gettime(clock, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

    HANDLE service_ = 0;
    uintptr_t service_id_ = 0;
};

// A caller's record, whose event goes with it.
struct Transfer {
    OverlappedRecord record = {};
    ~Transfer() {
        if (record.event != 0) {
            vllCloseHandle(record.event);
        }
    }
    bool pending() {
        DWORD count = 0;
        const bool in_progress =
            vllGetOverlappedResult(&record, &count, FALSE) == FALSE && errno == EINPROGRESS;
        return in_progress && count == 0xFFFFFFFF;
    }
    // The result of the last call, or -2 when the transfer does not end.
    int64_t finish() {
        if (vllWaitForSingleObject(record.event, 20000) != WAIT_OBJECT_0) {
            return -2;
        }
        DWORD count = 0;
        const BOOL ok = vllGetOverlappedResult(&record, &count, TRUE);
        EXPECT_EQ(ok, count != 0xFFFFFFFF);
        EXPECT_TRUE(ok || errno == EIO);
        return static_cast<int32_t>(count);
    }
};

struct Pair {
    Fd reader;  // or both ways
    Fd writer;
};

enum class Kind { pipe, non_blocking_pipe, stream, terminal, terminal_master };
constexpr Kind kAllKinds[] = {Kind::pipe, Kind::non_blocking_pipe, Kind::stream, Kind::terminal,
                              Kind::terminal_master};

Pair makePair(Kind kind) {
    std::array<int, 2> fds = {-1, -1};
    switch (kind) {
        case Kind::pipe:
            EXPECT_EQ(pipe2(fds.data(), O_CLOEXEC), 0);
            break;
        case Kind::non_blocking_pipe:
            EXPECT_EQ(pipe2(fds.data(), O_CLOEXEC | O_NONBLOCK), 0);
            break;
        case Kind::stream:
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()), 0);
            break;
        case Kind::terminal:
        case Kind::terminal_master: {
            termios raw = {};
            cfmakeraw(&raw);
            raw.c_cc[VMIN] = 1;
            EXPECT_EQ(openpty(&fds[0], &fds[1], nullptr, &raw, nullptr), 0);
            if (kind == Kind::terminal_master) {
                std::swap(fds[0], fds[1]);
            }
            break;
        }
    }
    return {Fd(fds[0]), Fd(fds[1])};
}

HANDLE asHandle(const Fd &fd) {
    return static_cast<HANDLE>(fd.get());
}

std::vector<char> pattern(size_t size) {
    std::vector<char> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 31 + (i >> 8));
    }
    return bytes;
}

void writeAll(const Fd &fd, const char *bytes, size_t size) {
    while (size > 0) {
        const ssize_t written = write(fd.get(), bytes, size);
        ASSERT_GT(written, 0);
        bytes += written;
        size -= static_cast<size_t>(written);
    }
}

TEST_F(AsyncTest, a_read_is_done_when_all_its_bytes_are_there) {
    for (const Kind kind : kAllKinds) {
        Pair pair = makePair(kind);
        const std::vector<char> sent = pattern(100);
        std::vector<char> received(100);
        Transfer read;
        ASSERT_TRUE(vllReadFile(asHandle(pair.reader), received.data(), 100, nullptr, &read.record));
        EXPECT_TRUE(read.pending());
        writeAll(pair.writer, sent.data(), 40);
        EXPECT_TRUE(
            WaitUntil([&] { return __atomic_load_n(&read.record.transferred, __ATOMIC_ACQUIRE) == 40; }));
        EXPECT_TRUE(read.pending());
        writeAll(pair.writer, sent.data() + 40, 60);
        EXPECT_EQ(read.finish(), 60);
        EXPECT_EQ(read.record.transferred, 100U);
        EXPECT_EQ(received, sent);
    }
}

TEST_F(AsyncTest, a_write_of_more_than_fits_goes_on_as_the_reader_takes_it) {
    for (const Kind kind : kAllKinds) {
        Pair pair = makePair(kind);
        const std::vector<char> sent = pattern(1000000);
        Transfer write;
        ASSERT_TRUE(vllWriteFile(asHandle(pair.writer), sent.data(), 1000000, nullptr, &write.record));
        EXPECT_TRUE(
            WaitUntil([&] { return __atomic_load_n(&write.record.transferred, __ATOMIC_ACQUIRE) > 0; }));
        EXPECT_TRUE(write.pending());

        // The service has not blocked: another transfer goes through.
        Pair other = makePair(Kind::pipe);
        Transfer second;
        ASSERT_TRUE(vllWriteFile(asHandle(other.writer), sent.data(), 5000, nullptr, &second.record));
        EXPECT_EQ(second.finish(), 5000);

        std::vector<char> received(sent.size());
        for (size_t taken = 0; taken < received.size();) {
            const ssize_t bytes = read(pair.reader.get(), received.data() + taken, received.size() - taken);
            if (bytes == -1 && errno == EAGAIN) {
                pollfd ready = {pair.reader.get(), POLLIN, 0};
                ASSERT_EQ(poll(&ready, 1, 20000), 1);
                continue;
            }
            ASSERT_GT(bytes, 0);
            taken += static_cast<size_t>(bytes);
        }
        EXPECT_GT(write.finish(), 0);
        EXPECT_EQ(write.record.transferred, 1000000U);
        EXPECT_TRUE(received == sent);
        EXPECT_EQ(fcntl(pair.writer.get(), F_GETFL) & O_NONBLOCK,
                  kind == Kind::non_blocking_pipe ? O_NONBLOCK : 0);
    }
}

TEST_F(AsyncTest, what_ends_a_transfer_early) {
    std::array<char, 64> buffer;
    for (const Kind kind : kAllKinds) {
        // End of file, or the error that a terminal gives for it.
        Pair pair = makePair(kind);
        Transfer read;
        ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 50, nullptr, &read.record));
        writeAll(pair.writer, "abc", 3);
        EXPECT_TRUE(
            WaitUntil([&] { return __atomic_load_n(&read.record.transferred, __ATOMIC_ACQUIRE) == 3; }));
        pair.writer.reset();
        const int64_t result = read.finish();
        if (kind == Kind::terminal_master) {
            // An error until the hang-up is complete, the end of the file from then on.
            EXPECT_TRUE(result == 0 || result == -1) << result;
        } else {
            EXPECT_EQ(result, kind == Kind::terminal ? -1 : 0);
        }
        EXPECT_EQ(read.record.transferred, 3U);
        EXPECT_FALSE(vllCancelIo(asHandle(pair.reader)));  // it has left the set
        EXPECT_EQ(errno, ENOENT);
    }
    for (const Kind kind : {Kind::pipe, Kind::non_blocking_pipe, Kind::stream}) {
        // Nobody reads: the write fails, and no signal kills the process.
        Pair pair = makePair(kind);
        pair.reader.reset();
        Transfer write;
        ASSERT_TRUE(vllWriteFile(asHandle(pair.writer), "abc", 3, nullptr, &write.record));
        EXPECT_EQ(write.finish(), -1);
        EXPECT_EQ(write.record.transferred, 0U);
    }
    // The reader goes while the pipe is full.
    Pair pair = makePair(Kind::pipe);
    const std::vector<char> sent = pattern(200000);
    Transfer write;
    ASSERT_TRUE(vllWriteFile(asHandle(pair.writer), sent.data(), 200000, nullptr, &write.record));
    const auto room = static_cast<uint32_t>(fcntl(pair.writer.get(), F_GETPIPE_SZ));
    EXPECT_TRUE(
        WaitUntil([&] { return __atomic_load_n(&write.record.transferred, __ATOMIC_ACQUIRE) == room; }));
    pair.reader.reset();
    EXPECT_EQ(write.finish(), -1);
    EXPECT_EQ(write.record.transferred, room);

    // A bad buffer.
    Pair other = makePair(Kind::pipe);
    writeAll(other.writer, "abc", 3);
    Transfer bad;
    ASSERT_TRUE(vllReadFile(asHandle(other.reader), nullptr, 3, nullptr, &bad.record));
    EXPECT_EQ(bad.finish(), -1);
    // Nothing to do.
    Transfer nothing;
    ASSERT_TRUE(vllReadFile(asHandle(other.reader), buffer.data(), 0, nullptr, &nothing.record));
    EXPECT_EQ(nothing.finish(), 0);
}

// Bytes may be gone when the service comes for them, and room may be taken by another writer.
TEST_F(AsyncTest, a_wake_up_for_nothing_does_not_block) {
    const auto wakeUp = [](Transfer *transfer, uint32_t events) {
        epoll_event event = {};
        event.events = events;
        event.data.ptr = &transfer->record;
        return vlliProcessFd(&event);
    };
    char byte = '-';
    for (const Kind kind : kAllKinds) {
        const Pair pair = makePair(kind);
        const int flags = fcntl(pair.reader.get(), F_GETFL);
        Transfer read;
        ASSERT_TRUE(vllReadFile(asHandle(pair.reader), &byte, 1, nullptr, &read.record));
        EXPECT_EQ(wakeUp(&read, EPOLLIN), -1);
        EXPECT_TRUE(read.pending());
        EXPECT_EQ(fcntl(pair.reader.get(), F_GETFL), flags);
        writeAll(pair.writer, "a", 1);
        EXPECT_EQ(read.finish(), 1);
    }
    const Pair pair = makePair(Kind::pipe);
    const std::vector<char> full(static_cast<size_t>(fcntl(pair.writer.get(), F_GETPIPE_SZ)));
    writeAll(pair.writer, full.data(), full.size());
    Transfer write;
    ASSERT_TRUE(vllWriteFile(asHandle(pair.writer), &byte, 1, nullptr, &write.record));
    EXPECT_EQ(wakeUp(&write, EPOLLOUT), -1);
    EXPECT_TRUE(write.pending());
    EXPECT_TRUE(vllCancelIo(asHandle(pair.writer)));
}

TEST_F(AsyncTest, a_terminal_that_waits_for_more_bytes_does_not_hold_up_the_service) {
    std::array<char, 50> buffer;
    const Pair pair = makePair(Kind::terminal_master);
    termios settings;
    ASSERT_EQ(tcgetattr(pair.reader.get(), &settings), 0);
    settings.c_cc[VMIN] = 200;
    settings.c_cc[VTIME] = 255;  // 25.5 s from one byte to the next
    ASSERT_EQ(tcsetattr(pair.reader.get(), TCSANOW, &settings), 0);
    Transfer read;
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 50, nullptr, &read.record));
    writeAll(pair.writer, "abc", 3);
    EXPECT_TRUE(WaitUntil([&] { return __atomic_load_n(&read.record.transferred, __ATOMIC_ACQUIRE) == 3; }));
    EXPECT_TRUE(vllCancelIo(asHandle(pair.reader)));
}

// The service opens pipes once more to write without blocking, but no device: that may do something.
TEST_F(AsyncTest, devices_are_not_reopened) {
    const std::string directory = FreshDirectory();
    const std::string pipe = directory + "/pipe";
    const std::string device = directory + "/device";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    ASSERT_EQ(mknod(device.c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    for (const std::string &path : {pipe, device}) {
        const Fd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_TRUE(fd);
        const Fd watch(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
        ASSERT_NE(inotify_add_watch(watch.get(), path.c_str(), IN_OPEN), -1);
        Transfer write;
        write.record.event = vllCreateEvent(TRUE, FALSE, nullptr);
        write.record.fd = fd.get();
        write.record.buffer = const_cast<char *>("abc");
        write.record.requested = 3;
        epoll_event event = {};
        event.events = EPOLLOUT;
        event.data.ptr = &write.record;
        EXPECT_EQ(vlliProcessFd(&event), 3);
        EXPECT_EQ(write.finish(), 3);
        inotify_event opened;
        EXPECT_EQ(read(watch.get(), &opened, sizeof opened) > 0, path == pipe);
        EXPECT_EQ(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
    }
}

TEST_F(AsyncTest, a_service_with_nothing_to_do_does_nothing) {
    std::array<char, 64> buffer;
    Pair silent = makePair(Kind::pipe);
    Pair broken = makePair(Kind::stream);
    Transfer waiting;
    Transfer ended;
    ASSERT_TRUE(vllReadFile(asHandle(silent.reader), buffer.data(), 50, nullptr, &waiting.record));
    broken.writer.reset();
    ASSERT_TRUE(vllReadFile(asHandle(broken.reader), buffer.data(), 50, nullptr, &ended.record));
    EXPECT_EQ(ended.finish(), 0);
    const double before = ServiceCpuSeconds();
    usleep(300000);
    EXPECT_LT(ServiceCpuSeconds() - before, 0.03);
    EXPECT_TRUE(vllCancelIo(asHandle(silent.reader)));
}

TEST_F(AsyncTest, cancelled) {
    std::array<char, 64> buffer = {};
    Pair pair = makePair(Kind::pipe);
    const HANDLE reader = asHandle(pair.reader);
    EXPECT_FALSE(vllCancelIo(reader));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(vllCancelIo(9999));
    EXPECT_EQ(errno, EBADF);

    Transfer read;
    ASSERT_TRUE(vllReadFile(reader, buffer.data(), 50, nullptr, &read.record));
    EXPECT_FALSE(vllReadFile(reader, buffer.data(), 50, nullptr, &read.record));  // one at a time
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(vllCancelIo(reader));
    writeAll(pair.writer, "abc", 3);
    EXPECT_TRUE(read.pending());
    EXPECT_EQ(read.record.transferred, 0U);

    // Cancelled half-way; then the record again, whose event is kept.
    const HANDLE event = read.record.event;
    ASSERT_TRUE(vllReadFile(reader, buffer.data(), 50, nullptr, &read.record));
    EXPECT_TRUE(WaitUntil([&] { return __atomic_load_n(&read.record.transferred, __ATOMIC_ACQUIRE) == 3; }));
    EXPECT_TRUE(vllCancelIo(reader));
    EXPECT_FALSE(vllCancelIo(reader));
    writeAll(pair.writer, "defg", 4);
    ASSERT_TRUE(vllReadFile(reader, buffer.data(), 4, nullptr, &read.record));
    EXPECT_EQ(read.finish(), 4);
    EXPECT_EQ(read.record.event, event);
    EXPECT_EQ(memcmp(buffer.data(), "defg", 4), 0);
    // An event is used as it is, signalled or not.
    ASSERT_TRUE(vllReadFile(reader, buffer.data(), 4, nullptr, &read.record));
    EXPECT_EQ(vllWaitForSingleObject(event, 0), WAIT_OBJECT_0);
    EXPECT_TRUE(vllCancelIo(reader));
}

TEST_F(AsyncTest, a_cancelled_record_may_be_freed_at_once) {
    Pair pair = makePair(Kind::stream);
    Transfer keeper;  // of the event
    keeper.record.event = vllCreateEvent(TRUE, FALSE, nullptr);
    for (int i = 0; i < 3000; ++i) {
        const auto buffer = std::make_unique<std::array<char, 256>>();
        const auto record = std::make_unique<OverlappedRecord>();
        *record = {};
        record->event = keeper.record.event;
        ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer->data(), 256, nullptr, record.get()));
        writeAll(pair.writer, "0123456789", 10);  // wakes the service just now
        ASSERT_TRUE(vllCancelIo(asHandle(pair.reader)));
        recv(pair.reader.get(), buffer->data(), buffer->size(), MSG_DONTWAIT);  // what the service left
    }
}

TEST_F(AsyncTest, records_events_and_descriptors_are_used_again) {
    constexpr size_t kCount = 40;
    std::vector<Pair> pairs;
    std::vector<Transfer> transfers(kCount);
    std::array<std::array<char, 8>, kCount> buffers;
    for (size_t i = 0; i < kCount; ++i) {
        pairs.push_back(makePair(Kind::pipe));
    }
    // Two rounds on the same descriptors, records and events.
    for (int round = 0; round < 2; ++round) {
        for (size_t i = 0; i < kCount; ++i) {
            ASSERT_TRUE(
                vllReadFile(asHandle(pairs[i].reader), buffers[i].data(), 8, nullptr, &transfers[i].record));
        }
        for (const Pair &pair : pairs) {
            writeAll(pair.writer, "12345678", 8);
        }
        for (Transfer &transfer : transfers) {
            EXPECT_EQ(transfer.finish(), 8);
            EXPECT_TRUE(vllResetEvent(transfer.record.event));
        }
    }
}

TEST_F(AsyncTest, all_64_places_and_more_are_served) {
    // One event serves all: the process has 256 descriptors.
    constexpr size_t kCount = 100;
    std::vector<Pair> pairs;
    std::vector<OverlappedRecord> records(kCount);
    std::array<char, kCount> bytes = {};
    const HANDLE event = vllCreateEvent(TRUE, FALSE, nullptr);
    for (size_t i = 0; i < kCount; ++i) {
        pairs.push_back(makePair(Kind::pipe));
        writeAll(pairs[i].writer, "x", 1);
        records[i].event = event;
    }
    for (size_t i = 0; i < kCount; ++i) {
        ASSERT_TRUE(vllReadFile(asHandle(pairs[i].reader), &bytes[i], 1, nullptr, &records[i]));
    }
    for (size_t i = 0; i < kCount; ++i) {
        EXPECT_TRUE(
            WaitUntil([&] { return __atomic_load_n(&records[i].transferred, __ATOMIC_ACQUIRE) == 1; }));
    }
    EXPECT_TRUE(WaitUntil([&] { return !vllCancelIo(asHandle(pairs.back().reader)); }));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::string(kCount, 'x'));
    vllCloseHandle(event);
}

TEST_F(AsyncTest, what_cannot_be_registered) {
    std::array<char, 8> buffer;
    Transfer transfer;
    const Fd file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(vllReadFile(asHandle(file), buffer.data(), 8, nullptr, &transfer.record));
    EXPECT_EQ(errno, EPERM);
    EXPECT_FALSE(vllCancelIo(asHandle(file)));
    EXPECT_EQ(errno, EPERM);
    EXPECT_FALSE(vllReadFile(9999, buffer.data(), 8, nullptr, &transfer.record));
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(vllReadFile(transfer.record.event, buffer.data(), 8, nullptr, &transfer.record));
    EXPECT_EQ(errno, EBADF);

    Pair pair = makePair(Kind::pipe);
    Transfer other;
    DWORD count = 7;
    {
        const FailCall fail("eventfd", 1, EMFILE);
        EXPECT_FALSE(vllReadFile(asHandle(pair.reader), buffer.data(), 8, &count, &other.record));
        EXPECT_EQ(errno, EMFILE);
        EXPECT_EQ(other.record.event, 0U);
    }
    EXPECT_FALSE(vllCancelIo(asHandle(pair.reader)));
    other.record.event = static_cast<HANDLE>(-1);  // no event either
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 8, &count, &other.record));
    EXPECT_NE(other.record.event, static_cast<HANDLE>(-1));
    EXPECT_EQ(count, 7U);
    EXPECT_TRUE(vllCancelIo(asHandle(pair.reader)));
    TakeErrors();
}

TEST_F(AsyncTest, an_event_closed_under_its_transfer_harms_nobody) {
    std::array<char, 8> buffer;
    Pair pair = makePair(Kind::pipe);
    OverlappedRecord record = {};
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &record));
    vllCloseHandle(record.event);
    writeAll(pair.writer, "a", 1);
    EXPECT_TRUE(WaitUntil([&] { return __atomic_load_n(&record.transferred, __ATOMIC_ACQUIRE) == 1; }));
    Transfer next;
    EXPECT_TRUE(WaitUntil([&] {
        return vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &next.record) != FALSE;
    }));
    writeAll(pair.writer, "b", 1);
    EXPECT_EQ(next.finish(), 1);
    DWORD count = 0;
    EXPECT_FALSE(vllGetOverlappedResult(&record, &count, FALSE));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(count, 0xFFFFFFFF);
    TakeErrors();
}

TEST_F(AsyncTest, stopped_started_again_and_started_twice) {
    std::array<char, 8> buffer;
    Pair pair = makePair(Kind::pipe);
    Transfer forgotten;
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &forgotten.record));
    EXPECT_EQ(vlliAsyncIo(nullptr), 0U);
    EXPECT_EQ(errno, EBUSY);
    StopService();

    Transfer early;
    EXPECT_FALSE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &early.record));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(early.record.fd, pair.reader.get());
    EXPECT_EQ(early.record.requested, 1U);
    EXPECT_NE(early.record.event, 0U);
    EXPECT_FALSE(vllCancelIo(asHandle(pair.reader)));
    EXPECT_EQ(errno, EBADF);
    {
        const FailCall fail("epoll_create", 1, EMFILE);
        EXPECT_EQ(vlliAsyncIo(nullptr), 0U);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_EQ(serviceSet(), -1);
    }
    StartService();
    writeAll(pair.writer, "ab", 2);
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &early.record));
    EXPECT_EQ(early.finish(), 1);
    EXPECT_TRUE(forgotten.pending());
}

TEST_F(AsyncTest, a_registrar_needs_the_mutex_and_the_service_does_not) {
    std::array<char, 8> buffer;
    Pair pair = makePair(Kind::pipe);
    Transfer transfer;
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &transfer.record));
    const MutexLock lock(&async_mutex);
    writeAll(pair.writer, "a", 1);
    EXPECT_EQ(transfer.finish(), 1);
}

TEST_F(AsyncTest, a_forked_child_starts_without_a_service) {
    std::array<char, 8> buffer;
    Pair pair = makePair(Kind::pipe);
    Transfer transfer;
    const ChildResult result = RunInChild([&] {
        EXPECT_EQ(serviceSet(), -1);
        EXPECT_FALSE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &transfer.record));
        EXPECT_EQ(errno, EBADF);
        StartService();
        writeAll(pair.writer, "a", 1);
        EXPECT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &transfer.record));
        EXPECT_EQ(transfer.finish(), 1);
        return 0;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(serviceSet(), -1);
}

TEST_F(AsyncTest, a_signal_in_the_service_is_no_event) {
    std::array<char, 8> buffer;
    struct sigaction action = {};
    struct sigaction old = {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    Pair pair = makePair(Kind::pipe);
    Transfer transfer;
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &transfer.record));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(pthread_kill(service_id_, SIGUSR1), 0);
        sched_yield();
    }
    writeAll(pair.writer, "a", 1);
    EXPECT_EQ(transfer.finish(), 1);
    ASSERT_EQ(sigaction(SIGUSR1, &old, nullptr), 0);
}

TEST_F(AsyncTest, serial_event_masks_count_as_results_of_a_wait) {
    OverlappedRecord record = {};
    uint32_t events = 1;
    record.event = vllCreateEvent(TRUE, TRUE, nullptr);
    record.result = -1;
    record.eventMask = &events;
    DWORD count = 0;
    EXPECT_TRUE(vllGetOverlappedResult(&record, &count, TRUE));
    EXPECT_EQ(count, 0xFFFFFFFF);
    EXPECT_FALSE(vllGetOverlappedResult(&record, &count, FALSE));  // it looks at the mask only when it waits
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(vllGetOverlappedResult(nullptr, &count, FALSE));
    EXPECT_EQ(errno, EINVAL);
    vllCloseHandle(record.event);
}

// A thread cancelled while it waits for a transfer leaves the transfer as it is, and nothing behind.
TEST_F(AsyncTest, a_waiter_is_cancelled) {
    std::array<char, 8> buffer;
    Pair pair = makePair(Kind::pipe);
    Transfer transfer;
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer.data(), 1, nullptr, &transfer.record));
    const HANDLE waiter = vllCreateThread(
        0,
        [](LPVOID record) -> uint32_t {
            vllGetOverlappedResult(static_cast<OverlappedRecord *>(record), nullptr, TRUE);
            return 1;
        },
        &transfer.record, nullptr, 0);
    EXPECT_TRUE(vllTerminateThread(waiter, 0));
    EXPECT_EQ(vllWaitForSingleObject(waiter, 20000), WAIT_OBJECT_0);
    vllCloseHandle(waiter);
    writeAll(pair.writer, "a", 1);
    EXPECT_EQ(transfer.finish(), 1);
}

}  // namespace
