// The fixture of every test that uses the library, and small helpers for tests.
#pragma once

#include <gtest/gtest.h>
#include <time.h>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "vwincompat.h"

// What a test must leave as it found it.
struct Inventory {
    uint32_t free_objects;
    uint32_t free_objmem;
    uint32_t views;  // mapped views in the hash
    std::vector<std::string> descriptors;
    uint32_t threads;

    bool operator==(const Inventory &other) const;
};

Inventory takeInventory();
std::ostream &operator<<(std::ostream &out, const Inventory &inventory);

// Starts the library and checks at the end that every record, descriptor and thread that the test made is gone.
class LibraryTest : public testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

  private:
    Inventory before_;
};

// Polls a condition every millisecond until it holds: true, or false after the limit.
bool waitUntil(const std::function<bool()> &condition, int limit_ms = 20000);

// True once the thread (a kernel thread id, gettid(), or a child's process id) sleeps in the kernel.
bool waitUntilAsleep(pid_t tid, int limit_ms = 20000);

// A clock in microseconds, and the monotonic one in milliseconds.
int64_t nowUs(clockid_t clock = CLOCK_MONOTONIC);
inline int64_t nowMs() {
    return nowUs() / 1000;
}
