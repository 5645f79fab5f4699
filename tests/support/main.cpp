#include <gtest/gtest.h>

#include "support/private_machine.h"
#include "support/syslog_capture.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        EnterPrivateMachine();
        StartSyslogCapture();
    }
    return RUN_ALL_TESTS();
}
