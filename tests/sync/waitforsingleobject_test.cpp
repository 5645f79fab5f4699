#include <fcntl.h>

#include "core/objmem.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class WaitForSingleObjectTest : public LibraryTest {};

TEST_F(WaitForSingleObjectTest, an_event_as_in_a_wait_on_several) {
    const Owned event(makeAutoEvent(TRUE));
    EXPECT_THAT(vllWaitForSingleObject(event, INFINITE), Yields(WAIT_OBJECT_0, 0));
    for (const DWORD timeout_ms : {0U, 10U}) {
        EXPECT_THAT(vllWaitForSingleObject(event, timeout_ms), Yields(WAIT_TIMEOUT, 0));
    }
    EXPECT_EQ(takeLog().size(), 0U);
    for (const Failure &failure :
         {Failure{"epoll_create",
                  1,
                  EMFILE,
                  {"VLL: WaitForMultipleObjects: epoll_create( 1 ) == -1, errno = 24\n"}},
          Failure{"epoll_wait", 1, EBADF, {}}}) {
        expectFailure(
            failure, [&] { return vllWaitForSingleObject(event, 10); }, WAIT_FAILED);
    }
    EXPECT_EQ(references(event), 1);
}

TEST_F(WaitForSingleObjectTest, lines_of_refusals) {
    const Owned mapping(vllCreateFileMapping(INVALID_HANDLE_VALUE, O_RDWR, 1, nullptr));
    EXPECT_EQ(vllWaitForSingleObject(INVALID_HANDLE_VALUE, 0), WAIT_FAILED);
    EXPECT_EQ(vllWaitForSingleObject(mapping, 0), WAIT_FAILED);
    EXPECT_EQ(
        takeErrors(),
        (Errors{"VLLI: OpenObject( 0xFFFFFFFF ): Invalid handle value! \n",
                "VLL: WaitForSingleObject: invalid event handle = -1\n",
                format("VLL: WaitForSingleObject: invalid object type ( handle = %u, type = 0x1000000)\n",
                       HANDLE{mapping})}));
}

}  // namespace
