// Runs a function in a forked child, with a time limit.
#pragma once

#include <sys/types.h>
#include <functional>

// Whether a test may fork while other threads are at work. Under ThreadSanitizer one of them may hold a lock of its
// runtime at that moment, which fork() does not reset: the child would wait for it for ever.
#if defined(__SANITIZE_THREAD__)
constexpr bool kMayForkBesideBusyThreads = false;
#else
constexpr bool kMayForkBesideBusyThreads = true;
#endif

// Skips a test that has to.
#define SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS() \
    if (!kMayForkBesideBusyThreads)             \
    GTEST_SKIP() << "a child forked beside busy threads can hang on ThreadSanitizer's own locks"

struct ChildResult {
    bool exited;  // by itself, within its time
    int status;   // its exit status, or the signal that ended it
};

// Runs body in a child and waits for it; its result is the child's exit status. A child that is not done
// after limit_ms is killed. EXPECT_... failures in the child make its status 99 when body returns 0.
ChildResult runInChild(const std::function<int()> &body, int limit_ms = 60000);

// Starts body in a child. It ends with its result as exit status, and dies with the parent.
pid_t startChild(const std::function<int()> &body);

// Waits for a child of startChild().
ChildResult finishChild(pid_t pid, int limit_ms = 60000);

// Starts body in a child and waits for it: it must end with 0, without a failure.
void expectInChild(const std::function<int()> &body);

// Waits for a child of startChild() that must end so.
void expectSuccess(pid_t pid, int limit_ms = 60000);

// Lets a process wait until another one, which shares it by fork(2), rings.
class Doorbell {
  public:
    Doorbell();
    ~Doorbell();
    Doorbell(const Doorbell &) = delete;
    Doorbell &operator=(const Doorbell &) = delete;

    void ring() const;
    void wait() const;  // for one ring, at most a minute

  private:
    int ends_[2];
};

// For tests of a process that has not started the library. True in such a process; otherwise the current test is
// run alone in a new one, fails when it fails there, and has nothing more to do.
bool inFreshProcess();
