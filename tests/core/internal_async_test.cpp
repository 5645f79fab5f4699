#include "core/internal_async.h"
#include "base/counter.h"
#include "base/descriptor.h"
#include "base/guards.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>
#include <array>
#include <cstring>
#include <memory>

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/private_machine.h"
#include "support/syslog_capture.h"
#include "support/threads.h"

namespace {

bool isServiceRunning() {
    return __atomic_load_n(&epoll_fd, __ATOMIC_ACQUIRE) != -1;
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
        ASSERT_TRUE(waitUntil(isServiceRunning));
    }
    void StopService() {
        EXPECT_TRUE(vllTerminateThread(service_, 0));
        finishThread(service_);
        EXPECT_FALSE(isServiceRunning());
    }

    HANDLE service_ = 0;
    uintptr_t service_id_ = 0;
};

HANDLE asHandle(const Fd &fd) {
    return static_cast<HANDLE>(fd.get());
}

BOOL cancel(const Fd &fd) {
    return vllCancelIo(asHandle(fd));
}

// A caller's record and a small buffer. The event is closed with the record.
struct Transfer {
    OverlappedRecord record = {};
    std::array<char, 64> buffer = {};
    ~Transfer() {
        if (record.event != 0) {
            vllCloseHandle(record.event);
        }
    }
    BOOL read(const Fd &fd, DWORD size) {
        return vllReadFile(asHandle(fd), buffer.data(), size, nullptr, &record);
    }
    BOOL write(const Fd &fd, const std::vector<char> &bytes) {
        return vllWriteFile(asHandle(fd), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, &record);
    }
    bool reaches(uint32_t bytes) const {
        return waitUntil([&] { return __atomic_load_n(&record.transferred, __ATOMIC_ACQUIRE) == bytes; });
    }
    bool pending() {
        DWORD count = 0;
        EXPECT_THAT(vllGetOverlappedResult(&record, &count, FALSE), FailsWith(EINPROGRESS));
        return count == 0xFFFFFFFF && !testing::Test::HasFailure();
    }
    // The result of the last call, or -2 when the transfer does not end.
    int64_t finish() {
        DWORD count = 0;
        if (vllWaitForSingleObject(record.event, 20000) != WAIT_OBJECT_0) {
            return -2;
        }
        const bool failed = record.result == -1;
        EXPECT_THAT(vllGetOverlappedResult(&record, &count, TRUE), Yields(!failed, failed ? EIO : 0));
        return static_cast<int32_t>(count);
    }
};

// What the service does when it finds the record's descriptor ready.
int32_t wakeUp(Transfer *transfer, uint32_t events) {
    epoll_event event = {};
    event.events = events;
    event.data.ptr = &transfer->record;
    const MutexLock lock(&async_mutex);  // the service does not end meanwhile
    return vlliProcessFd(&event);
}

struct Pair {
    Fd reader;  // or both ways
    Fd writer;
};

enum class Kind { pipe, non_blocking_pipe, stream, terminal, terminal_master };
constexpr Kind kAllKinds[] = {Kind::pipe, Kind::non_blocking_pipe, Kind::stream, Kind::terminal,
                              Kind::terminal_master};

Pair makePair(Kind kind) {
    std::array<int, 2> fds = {-1, -1};
    if (kind == Kind::stream) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()), 0);
    } else if (kind == Kind::terminal || kind == Kind::terminal_master) {
        const bool master_writes = kind == Kind::terminal_master;
        termios raw = {};
        cfmakeraw(&raw);
        raw.c_cc[VMIN] = 1;
        EXPECT_EQ(openpty(&fds[master_writes], &fds[!master_writes], nullptr, &raw, nullptr), 0);
    } else {
        EXPECT_EQ(pipe2(fds.data(), O_CLOEXEC | (kind == Kind::pipe ? 0 : O_NONBLOCK)), 0);
    }
    return {Fd(fds[0]), Fd(fds[1])};
}

std::vector<char> pattern(size_t size) {
    std::vector<char> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<char>(i * 31 + (i >> 8));
    }
    return bytes;
}

void writeText(const Fd &fd, const char *text) {
    EXPECT_NE(vlliWriteFully(fd.get(), text, strlen(text)), -1);
}

TEST_F(AsyncTest, a_read_is_done_when_all_its_bytes_are_there) {
    for (const Kind kind : kAllKinds) {
        const Pair pair = makePair(kind);
        const std::vector<char> sent = pattern(60);
        Transfer read;
        ASSERT_TRUE(read.read(pair.reader, 60));
        EXPECT_TRUE(read.pending());
        EXPECT_EQ(vlliWriteFully(pair.writer.get(), sent.data(), 20), 20);
        EXPECT_TRUE(read.reaches(20));
        EXPECT_TRUE(read.pending());
        EXPECT_EQ(vlliWriteFully(pair.writer.get(), sent.data() + 20, 40), 40);
        EXPECT_EQ(read.finish(), 40);
        EXPECT_EQ(read.record.transferred, 60U);
        EXPECT_EQ(std::vector<char>(read.buffer.begin(), read.buffer.begin() + 60), sent);
    }
}

TEST_F(AsyncTest, a_write_of_more_than_fits_goes_on_as_the_reader_takes_it) {
    for (const Kind kind : kAllKinds) {
        const Pair pair = makePair(kind);
        const std::vector<char> sent = pattern(1000000);
        const std::vector<char> few = pattern(5000);
        Transfer write;
        ASSERT_TRUE(write.write(pair.writer, sent));
        EXPECT_TRUE(
            waitUntil([&] { return __atomic_load_n(&write.record.transferred, __ATOMIC_ACQUIRE) > 0; }));
        EXPECT_TRUE(write.pending());

        // The service has not blocked: another transfer goes through.
        const Pair other = makePair(Kind::pipe);
        Transfer second;
        ASSERT_TRUE(second.write(other.writer, few));
        EXPECT_EQ(second.finish(), 5000);

        std::vector<char> received(sent.size());
        const auto read_when_ready = [&](size_t at, size_t left) {
            pollfd ready = {pair.reader.get(), POLLIN, 0};
            return poll(&ready, 1, 20000) == 1 ? read(pair.reader.get(), &received[at], left) : 0;
        };
        EXPECT_EQ(vlliTransferFully(received.size(), read_when_ready), 1000000);
        EXPECT_GT(write.finish(), 0);
        EXPECT_EQ(write.record.transferred, 1000000U);
        EXPECT_TRUE(received == sent);
        EXPECT_EQ(fcntl(pair.writer.get(), F_GETFL) & O_NONBLOCK,
                  kind == Kind::non_blocking_pipe ? O_NONBLOCK : 0);
    }
}

TEST_F(AsyncTest, what_ends_a_transfer_early) {
    for (const Kind kind : kAllKinds) {
        // The other side closes: end of file, or the error that a terminal gives for it. The master of a
        // pseudo-terminal gives an error until the hang-up is complete, the end of file from then on.
        Pair pair = makePair(kind);
        Transfer read;
        ASSERT_TRUE(read.read(pair.reader, 50));
        writeText(pair.writer, "abc");
        EXPECT_TRUE(read.reaches(3));
        pair.writer.reset();
        const int64_t result = read.finish();
        EXPECT_TRUE(kind == Kind::terminal_master || result == (kind == Kind::terminal ? -1 : 0)) << result;
        EXPECT_LE(result, 0);
        EXPECT_EQ(read.record.transferred, 3U);
        EXPECT_THAT(cancel(pair.reader), FailsWith(ENOENT));  // it has left the set
    }
    for (const Kind kind : {Kind::pipe, Kind::non_blocking_pipe, Kind::stream}) {
        // Nobody reads: the write fails, and no signal kills the process.
        Pair pair = makePair(kind);
        pair.reader.reset();
        const std::vector<char> sent = pattern(3);
        Transfer write;
        ASSERT_TRUE(write.write(pair.writer, sent));
        EXPECT_EQ(write.finish(), -1);
        EXPECT_EQ(write.record.transferred, 0U);
    }
    // The reader closes while the pipe is full.
    Pair pair = makePair(Kind::pipe);
    const auto capacity = static_cast<uint32_t>(fcntl(pair.writer.get(), F_GETPIPE_SZ));
    const std::vector<char> sent = pattern(size_t{2} * capacity);
    Transfer write;
    ASSERT_TRUE(write.write(pair.writer, sent));
    EXPECT_TRUE(write.reaches(capacity));
    pair.reader.reset();
    EXPECT_EQ(write.finish(), -1);
    EXPECT_EQ(write.record.transferred, capacity);

    const Pair other = makePair(Kind::pipe);
    writeText(other.writer, "abc");
    Transfer bad;
    ASSERT_TRUE(vllReadFile(asHandle(other.reader), nullptr, 3, nullptr, &bad.record));
    EXPECT_EQ(bad.finish(), -1);
    Transfer nothing;
    ASSERT_TRUE(nothing.read(other.reader, 0));
    EXPECT_EQ(nothing.finish(), 0);
}

// Another reader may take the bytes before the service does, and another writer may fill a pipe again.
TEST_F(AsyncTest, a_wake_up_for_nothing_does_not_block) {
    for (const Kind kind : kAllKinds) {
        const Pair pair = makePair(kind);
        const int flags = fcntl(pair.reader.get(), F_GETFL);
        Transfer read;
        ASSERT_TRUE(read.read(pair.reader, 1));
        EXPECT_EQ(wakeUp(&read, EPOLLIN), -1);
        EXPECT_TRUE(read.pending());
        EXPECT_EQ(fcntl(pair.reader.get(), F_GETFL), flags);
        writeText(pair.writer, "a");
        EXPECT_EQ(read.finish(), 1);
    }
    const Fd counter(eventfd(0, EFD_CLOEXEC));
    Transfer take;
    ASSERT_TRUE(take.read(counter, sizeof(uint64_t)));
    EXPECT_EQ(wakeUp(&take, EPOLLIN), -1);
    EXPECT_TRUE(vlliRaiseCounter(counter.get()));
    EXPECT_EQ(take.finish(), 8);

    const Pair pair = makePair(Kind::pipe);
    const std::vector<char> full(static_cast<size_t>(fcntl(pair.writer.get(), F_GETPIPE_SZ)));
    ASSERT_NE(vlliWriteFully(pair.writer.get(), full.data(), full.size()), -1);
    Transfer write;
    ASSERT_TRUE(write.write(pair.writer, full));
    EXPECT_EQ(wakeUp(&write, EPOLLOUT), -1);
    EXPECT_TRUE(write.pending());
    EXPECT_TRUE(cancel(pair.writer));
}

TEST_F(AsyncTest, a_terminal_that_waits_for_more_bytes_does_not_hold_up_the_service) {
    const Pair pair = makePair(Kind::terminal_master);
    termios settings;
    ASSERT_EQ(tcgetattr(pair.reader.get(), &settings), 0);
    settings.c_cc[VMIN] = 200;
    settings.c_cc[VTIME] = 255;  // 25.5 s from one byte to the next
    ASSERT_EQ(tcsetattr(pair.reader.get(), TCSANOW, &settings), 0);
    Transfer read;
    ASSERT_TRUE(read.read(pair.reader, 50));
    writeText(pair.writer, "abc");
    EXPECT_TRUE(read.reaches(3));
    EXPECT_TRUE(cancel(pair.reader));
}

// To write without blocking the service opens a pipe once more, but no device: opening one may have an effect.
TEST_F(AsyncTest, devices_are_not_reopened) {
    const std::string directory = freshDirectory();
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
        write.record.event = makeManualEvent();
        write.record.fd = fd.get();
        write.record.buffer = write.buffer.data();
        write.record.requested = 3;
        EXPECT_EQ(wakeUp(&write, EPOLLOUT), 3);
        EXPECT_EQ(write.finish(), 3);
        inotify_event opened;
        EXPECT_EQ(read(watch.get(), &opened, sizeof opened) > 0, path == pipe);
        EXPECT_EQ(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
    }
}

TEST_F(AsyncTest, a_service_with_nothing_to_do_does_nothing) {
    const Pair silent = makePair(Kind::pipe);
    Pair broken = makePair(Kind::stream);
    Transfer waiting, ended;
    ASSERT_TRUE(waiting.read(silent.reader, 50));
    broken.writer.reset();
    ASSERT_TRUE(ended.read(broken.reader, 50));
    EXPECT_EQ(ended.finish(), 0);
    clockid_t clock;
    ASSERT_EQ(pthread_getcpuclockid(service_id_, &clock), 0);
    const int64_t before = nowUs(clock);
    usleep(300000);
    EXPECT_LT(nowUs(clock) - before, 30000);
    EXPECT_TRUE(cancel(silent.reader));
}

TEST_F(AsyncTest, cancelled) {
    const Pair pair = makePair(Kind::pipe);
    EXPECT_THAT(cancel(pair.reader), FailsWith(ENOENT));
    EXPECT_THAT(vllCancelIo(9999), FailsWith(EBADF));

    Transfer read;
    ASSERT_TRUE(read.read(pair.reader, 50));
    EXPECT_THAT(read.read(pair.reader, 50), FailsWith(EEXIST));  // one at a time
    EXPECT_TRUE(cancel(pair.reader));
    writeText(pair.writer, "abc");
    EXPECT_TRUE(read.pending());
    EXPECT_EQ(read.record.transferred, 0U);

    // Cancelled half-way; then the record again, whose event is kept.
    const HANDLE event = read.record.event;
    ASSERT_TRUE(read.read(pair.reader, 50));
    EXPECT_TRUE(read.reaches(3));
    EXPECT_TRUE(cancel(pair.reader));
    EXPECT_FALSE(cancel(pair.reader));
    writeText(pair.writer, "defg");
    ASSERT_TRUE(read.read(pair.reader, 4));
    EXPECT_EQ(read.finish(), 4);
    EXPECT_EQ(read.record.event, event);
    EXPECT_STREQ(read.buffer.data(), "defg");
    // An event is used as it is, signalled or not.
    ASSERT_TRUE(read.read(pair.reader, 4));
    EXPECT_TRUE(isSignalled(event));
    EXPECT_TRUE(cancel(pair.reader));
}

// Several threads cancel transfers while the service carries them out.
TEST_F(AsyncTest, a_cancelled_record_may_be_freed_at_once) {
    const auto cancel_often = [] {
        const Pair pair = makePair(Kind::stream);
        const Owned event(makeManualEvent());
        for (int i = 0; i < 1000; ++i) {
            const auto buffer = std::make_unique<std::array<char, 256>>();
            const auto record = std::make_unique<OverlappedRecord>();
            *record = {};
            record->event = event;
            ASSERT_TRUE(vllReadFile(asHandle(pair.reader), buffer->data(), 256, nullptr, record.get()));
            writeText(pair.writer, "0123456789");  // wakes the service just now
            ASSERT_TRUE(cancel(pair.reader));
            recv(pair.reader.get(), buffer->data(), buffer->size(),
                 MSG_DONTWAIT);  // what the service has left
        }
    };
    const std::array<HANDLE, 3> threads = {startThread(cancel_often), startThread(cancel_often),
                                           startThread(cancel_often)};
    for (const HANDLE thread : threads) {
        finishThread(thread);
    }
}

// One event serves all transfers, since the process has 256 descriptors.
TEST_F(AsyncTest, more_transfers_than_one_wake_up_reports) {
    constexpr size_t kCount = 100;
    std::vector<Pair> pairs;
    std::vector<OverlappedRecord> records(kCount);
    std::array<char, kCount> bytes = {};
    const Owned event(makeManualEvent());
    for (size_t i = 0; i < kCount; ++i) {
        pairs.push_back(makePair(Kind::pipe));
        records[i].event = event;
        ASSERT_TRUE(vllReadFile(asHandle(pairs[i].reader), &bytes[i], 1, nullptr, &records[i]));
    }
    {
        const MutexLock lock(&objMemMutex);  // the service stops at its first signal
        for (const Pair &pair : pairs) {
            writeText(pair.writer, "x");
        }
    }
    for (const OverlappedRecord &record : records) {
        EXPECT_TRUE(waitUntil([&] { return __atomic_load_n(&record.transferred, __ATOMIC_ACQUIRE) == 1; }));
    }
    EXPECT_TRUE(waitUntil([&] { return !cancel(pairs.back().reader); }));
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::string(kCount, 'x'));
}

TEST_F(AsyncTest, what_cannot_be_registered) {
    Transfer transfer;
    const Fd file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    EXPECT_THAT(transfer.read(file, 8), FailsWith(EPERM));
    EXPECT_THAT(cancel(file), FailsWith(EPERM));
    EXPECT_THAT(vllReadFile(9999, nullptr, 8, nullptr, &transfer.record), FailsWith(EBADF));
    const Pair pair = makePair(Kind::pipe);
    Transfer other;
    {
        const FailCall fail("eventfd", 1, EMFILE);
        EXPECT_THAT(other.read(pair.reader, 8), FailsWith(EMFILE));
        EXPECT_EQ(other.record.event, 0U);
    }
    EXPECT_FALSE(cancel(pair.reader));
    other.record.event = static_cast<HANDLE>(-1);  // no event either
    DWORD count = 7;
    ASSERT_TRUE(vllReadFile(asHandle(pair.reader), other.buffer.data(), 8, &count, &other.record));
    EXPECT_NE(other.record.event, static_cast<HANDLE>(-1));
    EXPECT_EQ(count, 7U);
    EXPECT_TRUE(cancel(pair.reader));
}

TEST_F(AsyncTest, an_event_closed_during_its_transfer) {
    const Pair pair = makePair(Kind::pipe);
    Transfer transfer;
    ASSERT_TRUE(transfer.read(pair.reader, 1));
    vllCloseHandle(transfer.record.event);
    writeText(pair.writer, "a");
    EXPECT_TRUE(transfer.reaches(1));
    Transfer next;
    EXPECT_TRUE(waitUntil([&] { return next.read(pair.reader, 1) != FALSE; }));
    writeText(pair.writer, "b");
    EXPECT_EQ(next.finish(), 1);
    takeErrors();
    for (const BOOL wait : {FALSE, TRUE}) {
        DWORD count = 0;
        EXPECT_THAT(vllGetOverlappedResult(&transfer.record, &count, wait), FailsWith(EINVAL));
        EXPECT_EQ(count, 0xFFFFFFFF);
        EXPECT_EQ(takeErrors().size(), 2U);  // those of the wait
    }
    transfer.record.event = 0;
}

TEST_F(AsyncTest, stopped_started_again_and_started_twice) {
    const Pair pair = makePair(Kind::pipe);
    Transfer forgotten;
    ASSERT_TRUE(forgotten.read(pair.reader, 1));
    EXPECT_THAT(vlliAsyncIo(nullptr), FailsWith(EBUSY));
    StopService();

    Transfer early;
    EXPECT_THAT(early.read(pair.reader, 1), FailsWith(EBADF));
    EXPECT_EQ(early.record.fd, pair.reader.get());
    EXPECT_EQ(early.record.requested, 1U);
    EXPECT_NE(early.record.event, 0U);
    EXPECT_THAT(cancel(pair.reader), FailsWith(EBADF));
    {
        const FailCall fail("epoll_create", 1, EMFILE);
        EXPECT_THAT(vlliAsyncIo(nullptr), FailsWith(EMFILE));
        EXPECT_FALSE(isServiceRunning());
    }
    StartService();
    writeText(pair.writer, "ab");
    ASSERT_TRUE(early.read(pair.reader, 1));
    EXPECT_EQ(early.finish(), 1);
    EXPECT_TRUE(forgotten.pending());
}

TEST_F(AsyncTest, a_forked_child_starts_without_a_service) {
    const Pair pair = makePair(Kind::pipe);
    expectInChild([&] {
        Transfer transfer;
        EXPECT_FALSE(isServiceRunning());
        EXPECT_THAT(transfer.read(pair.reader, 1), FailsWith(EBADF));
        StartService();
        writeText(pair.writer, "a");
        EXPECT_TRUE(transfer.read(pair.reader, 1));
        EXPECT_EQ(transfer.finish(), 1);
        return 0;
    });
    EXPECT_TRUE(isServiceRunning());
}

// Transfers end although signals interrupt the service, and although a thread that registers one holds the mutex.
TEST_F(AsyncTest, what_does_not_disturb_the_service) {
    const SignalHandler handler(SIGUSR1, ignoreSignal);
    const Pair pair = makePair(Kind::pipe);
    Transfer transfer;
    ASSERT_TRUE(transfer.read(pair.reader, 1));
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(pthread_kill(service_id_, SIGUSR1), 0);
        sched_yield();
    }
    const MutexLock lock(&async_mutex);
    writeText(pair.writer, "a");
    EXPECT_EQ(transfer.finish(), 1);
}

TEST_F(AsyncTest, serial_event_masks_count_as_results_of_a_wait) {
    const Owned event(makeManualEvent(TRUE));
    uint32_t events = 1;
    OverlappedRecord record = {};
    record.event = event;
    record.result = -1;
    record.eventMask = &events;
    DWORD count = 0;
    EXPECT_TRUE(vllGetOverlappedResult(&record, &count, TRUE));
    EXPECT_EQ(count, 0xFFFFFFFF);
    EXPECT_THAT(vllGetOverlappedResult(&record, &count, FALSE), FailsWith(EIO)) << "without a wait";
    EXPECT_THAT(vllGetOverlappedResult(nullptr, &count, FALSE), FailsWith(EINVAL));
}

// A thread that is cancelled while it waits for a transfer leaves nothing behind, and the transfer goes on.
TEST_F(AsyncTest, a_waiter_is_cancelled) {
    const Pair pair = makePair(Kind::pipe);
    Transfer transfer;
    ASSERT_TRUE(transfer.read(pair.reader, 1));
    const Sleeper waiter([&] { vllGetOverlappedResult(&transfer.record, nullptr, TRUE); });
    EXPECT_TRUE(vllTerminateThread(waiter.handle(), 0));
    EXPECT_EQ(vllWaitForSingleObject(waiter.handle(), 60000), WAIT_OBJECT_0);
    writeText(pair.writer, "a");
    EXPECT_EQ(transfer.finish(), 1);
}

}  // namespace
