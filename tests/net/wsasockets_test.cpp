// Network events of sockets, over real connections on loopback.

#include "net/wsasockets.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <syslog.h>
#include <unistd.h>
#include <cstring>
#include <memory>

#include "base/descriptor.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"
#include "support/threads.h"

namespace {

class WsaSocketsTest : public LibraryTest {};

constexpr int kAll = FD_READ | FD_WRITE | FD_ACCEPT | FD_CONNECT | FD_CLOSE;

Fd makeSocket(int domain = AF_INET, int type = SOCK_STREAM) {
    return Fd(socket(domain, type | SOCK_CLOEXEC, 0));
}

struct Address {
    sockaddr *get() { return reinterpret_cast<sockaddr *>(&bytes); }
    sockaddr_storage bytes = {};
    socklen_t length = sizeof bytes;
};

// Gives a socket an address that the kernel chooses: on loopback, or an abstract name.
Address bindToLoopback(const Fd &socket) {
    Address address;
    EXPECT_EQ(getsockname(socket.get(), address.get(), &address.length), 0);
    if (address.bytes.ss_family == AF_INET) {
        reinterpret_cast<sockaddr_in *>(&address.bytes)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    EXPECT_EQ(bind(socket.get(), address.get(), address.length), 0);
    address.length = sizeof address.bytes;
    EXPECT_EQ(getsockname(socket.get(), address.get(), &address.length), 0);
    return address;
}

int connectTo(const Fd &socket, Address address) {
    return connect(socket.get(), address.get(), address.length);
}

// A socket with an address that listens sooner or later.
struct Listener {
    explicit Listener(int domain = AF_INET) : socket(makeSocket(domain)), address(bindToLoopback(socket)) {}
    void start() const { EXPECT_EQ(listen(socket.get(), 4), 0); }
    Fd accept() const { return Fd(accept4(socket.get(), nullptr, nullptr, SOCK_CLOEXEC)); }
    const Fd socket;
    const Address address;
};

// A TCP connection over loopback.
struct Connection {
    Connection() : local(makeSocket()) {
        const Listener listener;
        listener.start();
        EXPECT_EQ(connectTo(local, listener.address), 0);
        peer = listener.accept();
        EXPECT_TRUE(peer);
    }
    // The data have arrived on return.
    void sendByPeer(const char *text) {
        EXPECT_EQ(send(peer.get(), text, strlen(text), 0), static_cast<ssize_t>(strlen(text)));
        pollfd arrived = {local.get(), POLLIN, 0};
        EXPECT_EQ(poll(&arrived, 1, 20000), 1);
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
    // The same, with a thread that is blocked in the wait before act() is called.
    int32_t nextAfter(const std::function<void()> &act) {
        int32_t result = -1;
        uint64_t wake_ups = 0;
        {
            const Sleeper waiter([&] {
                resetCallCounts();
                result = next();
                wake_ups = callCount("epoll_wait");
            });
            act();
        }
        EXPECT_LT(wake_ups, 10U) << "the wait does not spin";
        return result;
    }
    const int socket;
    const HANDLE event;
    WSASockData record = {};
    WSANETWORKEVENTS events = {};
};

// True when the event itself is signalled, whatever its sockets are.
bool hasCounter(HANDLE event) {
    pollfd counter = {vllGetEventFd(event), POLLIN, 0};
    return poll(&counter, 1, 0) == 1;
}

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
        if (manual) {
            EXPECT_EQ(selection.next(), FD_CONNECT) << "a connection can be written to";
            EXPECT_EQ(selection.next(0), -1);
        }
        selection.sendByPeer("ab");
        ASSERT_EQ(vllWaitForSingleObject(selection.event, 20000), WAIT_OBJECT_0);
        EXPECT_EQ(hasCounter(selection.event), manual) << "a manual-reset event stays signalled";
        EXPECT_EQ(selection.next(), manual ? FD_READ : FD_READ | FD_CONNECT);
        EXPECT_FALSE(hasCounter(selection.event)) << "enumeration resets the event";
        EXPECT_EQ(selection.next(), FD_READ);
        EXPECT_EQ(selection.receive(1), "a");
        EXPECT_EQ(selection.next(), FD_READ) << "the rest";
        EXPECT_EQ(selection.receive(), "b");
        EXPECT_EQ(selection.next(20), -1);
        EXPECT_EQ(selection.record.state, SOCK_STATE_CONNECTED);
    }
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
    enum When { kBefore, kAfterWait, kDuringWait };  // the socket listens, seen from the first wait
    for (const int domain : {AF_INET, AF_UNIX}) {
        for (const When when : {kBefore, kAfterWait, kDuringWait}) {
            SCOPED_TRACE(format("domain %d, %d", domain, when));
            const Listener listener(domain);
            if (when == kBefore) {
                listener.start();
            }
            const Owned event(makeAutoEvent());
            Selection selection(listener.socket, event, FD_ACCEPT | FD_CLOSE);
            EXPECT_EQ(when == kDuringWait ? -1 : selection.next(10), -1);
            const Fd first = makeSocket(domain), second = makeSocket(domain);
            const auto connectFirst = [&] {
                listener.start();
                EXPECT_EQ(connectTo(first, listener.address), 0);
            };
            if (when == kDuringWait) {
                EXPECT_EQ(selection.nextAfter(connectFirst), FD_ACCEPT);
            } else {
                connectFirst();
            }
            EXPECT_EQ(connectTo(second, listener.address), 0);
            for (int i = 0; i < 2; ++i) {
                EXPECT_EQ(selection.next(), FD_ACCEPT);
                EXPECT_EQ(selection.record.state, SOCK_STATE_NOT_CONNECTED);
                EXPECT_TRUE(listener.accept());
            }
            EXPECT_EQ(selection.next(0), -1);
        }
    }
}

TEST_F(WsaSocketsTest, connecting) {
    enum When { kBefore, kAfterWait, kDuringWait };  // the connection begins, seen from the first wait
    for (const int domain : {AF_INET, AF_UNIX}) {
        for (const When when : {kBefore, kAfterWait, kDuringWait}) {
            SCOPED_TRACE(format("domain %d, %d", domain, when));
            const Listener listener(domain);
            listener.start();
            const Fd socket = makeSocket(domain, SOCK_STREAM | SOCK_NONBLOCK);
            if (when == kBefore) {
                connectTo(socket, listener.address);
            }
            const Owned event(makeAutoEvent());
            Selection selection(socket, event, kAll);
            EXPECT_EQ(when == kAfterWait ? selection.next(10) : -1, -1) << "no connection, and no end of one";
            const auto connect = [&] {
                connectTo(socket, listener.address);
                if (domain == AF_UNIX) {
                    vllWSAEnableWriteEvent(&selection.record);
                }
            };
            if (when == kAfterWait) {
                connect();
            }
            EXPECT_EQ(when == kDuringWait ? selection.nextAfter(connect) : selection.next(),
                      FD_CONNECT | FD_WRITE);
            EXPECT_EQ(selection.record.state, SOCK_STATE_CONNECTED);
            EXPECT_EQ(selection.next(10), -1) << "write readiness is reported once";
            vllWSAEnableWriteEvent(&selection.record);
            EXPECT_EQ(selection.next(), FD_WRITE);
            Fd peer = listener.accept();
            EXPECT_EQ(send(peer.get(), "x", 1, 0), 1);
            EXPECT_EQ(selection.next(), FD_READ);
            EXPECT_EQ(selection.next(), FD_READ) << "as long as there are data";
            char byte;
            EXPECT_EQ(recv(socket.get(), &byte, 1, 0), 1);
            peer.reset();
            EXPECT_EQ(selection.next(), FD_CLOSE);
            EXPECT_EQ(selection.next(10), -1);
            EXPECT_EQ(takeLog().size(), 0U);
        }
    }
}

TEST_F(WsaSocketsTest, a_refused_connection_reports_its_error_with_the_connect) {
    for (const int32_t mask : {FD_CONNECT | FD_CLOSE, FD_CONNECT | FD_WRITE, kAll}) {
        for (const bool waiting : {false, true}) {
            const Address address = bindToLoopback(makeSocket());  // nobody listens there
            const Fd socket = makeSocket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK);
            const Owned event(makeAutoEvent());
            Selection selection(socket, event, mask);
            const auto connect = [&] { connectTo(socket, address); };
            if (!waiting) {
                connect();
            }
            const int32_t events = waiting ? selection.nextAfter(connect) : selection.next();
            EXPECT_EQ(events & (FD_CONNECT | FD_CLOSE), mask & (FD_CONNECT | FD_CLOSE));
            EXPECT_EQ(events & FD_WRITE, 0);
            EXPECT_EQ(selection.events.iErrorCode[FD_CONNECT_BIT], ECONNREFUSED);
            EXPECT_EQ(selection.record.state, SOCK_STATE_CLOSED);
            EXPECT_EQ(selection.next(10), -1) << "left the set";
        }
    }
}

void resetByPeer(Connection &connection) {
    const linger at_once = {1, 0};
    ASSERT_EQ(setsockopt(connection.peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), 0);
    connection.peer.reset();
}

void closeByPeer(Connection &connection) {
    connection.peer.reset();
}

void hangUp(Connection &connection) {
    connection.peer.reset();
    shutdown(connection.local.get(), SHUT_WR);
    pollfd down = {connection.local.get(), 0, 0};
    ASSERT_EQ(poll(&down, 1, 20000), 1);
}

void hangUpWithData(Connection &connection) {
    connection.sendByPeer("last words");
    hangUp(connection);
}

// Events that are still pending are reported with the end, but for FD_WRITE.
TEST_F(WsaSocketsTest, the_end_of_a_connection) {
    const struct {
        const char *what;
        void (*end)(Connection &);
        int32_t mask, events;
    } rows[] = {
        {"reset", resetByPeer, FD_READ | FD_WRITE | FD_CLOSE, FD_READ | FD_CLOSE},
        {"reset, with all else selected", resetByPeer, FD_CONNECT | FD_ACCEPT, FD_CONNECT | FD_ACCEPT},
        {"closed by the peer", closeByPeer, FD_READ | FD_WRITE | FD_CLOSE, FD_CLOSE},
        {"closed by the peer, not selected", closeByPeer, FD_READ, 0},
        {"down in both directions", hangUp, FD_WRITE | FD_CLOSE, FD_CLOSE},
        {"down, with only the end selected", hangUp, FD_CLOSE, FD_CLOSE},
        {"down, not selected", hangUp, FD_WRITE | FD_CONNECT, FD_CONNECT},
        {"down with unread data", hangUpWithData, FD_READ | FD_CLOSE, FD_READ | FD_CLOSE},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        SelectedConnection selection(row.mask);
        EXPECT_EQ(isSignalled(selection.event), (row.mask & (FD_WRITE | FD_CONNECT)) != 0);
        selection.record.iErrorCode[FD_CLOSE_BIT] = row.mask & FD_CLOSE;
        row.end(selection);
        EXPECT_EQ(selection.next(), row.events);
        EXPECT_EQ(selection.events.iErrorCode[FD_READ_BIT], 0) << "no end is an error of reading";
        EXPECT_EQ(selection.events.iErrorCode[FD_CLOSE_BIT], row.events & FD_CLOSE) << "left as it was";
        EXPECT_EQ(selection.record.state, SOCK_STATE_CLOSED);
        EXPECT_EQ(selection.next(10), -1) << "no longer wakes the event";
    }
    SelectedConnection selection(FD_READ | FD_CLOSE);
    selection.sendByPeer("last words");
    selection.peer.reset();
    EXPECT_EQ(selection.next(), FD_READ) << "data come before the close";
    EXPECT_EQ(selection.receive(), "last words");
    EXPECT_EQ(selection.next(), FD_CLOSE);
}

// An error of a socket is stored for every selected event. Descriptors that are no sockets give ENOTSOCK.
TEST_F(WsaSocketsTest, errors) {
    const Fd datagrams = makeSocket(AF_INET, SOCK_DGRAM);
    ASSERT_EQ(connectTo(datagrams, bindToLoopback(makeSocket(AF_INET, SOCK_DGRAM))), 0);
    ASSERT_EQ(send(datagrams.get(), "x", 1, 0), 1);
    int broken[2], readable[2];
    ASSERT_EQ(pipe2(broken, O_CLOEXEC) | pipe2(readable, O_CLOEXEC), 0);
    const Fd broken_out(broken[1]), readable_in(readable[0]), readable_out(readable[1]);
    close(broken[0]);
    ASSERT_EQ(write(readable_out.get(), "x", 1), 1);
    const struct {
        const Fd &fd;
        int32_t mask, events, error;
    } rows[] = {
        {datagrams, FD_READ | FD_WRITE | FD_CLOSE, FD_READ | FD_WRITE | FD_CLOSE, ECONNREFUSED},
        {broken_out, FD_WRITE | FD_CLOSE, FD_WRITE | FD_CLOSE, ENOTSOCK},
        {readable_in, FD_READ | FD_CLOSE, FD_READ, ENOTSOCK},
        {readable_in, FD_ACCEPT, 0, 0},
    };
    for (const auto &row : rows) {
        const Owned event(makeAutoEvent());
        Selection selection(row.fd, event, row.mask);
        EXPECT_EQ(selection.next(), row.events);
        for (int bit = 0; bit < FD_MAX_EVENTS; ++bit) {
            EXPECT_EQ(selection.events.iErrorCode[bit], (row.events & (1 << bit)) != 0 ? row.error : 0);
        }
    }
}

TEST_F(WsaSocketsTest, datagrams_without_bytes_are_data) {
    const Fd receiver = makeSocket(AF_INET, SOCK_DGRAM), sender = makeSocket(AF_INET, SOCK_DGRAM);
    Address address = bindToLoopback(receiver);
    const Address from = bindToLoopback(sender);
    const Owned event(makeAutoEvent());
    Selection selection(receiver, event, FD_READ | FD_CLOSE);
    char buffer[8] = {};
    for (const char *text : {"", "abc", ""}) {
        const WSABUF out = {const_cast<char *>(text), static_cast<SIZE_T>(strlen(text))};
        DWORD count = 99;
        ASSERT_EQ(vllWSASendTo(sender.get(), &out, 1, &count, address.get(), sizeof(sockaddr_in)), 0);
        EXPECT_EQ(count, strlen(text));
        EXPECT_EQ(selection.next(), FD_READ);
        EXPECT_EQ(selection.record.state, SOCK_STATE_CONNECTED);
        const WSABUF in[] = {{buffer, 1}, {buffer + 1, sizeof buffer - 1}};
        Address seen;
        auto length = static_cast<int32_t>(seen.length);
        EXPECT_EQ(vllWSARecvFrom(receiver.get(), in, 2, &count, seen.get(), &length), 0);
        EXPECT_EQ(std::string(buffer, count), text);
        EXPECT_EQ(length, static_cast<int32_t>(from.length));
        EXPECT_EQ(memcmp(&seen.bytes, &from.bytes, from.length), 0);
    }
    EXPECT_EQ(selection.next(0), -1);
}

TEST_F(WsaSocketsTest, reselection_moves_the_socket_and_keeps_what_is_pending) {
    const Owned second(makeAutoEvent());
    SelectedConnection selection(FD_READ);
    selection.sendByPeer("x");
    EXPECT_TRUE(isSignalled(selection.event));
    EXPECT_EQ(vllWSAEventSelect(selection.socket, second, FD_READ | FD_CLOSE, &selection.record), 0);
    EXPECT_EQ(selection.record.lPendingEvents, FD_READ);
    EXPECT_EQ(selection.record.state, SOCK_STATE_NONE);
    EXPECT_EQ(selection.record.hEventObject, HANDLE{second});
    EXPECT_FALSE(isSignalled(selection.event));
    EXPECT_TRUE(isSignalled(second));
}

TEST_F(WsaSocketsTest, a_record_taken_over_by_another_socket_loses_the_old_one_silently) {
    Connection other;
    SelectedConnection selection(FD_READ);
    selection.sendByPeer("x");
    EXPECT_TRUE(isSignalled(selection.event));
    EXPECT_EQ(vllWSAEventSelect(other.local.get(), selection.event, FD_READ, &selection.record), 0);
    EXPECT_EQ(selection.record.lPendingEvents, 0);
    EXPECT_FALSE(isSignalled(selection.event)) << "the old socket still has data";
    other.sendByPeer("y");
    EXPECT_EQ(selection.next(), FD_READ);
    EXPECT_EQ(takeLog().size(), 0U);
}

// Closes an event and makes another one with the same handle.
void replaceEvent(std::unique_ptr<Owned> *event) {
    const HANDLE handle = **event;
    do {
        event->reset();
        event->reset(new Owned(makeAutoEvent()));
    } while (**event != handle);
}

// The number of a closed socket comes again for another socket, which another record selects.
TEST_F(WsaSocketsTest, a_record_takes_nothing_from_the_next_socket_of_its_number) {
    enum End { kCancelled, kForgotten, kClosedByPeer, kEventReplaced };
    enum Use { kSelectsAnother, kIsCancelled, kAsksForWriting };
    for (const End end : {kCancelled, kForgotten, kClosedByPeer, kEventReplaced}) {
        for (const Use use : {kSelectsAnother, kIsCancelled, kAsksForWriting}) {
            SCOPED_TRACE(format("end %d, use %d", end, use));
            auto event = std::make_unique<Owned>(makeAutoEvent());
            Connection one, two, three;
            Selection first(one.local, *event, FD_READ | FD_CLOSE);
            if (end == kCancelled) {
                EXPECT_EQ(first.select(0), 0);
            } else if (end == kClosedByPeer) {
                one.peer.reset();
                EXPECT_EQ(first.next(), FD_CLOSE);
            } else if (end == kEventReplaced) {
                replaceEvent(&event);
            }
            ASSERT_EQ(dup2(two.local.get(), first.socket), first.socket);
            Selection second(one.local, *event, FD_READ);
            if (use == kSelectsAnother) {
                EXPECT_EQ(vllWSAEventSelect(three.local.get(), *event, FD_READ, &first.record), 0);
            } else if (use == kIsCancelled) {
                EXPECT_EQ(first.select(0), 0);
            } else {
                EXPECT_THAT((vllWSAEnableWriteEvent(&first.record), 0), Yields(0, ENOENT));
            }
            two.sendByPeer("x");
            EXPECT_EQ(second.next(), FD_READ);
            EXPECT_EQ(first.record.lPendingEvents, 0);
        }
    }
    takeErrors();
}

// A duplicate of an event has the same sockets. A selection that ends takes its socket out of them, by whatever handle.
TEST_F(WsaSocketsTest, a_selection_ends_though_its_event_handle_is_closed) {
    enum Handle { kDuplicate, kReused, kOther };
    for (const Handle handle : {kDuplicate, kReused, kOther}) {
        for (const bool cancelled : {true, false}) {
            SCOPED_TRACE(format("handle %d, cancelled %d", handle, cancelled));
            Connection connection, other_connection;
            auto event = std::make_unique<Owned>(makeAutoEvent());
            const Owned duplicate(vllDuplicateHandle(*event)), other(makeAutoEvent());
            auto selection = std::make_unique<Selection>(connection.local, *event, FD_READ);
            handle == kReused ? replaceEvent(&event) : event.reset();
            const HANDLE given = handle == kDuplicate ? duplicate : handle == kReused ? *event : other;
            const Fd &socket = cancelled ? connection.local : other_connection.local;
            EXPECT_EQ(vllWSAEventSelect(socket.get(), given, cancelled ? 0 : FD_READ, &selection->record), 0);
            if (!cancelled) {
                EXPECT_EQ(vllWSAEventSelect(socket.get(), given, 0, &selection->record), 0);
            }
            selection.reset();
            connection.sendByPeer("x");
            EXPECT_FALSE(isSignalled(duplicate));
        }
    }
    takeErrors();
}

// A child has the same sets of sockets, but its own records, numbers and selections.
TEST_F(WsaSocketsTest, selections_of_a_child_are_not_taken_for_the_parents) {
    Connection parents;
    const Owned event(makeAutoEvent());
    const Fd number(dup(parents.peer.get()));
    WSASockData record = {};
    Doorbell selected, done;
    const pid_t child = startChild([&] {
        const Connection childs;
        dup2(childs.local.get(), number.get());
        EXPECT_EQ(vllWSAEventSelect(number.get(), event, FD_WRITE, &record), 0);
        selected.ring();
        done.wait();
        return 0;
    });
    dup2(parents.local.get(), number.get());
    EXPECT_EQ(vllWSAEventSelect(number.get(), event, FD_READ, &record), 0);
    selected.wait();
    EXPECT_TRUE(isSignalled(event));
    EXPECT_EQ(record.state, SOCK_STATE_NONE) << "the child's socket can be written to, not the parent's";
    done.ring();
    expectSuccess(child);
    parents.sendByPeer("x");
    EXPECT_TRUE(isSignalled(event));
    EXPECT_EQ(record.lPendingEvents, FD_READ);
    EXPECT_EQ(vllWSAEventSelect(number.get(), event, 0, &record), 0);
    takeLog();
}

// A record that its caller has zeroed, or used for another socket, without cancelling.
TEST_F(WsaSocketsTest, a_record_zeroed_while_it_selects) {
    Connection other;
    SelectedConnection selection(FD_READ);
    selection.record = {};
    EXPECT_EQ(selection.select(FD_READ | FD_WRITE), 0) << "the same socket again";
    EXPECT_EQ(selection.next(), FD_WRITE);
    selection.record = {};
    EXPECT_EQ(vllWSAEventSelect(other.local.get(), selection.event, FD_READ, &selection.record), 0);
    selection.sendByPeer("x");
    vllWaitForSingleObject(selection.event, 0);
    EXPECT_EQ(selection.record.lPendingEvents, 0) << "not of this record's socket";
    EXPECT_EQ(selection.next(0), -1);
    other.sendByPeer("x");
    EXPECT_EQ(selection.next(), FD_READ);
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
    WSANETWORKEVENTS events;
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
    EXPECT_EQ(vllWSAEventSelect(socket, event, FD_READ, &record), 0);
    EXPECT_THAT(vllWSAEnumNetworkEvents(&record, other, &events), Yields(SOCKET_ERROR, EINVAL));
    EXPECT_TRUE(isSignalled(other)) << "a foreign event is not reset";
    EXPECT_THAT(vllWSAEnumNetworkEvents(nullptr, event, &events), Yields(SOCKET_ERROR, EINVAL));
    EXPECT_THAT(vllWSAEnumNetworkEvents(&record, event, nullptr), Yields(SOCKET_ERROR, EINVAL));
    EXPECT_EQ(takeErrors(), Errors{});
    vllWSAReactivate(nullptr);
    vllWSAEnableWriteEvent(nullptr);
    EXPECT_EQ(takeErrors(), Errors{"VLLI: WSAEnableWriteEvent: WSASockData == NULL\n"});
}

TEST_F(WsaSocketsTest, enumeration_hands_over_only_what_is_selected) {
    const Owned event(makeAutoEvent(TRUE)), timer(vllCreateWaitableTimer(nullptr));
    for (const HANDLE handle : {HANDLE{timer}, HANDLE{event}}) {
        WSASockData record = {0, FD_READ | FD_CLOSE, FD_READ | FD_WRITE, event, 0, {7, 8, 9, 0, 0}};
        WSANETWORKEVENTS events;
        EXPECT_EQ(vllWSAEnumNetworkEvents(&record, handle, &events), 0);
        EXPECT_EQ(events.lNetworkEvents, FD_READ);
        EXPECT_THAT(events.iErrorCode, testing::ElementsAre(7, 0, 0, 0, 0));
        EXPECT_EQ(record.lPendingEvents, FD_WRITE);
        EXPECT_THAT(record.iErrorCode, testing::ElementsAre(0, 8, 9, 0, 0));
        EXPECT_EQ(hasCounter(event), handle == timer) << "a handle that is no event resets nothing";
    }
}

TEST_F(WsaSocketsTest, system_calls_that_fail) {
    SelectedConnection selection(FD_WRITE | FD_CLOSE);
    Connection other;
    WSASockData fresh = {};
    const int efd = vlliGetObjectAddress(selection.event)->efd;
    const auto line = [&](const char *text, int socket, int error) {
        return Errors{"VLLI: " + format(text, efd, socket) + format(" = -1, errno = %d\n", error)};
    };
    const auto select = [&](const Fd &socket) {
        return [&] {
            fresh.lPendingEvents = FD_READ;
            const int32_t result = vllWSAEventSelect(socket.get(), selection.event, FD_READ, &fresh);
            EXPECT_EQ(fresh.socket | fresh.lPendingEvents | static_cast<int32_t>(fresh.hEventObject), 0);
            return result;
        };
    };
    const char *const kAdd =
        "WSAEventSelect: epoll_ctl( event->efd = %d, EPOLL_CTL_ADD, sock = %d, &eevent )";
    expectFailure(
        {"fcntl64", 1, EPERM, {"VLLI: WSAEventSelect: fcntl (sock, F_SETFL, O_NONBLOCK) == -1, errno = 1\n"}},
        select(other.local), SOCKET_ERROR);
    expectFailure({"epoll_ctl", 1, ENOSPC, line(kAdd, other.local.get(), ENOSPC)}, select(other.local),
                  SOCKET_ERROR);
    expectFailure({nullptr, 0, EEXIST, line(kAdd, selection.socket, EEXIST)}, select(selection.local),
                  SOCKET_ERROR);
    expectFailure(
        {"epoll_ctl", 1, ENOMEM,
         line("WSAEventSelect: epoll_ctl( event->efd = %d, EPOLL_CTL_DEL, sock = %d, NULL )",
              selection.socket, ENOMEM)},
        [&] { return selection.select(0); }, SOCKET_ERROR);
    expectFailure(
        {"epoll_ctl", 1, ENOMEM,
         line("WSAEnableWriteEvent: epoll_ctl( event->efd = %d, EPOLL_CTL_MOD, WSASockData->socket = %d, "
              "&eevent )",
              selection.socket, ENOMEM)},
        [&] { return vllWSAEnableWriteEvent(&selection.record), 0; }, 0);
    expectFailure(
        {"epoll_wait", 1, EFAULT, {}}, [&] { return vllWaitForSingleObject(selection.event, 0); },
        WAIT_FAILED);
    for (const char *change :
         {"MOD, pWsaSockData->socket = %d, EPOLLIN )", "DEL, pWsaSockData->socket = %d, NULL )"}) {
        const FailCall fail("epoll_ctl", 1, ENOMEM);
        EXPECT_THAT(vllWaitForSingleObject(selection.event, 0), Yields(WAIT_OBJECT_0, 0));
        EXPECT_EQ(
            takeErrors(),
            line((std::string("WsaProcessNetworkEvents: epoll_ctl( vevent->efd = %d, EPOLL_CTL_") + change)
                     .c_str(),
                 selection.socket, ENOMEM));
        hangUp(selection);
    }
}

// What the kernel may report between two calls: an error of a connection just after it was found writable, and data
// that somebody else has read.
TEST_F(WsaSocketsTest, readiness_that_changes_meanwhile) {
    SelectedConnection refused(FD_CONNECT | FD_WRITE | FD_CLOSE);
    {
        const FailCall fail("getsockopt", 1, EHOSTUNREACH);
        EXPECT_EQ(refused.next(), FD_CONNECT | FD_CLOSE);
    }
    EXPECT_EQ(refused.events.iErrorCode[FD_CONNECT_BIT], EHOSTUNREACH);
    EXPECT_EQ(refused.next(10), -1);
    static int drained;
    const SignalHandler handler(SIGUSR1, [](int) {
        char byte;
        EXPECT_EQ(recv(drained, &byte, 1, 0), 1);
    });
    for (const BOOL manual : {FALSE, TRUE}) {
        SelectedConnection selection(FD_READ, manual);
        drained = selection.socket;
        selection.sendByPeer("x");
        {
            const FailCall before_the_look("epoll_wait", 1, -SIGUSR1);
            EXPECT_TRUE(isSignalled(selection.event));
        }
        const std::vector<LogLine> log = takeLog();
        ASSERT_EQ(log.size(), 1U);
        EXPECT_EQ(log[0].priority, LOG_INFO);
        EXPECT_EQ(log[0].text, format("VLL: WaitForMultipleObjects: False alarm, E%08X\n", selection.event));
        EXPECT_EQ(isSignalled(selection.event), manual != 0);
    }
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
