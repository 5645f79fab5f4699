#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <csignal>
#include <thread>

#include "support/private_machine.h"
#include "support/syslog_capture.h"

#if defined(__SANITIZE_THREAD__)
// A forked child may start threads of its own, and has not leaked those of its parent.
extern "C" const char *__tsan_default_options() {
    return "die_after_fork=0:report_thread_leaks=0";
}
#endif

#if defined(__SANITIZE_ADDRESS__)
// Whenever a thread unwinds, AddressSanitizer calls sigaltstack() through its interceptor, in a part of the stack
// that is still marked as that of the frames just left, and reports a false error. This replaces the interceptor.
extern "C" __attribute__((no_sanitize_address)) int sigaltstack(const stack_t *stack, stack_t *old) noexcept {
    return static_cast<int>(syscall(SYS_sigaltstack, stack, old));
}
#endif

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        enterPrivateMachine();
        startSyslogCapture();
#if defined(__SANITIZE_THREAD__)
        std::thread([] {
        }).join();  // the first thread starts ThreadSanitizer's own, which no test shall count
#endif
    }
    return RUN_ALL_TESTS();
}
