#include "net/commport.h"
#include "base/descriptor.h"

#include <fcntl.h>
#include <linux/serial.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>
#include <climits>
#include <cstring>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/private_machine.h"
#include "support/syslog_capture.h"

namespace {

constexpr DWORD kLimitMs = 10000;
using Errors = std::vector<std::string>;
const char *const kSetUpFailed = "VLL: SetCommMask: Failed to initialize receive and modem threads\n";

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

// A pseudo-terminal: data cross it, modem lines it has none.
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
        takeLog();
    }
    void TearDown() override {
        if (!isIdle()) {
            stop();  // of a test that failed
        }
        vllCloseHandle(record_.event);
        peer_.reset();
        port_.reset();
        LibraryTest::TearDown();
    }
    void send(const char *text) {
        ASSERT_EQ(write(peer_.get(), text, strlen(text)), static_cast<ssize_t>(strlen(text)));
    }
    // Arms the watchers.
    void arm(uint32_t *events) {
        errno = 0;
        ASSERT_FALSE(vllWaitCommEvent(port_.get(), events, &record_));
        ASSERT_EQ(errno, EINPROGRESS);
    }
    bool stop() { return vllSetCommMask(port_.get(), 0, &record_) != 0; }
    bool isIdle() const {
        return record_.dataThread == 0 && record_.modemThread == 0 && record_.dataTrigger == 0 &&
               record_.modemTrigger == 0;
    }
    Fd peer_, port_;
    OverlappedRecord record_ = {};
};

TEST_F(CommportTest, purge) {
    // What was written has reached the peer's side, where a purge of the port no longer gets at it.
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
    EXPECT_TRUE(vllPurgeComm(port_.get(), 3));
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
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
    uint32_t events = 0xFF;
    arm(&events);
    EXPECT_EQ(vllWaitForSingleObject(record_.event, 20), WAIT_TIMEOUT);
    send("a");
    EXPECT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    // The event stands for what has occurred: asked again, it succeeds once.
    EXPECT_TRUE(vllWaitCommEvent(port_.get(), &events, &record_));
    EXPECT_EQ(events, static_cast<uint32_t>(EV_RXCHAR));
    EXPECT_EQ(vllWaitForSingleObject(record_.event, 0), WAIT_TIMEOUT);
    // What is still unread is seen again at once by the next cycle.
    arm(&events);
    EXPECT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_TRUE(stop());
    EXPECT_TRUE(isIdle());
    EXPECT_TRUE(takeErrors().empty());
}

TEST_F(CommportTest, stopping_in_every_state) {
    uint32_t events;
    for (int state = 0; state < 4; ++state) {
        for (const DWORD mask :
             {DWORD{EV_RXCHAR}, DWORD{EV_RXCHAR | EV_CTS}, DWORD{EV_CTS | EV_DSR}, DWORD{0x1000}}) {
            vllResetEvent(record_.event);
            if (state > 0) {
                ASSERT_TRUE(vllSetCommMask(port_.get(), mask, &record_));
            }
            if (state > 1) {
                events = 0;
                arm(&events);
            }
            if (state > 2) {
                send("x");
            }
            EXPECT_TRUE(stop()) << state << " mask " << mask;
            EXPECT_TRUE(isIdle());
            // A pending wait ends.
            EXPECT_EQ(vllWaitForSingleObject(record_.event, 0), WAIT_OBJECT_0);
            if (state == 2) {
                EXPECT_EQ(events, 0U);
            }
            tcflush(port_.get(), TCIFLUSH);
        }
    }
}

TEST_F(CommportTest, set_up_that_fails_half_way) {
    struct Row {
        const char *call;
        int nth, error;
        bool idle;  // nothing was made
    };
    for (const Row &row :
         {Row{"eventfd", 1, EMFILE, true}, Row{"eventfd", 2, EMFILE, false}, Row{"eventfd", 3, EMFILE, false},
          Row{"eventfd", 4, EMFILE, false}, Row{"pthread_create", 1, EAGAIN, false},
          Row{"pthread_create", 2, EAGAIN, false}}) {
        takeLog();
        {
            const FailCall fail(row.call, row.nth, row.error);
            EXPECT_THAT(vllSetCommMask(port_.get(), EV_RXCHAR | EV_CTS, &record_), FailsWith(row.error))
                << row.call << row.nth;
            EXPECT_TRUE(fail.happened());
        }
        EXPECT_EQ(takeErrors().back(), kSetUpFailed);
        EXPECT_EQ(isIdle(), row.idle) << row.call << row.nth;
        if (!row.idle) {
            uint32_t events;
            EXPECT_FALSE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
            EXPECT_THAT(vllWaitCommEvent(port_.get(), &events, &record_), FailsWith(EINVAL));
            EXPECT_FALSE(stop());
            EXPECT_EQ(takeErrors(), (Errors{kSetUpFailed, kSetUpFailed}));
        }
        EXPECT_TRUE(isIdle());
    }
    EXPECT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
    EXPECT_TRUE(stop());
}

TEST_F(CommportTest, a_watcher_that_ended_before_it_was_stopped) {
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
    const HANDLE data = record_.dataThread;
    ASSERT_TRUE(vllTerminateThread(data, 0));
    ASSERT_EQ(vllWaitForSingleObject(data, kLimitMs), WAIT_OBJECT_0);
    EXPECT_THAT(stop(), FailsWith(ESRCH));
    char line[200];
    snprintf(line, sizeof line,
             "VLL: SetCommMask: Failed to terminate WaitCommEvent background threads, data thread handle = "
             "%d, modem "
             "thread handle = %d\n",
             static_cast<int>(data), 0);
    EXPECT_EQ(takeErrors(), Errors{line});
    EXPECT_TRUE(isIdle());
}

TEST_F(CommportTest, two_records_on_one_port) {
    OverlappedRecord second = {};
    second.event = vllCreateEvent(TRUE, FALSE, nullptr);
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &second));
    uint32_t events = 0, second_events = 0;
    arm(&events);
    EXPECT_FALSE(vllWaitCommEvent(port_.get(), &second_events, &second));
    send("a");
    EXPECT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_EQ(vllWaitForSingleObject(second.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_TRUE(stop());
    EXPECT_TRUE(vllSetCommMask(port_.get(), 0, &second));
    vllCloseHandle(second.event);
}

TEST_F(CommportTest, the_peer_hangs_up_while_watchers_block) {
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
    uint32_t events = 0;
    arm(&events);
    peer_.reset();
    EXPECT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_TRUE(stop());
}

TEST_F(CommportTest, bad_arguments) {
    uint32_t events;
    EXPECT_THAT(vllSetCommMask(port_.get(), EV_RXCHAR, nullptr), FailsWith(EINVAL));
    for (OverlappedRecord *record : {static_cast<OverlappedRecord *>(nullptr), &record_}) {
        EXPECT_THAT(vllWaitCommEvent(port_.get(), &events, record), FailsWith(EINVAL));
    }
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR, &record_));
    EXPECT_THAT(vllWaitCommEvent(port_.get(), nullptr, &record_), FailsWith(EINVAL));
    EXPECT_TRUE(stop());
}

// The kernel's serial gadget on the emulated machine: opening and closing the peer raises and drops DSR and
// carrier of the port.
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
    // The lines that follow the peer; CTS is always active on such a port.
    DWORD lines() const {
        DWORD status = 0;
        EXPECT_TRUE(vllGetCommModemStatus(port_.get(), &status));
        EXPECT_EQ(status & MS_CTS_ON, static_cast<DWORD>(MS_CTS_ON));
        return status & ~static_cast<DWORD>(MS_CTS_ON);
    }
    void openPeer() {
        peer_.reset(open("/dev/ttyGS0", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        ASSERT_TRUE(peer_);
        makeRaw(peer_.get());
        ASSERT_TRUE(waitUntil([&] { return lines() == (MS_DSR_ON | MS_RLSD_ON); }));
    }
    void closePeer() {
        peer_.reset();
        ASSERT_TRUE(waitUntil([&] { return lines() == 0; }));
    }
};

TEST_F(ModemLinesTest, status_and_escapes) {
    openPeer();
    EXPECT_EQ(lines(), static_cast<DWORD>(MS_DSR_ON | MS_RLSD_ON));
    for (const DWORD function : {CLRDTR, SETDTR, CLRRTS, SETRTS}) {
        EXPECT_TRUE(vllEscapeCommFunction(port_.get(), function));
    }
    EXPECT_TRUE(vllEscapeCommFunction(port_.get(), CLRDTR));
    int active = 0;
    ioctl(port_.get(), TIOCMGET, &active);
    EXPECT_EQ(active & (TIOCM_DTR | TIOCM_RTS), TIOCM_RTS);
    EXPECT_TRUE(vllEscapeCommFunction(port_.get(), SETDTR));
    closePeer();
}

TEST_F(ModemLinesTest, only_selected_lines_are_reported) {
    for (const DWORD mask : {DWORD{EV_DSR}, DWORD{EV_RLSD}, DWORD{EV_DSR | EV_RLSD | EV_CTS}}) {
        vllResetEvent(record_.event);
        ASSERT_TRUE(vllSetCommMask(port_.get(), mask, &record_));
        uint32_t events = 0;
        arm(&events);
        openPeer();
        ASSERT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
        EXPECT_TRUE(vllWaitCommEvent(port_.get(), &events, &record_));
        EXPECT_NE(events & mask, 0U);
        EXPECT_EQ(events & ~mask, 0U);
        EXPECT_TRUE(stop());
        closePeer();
        EXPECT_TRUE(vllEscapeCommFunction(port_.get(), SETDTR));
    }
}

// However soon a change follows arming, it is reported, and once.
TEST_F(ModemLinesTest, each_change_after_arming_is_reported_once) {
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_DSR, &record_));
    uint32_t events = 0;
    for (int round = 0; round < 50; ++round) {
        arm(&events);
        if (round % 2 == 0) {
            arm(&events);  // the watcher is in a cycle already, or soon
            openPeer();
        } else {
            closePeer();
        }
        ASSERT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0) << round;
        EXPECT_TRUE(vllWaitCommEvent(port_.get(), &events, &record_));
        EXPECT_EQ(events, static_cast<uint32_t>(EV_DSR)) << round;
        if (round % 10 == 0) {
            arm(&events);
            EXPECT_EQ(vllWaitForSingleObject(record_.event, 50), WAIT_TIMEOUT) << round;
        }
    }
    EXPECT_TRUE(stop());
    EXPECT_TRUE(vllEscapeCommFunction(port_.get(), SETDTR));
}

TEST_F(ModemLinesTest, data_and_lines_together) {
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR | EV_DSR, &record_));
    uint32_t events = 0;
    arm(&events);
    openPeer();
    ASSERT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_EQ(events & EV_DSR, static_cast<uint32_t>(EV_DSR));
    vllResetEvent(record_.event);
    send("data");
    // The data watcher is still armed from the first wait.
    EXPECT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_EQ(events & EV_RXCHAR, static_cast<uint32_t>(EV_RXCHAR));
    EXPECT_TRUE(stop());
    EXPECT_TRUE(isIdle());
    EXPECT_TRUE(vllEscapeCommFunction(port_.get(), SETDTR));
    closePeer();
}

TEST_F(ModemLinesTest, stopped_while_the_watcher_waits_for_a_line) {
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(vllSetCommMask(port_.get(), EV_CTS | EV_RING, &record_));
        uint32_t events = 0;
        arm(&events);
        EXPECT_EQ(vllWaitForSingleObject(record_.event, 100), WAIT_TIMEOUT);
        EXPECT_TRUE(stop());
        EXPECT_EQ(events, 0U);
        vllResetEvent(record_.event);
    }
    EXPECT_TRUE(vllEscapeCommFunction(port_.get(), SETDTR));
}

// Takes the port from its driver, as unplugging it does, or gives it back ("unbind", "bind").
void tellDriver(const char *what, const std::string &interface) {
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
    ASSERT_TRUE(vllSetCommMask(port_.get(), EV_RXCHAR | EV_DSR, &record_));
    uint32_t events = 0;
    arm(&events);
    EXPECT_EQ(vllWaitForSingleObject(record_.event, 300), WAIT_TIMEOUT);
    tellDriver("unbind", interface);
    // The hang-up makes the port readable; nothing more can be said of the lines.
    EXPECT_EQ(vllWaitForSingleObject(record_.event, kLimitMs), WAIT_OBJECT_0);
    EXPECT_EQ(events & ~static_cast<uint32_t>(EV_DSR), static_cast<uint32_t>(EV_RXCHAR));
    EXPECT_TRUE(stop());
    EXPECT_TRUE(isIdle());
    port_.reset();
    tellDriver("bind", interface);
    ASSERT_TRUE(waitUntil([&] {
        port_.reset(open("/dev/ttyACM0", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
        return static_cast<bool>(port_);
    })) << strerror(errno);
}

}  // namespace
