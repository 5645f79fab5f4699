// Handles, events, waits and threads beside the system calls that they stand on. The raw side of a wait asks the
// very kinds of descriptors that the library must ask.

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cstdlib>
#include <vector>

#include "base/descriptor.h"
#include "core/objmem.h"
#include "core/ref.h"
#include "pair.h"
#include "vwincompat.h"

namespace {

// A benchmark that measures failures says nothing.
void Require(bool condition) {
    if (!condition) {
        abort();
    }
}

void Raise(int fd) {
    const uint64_t one = 1;
    Require(write(fd, &one, sizeof one) == sizeof one);
}

void Take(int fd) {
    uint64_t counter;
    Require(read(fd, &counter, sizeof counter) == sizeof counter);
}

// Auto-reset events, none signalled.
class Events {
  public:
    explicit Events(int64_t count) : handles_(static_cast<size_t>(count)) {
        for (HANDLE &handle : handles_) {
            handle = vllCreateEvent(FALSE, FALSE, nullptr);
            Require(handle != 0);
        }
    }
    ~Events() {
        for (const HANDLE handle : handles_) {
            vllCloseHandle(handle);
        }
    }
    Events(const Events &) = delete;
    Events &operator=(const Events &) = delete;

    HANDLE last() const { return handles_.back(); }
    DWORD wait(DWORD timeout_ms) const {
        return vllWaitForMultipleObjects(static_cast<int32_t>(handles_.size()), handles_.data(), timeout_ms);
    }

  private:
    std::vector<HANDLE> handles_;
};

// What an event is made of.
struct RawEvent {
    Fd fd = Fd(eventfd(0, EFD_NONBLOCK));
    Fd efd = Fd(epoll_create(1));
};

class RawEvents {
  public:
    RawEvents(int64_t count, bool with_sockets) : events_(static_cast<size_t>(count)) {
        for (const RawEvent &event : events_) {
            Require(event.fd && event.efd);
            if (with_sockets) {
                polled_.push_back({event.efd.get(), POLLIN, 0});
            }
            polled_.push_back({event.fd.get(), POLLIN, 0});
        }
    }
    int last() const { return events_.back().fd.get(); }
    int ask() { return poll(polled_.data(), polled_.size(), 0); }

  private:
    std::vector<RawEvent> events_;
    std::vector<pollfd> polled_;
};

void SetResetEvent(benchmark::State &state) {
    const Events events(1);
    for (auto _ : state) {
        vllSetEvent(events.last());
        vllResetEvent(events.last());
    }
}

void SetResetRaw(benchmark::State &state) {
    const RawEvent event;
    for (auto _ : state) {
        Raise(event.fd.get());
        Take(event.fd.get());
    }
}

void SetAndWaitForLast(benchmark::State &state) {
    const Events events(state.range(0));
    const DWORD expected = WAIT_OBJECT_0 + static_cast<DWORD>(state.range(0)) - 1;
    for (auto _ : state) {
        vllSetEvent(events.last());
        Require(events.wait(INFINITE) == expected);
    }
}

void SetAndWaitForLastRaw(benchmark::State &state, bool with_sockets) {
    RawEvents events(state.range(0), with_sockets);
    for (auto _ : state) {
        Raise(events.last());
        Require(events.ask() == 1);
        Take(events.last());
    }
}

void SetAndWaitForLastRawNoSockets(benchmark::State &state) {
    SetAndWaitForLastRaw(state, false);
}

void SetAndWaitForLastRawWithSockets(benchmark::State &state) {
    SetAndWaitForLastRaw(state, true);
}

void SetAndWaitForLastWithSockets(benchmark::State &state) {
    const Fd socket(::socket(AF_UNIX, SOCK_DGRAM, 0));
    const HANDLE selected = vllCreateEvent(TRUE, FALSE, nullptr);
    WSASockData record = {};
    Require(vllWSAEventSelect(socket.get(), selected, FD_READ, &record) == 0);
    vllCloseHandle(selected);
    SetAndWaitForLast(state);
}

void SetAndWaitForSingle(benchmark::State &state) {
    const Events events(1);
    for (auto _ : state) {
        vllSetEvent(events.last());
        Require(vllWaitForSingleObject(events.last(), INFINITE) == WAIT_OBJECT_0);
    }
}

void AskForNothing(benchmark::State &state) {
    const Events events(state.range(0));
    for (auto _ : state) {
        Require(events.wait(0) == WAIT_TIMEOUT);
    }
}

void AskForNothingRaw(benchmark::State &state) {
    RawEvents events(state.range(0), false);
    for (auto _ : state) {
        Require(events.ask() == 0);
    }
}

// Two threads that signal each other in turn; the other one echoes until it is told to stop.
template <typename Side>
void HandOver(benchmark::State &state) {
    Side side;
    pthread_t other;
    const auto echo = [](void *argument) -> void * {
        auto *const echoing = static_cast<Side *>(argument);
        do {
            echoing->wait(0);
            echoing->signal(1);
        } while (!__atomic_load_n(&echoing->stopping, __ATOMIC_ACQUIRE));
        return nullptr;
    };
    Require(pthread_create(&other, nullptr, echo, &side) == 0);
    for (auto _ : state) {
        side.signal(0);
        side.wait(1);
    }
    __atomic_store_n(&side.stopping, true, __ATOMIC_RELEASE);
    side.signal(0);
    pthread_join(other, nullptr);
}

struct EventSide {
    bool stopping = false;
    Events there{1};
    Events back{1};

    void signal(int way) const { vllSetEvent(way == 0 ? there.last() : back.last()); }
    void wait(int way) const { Require((way == 0 ? there : back).wait(INFINITE) == WAIT_OBJECT_0); }
};

// A wait on one event at its least: a set over both descriptors.
struct RawSide {
    bool stopping = false;
    RawEvent events[2];

    void signal(int way) const { Raise(events[way].fd.get()); }
    void wait(int way) const {
        const RawEvent &event = events[way];
        const Fd set(epoll_create(1));
        epoll_event ready = {};
        ready.events = EPOLLIN;
        Require(epoll_ctl(set.get(), EPOLL_CTL_ADD, event.efd.get(), &ready) == 0);
        Require(epoll_ctl(set.get(), EPOLL_CTL_ADD, event.fd.get(), &ready) == 0);
        Require(epoll_wait(set.get(), &ready, 1, -1) == 1);
        Take(event.fd.get());
    }
};

void CreateCloseEvent(benchmark::State &state) {
    for (auto _ : state) {
        const HANDLE event = vllCreateEvent(TRUE, FALSE, nullptr);
        Require(event != 0);
        vllCloseHandle(event);
    }
}

void CreateCloseRaw(benchmark::State &state) {
    for (auto _ : state) {
        const int fd = eventfd(0, 0);
        fcntl(fd, F_SETFL, O_NONBLOCK);
        const int efd = epoll_create(2);
        Require(fd != -1 && efd != -1);
        close(efd);
        close(fd);
    }
}

uint32_t DoNothing(LPVOID) {
    return 0;
}

void RunThread(benchmark::State &state) {
    for (auto _ : state) {
        const HANDLE thread = vllCreateThread(0, DoNothing, nullptr, nullptr, 0);
        Require(vllWaitForSingleObject(thread, INFINITE) == WAIT_OBJECT_0);
        vllCloseHandle(thread);
    }
}

void *RaiseAtEnd(void *argument) {
    Raise(*static_cast<const int *>(argument));
    return nullptr;
}

void RunThreadRaw(benchmark::State &state) {
    for (auto _ : state) {
        const int fd = eventfd(0, EFD_NONBLOCK);
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        pthread_t thread;
        Require(pthread_create(&thread, &attributes, RaiseAtEnd, const_cast<int *>(&fd)) == 0);
        pthread_attr_destroy(&attributes);
        pollfd end = {fd, POLLIN, 0};
        Require(poll(&end, 1, -1) == 1);
        close(fd);
    }
}

void OpenCloseHandle(benchmark::State &state) {
    const Events events(1);
    for (auto _ : state) {
        const ObjectRef event(events.last());
        benchmark::DoNotOptimize(event.get());
    }
}

pthread_mutex_t raw_mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;

void LockUnlockTwice(benchmark::State &state) {
    for (auto _ : state) {
        pthread_mutex_lock(&raw_mutex);
        pthread_mutex_unlock(&raw_mutex);
        pthread_mutex_lock(&raw_mutex);
        pthread_mutex_unlock(&raw_mutex);
    }
}

}  // namespace

void bench::RegisterPairs() {
    const auto cpu = Clock::cpu;
    const auto wall = Clock::wall;
    AddPair({"open and close a handle", 2, OpenCloseHandle, LockUnlockTwice, cpu});
    AddPair({"set and reset an event", 1.3, SetResetEvent, SetResetRaw, cpu});
    AddPair({"create and close an event", 1.2, CreateCloseEvent, CreateCloseRaw, cpu});

    const Body set_wait = SetAndWaitForLast;
    const Body set_wait_raw = SetAndWaitForLastRawNoSockets;
    AddPair({"set and wait, 1 event", 1.5, set_wait, set_wait_raw, cpu, 1, 1});
    AddPair({"set and wait for a single object", 1.5, SetAndWaitForSingle, set_wait_raw, cpu, 1, 1});
    AddPair({"set and wait, the last of 8 events", 1.5, set_wait, set_wait_raw, cpu, 1, 8});
    AddPair({"set and wait, the last of 64 events", 1.4, set_wait, set_wait_raw, cpu, 1, 64});
    AddPair({"set and wait, the last of 64, a socket was selected", 1.3, SetAndWaitForLastWithSockets,
             SetAndWaitForLastRawWithSockets, cpu, 1, 64});
    AddPair({"time-out 0, 1 event", 1.4, AskForNothing, AskForNothingRaw, cpu, 1, 1});
    AddPair({"time-out 0, 8 events", 1.4, AskForNothing, AskForNothingRaw, cpu, 1, 8});
    AddPair({"time-out 0, 64 events", 1.4, AskForNothing, AskForNothingRaw, cpu, 1, 64});

    AddPair({"set and wait, 1 event each, 4 threads", 1.5, set_wait, set_wait_raw, wall, 4, 1});
    AddPair({"set and wait, the last of 8 events each, 4 threads", 1.5, set_wait, set_wait_raw, wall, 4, 8});
    AddPair({"blocking hand-over between two threads and back", 1.2, HandOver<EventSide>, HandOver<RawSide>,
             wall, 1, 0, 101, true});
    AddPair({"thread created, run, waited for, closed", 1.3, RunThread, RunThreadRaw, Clock::process, 1, 0,
             61, true});
}
