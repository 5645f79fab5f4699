// Small helpers for tests of objects: handles that close themselves, threads that run a lambda, failing calls.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>
#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "vwincompat.h"

using Errors = std::vector<std::string>;

// printf(3) into a string, for the lines that are expected in the log.
std::string format(const char *format, ...) __attribute__((format(printf, 1, 2)));

// A handle that is closed at the end of its scope.
class Owned {
  public:
    explicit Owned(HANDLE handle) : handle_(handle) { EXPECT_NE(handle, 0U); }
    ~Owned() {
        if (handle_ != 0) {
            EXPECT_TRUE(vllCloseHandle(handle_));
        }
    }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    operator HANDLE() const { return handle_; }
    HANDLE release() {
        const HANDLE handle = handle_;
        handle_ = 0;
        return handle;
    }

  private:
    HANDLE handle_;
};

inline HANDLE makeAutoEvent(BOOL signalled = FALSE) {
    return vllCreateEvent(FALSE, signalled, nullptr);
}

inline HANDLE makeManualEvent(BOOL signalled = FALSE) {
    return vllCreateEvent(TRUE, signalled, nullptr);
}

inline bool isSignalled(HANDLE handle) {
    return vllWaitForSingleObject(handle, 0) == WAIT_OBJECT_0;
}

// Starts a thread of the library that runs body, which must outlive it.
template <typename Body>
HANDLE startThread(const Body &body, DWORD flags = 0) {
    return vllCreateThread(
        0,
        [](LPVOID argument) -> uint32_t {
            (*static_cast<const Body *>(argument))();
            return 0;
        },
        const_cast<Body *>(&body), nullptr, flags);
}

// Waits for the end of a thread and closes its handle.
inline void finishThread(HANDLE thread) {
    EXPECT_EQ(vllWaitForSingleObject(thread, 60000), WAIT_OBJECT_0);
    EXPECT_TRUE(vllCloseHandle(thread));
}

// A thread of the library that runs a body. When the constructor returns it sleeps in it, in a wait for instance.
class Sleeper {
  public:
    explicit Sleeper(std::function<void()> body);
    ~Sleeper() { finish(); }
    Sleeper(const Sleeper &) = delete;
    Sleeper &operator=(const Sleeper &) = delete;

    HANDLE handle() const { return handle_; }
    pid_t tid() const { return tid_; }
    // Waits for its end.
    void finish();

  private:
    const std::function<void()> body_;
    std::atomic<pid_t> tid_{0};
    HANDLE handle_;
};

// The references on a handle's record.
int32_t references(HANDLE handle);

// The descriptor that the next open call will get.
inline int nextFd() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

// A call that is made to fail, and what must come of it.
struct Failure {
    const char *call;  // as in FailCall; null: the operation fails by itself
    int nth;
    int error;
    Errors log;  // the LOG_ERR lines
};

// Runs operation, with the call failing: the result, the last error and the log are the expected ones, and
// nothing is left behind.
void expectFailure(const Failure &failure, const std::function<int64_t()> &operation, int64_t result);
