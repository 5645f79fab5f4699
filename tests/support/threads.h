// Threads and signals in tests.
#pragma once

#include <unistd.h>
#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include "support/fixture.h"

// Starts a thread and waits until it sleeps in the kernel.
template <typename Body>
std::thread startAsleep(Body body) {
    const auto tid = std::make_shared<std::atomic<pid_t>>(0);
    std::thread thread([tid, body] {
        *tid = gettid();
        body();
    });
    EXPECT_TRUE(waitUntil([&] { return *tid != 0; }));
    EXPECT_TRUE(waitUntilAsleep(*tid));
    return thread;
}

// A handler for a signal, for a scope. Without SA_RESTART: what can be interrupted is.
class SignalHandler {
  public:
    SignalHandler(int number, void (*routine)(int)) : number_(number) {
        struct sigaction action = {};
        action.sa_handler = routine;
        sigaction(number, &action, &former_);
    }
    ~SignalHandler() { sigaction(number_, &former_, nullptr); }
    SignalHandler(const SignalHandler &) = delete;
    SignalHandler &operator=(const SignalHandler &) = delete;

  private:
    int number_;
    struct sigaction former_;
};

inline void ignoreSignal(int) {}
