#include "objmem.h"

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/syslog_capture.h"

namespace {

using Errors = std::vector<std::string>;

class ObjmemTest : public LibraryTest {};

TEST_F(ObjmemTest, first_handles_of_a_process) {
    const ChildResult result = RunInChild([] {
        EXPECT_EQ(vllCreateEvent(1, 0, nullptr), 0x10000U);
        EXPECT_EQ(vllCreateEvent(1, 0, nullptr), 0x10001U);
        return 0;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 0);
}

}  // namespace
