#include <gtest/gtest.h>
#include <thread>

#include "support/private_machine.h"
#include "support/syslog_capture.h"

#if defined(__SANITIZE_THREAD__)
// A forked child may start threads of its own.
extern "C" const char *__tsan_default_options() {
    return "die_after_fork=0";
}
#endif

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        EnterPrivateMachine();
        StartSyslogCapture();
#if defined(__SANITIZE_THREAD__)
        std::thread([] {}).join();  // its own background thread starts with the first, and is not a test's
#endif
    }
    return RUN_ALL_TESTS();
}
