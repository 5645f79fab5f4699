#include "support/objects.h"

#include <cerrno>

#include "objmem.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syslog_capture.h"

void ExpectFailure(const Failure &failure, const std::function<int64_t()> &operation, int64_t result) {
    SCOPED_TRACE(std::string(failure.call) + " number " + std::to_string(failure.nth));
    const Inventory before = TakeInventory();
    TakeErrors();
    {
        const FailCall fail(failure.call, failure.nth, failure.error);
        errno = 0;
        const int64_t got = operation();
        const int error = errno;
        EXPECT_TRUE(fail.happened());
        EXPECT_EQ(got, result);
        EXPECT_EQ(error, failure.error);
    }
    EXPECT_EQ(TakeErrors(), failure.log);
    Inventory after;
    WaitUntil([&] { return (after = TakeInventory()) == before; }, 5000);
    EXPECT_EQ(after, before);
}

int32_t References(HANDLE handle) {
    const TableLock lock;
    return vlliGetObjectAddress(handle)->refCount;
}
