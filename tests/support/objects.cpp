#include "support/objects.h"
#include "support/matchers.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <optional>

#include "core/objmem.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syslog_capture.h"

std::string format(const char *format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    EXPECT_LT(length, static_cast<int>(sizeof line));
    return line;
}

Sleeper::Sleeper(std::function<void()> body)
    : body_([this, run = std::move(body)] {
          tid_ = gettid();
          run();
      }),
      handle_(startThread(body_)) {
    EXPECT_TRUE(waitUntil([this] { return tid_ != 0; }));
    EXPECT_TRUE(waitUntilAsleep(tid_));
}

void Sleeper::finish() {
    if (handle_ != 0) {
        finishThread(handle_);
        handle_ = 0;
    }
}

void expectFailure(const Failure &failure, const std::function<int64_t()> &operation, int64_t result) {
    SCOPED_TRACE(format("%s number %d", failure.call != nullptr ? failure.call : "no call", failure.nth));
    const Inventory before = takeInventory();
    takeErrors();
    {
        std::optional<FailCall> fail;
        if (failure.call != nullptr) {
            fail.emplace(failure.call, failure.nth, failure.error);
        }
        EXPECT_THAT(operation(), Yields(result, failure.error));
        EXPECT_TRUE(!fail || fail->happened());
    }
    EXPECT_EQ(takeErrors(), failure.log);
    Inventory after;
    waitUntil([&] { return (after = takeInventory()) == before; }, 5000);
    EXPECT_EQ(after, before);
}

int32_t references(HANDLE handle) {
    const TableLock lock;
    return vlliGetObjectAddress(handle)->refCount;
}
