#include "wsasockets.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <atomic>
#include <cstring>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class WsaSocketsTest : public LibraryTest {};

constexpr int kAll = FD_READ | FD_WRITE | FD_ACCEPT | FD_CONNECT | FD_CLOSE;

Fd makeSocket(int type = SOCK_STREAM) {
    return Fd(socket(AF_INET, type | SOCK_CLOEXEC, 0));
}

sockaddr_in bindToLoopback(const Fd &socket) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr *>(&address), length), 0);
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr *>(&address), &length), 0);
    return address;
}

int connectTo(const Fd &socket, const sockaddr_in &address) {
    return connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

// A TCP connection over loopback.
struct Connection {
    Connection() : local(makeSocket()) {
        const Fd listener = makeSocket();
        const sockaddr_in address = bindToLoopback(listener);
        EXPECT_EQ(listen(listener.get(), 1), 0);
        EXPECT_EQ(connectTo(local, address), 0);
        peer = Fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_TRUE(peer);
    }
    void sendByPeer(const char *text) {
        EXPECT_EQ(send(peer.get(), text, strlen(text), 0), static_cast<ssize_t>(strlen(text)));
    }
    std::string receive(size_t size = 100) {
        char buffer[100];
        const ssize_t length = recv(local.get(), buffer, std::min(size, sizeof buffer), 0);
        return length < 0 ? "error" : std::string(buffer, static_cast<size_t>(length));
    }
    Fd local, peer;
};

// A socket's selection into an event, cancelled at the end.
struct Selection {
    Selection(const Fd &fd, HANDLE handle, int32_t mask) : socket(fd.get()), event(handle) {
        EXPECT_EQ(vllWSAEventSelect(socket, event, mask, &record), 0);
    }
    // The events that a wait brings, or -1 when none comes in time.
    int32_t next(DWORD timeout_ms = 20000) {
        if (vllWaitForSingleObject(event, timeout_ms) != WAIT_OBJECT_0) {
            return -1;
        }
        EXPECT_EQ(vllWSAEnumNetworkEvents(&record, event, &events), 0);
        return events.lNetworkEvents;
    }
    // Waits until these events have all come, in one or more reports.
    bool collect(int32_t expected) {
        int32_t seen = 0;
        while (seen != expected) {
            const int32_t more = next(20000);
            if (more == -1 || (more & ~expected) != 0) {
                ADD_FAILURE() << "seen " << seen << ", then " << more << " of " << expected;
                return false;
            }
            seen |= more;
        }
        return true;
    }
    const int socket;
    const HANDLE event;
    WSASockData record = {};
    WSANETWORKEVENTS events = {};
};

TEST_F(WsaSocketsTest, layouts) {
    EXPECT_EQ(sizeof(WSASockData), 40U);
    EXPECT_EQ(sizeof(WSANETWORKEVENTS), 24U);
    EXPECT_EQ(sizeof(WSABUF), sizeof(struct iovec));
}

TEST_F(WsaSocketsTest, data_is_reported_as_long_as_it_is_there) {
    for (const BOOL manual : {FALSE, TRUE}) {
        Connection connection;
        const Owned event(vllCreateEvent(manual, FALSE, nullptr));
        Selection selection(connection.local, event, FD_READ | FD_CONNECT | FD_CLOSE);
        EXPECT_EQ(fcntl(connection.local.get(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_TRUE(selection.collect(FD_CONNECT)) << "a new connection can be written to";
        EXPECT_EQ(selection.next(0), -1);
        connection.sendByPeer("ab");
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(selection.next(), FD_READ);
        }
        EXPECT_EQ(connection.receive(1), "a");
        EXPECT_EQ(selection.next(), FD_READ) << "the rest";
        EXPECT_EQ(connection.receive(), "b");
        EXPECT_EQ(selection.next(20), -1);
        EXPECT_EQ(selection.record.state, SOCK_STATE_CONNECTED);
    }
}

TEST_F(WsaSocketsTest, the_first_data_of_a_new_record_also_reports_the_connection) {
    Connection connection;
    const Owned event(MakeManualEvent());
    Selection selection(connection.local, event, FD_READ | FD_CONNECT);
    connection.sendByPeer("x");
    vllWaitForSingleObject(event, 20000);
    EXPECT_TRUE(IsSignalled(event)) << "a manual-reset event stays signalled";
    EXPECT_TRUE(WaitUntil([&] {
        vllWaitForSingleObject(event, 0);
        return (selection.record.lPendingEvents & FD_READ) != 0;
    }));
    EXPECT_EQ(vllWSAEnumNetworkEvents(&selection.record, event, &selection.events), 0);
    EXPECT_EQ(selection.events.lNetworkEvents, FD_READ | FD_CONNECT);
    for (const int32_t code : selection.events.iErrorCode) {
        EXPECT_EQ(code, 0);
    }
    EXPECT_FALSE(vllGetEventFd(event) == -1);
    uint64_t counter;
    EXPECT_EQ(read(vllGetEventFd(event), &counter, sizeof counter), -1) << "enumeration resets the event";
}

TEST_F(WsaSocketsTest, the_wait_blocks_until_activity_comes) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    const Owned other(MakeAutoEvent());
    Selection selection(connection.local, event, FD_READ);
    const HANDLE handles[] = {other, event};
    std::atomic<pid_t> tid{0};
    DWORD result = WAIT_FAILED;
    const auto body = [&] {
        tid = gettid();
        result = vllWaitForMultipleObjects(2, handles, 20000);
    };
    const HANDLE thread = StartThread(body);
    EXPECT_TRUE(WaitUntil([&] { return tid != 0; }));
    EXPECT_TRUE(WaitUntilAsleep(tid));
    connection.sendByPeer("x");
    FinishThread(thread);
    EXPECT_EQ(result, WAIT_OBJECT_0 + 1);
    EXPECT_EQ(selection.record.lPendingEvents, FD_READ);
    EXPECT_EQ(connection.receive(), "x");
    EXPECT_FALSE(IsSignalled(event)) << "an auto-reset event is not left signalled";
}

TEST_F(WsaSocketsTest, accepting) {
    const Fd listener = makeSocket();
    const sockaddr_in address = bindToLoopback(listener);
    ASSERT_EQ(listen(listener.get(), 4), 0);
    const Owned event(MakeAutoEvent());
    Selection selection(listener, event, FD_ACCEPT);
    EXPECT_EQ(selection.next(0), -1);
    const Fd first = makeSocket(), second = makeSocket();
    EXPECT_EQ(connectTo(first, address), 0);
    EXPECT_EQ(connectTo(second, address), 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(selection.next(), FD_ACCEPT);
        EXPECT_EQ(selection.record.state, SOCK_STATE_NOT_CONNECTED);
        EXPECT_TRUE(Fd(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    }
    EXPECT_EQ(selection.next(0), -1);
}

TEST_F(WsaSocketsTest, connecting_and_the_room_to_write_once) {
    const Fd listener = makeSocket();
    const sockaddr_in address = bindToLoopback(listener);
    ASSERT_EQ(listen(listener.get(), 4), 0);
    const Fd socket = makeSocket();
    ASSERT_EQ(fcntl(socket.get(), F_SETFL, O_NONBLOCK), 0);
    connectTo(socket, address);
    const Owned event(MakeAutoEvent());
    Selection selection(socket, event, FD_CONNECT | FD_WRITE);
    EXPECT_EQ(selection.next(), FD_CONNECT | FD_WRITE);
    EXPECT_EQ(selection.events.iErrorCode[FD_CONNECT_BIT], 0);
    EXPECT_EQ(selection.record.state, SOCK_STATE_CONNECTED);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(selection.next(10), -1);
        vllWSAEnableWriteEvent(&selection.record);
        EXPECT_EQ(selection.next(), FD_WRITE);
    }
    vllWSAReactivate(&selection.record);
    vllWSAReactivate(nullptr);
    EXPECT_EQ(selection.next(0), -1);
    EXPECT_EQ(TakeLog().size(), 0U);
}

TEST_F(WsaSocketsTest, enabling_keeps_reading_and_accepting_selected) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    Selection selection(connection.local, event, FD_READ | FD_CONNECT);
    EXPECT_EQ(selection.next(), FD_CONNECT);
    vllWSAEnableWriteEvent(&selection.record);
    EXPECT_EQ(selection.next(10), -1) << "connected, and writing is not selected";
    connection.sendByPeer("x");
    EXPECT_EQ(selection.next(), FD_READ);
}

TEST_F(WsaSocketsTest, a_refused_connection_tells_its_error_with_the_connect) {
    for (const int32_t mask : {FD_CONNECT | FD_CLOSE, FD_CONNECT | FD_WRITE, kAll}) {
        sockaddr_in address;
        {
            const Fd nobody = makeSocket();  // its port refuses
            address = bindToLoopback(nobody);
        }
        const Fd socket = makeSocket();
        ASSERT_EQ(fcntl(socket.get(), F_SETFL, O_NONBLOCK), 0);
        connectTo(socket, address);
        const Owned event(MakeAutoEvent());
        Selection selection(socket, event, mask);
        const int32_t events = selection.next();
        EXPECT_EQ(events & (FD_CONNECT | FD_CLOSE), mask & (FD_CONNECT | FD_CLOSE));
        EXPECT_EQ(events & FD_WRITE, 0);
        EXPECT_EQ(selection.events.iErrorCode[FD_CONNECT_BIT], ECONNREFUSED);
        EXPECT_EQ(selection.record.state, SOCK_STATE_CLOSED);
        EXPECT_EQ(selection.next(10), -1) << "left the set";
    }
}

TEST_F(WsaSocketsTest, a_reset_makes_all_selected_events_pending_without_codes) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    Selection selection(connection.local, event, FD_READ | FD_CONNECT | FD_CLOSE);
    EXPECT_EQ(selection.next(), FD_CONNECT);
    selection.record.iErrorCode[FD_CLOSE_BIT] = 99;
    const linger at_once = {1, 0};
    ASSERT_EQ(setsockopt(connection.peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), 0);
    connection.peer.reset();
    EXPECT_EQ(selection.next(), FD_READ | FD_CONNECT | FD_CLOSE);
    EXPECT_EQ(selection.events.iErrorCode[FD_READ_BIT], 0);
    EXPECT_EQ(selection.events.iErrorCode[FD_CLOSE_BIT], 99) << "left as it was";
    EXPECT_EQ(selection.record.state, SOCK_STATE_CLOSED);
    EXPECT_EQ(selection.next(10), -1);
}

TEST_F(WsaSocketsTest, unread_data_is_reported_before_the_close) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    Selection selection(connection.local, event, FD_READ | FD_CLOSE);
    connection.sendByPeer("last words");
    connection.peer.reset();
    EXPECT_EQ(selection.next(), FD_READ);
    EXPECT_EQ(selection.next(), FD_READ);
    EXPECT_EQ(connection.receive(), "last words");
    EXPECT_EQ(selection.next(), FD_CLOSE);
    EXPECT_EQ(selection.record.state, SOCK_STATE_CLOSED);
    EXPECT_EQ(selection.next(10), -1) << "no longer wakes the event";
}

TEST_F(WsaSocketsTest, a_hang_up_with_unread_data_reports_both_and_stays_closed) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    Selection selection(connection.local, event, FD_READ | FD_CONNECT | FD_WRITE | FD_CLOSE);
    EXPECT_EQ(selection.next(), FD_CONNECT | FD_WRITE);
    connection.sendByPeer("x");
    connection.peer.reset();
    EXPECT_EQ(shutdown(connection.local.get(), SHUT_WR), 0);
    int32_t seen = 0;
    while ((seen & FD_CLOSE) == 0) {
        const int32_t more = selection.next();
        ASSERT_NE(more, -1);
        seen |= more;
    }
    EXPECT_EQ(seen, FD_READ | FD_CLOSE);
    EXPECT_EQ(selection.record.state, SOCK_STATE_CLOSED);
    EXPECT_EQ(connection.receive(), "x");
    EXPECT_EQ(selection.next(10), -1);
}

TEST_F(WsaSocketsTest, datagrams_without_bytes_are_data) {
    const Fd receiver = makeSocket(SOCK_DGRAM), sender = makeSocket(SOCK_DGRAM);
    const sockaddr_in address = bindToLoopback(receiver);
    const sockaddr_in from = bindToLoopback(sender);
    const Owned event(MakeAutoEvent());
    Selection selection(receiver, event, FD_READ | FD_CLOSE);
    const auto *to = reinterpret_cast<const sockaddr *>(&address);
    char buffer[8] = {};
    for (const char *text : {"", "abc", ""}) {
        const WSABUF out = {const_cast<char *>(text), static_cast<SIZE_T>(strlen(text))};
        DWORD count = 99;
        ASSERT_EQ(vllWSASendTo(sender.get(), &out, 1, &count, to, sizeof address), 0);
        EXPECT_EQ(count, strlen(text));
        EXPECT_EQ(selection.next(), FD_READ);
        EXPECT_EQ(selection.record.state, SOCK_STATE_CONNECTED);
        const WSABUF in[] = {{buffer, 1}, {buffer + 1, sizeof buffer - 1}};
        sockaddr_storage seen = {};
        int32_t length = sizeof seen;
        EXPECT_EQ(vllWSARecvFrom(receiver.get(), in, 2, &count, reinterpret_cast<sockaddr *>(&seen), &length),
                  0);
        EXPECT_EQ(std::string(buffer, count), text);
        EXPECT_EQ(length, static_cast<int32_t>(sizeof from));
        EXPECT_EQ(memcmp(&seen, &from, sizeof from), 0);
    }
    EXPECT_EQ(selection.next(0), -1);
}

TEST_F(WsaSocketsTest, reselection_moves_the_socket_and_keeps_what_is_pending) {
    Connection connection;
    const Owned first(MakeAutoEvent()), second(MakeAutoEvent());
    Selection selection(connection.local, first, FD_READ);
    connection.sendByPeer("x");
    EXPECT_EQ(vllWaitForSingleObject(first, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(selection.record.lPendingEvents, FD_READ);
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), second, FD_READ | FD_CLOSE, &selection.record), 0);
    EXPECT_EQ(selection.record.lPendingEvents, FD_READ);
    EXPECT_EQ(selection.record.state, SOCK_STATE_NONE);
    EXPECT_EQ(selection.record.hEventObject, HANDLE{second});
    EXPECT_FALSE(IsSignalled(first));
    EXPECT_TRUE(IsSignalled(second));
}

TEST_F(WsaSocketsTest, a_record_taken_over_by_another_socket_loses_the_old_one_silently) {
    Connection one, two;
    const Owned event(MakeAutoEvent());
    Selection selection(one.local, event, FD_READ);
    one.sendByPeer("x");
    EXPECT_TRUE(IsSignalled(event) || vllWaitForSingleObject(event, 20000) == WAIT_OBJECT_0);
    EXPECT_EQ(vllWSAEventSelect(two.local.get(), event, FD_READ, &selection.record), 0);
    EXPECT_EQ(selection.record.lPendingEvents, 0);
    EXPECT_FALSE(IsSignalled(event)) << "the old socket still has data";
    two.sendByPeer("y");
    EXPECT_EQ(selection.next(), FD_READ);
    // Also when the old event is gone, or was never reached.
    Owned gone(MakeAutoEvent());
    EXPECT_EQ(vllWSAEventSelect(two.local.get(), gone, FD_READ, &selection.record), 0);
    vllCloseHandle(gone.release());
    EXPECT_EQ(vllWSAEventSelect(one.local.get(), event, FD_READ, &selection.record), 0);
    EXPECT_EQ(selection.next(), FD_READ);
    EXPECT_EQ(TakeLog().size(), 0U);
}

TEST_F(WsaSocketsTest, two_sockets_in_one_event_both_come_through) {
    Connection one, two;
    const Owned event(MakeAutoEvent());
    Selection first(one.local, event, FD_READ), second(two.local, event, FD_READ);
    one.sendByPeer("x");
    two.sendByPeer("y");
    EXPECT_TRUE(WaitUntil([&] {
        vllWaitForSingleObject(event, 100);
        return first.record.lPendingEvents == FD_READ && second.record.lPendingEvents == FD_READ;
    })) << "neither starves the other";
    EXPECT_EQ(vllWSAEventSelect(one.local.get(), event, 0, &first.record), 0);
    EXPECT_TRUE(IsSignalled(event));
    EXPECT_EQ(two.receive(), "y");
    EXPECT_FALSE(IsSignalled(event));
}

TEST_F(WsaSocketsTest, an_event_closed_while_a_socket_is_selected) {
    Connection connection;
    Owned event(MakeAutoEvent());
    Selection selection(connection.local, event, FD_READ);
    EXPECT_TRUE(vllCloseHandle(event.release()));
    connection.sendByPeer("x");
    char line[80];
    snprintf(line, sizeof line, "VLLI: OpenObject( 0x%X ): Unused handle! \n", selection.event);
    vllWSAEnableWriteEvent(&selection.record);
    EXPECT_EQ(TakeErrors(), (Errors{line, "VLLI: WSAEnableWriteEvent: S" + std::to_string(selection.socket) +
                                              " unable to open E000" + std::string(line + 20, 5) + "\n"}));
    errno = 0;
    EXPECT_EQ(vllWSAEnumNetworkEvents(&selection.record, selection.event, &selection.events), SOCKET_ERROR);
    EXPECT_EQ(errno, EINVAL);
    const Owned other(MakeAutoEvent());
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), other, FD_READ, &selection.record), 0);
    EXPECT_TRUE(IsSignalled(other));
    TakeErrors();
}

TEST_F(WsaSocketsTest, cancelling) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    Selection selection(connection.local, event, FD_READ | FD_CLOSE);
    connection.sendByPeer("x");
    EXPECT_EQ(selection.next(), FD_READ);
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), event, 0, &selection.record), 0);
    EXPECT_EQ(selection.next(10), -1);
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), event, 0, &selection.record), 0) << "left already";
    WSASockData fresh = {};
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), event, 0, &fresh), 0) << "never selected";
    EXPECT_EQ(TakeLog().size(), 0U);
}

TEST_F(WsaSocketsTest, bad_arguments) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    const Owned timer(vllCreateWaitableTimer(nullptr));
    WSASockData record = {};
    for (const int32_t mask : {32, -1, 0x40000001}) {
        char line[64];
        snprintf(line, sizeof line, "VLLI: WSAEventSelect: lNetworkEvent = 0x%08X\n",
                 static_cast<unsigned>(mask));
        errno = 0;
        EXPECT_EQ(vllWSAEventSelect(connection.local.get(), event, mask, &record), SOCKET_ERROR);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(TakeErrors(), Errors{line});
    }
    const int width = 2 * static_cast<int>(sizeof(void *));
    for (const HANDLE handle : {HANDLE{timer}, HANDLE{0}}) {
        char line[96];
        snprintf(line, sizeof line, "VLLI: WSAEventSelect: hEventObject = 0x%08X, event = 0x%0*X\n", handle,
                 sizeof(void *) == 4 ? width : 8, 0U);
        errno = 0;
        EXPECT_EQ(vllWSAEventSelect(connection.local.get(), handle, FD_READ, &record), SOCKET_ERROR);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(TakeErrors(), Errors{line});
    }
    errno = 0;
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), event, FD_READ, nullptr), SOCKET_ERROR);
    EXPECT_EQ(errno, EINVAL);

    WSANETWORKEVENTS events;
    const Owned other(MakeAutoEvent(TRUE));
    Selection selection(connection.local, event, FD_READ);
    selection.record.lPendingEvents = FD_READ;
    errno = 0;
    EXPECT_EQ(vllWSAEnumNetworkEvents(&selection.record, other, &events), SOCKET_ERROR) << "a foreign event";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(events.lNetworkEvents, 0);
    EXPECT_TRUE(IsSignalled(other)) << "not reset";
    EXPECT_EQ(vllWSAEnumNetworkEvents(nullptr, event, &events), SOCKET_ERROR);
    EXPECT_EQ(vllWSAEnumNetworkEvents(&selection.record, event, nullptr), SOCKET_ERROR);
    vllSetEvent(event);
    EXPECT_EQ(vllWSAEnumNetworkEvents(&selection.record, timer, &events), 0) << "no event: nothing is reset";
    EXPECT_EQ(events.lNetworkEvents, FD_READ);
    EXPECT_TRUE(IsSignalled(event));
    EXPECT_EQ(TakeErrors(), Errors{});
    vllWSAEnableWriteEvent(nullptr);
    EXPECT_EQ(TakeErrors(), Errors{"VLLI: WSAEnableWriteEvent: WSASockData == NULL\n"});
}

TEST_F(WsaSocketsTest, enumeration_hands_over_only_what_is_selected) {
    Connection connection;
    const Owned event(MakeManualEvent());
    Selection selection(connection.local, event, FD_READ | FD_CLOSE);
    selection.record.lPendingEvents = FD_READ | FD_WRITE;
    selection.record.iErrorCode[FD_READ_BIT] = 7;
    selection.record.iErrorCode[FD_WRITE_BIT] = 8;
    EXPECT_EQ(vllWSAEnumNetworkEvents(&selection.record, event, &selection.events), 0);
    EXPECT_EQ(selection.events.lNetworkEvents, FD_READ);
    EXPECT_EQ(selection.events.iErrorCode[FD_READ_BIT], 7);
    EXPECT_EQ(selection.events.iErrorCode[FD_WRITE_BIT], 0);
    EXPECT_EQ(selection.record.lPendingEvents, FD_WRITE);
    EXPECT_EQ(selection.record.iErrorCode[FD_READ_BIT], 0);
    EXPECT_EQ(selection.record.iErrorCode[FD_WRITE_BIT], 8);
}

TEST_F(WsaSocketsTest, failing_calls_of_a_selection) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    const std::string lead = "VLLI: WSAEventSelect: ";
    const std::string of =
        "epoll_ctl( event->efd = " + std::to_string(vlliGetObjectAddress(event)->efd) + ", EPOLL_CTL_";
    const std::string sock = ", sock = " + std::to_string(connection.local.get());
    WSASockData record = {};
    record.lPendingEvents = FD_READ;
    const Failure failures[] = {
        {"fcntl64", 1, EBADF, {lead + "fcntl (sock, F_SETFL, O_NONBLOCK) == -1, errno = 9\n"}},
        {"epoll_ctl", 1, ENOSPC, {lead + of + "ADD" + sock + ", &eevent ) = -1, errno = 28\n"}},
    };
    for (const Failure &failure : failures) {
        ExpectFailure(
            failure, [&] { return vllWSAEventSelect(connection.local.get(), event, FD_READ, &record); },
            SOCKET_ERROR);
        EXPECT_EQ(record.socket, 0);
        EXPECT_EQ(record.hEventObject, 0U);
        EXPECT_EQ(record.lPendingEvents, 0);
    }
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), event, FD_READ, &record), 0);
    const std::string removal = lead + of + "DEL" + sock + ", NULL ) = -1, errno = 12\n";
    ExpectFailure(
        {"epoll_ctl", 1, ENOMEM, {removal}},
        [&] { return vllWSAEventSelect(connection.local.get(), event, 0, &record); }, SOCKET_ERROR);
    const std::string busy = lead + of + "ADD" + sock + ", &eevent ) = -1, errno = 17\n";
    WSASockData second = {};
    errno = 0;
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), event, FD_READ, &second), SOCKET_ERROR);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(TakeErrors(), Errors{busy});
    {
        const FailCall fail("epoll_ctl", 1, ENOMEM);
        vllWSAEnableWriteEvent(&record);
    }
    EXPECT_EQ(TakeErrors(), Errors{"VLLI: WSAEnableWriteEvent: " + of +
                                   "MOD, WSASockData->socket = " + std::to_string(connection.local.get()) +
                                   ", &eevent ) = -1, errno = 12\n"});
    errno = 0;
    EXPECT_EQ(vllWSAEventSelect(-1, event, FD_READ, &second), SOCKET_ERROR);
    EXPECT_EQ(errno, EBADF);
    TakeErrors();
}

// Readiness as the set would report it, also where the kernel cannot be made to.
TEST_F(WsaSocketsTest, processing_table) {
    const struct {
        const char *what;
        uint32_t readiness;
        int32_t mask, pending, state;
        const char *call;  // made to fail
        int error;
        int32_t pending_after, state_after;
        int bit, code;
        bool leaves;
    } rows[] = {
        {"error whose code cannot be read", EPOLLERR, FD_READ | FD_CLOSE, 0, 2, "getsockopt", ENOBUFS,
         FD_READ | FD_CLOSE, 2, FD_READ_BIT, ENOBUFS, false},
        {"error and hang-up", EPOLLERR | EPOLLHUP | EPOLLIN, FD_WRITE | FD_CLOSE, FD_WRITE, 2, "getsockopt",
         ETIMEDOUT, FD_CLOSE, 3, FD_CLOSE_BIT, ETIMEDOUT, true},
        {"reset", EPOLLERR, FD_READ, 0, 2, "getsockopt", ECONNRESET, FD_READ, 2, FD_READ_BIT, 0, false},
        {"hang-up", EPOLLHUP, FD_CLOSE | FD_WRITE, FD_WRITE, 2, nullptr, 0, FD_CLOSE, 3, 0, 0, true},
        {"hang-up not selected", EPOLLHUP, FD_WRITE, FD_WRITE, 2, nullptr, 0, 0, 3, 0, 0, true},
        {"hang-up once closed", EPOLLHUP, FD_CLOSE, 0, 3, nullptr, 0, 0, 3, 0, 0, false},
        {"reading fails", EPOLLIN, FD_READ | FD_CLOSE, 0, 2, "recv", EIO, FD_READ, 2, FD_READ_BIT, EIO,
         false},
        {"reading fails, not selected", EPOLLIN, FD_CLOSE, 0, 2, "recv", EIO, 0, 2, FD_READ_BIT, 0, false},
        {"not connected", EPOLLPRI, FD_ACCEPT | FD_READ | FD_WRITE, FD_READ | FD_WRITE, 0, "recv", ENOTCONN,
         FD_ACCEPT, 1, 0, 0, false},
        {"writable, error", EPOLLOUT, FD_CONNECT | FD_CLOSE | FD_WRITE, FD_WRITE, 0, "getsockopt",
         EHOSTUNREACH, FD_CONNECT | FD_CLOSE, 3, FD_CONNECT_BIT, EHOSTUNREACH, true},
        {"writable once closed", EPOLLOUT, FD_WRITE, 0, 3, nullptr, 0, 0, 3, 0, 0, false},
        {"writable", EPOLLOUT, FD_CONNECT | FD_WRITE, 0, 1, nullptr, 0, FD_CONNECT | FD_WRITE, 2, 0, 0,
         false},
        {"writable again", EPOLLOUT, FD_CONNECT | FD_WRITE, 0, 2, nullptr, 0, FD_WRITE, 2, 0, 0, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Connection connection;
        const Owned event(MakeAutoEvent());
        Selection selection(connection.local, event, row.mask);
        selection.record.lPendingEvents = row.pending;
        selection.record.state = row.state;
        {
            const FailCall fail(row.call != nullptr ? row.call : "poll", row.call != nullptr ? 1 : 1000,
                                row.error);
            errno = 77;
            vlliWsaProcessNetworkEvents(&selection.record, vlliGetObjectAddress(event), row.readiness);
            EXPECT_EQ(errno, 77);
            EXPECT_EQ(fail.happened(), row.call != nullptr);
        }
        EXPECT_EQ(selection.record.lPendingEvents, row.pending_after);
        EXPECT_EQ(selection.record.state, row.state_after);
        EXPECT_EQ(selection.record.iErrorCode[row.bit], row.code);
        epoll_event change = {};
        const int result =
            epoll_ctl(vlliGetObjectAddress(event)->efd, EPOLL_CTL_MOD, selection.socket, &change);
        EXPECT_EQ(result == -1, row.leaves);
        EXPECT_EQ(TakeErrors(), Errors{});
    }
}

TEST_F(WsaSocketsTest, failing_calls_of_a_wait) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    ObjectRecord *record = vlliGetObjectAddress(event);
    Selection selection(connection.local, event, FD_WRITE | FD_CLOSE);
    const std::string at =
        "VLLI: WsaProcessNetworkEvents: epoll_ctl( vevent->efd = " + std::to_string(record->efd) +
        ", EPOLL_CTL_";
    const std::string socket = ", pWsaSockData->socket = " + std::to_string(connection.local.get());
    const struct {
        uint32_t readiness;
        std::string line;
    } rows[] = {{EPOLLOUT, at + "MOD" + socket + ", EPOLLIN ) = -1, errno = 12\n"},
                {EPOLLHUP, at + "DEL" + socket + ", NULL ) = -1, errno = 12\n"}};
    for (const auto &row : rows) {
        const FailCall fail("epoll_ctl", 1, ENOMEM);
        vlliWsaProcessNetworkEvents(&selection.record, record, row.readiness);
        EXPECT_EQ(TakeErrors(), Errors{row.line});
    }
    // The event's set cannot be asked.
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), event, 0, &selection.record), 0);
    Connection fresh;
    Selection readable(fresh.local, event, FD_READ);
    fresh.sendByPeer("x");
    EXPECT_EQ(readable.next(), FD_READ);
    EXPECT_EQ(References(event), 1);
    ExpectFailure(
        {"epoll_wait", 1, EFAULT, {}}, [&] { return vllWaitForSingleObject(event, 0); }, WAIT_FAILED);
    EXPECT_EQ(References(event), 1);
    const FailCall interrupted("epoll_wait", 1, EINTR);
    EXPECT_EQ(readable.next(0), FD_READ);
    TakeErrors();
}

// Activity that is gone again when the wait looks at it: a notice, and the event is reported.
TEST_F(WsaSocketsTest, a_false_alarm_is_noticed) {
    Connection connection;
    const Owned event(MakeAutoEvent());
    Selection selection(connection.local, event, FD_READ);
    std::atomic<bool> stop{false};
    const auto body = [&] {
        while (!stop) {
            send(connection.peer.get(), "x", 1, 0);
            connection.receive();
        }
    };
    const HANDLE thread = StartThread(body);
    char line[80];
    snprintf(line, sizeof line, "VLL: WaitForMultipleObjects: False alarm, E%08X\n", HANDLE{event});
    bool noticed = false;
    EXPECT_TRUE(WaitUntil(
        [&] {
            for (int i = 0; i < 200; ++i) {
                const DWORD result = vllWaitForSingleObject(event, 1);
                EXPECT_TRUE(result == WAIT_OBJECT_0 || result == WAIT_TIMEOUT);
            }
            for (const LogLine &entry : TakeLog()) {
                EXPECT_EQ(entry.text, line);
                noticed = true;
            }
            return noticed;
        },
        60000));
    stop = true;
    FinishThread(thread);
    TakeLog();
}

TEST_F(WsaSocketsTest, scatter_and_gather) {
    Connection connection;
    char hello[] = "hello ", world[] = "world", in1[4], in2[20];
    const WSABUF out[] = {{hello, 6}, {world, 5}};
    const WSABUF in[] = {{in1, sizeof in1}, {in2, sizeof in2}};
    DWORD count = 0;
    EXPECT_EQ(vllWSASend(connection.peer.get(), out, 2, &count), 0);
    EXPECT_EQ(count, 11U);
    int32_t length = 5;
    EXPECT_EQ(vllWSARecvFrom(connection.local.get(), in, 2, &count, nullptr, nullptr), 0);
    EXPECT_EQ(std::string(in1, 4) + std::string(in2, count - 4), "hello world");
    EXPECT_EQ(vllWSASend(connection.peer.get(), out, 1, nullptr), 0);
    EXPECT_EQ(vllWSARecvFrom(connection.local.get(), in, 2, nullptr, nullptr, &length), 0);
    for (const int fd : {-1, 1000}) {
        count = 99;
        errno = 0;
        EXPECT_EQ(vllWSASend(fd, out, 2, &count), SOCKET_ERROR);
        EXPECT_EQ(errno, EBADF);
        errno = 0;
        EXPECT_EQ(vllWSARecvFrom(fd, in, 2, &count, nullptr, nullptr), SOCKET_ERROR);
        EXPECT_EQ(errno, EBADF);
        EXPECT_EQ(count, 99U);
    }
}

}  // namespace
