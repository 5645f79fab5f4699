#include "net/wsasockets.h"
#include "base/descriptor.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <syslog.h>
#include <unistd.h>
#include <cstring>
#include <optional>

#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
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

Fd makeNonBlocking() {
    return Fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

int connectTo(const Fd &socket, const sockaddr_in &address) {
    return connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
}

// A listening TCP socket on loopback.
struct Listener {
    Listener() : socket(makeSocket()), address(bindToLoopback(socket)) {
        EXPECT_EQ(listen(socket.get(), 4), 0);
    }
    Fd accept() const { return Fd(accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC)); }
    const Fd socket;
    const sockaddr_in address;
};

// A TCP connection over loopback.
struct Connection {
    Connection() : local(makeSocket()) {
        const Listener listener;
        EXPECT_EQ(connectTo(local, listener.address), 0);
        peer = listener.accept();
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
        EXPECT_EQ(select(mask), 0);
    }
    int32_t select(int32_t mask) { return vllWSAEventSelect(socket, event, mask, &record); }
    // The events that a wait brings, or -1 when none comes in time.
    int32_t next(DWORD timeout_ms = 20000) {
        if (vllWaitForSingleObject(event, timeout_ms) != WAIT_OBJECT_0) {
            return -1;
        }
        EXPECT_EQ(vllWSAEnumNetworkEvents(&record, event, &events), 0);
        return events.lNetworkEvents;
    }
    const int socket;
    const HANDLE event;
    WSASockData record = {};
    WSANETWORKEVENTS events = {};
};

struct OwnEvent {
    explicit OwnEvent(BOOL manual) : owned(vllCreateEvent(manual, FALSE, nullptr)) {}
    Owned owned;
};

// A connection whose local end is selected into an event of its own.
struct SelectedConnection : Connection, OwnEvent, Selection {
    explicit SelectedConnection(int32_t mask, BOOL manual = FALSE)
        : OwnEvent(manual), Selection(local, owned, mask) {}
};

TEST_F(WsaSocketsTest, data_is_reported_as_long_as_it_is_there) {
    for (const BOOL manual : {FALSE, TRUE}) {
        SelectedConnection selection(FD_READ | FD_CONNECT | FD_CLOSE, manual);
        EXPECT_EQ(fcntl(selection.socket, F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        EXPECT_EQ(selection.next(), FD_CONNECT) << "a new connection can be written to";
        EXPECT_EQ(selection.next(0), -1);
        selection.sendByPeer("ab");
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(selection.next(), FD_READ);
        }
        EXPECT_EQ(selection.receive(1), "a");
        EXPECT_EQ(selection.next(), FD_READ) << "the rest";
        EXPECT_EQ(selection.receive(), "b");
        EXPECT_EQ(selection.next(20), -1);
        EXPECT_EQ(selection.record.state, SOCK_STATE_CONNECTED);
    }
}

TEST_F(WsaSocketsTest, the_first_data_of_a_new_record_also_reports_the_connection) {
    SelectedConnection selection(FD_READ, TRUE);
    selection.record.lNetworkEvents |= FD_CONNECT;  // without the room to write, which would tell it first
    selection.sendByPeer("x");
    EXPECT_EQ(vllWaitForSingleObject(selection.event, 20000), WAIT_OBJECT_0);
    pollfd signalled = {vllGetEventFd(selection.event), POLLIN, 0};
    EXPECT_EQ(poll(&signalled, 1, 0), 1) << "a manual-reset event stays signalled";
    EXPECT_EQ(selection.next(), FD_READ | FD_CONNECT);
    EXPECT_EQ(selection.events.iErrorCode[FD_READ_BIT], 0);
    EXPECT_EQ(selection.events.iErrorCode[FD_CONNECT_BIT], 0);
    EXPECT_EQ(poll(&signalled, 1, 0), 0) << "enumeration resets the event";
}

TEST_F(WsaSocketsTest, the_wait_blocks_until_activity_comes) {
    Connection connection;
    const Owned event(makeAutoEvent()), other(makeAutoEvent());
    Selection selection(connection.local, event, FD_READ);
    const HANDLE handles[] = {other, event};
    DWORD result = WAIT_FAILED;
    Sleeper waiter([&] { result = vllWaitForMultipleObjects(2, handles, 20000); });
    connection.sendByPeer("x");
    waiter.finish();
    EXPECT_EQ(result, WAIT_OBJECT_0 + 1);
    EXPECT_EQ(selection.record.lPendingEvents, FD_READ);
    EXPECT_EQ(connection.receive(), "x");
    EXPECT_FALSE(isSignalled(event)) << "an auto-reset event is not left signalled";
}

TEST_F(WsaSocketsTest, accepting) {
    const Listener listener;
    const Owned event(makeAutoEvent());
    Selection selection(listener.socket, event, FD_ACCEPT);
    EXPECT_EQ(selection.next(0), -1);
    const Fd first = makeSocket(), second = makeSocket();
    EXPECT_EQ(connectTo(first, listener.address), 0);
    EXPECT_EQ(connectTo(second, listener.address), 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(selection.next(), FD_ACCEPT);
        EXPECT_EQ(selection.record.state, SOCK_STATE_NOT_CONNECTED);
        EXPECT_TRUE(listener.accept());
    }
    EXPECT_EQ(selection.next(0), -1);
}

TEST_F(WsaSocketsTest, connecting_and_the_room_to_write_once) {
    const Listener listener;
    const Fd socket = makeNonBlocking();
    connectTo(socket, listener.address);
    const Owned event(makeAutoEvent());
    Selection selection(socket, event, FD_CONNECT | FD_WRITE | FD_READ);
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
    selection.record.lNetworkEvents = FD_CONNECT | FD_READ;
    vllWSAEnableWriteEvent(&selection.record);
    EXPECT_EQ(selection.next(10), -1) << "connected, and writing is not selected";
    EXPECT_EQ(send(listener.accept().get(), "x", 1, 0), 1);
    EXPECT_EQ(selection.next(), FD_READ);
    EXPECT_EQ(takeLog().size(), 0U);
}

TEST_F(WsaSocketsTest, a_refused_connection_tells_its_error_with_the_connect) {
    for (const int32_t mask : {FD_CONNECT | FD_CLOSE, FD_CONNECT | FD_WRITE, kAll}) {
        sockaddr_in address;
        {
            const Fd nobody = makeSocket();  // its port refuses
            address = bindToLoopback(nobody);
        }
        const Fd socket = makeNonBlocking();
        connectTo(socket, address);
        const Owned event(makeAutoEvent());
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
    SelectedConnection selection(FD_READ | FD_CONNECT | FD_CLOSE);
    EXPECT_EQ(selection.next(), FD_CONNECT);
    selection.record.iErrorCode[FD_CLOSE_BIT] = 99;
    const linger at_once = {1, 0};
    ASSERT_EQ(setsockopt(selection.peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), 0);
    selection.peer.reset();
    EXPECT_EQ(selection.next(), FD_READ | FD_CONNECT | FD_CLOSE);
    EXPECT_EQ(selection.events.iErrorCode[FD_READ_BIT], 0);
    EXPECT_EQ(selection.events.iErrorCode[FD_CLOSE_BIT], 99) << "left as it was";
    EXPECT_EQ(selection.record.state, SOCK_STATE_CLOSED);
    EXPECT_EQ(selection.next(10), -1);
}

// The peer has closed; whether that also hangs up the socket depends on its own direction.
TEST_F(WsaSocketsTest, unread_data_is_reported_before_the_close_or_with_it) {
    for (const bool hang_up : {false, true}) {
        SelectedConnection selection(FD_READ | FD_CONNECT | FD_WRITE | FD_CLOSE);
        EXPECT_EQ(selection.next(), FD_CONNECT | FD_WRITE);
        selection.sendByPeer("last words");
        EXPECT_EQ(selection.next(), FD_READ);
        selection.peer.reset();
        if (hang_up) {
            EXPECT_EQ(shutdown(selection.socket, SHUT_WR), 0);
            EXPECT_TRUE(waitUntil([&] {
                EXPECT_NE(selection.next(), -1);
                return (selection.events.lNetworkEvents & FD_CLOSE) != 0;
            }));
            EXPECT_EQ(selection.events.lNetworkEvents, FD_READ | FD_CLOSE);
            EXPECT_EQ(selection.receive(), "last words");
        } else {
            EXPECT_EQ(selection.next(), FD_READ);
            EXPECT_EQ(selection.receive(), "last words");
            EXPECT_EQ(selection.next(), FD_CLOSE);
        }
        EXPECT_EQ(selection.record.state, SOCK_STATE_CLOSED);
        EXPECT_EQ(selection.next(10), -1) << "no longer wakes the event";
    }
}

TEST_F(WsaSocketsTest, datagrams_without_bytes_are_data) {
    const Fd receiver = makeSocket(SOCK_DGRAM), sender = makeSocket(SOCK_DGRAM);
    const sockaddr_in address = bindToLoopback(receiver);
    const sockaddr_in from = bindToLoopback(sender);
    const Owned event(makeAutoEvent());
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
    const Owned first(makeAutoEvent()), second(makeAutoEvent());
    Selection selection(connection.local, first, FD_READ);
    connection.sendByPeer("x");
    EXPECT_EQ(vllWaitForSingleObject(first, 20000), WAIT_OBJECT_0);
    EXPECT_EQ(selection.record.lPendingEvents, FD_READ);
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), second, FD_READ | FD_CLOSE, &selection.record), 0);
    EXPECT_EQ(selection.record.lPendingEvents, FD_READ);
    EXPECT_EQ(selection.record.state, SOCK_STATE_NONE);
    EXPECT_EQ(selection.record.hEventObject, HANDLE{second});
    EXPECT_FALSE(isSignalled(first));
    EXPECT_TRUE(isSignalled(second));
}

TEST_F(WsaSocketsTest, a_record_taken_over_by_another_socket_loses_the_old_one_silently) {
    Connection one, two;
    const Owned event(makeAutoEvent());
    Selection selection(one.local, event, FD_READ);
    one.sendByPeer("x");
    EXPECT_TRUE(isSignalled(event) || vllWaitForSingleObject(event, 20000) == WAIT_OBJECT_0);
    EXPECT_EQ(vllWSAEventSelect(two.local.get(), event, FD_READ, &selection.record), 0);
    EXPECT_EQ(selection.record.lPendingEvents, 0);
    EXPECT_FALSE(isSignalled(event)) << "the old socket still has data";
    two.sendByPeer("y");
    EXPECT_EQ(selection.next(), FD_READ);
    // Also when the old event is gone, or was never reached.
    Owned gone(makeAutoEvent());
    EXPECT_EQ(vllWSAEventSelect(two.local.get(), gone, FD_READ, &selection.record), 0);
    vllCloseHandle(gone.release());
    EXPECT_EQ(vllWSAEventSelect(one.local.get(), event, FD_READ, &selection.record), 0);
    EXPECT_EQ(selection.next(), FD_READ);
    EXPECT_EQ(takeLog().size(), 0U);
}

// The number of a closed socket may come again, in another record.
TEST_F(WsaSocketsTest, a_record_whose_socket_was_closed_takes_nothing_from_another) {
    const Owned event(makeAutoEvent());
    Connection one, two, three;
    Selection first(one.local, event, FD_READ | FD_CLOSE);
    one.peer.reset();
    EXPECT_EQ(first.next(), FD_CLOSE);
    ASSERT_EQ(dup2(two.local.get(), first.socket), first.socket);
    Selection second(one.local, event, FD_READ);
    EXPECT_EQ(vllWSAEventSelect(three.local.get(), event, FD_READ, &first.record), 0);
    two.sendByPeer("x");
    EXPECT_EQ(second.next(), FD_READ);
}

TEST_F(WsaSocketsTest, two_sockets_in_one_event_both_come_through) {
    Connection one, two;
    const Owned event(makeAutoEvent());
    Selection first(one.local, event, FD_READ), second(two.local, event, FD_READ);
    one.sendByPeer("x");
    two.sendByPeer("y");
    EXPECT_TRUE(waitUntil([&] {
        vllWaitForSingleObject(event, 100);
        return first.record.lPendingEvents == FD_READ && second.record.lPendingEvents == FD_READ;
    })) << "neither starves the other";
    EXPECT_EQ(first.select(0), 0);
    EXPECT_TRUE(isSignalled(event));
    EXPECT_EQ(two.receive(), "y");
    EXPECT_FALSE(isSignalled(event));
}

TEST_F(WsaSocketsTest, an_event_closed_while_a_socket_is_selected) {
    Connection connection;
    Owned event(makeAutoEvent());
    Selection selection(connection.local, event, FD_READ);
    EXPECT_TRUE(vllCloseHandle(event.release()));
    connection.sendByPeer("x");
    vllWSAEnableWriteEvent(&selection.record);
    EXPECT_EQ(takeErrors(), (Errors{format("VLLI: OpenObject( 0x%X ): Unused handle! \n", selection.event),
                                    format("VLLI: WSAEnableWriteEvent: S%d unable to open E%08X\n",
                                           selection.socket, selection.event)}));
    EXPECT_THAT(vllWSAEnumNetworkEvents(&selection.record, selection.event, &selection.events),
                Yields(SOCKET_ERROR, EINVAL));
    const Owned other(makeAutoEvent());
    EXPECT_EQ(vllWSAEventSelect(connection.local.get(), other, FD_READ, &selection.record), 0);
    EXPECT_TRUE(isSignalled(other));
    takeErrors();
}

TEST_F(WsaSocketsTest, cancelling) {
    SelectedConnection selection(FD_READ | FD_CLOSE);
    selection.sendByPeer("x");
    EXPECT_EQ(selection.next(), FD_READ);
    EXPECT_EQ(selection.select(0), 0);
    EXPECT_EQ(selection.next(10), -1);
    EXPECT_EQ(selection.select(0), 0) << "left already";
    WSASockData fresh = {};
    EXPECT_EQ(vllWSAEventSelect(selection.socket, selection.event, 0, &fresh), 0) << "never selected";
    EXPECT_EQ(takeLog().size(), 0U);
}

TEST_F(WsaSocketsTest, bad_arguments) {
    Connection connection;
    const int socket = connection.local.get();
    const Owned event(makeAutoEvent()), other(makeAutoEvent(TRUE)), timer(vllCreateWaitableTimer(nullptr));
    WSASockData record = {};
    for (const int32_t mask : {32, -1, 0x40000001}) {
        EXPECT_THAT(vllWSAEventSelect(socket, event, mask, &record), Yields(SOCKET_ERROR, EINVAL));
        EXPECT_EQ(takeErrors(), Errors{format("VLLI: WSAEventSelect: lNetworkEvent = 0x%08X\n",
                                              static_cast<unsigned>(mask))});
    }
    for (const HANDLE handle : {HANDLE{timer}, HANDLE{0}}) {
        EXPECT_THAT(vllWSAEventSelect(socket, handle, FD_READ, &record), Yields(SOCKET_ERROR, EINVAL));
        EXPECT_EQ(
            takeErrors(),
            Errors{format("VLLI: WSAEventSelect: hEventObject = 0x%08X, event = 0x00000000\n", handle)});
    }
    EXPECT_THAT(vllWSAEventSelect(socket, event, FD_READ, nullptr), Yields(SOCKET_ERROR, EINVAL));

    Selection selection(connection.local, event, FD_READ);
    WSANETWORKEVENTS events;
    selection.record.lPendingEvents = FD_READ;
    EXPECT_THAT(vllWSAEnumNetworkEvents(&selection.record, other, &events), Yields(SOCKET_ERROR, EINVAL));
    EXPECT_EQ(events.lNetworkEvents, 0);
    EXPECT_TRUE(isSignalled(other)) << "a foreign event is not reset";
    EXPECT_THAT(vllWSAEnumNetworkEvents(nullptr, event, &events), Yields(SOCKET_ERROR, EINVAL));
    EXPECT_THAT(vllWSAEnumNetworkEvents(&selection.record, event, nullptr), Yields(SOCKET_ERROR, EINVAL));
    vllSetEvent(event);
    EXPECT_EQ(vllWSAEnumNetworkEvents(&selection.record, timer, &events), 0) << "no event: nothing is reset";
    EXPECT_EQ(events.lNetworkEvents, FD_READ);
    EXPECT_TRUE(isSignalled(event));
    EXPECT_EQ(takeErrors(), Errors{});
    vllWSAEnableWriteEvent(nullptr);
    EXPECT_EQ(takeErrors(), Errors{"VLLI: WSAEnableWriteEvent: WSASockData == NULL\n"});
}

TEST_F(WsaSocketsTest, enumeration_hands_over_only_what_is_selected) {
    const Owned event(makeManualEvent());
    WSASockData record = {0, FD_READ | FD_CLOSE, FD_READ | FD_WRITE, event, 0, {7, 8, 0, 0, 0}};
    WSANETWORKEVENTS events;
    EXPECT_EQ(vllWSAEnumNetworkEvents(&record, event, &events), 0);
    EXPECT_EQ(events.lNetworkEvents, FD_READ);
    EXPECT_EQ(events.iErrorCode[FD_READ_BIT], 7);
    EXPECT_EQ(events.iErrorCode[FD_WRITE_BIT], 0);
    EXPECT_EQ(record.lPendingEvents, FD_WRITE);
    EXPECT_EQ(record.iErrorCode[FD_READ_BIT], 0);
    EXPECT_EQ(record.iErrorCode[FD_WRITE_BIT], 8);
}

TEST_F(WsaSocketsTest, failing_calls_of_a_selection) {
    Connection connection;
    const int socket = connection.local.get();
    const Owned event(makeAutoEvent());
    const int32_t efd = vlliGetObjectAddress(event)->efd;
    WSASockData record = {}, second = {};
    record.lPendingEvents = FD_READ;
    const auto select = [&](int32_t mask, WSASockData *selected) {
        return [=, &event] { return vllWSAEventSelect(socket, event, mask, selected); };
    };
    const auto failedChange = [=](const char *operation, const char *argument, int error) {
        return Errors{
            format("VLLI: WSAEventSelect: epoll_ctl( event->efd = %d, EPOLL_CTL_%s, sock = %d, %s ) = "
                   "-1, errno = %d\n",
                   efd, operation, socket, argument, error)};
    };
    const Failure failures[] = {
        {"fcntl64", 1, EBADF, {"VLLI: WSAEventSelect: fcntl (sock, F_SETFL, O_NONBLOCK) == -1, errno = 9\n"}},
        {"epoll_ctl", 1, ENOSPC, failedChange("ADD", "&eevent", ENOSPC)},
    };
    for (const Failure &failure : failures) {
        expectFailure(failure, select(FD_READ, &record), SOCKET_ERROR);
        EXPECT_EQ(record.socket, 0);
        EXPECT_EQ(record.hEventObject, 0U);
        EXPECT_EQ(record.lPendingEvents, 0);
    }
    EXPECT_EQ(select(FD_READ, &record)(), 0);
    expectFailure({"epoll_ctl", 1, ENOMEM, failedChange("DEL", "NULL", ENOMEM)}, select(0, &record),
                  SOCKET_ERROR);
    expectFailure({nullptr, 0, EEXIST, failedChange("ADD", "&eevent", EEXIST)}, select(FD_READ, &second),
                  SOCKET_ERROR);
    {
        const FailCall fail("epoll_ctl", 1, ENOMEM);
        vllWSAEnableWriteEvent(&record);
    }
    EXPECT_EQ(takeErrors(),
              Errors{format("VLLI: WSAEnableWriteEvent: epoll_ctl( event->efd = %d, EPOLL_CTL_MOD, "
                            "WSASockData->socket = %d, &eevent ) = -1, errno = 12\n",
                            efd, socket)});
    EXPECT_THAT(vllWSAEventSelect(-1, event, FD_READ, &second), Yields(SOCKET_ERROR, EBADF));
    takeErrors();
}

// Readiness as the set would report it, also where the kernel cannot be made to.
TEST_F(WsaSocketsTest, processing_table) {
    const struct {
        const char *what;
        uint32_t readiness;
        int32_t mask, pending, state;
        int32_t pending_after, state_after;
        int leaves;                  // 1: the event's set
        const char *call = nullptr;  // made to fail
        int error = 0;
        int bit = 0, code = 0;  // an error code afterwards
    } rows[] = {
        {"error whose code cannot be read", EPOLLERR, FD_READ | FD_CLOSE, 0, 2, FD_READ | FD_CLOSE, 2, 0,
         "getsockopt", ENOBUFS, FD_READ_BIT, ENOBUFS},
        {"error and hang-up", EPOLLERR | EPOLLHUP | EPOLLIN, FD_WRITE | FD_CLOSE, FD_WRITE, 2, FD_CLOSE, 3, 1,
         "getsockopt", ETIMEDOUT, FD_CLOSE_BIT, ETIMEDOUT},
        {"hang-up", EPOLLHUP, FD_CLOSE | FD_WRITE, FD_WRITE, 2, FD_CLOSE, 3, 1},
        {"hang-up not selected", EPOLLHUP, FD_WRITE, FD_WRITE, 2, 0, 3, 1},
        {"hang-up once closed", EPOLLHUP, FD_CLOSE, 0, 3, 0, 3, 0},
        {"reading fails", EPOLLIN, FD_READ | FD_CLOSE, 0, 2, FD_READ, 2, 0, "recv", EIO, FD_READ_BIT, EIO},
        {"reading fails, not selected", EPOLLIN, FD_CLOSE, 0, 2, 0, 2, 0, "recv", EIO, FD_READ_BIT, 0},
        {"not connected", EPOLLPRI, FD_ACCEPT | FD_READ | FD_WRITE, FD_READ | FD_WRITE, 0, FD_ACCEPT, 1, 0,
         "recv", ENOTCONN},
        {"writable, error", EPOLLOUT, FD_CONNECT | FD_CLOSE | FD_WRITE, FD_WRITE, 0, FD_CONNECT | FD_CLOSE, 3,
         1, "getsockopt", EHOSTUNREACH, FD_CONNECT_BIT, EHOSTUNREACH},
        {"writable once closed", EPOLLOUT, FD_WRITE, 0, 3, 0, 3, 0},
        {"writable", EPOLLOUT, FD_CONNECT | FD_WRITE, 0, 1, FD_CONNECT | FD_WRITE, 2, 0},
        {"writable again", EPOLLOUT, FD_CONNECT | FD_WRITE, 0, 2, FD_WRITE, 2, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        SelectedConnection selection(row.mask);
        selection.record.lPendingEvents = row.pending;
        selection.record.state = row.state;
        std::optional<FailCall> fail;
        if (row.call != nullptr) {
            fail.emplace(row.call, 1, row.error);
        }
        errno = 77;
        vlliWsaProcessNetworkEvents(&selection.record, vlliGetObjectAddress(selection.event), row.readiness);
        EXPECT_EQ(errno, 77);
        EXPECT_TRUE(!fail || fail->happened());
        EXPECT_EQ(selection.record.lPendingEvents, row.pending_after);
        EXPECT_EQ(selection.record.state, row.state_after);
        EXPECT_EQ(selection.record.iErrorCode[row.bit], row.code);
        epoll_event change = {};
        const int efd = vlliGetObjectAddress(selection.event)->efd;
        EXPECT_EQ(epoll_ctl(efd, EPOLL_CTL_MOD, selection.socket, &change), -row.leaves);
        EXPECT_EQ(takeErrors(), Errors{});
    }
}

TEST_F(WsaSocketsTest, failing_calls_of_a_wait) {
    SelectedConnection selection(FD_WRITE | FD_CLOSE);
    ObjectRecord *record = vlliGetObjectAddress(selection.event);
    for (const bool hang_up : {false, true}) {
        const FailCall fail("epoll_ctl", 1, ENOMEM);
        vlliWsaProcessNetworkEvents(&selection.record, record, hang_up ? EPOLLHUP : EPOLLOUT);
        EXPECT_EQ(takeErrors(),
                  Errors{format("VLLI: WsaProcessNetworkEvents: epoll_ctl( vevent->efd = %d, "
                                "EPOLL_CTL_%s, pWsaSockData->socket = %d, %s ) = -1, errno = 12\n",
                                record->efd, hang_up ? "DEL" : "MOD", selection.socket,
                                hang_up ? "NULL" : "EPOLLIN")});
    }
    // The event's set cannot be asked.
    EXPECT_EQ(selection.select(FD_READ), 0);
    selection.sendByPeer("x");
    EXPECT_NE(selection.next(), -1);
    expectFailure(
        {"epoll_wait", 1, EFAULT, {}}, [&] { return vllWaitForSingleObject(selection.event, 0); },
        WAIT_FAILED);
    EXPECT_EQ(references(selection.event), 1);
    const FailCall interrupted("epoll_wait", 1, EINTR);
    EXPECT_EQ(selection.next(0), FD_READ);
}

// Activity that is gone again when the wait looks at it: a notice, and the event is reported.
TEST_F(WsaSocketsTest, a_false_alarm_is_noticed) {
    static int drained;
    struct sigaction action = {}, old;
    action.sa_handler = [](int) {
        char byte;
        EXPECT_EQ(recv(drained, &byte, 1, 0), 1);
    };
    ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
    for (const BOOL manual : {FALSE, TRUE}) {
        SelectedConnection selection(FD_READ, manual);
        drained = selection.socket;
        selection.sendByPeer("x");
        pollfd activity = {vlliGetObjectAddress(selection.event)->efd, POLLIN, 0};
        ASSERT_EQ(poll(&activity, 1, 20000), 1);
        {
            const FailCall before_the_look("epoll_wait", 1, -SIGUSR1);
            EXPECT_EQ(vllWaitForSingleObject(selection.event, 0), WAIT_OBJECT_0);
        }
        const std::vector<LogLine> log = takeLog();
        ASSERT_EQ(log.size(), 1U);
        EXPECT_EQ(log[0].priority, LOG_INFO);
        EXPECT_EQ(log[0].text, format("VLL: WaitForMultipleObjects: False alarm, E%08X\n", selection.event));
        EXPECT_EQ(selection.record.lPendingEvents, 0);
        EXPECT_EQ(isSignalled(selection.event), manual != 0);
    }
    sigaction(SIGUSR1, &old, nullptr);
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
        EXPECT_THAT(vllWSASend(fd, out, 2, &count), Yields(SOCKET_ERROR, EBADF));
        EXPECT_THAT(vllWSARecvFrom(fd, in, 2, &count, nullptr, nullptr), Yields(SOCKET_ERROR, EBADF));
        EXPECT_EQ(count, 99U);
    }
}

}  // namespace
