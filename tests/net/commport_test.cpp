// Serial ports. A pseudo-terminal carries data; modem lines exist on the emulated machine only.

#include "net/commport.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <climits>
#include <cstring>

#include "base/descriptor.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/private_machine.h"
#include "support/syslog_capture.h"
#include "support/threads.h"

namespace {

constexpr DWORD kLimitMs = 10000;
const char *const kSetUpFailed = "VLL: SetCommMask: Failed to initialize receive and modem threads\n";

// A program's thread-local data stand on the stack of every thread, the watchers included.
thread_local volatile char program_data[48 * 1024];

void makeRaw(int fd) {
    termios settings;
    ASSERT_EQ(tcgetattr(fd, &settings), 0);
    cfmakeraw(&settings);
    ASSERT_EQ(tcsetattr(fd, TCSANOW, &settings), 0);
}

int pendingBytes(int fd) {
    int count = 0;
    ioctl(fd, FIONREAD, &count);
    return count;
}

class CommportTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        int peer, port;
        ASSERT_EQ(openpty(&peer, &port, nullptr, nullptr, nullptr), 0);
        peer_.reset(peer);
        port_.reset(port);
        makeRaw(port);
        record_.event = vllCreateEvent(TRUE, FALSE, nullptr);
        program_data[0] = 1;
        takeLog();
    }
    void TearDown() override {
        if (!isIdle()) {
            stop();  // after a test that failed
        }
        vllCloseHandle(record_.event);
        peer_.reset();
        port_.reset();
        LibraryTest::TearDown();
    }
    void send(const char *text) {
        ASSERT_EQ(write(peer_.get(), text, strlen(text)), static_cast<ssize_t>(strlen(text)));
    }
    void watch(DWORD mask) { ASSERT_TRUE(vllSetCommMask(port_.get(), mask, &record_)); }
    // Arms the watchers. What they report goes to events_.
    void arm() {
        events_ = 0xFF;
        EXPECT_THAT(vllWaitCommEvent(port_.get(), &events_, &record_), FailsWith(EINPROGRESS));
    }
    // The events that come after arming, or 0 when none comes in time.
    uint32_t next(DWORD timeout_ms = kLimitMs) {
        if (vllWaitForSingleObject(record_.event, timeout_ms) != WAIT_OBJECT_0) {
            return 0;
        }
        EXPECT_TRUE(vllWaitCommEvent(port_.get(), &events_, &record_));
        return events_;
    }
    bool stop() { return vllSetCommMask(port_.get(), 0, &record_) != 0; }
    bool isIdle() const {
        return record_.dataThread == 0 && record_.modemThread == 0 && record_.dataTrigger == 0 &&
               record_.modemTrigger == 0;
    }
    Fd peer_, port_;
    OverlappedRecord record_ = {};
    uint32_t events_ = 0;
};

TEST_F(CommportTest, purge) {
    // What was written has reached the peer's side, where a purge of the port no longer discards it.
    ASSERT_EQ(write(port_.get(), "xyz", 3), 3);
    ASSERT_TRUE(waitUntil([&] { return pendingBytes(peer_.get()) == 3; }));
    struct Row {
        DWORD flags;
        int received;  // bytes left
    };
    for (const Row &row : {Row{3, 0}, Row{1, 0}, Row{2, 3}}) {
        tcflush(port_.get(), TCIFLUSH);
        send("abc");
        ASSERT_TRUE(waitUntil([&] { return pendingBytes(port_.get()) == 3; }));
        EXPECT_TRUE(vllPurgeComm(port_.get(), row.flags));
        EXPECT_EQ(pendingBytes(port_.get()), row.received) << row.flags;
    }
    EXPECT_EQ(pendingBytes(peer_.get()), 3);
    for (const DWORD flags : {0U, 4U}) {
        EXPECT_THAT(vllPurgeComm(port_.get(), flags), FailsWith(EINVAL));
    }
    const Fd file(open("/dev/shm", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    EXPECT_THAT(vllPurgeComm(file.get(), 1), FailsWith(ENOTTY));
    EXPECT_THAT(vllPurgeComm(-1, 1), FailsWith(EBADF));
}

TEST_F(CommportTest, modem_lines_are_refused_where_there_are_none) {
    DWORD status = 77;
    EXPECT_THAT(vllGetCommModemStatus(port_.get(), &status), FailsWith(ENOTTY));
    EXPECT_EQ(status, 77U);
    EXPECT_THAT(vllGetCommModemStatus(port_.get(), nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllEscapeCommFunction(port_.get(), SETDTR), FailsWith(ENOTTY));
    for (const DWORD function : {0U, 3U, 5U, 16U}) {
        EXPECT_THAT(vllEscapeCommFunction(port_.get(), function), FailsWith(EINVAL));
    }
}

TEST_F(CommportTest, received_data_signal_the_event) {
    constexpr uint32_t kData = EV_RXCHAR;
    watch(EV_RXCHAR);
    arm();
    EXPECT_EQ(next(20), 0U);
    send("a");
    EXPECT_EQ(next(), kData);
    EXPECT_EQ(vllWaitForSingleObject(record_.event, 0), WAIT_TIMEOUT) << "reported once";
    arm();
    EXPECT_EQ(next(), kData) << "data that are still unread";
    tcflush(port_.get(), TCIFLUSH);
    arm();
    peer_.reset();
    EXPECT_EQ(next(), kData) << "a hang-up";
    EXPECT_TRUE(stop());
    EXPECT_TRUE(isIdle());
    EXPECT_TRUE(takeErrors().empty());
}

TEST_F(CommportTest, stopping_in_every_state) {
    enum State { kNew, kSetUp, kArmed, kReported };
    for (const State state : {kNew, kSetUp, kArmed, kReported}) {
        for (const int mask : {+EV_RXCHAR, EV_RXCHAR | EV_CTS, EV_CTS | EV_DSR, 0x1000}) {
            vllResetEvent(record_.event);
            if (state >= kSetUp) {
                watch(static_cast<DWORD>(mask));
            }
            if (state >= kArmed) {
                arm();
            }
            if (state >= kReported) {
                send("x");
            }
            EXPECT_TRUE(stop()) << state << " mask " << mask;
            EXPECT_TRUE(isIdle());
            EXPECT_EQ(vllWaitForSingleObject(record_.event, 0), WAIT_OBJECT_0) << "a pending wait ends";
            EXPECT_TRUE(state != kArmed || events_ == 0);
            tcflush(port_.get(), TCIFLUSH);
        }
    }
}

// Data that arrive while another thread stops the watchers are not reported, and nothing is armed any more.
TEST_F(CommportTest, waiting_while_another_thread_stops_the_record) {
    watch(EV_RXCHAR);
    arm();
    Sleeper stopper([&] { EXPECT_TRUE(stop()); });
    EXPECT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_TRUE(vllWaitCommEvent(port_.get(), &events_, &record_)) << "for the event that the stop signals";
    send("a");
    EXPECT_THAT(vllWaitCommEvent(port_.get(), &events_, &record_), FailsWith(EINVAL));
    stopper.finish();
    EXPECT_EQ(vllWaitForSingleObject(record_.event, 0), WAIT_TIMEOUT);
    EXPECT_EQ(events_, 0U);
}

TEST_F(CommportTest, the_event_of_a_stop_is_no_event_of_the_next_mask) {
    watch(EV_RXCHAR);
    EXPECT_TRUE(stop());
    watch(EV_RXCHAR);
    events_ = 0xFF;
    EXPECT_TRUE(vllWaitCommEvent(port_.get(), &events_, &record_));
    EXPECT_EQ(events_, 0U);
    EXPECT_TRUE(stop());
}

// The stacks of the watchers are too small for the handlers of an application.
TEST_F(CommportTest, signals_are_not_handled_by_the_watchers) {
    static std::atomic<pid_t> handled_by;
    const SignalHandler handler(SIGUSR2, [](int) { handled_by = gettid(); });
    watch(EV_RXCHAR | EV_CTS);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    kill(getpid(), SIGUSR2);
    arm();
    send("a");
    EXPECT_EQ(next(), uint32_t{EV_RXCHAR});
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    EXPECT_TRUE(waitUntil([&] { return handled_by != 0; }));
    EXPECT_EQ(handled_by, gettid());
    EXPECT_TRUE(stop());
}

TEST_F(CommportTest, a_child_has_no_watchers_and_stops_the_record_for_itself) {
    watch(EV_RXCHAR);
    expectInChild([&] {
        EXPECT_THAT(stop(), FailsWith(ESRCH));
        EXPECT_TRUE(isIdle());
        EXPECT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
        return stop() ? 0 : 1;
    });
    vllResetEvent(record_.event);
    arm();
    send("a");
    EXPECT_EQ(next(), uint32_t{EV_RXCHAR});
    EXPECT_TRUE(stop());
    takeLog();
}

TEST_F(CommportTest, set_up_that_fails_half_way) {
    struct Row {
        const char *call;
        int nth, error;
    };
    for (const Row &row :
         {Row{"eventfd", 1, EMFILE}, Row{"eventfd", 2, EMFILE}, Row{"eventfd", 3, EMFILE},
          Row{"eventfd", 4, EMFILE}, Row{"pthread_create", 1, EAGAIN}, Row{"pthread_create", 2, EAGAIN}}) {
        SCOPED_TRACE(format("%s %d", row.call, row.nth));
        takeLog();
        {
            const FailCall fail(row.call, row.nth, row.error);
            EXPECT_THAT(vllSetCommMask(port_.get(), EV_RXCHAR | EV_CTS, &record_), FailsWith(row.error));
        }
        EXPECT_EQ(takeErrors().back(), kSetUpFailed);
        EXPECT_EQ(isIdle(), row.nth == 1 && row.error == EMFILE) << "nothing was made before the first event";
        if (!isIdle()) {
            EXPECT_FALSE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
            EXPECT_THAT(vllWaitCommEvent(port_.get(), &events_, &record_), FailsWith(EINVAL));
            EXPECT_FALSE(stop());
            EXPECT_EQ(takeErrors(), (Errors{kSetUpFailed, kSetUpFailed}));
        }
        EXPECT_TRUE(isIdle());
    }
    watch(EV_RXCHAR);
    EXPECT_TRUE(stop());
}

TEST_F(CommportTest, a_watcher_that_ended_before_it_was_stopped) {
    watch(EV_RXCHAR);
    const HANDLE data = record_.dataThread;
    ASSERT_TRUE(vllTerminateThread(data, 0));
    ASSERT_EQ(vllWaitForSingleObject(data, kLimitMs), WAIT_OBJECT_0);
    EXPECT_THAT(stop(), FailsWith(ESRCH));
    EXPECT_EQ(takeErrors(), Errors{format("VLL: SetCommMask: Failed to terminate WaitCommEvent background "
                                          "threads, data thread handle = %d, modem thread handle = 0\n",
                                          static_cast<int>(data))});
    EXPECT_TRUE(isIdle());
}

TEST_F(CommportTest, two_records_on_one_port) {
    const Owned second_event(makeManualEvent());
    OverlappedRecord second = {};
    uint32_t second_events = 0;
    second.event = second_event;
    watch(EV_RXCHAR);
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &second));
    arm();
    EXPECT_THAT(vllWaitCommEvent(port_.get(), &second_events, &second), FailsWith(EINPROGRESS));
    send("a");
    EXPECT_EQ(next(), uint32_t{EV_RXCHAR});
    EXPECT_EQ(vllWaitForSingleObject(second.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_TRUE(stop());
    EXPECT_TRUE(vllSetCommMask(port_.get(), 0, &second));
}

TEST_F(CommportTest, bad_arguments) {
    EXPECT_THAT(vllSetCommMask(port_.get(), EV_RXCHAR, nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllWaitCommEvent(port_.get(), &events_, nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllWaitCommEvent(port_.get(), &events_, &record_), FailsWith(EINVAL)) << "no mask was set";
    watch(EV_RXCHAR);
    EXPECT_THAT(vllWaitCommEvent(port_.get(), nullptr, &record_), FailsWith(EINVAL));
    EXPECT_TRUE(stop());
}

// The kernel's serial gadget on the emulated machine: opening and closing the peer raises and drops DSR and
// carrier of the port. CTS is always active there.
class ModemLinesTest : public CommportTest {
  protected:
    void SetUp() override {
        if (!onTarget()) {
            GTEST_SKIP() << "modem lines exist on the emulated machine only";
        }
        CommportTest::SetUp();
        port_.reset(open("/dev/ttyACM0", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(port_) << strerror(errno);
        makeRaw(port_.get());
        closePeer();
    }
    void TearDown() override {
        if (onTarget()) {
            CommportTest::TearDown();
        }
    }
    DWORD lines() const {
        DWORD status = 0;
        EXPECT_TRUE(vllGetCommModemStatus(port_.get(), &status));
        return status;
    }
    void openPeer() {
        peer_.reset(open("/dev/ttyGS0", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(peer_);
        makeRaw(peer_.get());
        ASSERT_TRUE(waitUntil([&] { return lines() == (MS_CTS_ON | MS_DSR_ON | MS_RLSD_ON); }));
    }
    void closePeer() {
        peer_.reset();
        ASSERT_TRUE(waitUntil([&] { return lines() == MS_CTS_ON; }));
    }
    void watchAndArm(DWORD mask) {
        vllResetEvent(record_.event);
        watch(mask);
        arm();
    }
    // Stopping drops DTR.
    void stopAndRaise() {
        EXPECT_TRUE(stop());
        EXPECT_TRUE(isIdle());
        EXPECT_EQ(raised() & TIOCM_DTR, 0);
        EXPECT_TRUE(vllEscapeCommFunction(port_.get(), SETDTR));
    }
    int raised() const {
        int active = 0;
        EXPECT_EQ(ioctl(port_.get(), TIOCMGET, &active), 0);
        return active & (TIOCM_DTR | TIOCM_RTS);
    }
};

TEST_F(ModemLinesTest, escapes) {
    struct Row {
        DWORD function;
        int raised;
    };
    for (const Row &row : {Row{CLRDTR, TIOCM_RTS}, Row{SETDTR, TIOCM_DTR | TIOCM_RTS}, Row{CLRRTS, TIOCM_DTR},
                           Row{SETRTS, TIOCM_DTR | TIOCM_RTS}}) {
        EXPECT_TRUE(vllEscapeCommFunction(port_.get(), row.function));
        EXPECT_EQ(raised(), row.raised) << row.function;
    }
}

TEST_F(ModemLinesTest, only_selected_lines_are_reported) {
    for (const int mask : {+EV_DSR, +EV_RLSD, EV_DSR | EV_RLSD | EV_CTS, EV_CTS | EV_RING}) {
        const auto selected = static_cast<uint32_t>(mask);
        const bool changes = (mask & (EV_DSR | EV_RLSD)) != 0;
        watchAndArm(selected);
        openPeer();
        const uint32_t events = next(changes ? kLimitMs : 100);
        EXPECT_EQ(events != 0, changes) << mask;
        EXPECT_EQ(events & ~selected, 0U);
        stopAndRaise();
        closePeer();
    }
}

// However soon a change follows arming, it is reported, and once.
TEST_F(ModemLinesTest, each_change_after_arming_is_reported_once) {
    watch(EV_DSR);
    for (int round = 0; round < 50; ++round) {
        arm();
        if (round % 2 == 0) {
            arm();  // the watcher is in a cycle already, or soon
            openPeer();
        } else {
            closePeer();
        }
        ASSERT_EQ(next(), uint32_t{EV_DSR}) << round;
        if (round % 10 == 0) {
            arm();
            EXPECT_EQ(next(50), 0U) << round;
        }
    }
    stopAndRaise();
}

TEST_F(ModemLinesTest, data_and_lines_together) {
    watchAndArm(EV_RXCHAR | EV_DSR);
    openPeer();
    ASSERT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_EQ(events_ & EV_DSR, uint32_t{EV_DSR});
    vllResetEvent(record_.event);
    send("data");
    EXPECT_EQ(next() & EV_RXCHAR, uint32_t{EV_RXCHAR}) << "this watcher is still armed";
    stopAndRaise();
    closePeer();
}

TEST_F(ModemLinesTest, stopped_while_the_watcher_waits_for_a_line) {
    for (const DWORD after_ms : {0U, 100U, 700U}) {  // the watcher reads the counters first, and blocks later
        watchAndArm(EV_CTS | EV_RING);
        EXPECT_EQ(next(after_ms), 0U);
        stopAndRaise();
        EXPECT_EQ(events_, 0U);
    }
}

// Takes the port from its driver, as unplugging it does, or gives it back ("unbind", "bind").
void controlDriver(const char *what, const std::string &interface) {
    const std::string path = std::string("/sys/bus/usb/drivers/cdc_acm/") + what;
    const Fd control(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(write(control.get(), interface.data(), interface.size()),
              static_cast<ssize_t>(interface.size()))
        << strerror(errno);
}

TEST_F(ModemLinesTest, unplugged_while_the_watchers_block) {
    char device[PATH_MAX] = {};
    ASSERT_GT(readlink("/sys/class/tty/ttyACM0/device", device, sizeof device - 1), 0);
    const std::string interface = basename(device);
    watchAndArm(EV_RXCHAR | EV_DSR);
    EXPECT_EQ(next(700), 0U);
    controlDriver("unbind", interface);
    // The hang-up makes the port readable; whether the lines have changed cannot be known.
    EXPECT_EQ(next() & ~uint32_t{EV_DSR}, uint32_t{EV_RXCHAR});
    EXPECT_TRUE(stop());
    EXPECT_TRUE(isIdle());
    port_.reset();
    controlDriver("bind", interface);
    ASSERT_TRUE(waitUntil([&] {
        port_.reset(open("/dev/ttyACM0", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        return static_cast<bool>(port_);
    })) << strerror(errno);
}

}  // namespace
