#include "core/objmem.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class WaitForSingleObjectTest : public LibraryTest {};

TEST_F(WaitForSingleObjectTest, an_event_as_in_a_wait_on_several) {
    const Owned event(makeAutoEvent(TRUE));
    errno = 77;
    EXPECT_EQ(vllWaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(vllWaitForSingleObject(event, 0), WAIT_TIMEOUT);
    EXPECT_EQ(vllWaitForSingleObject(event, 10), WAIT_TIMEOUT);
    EXPECT_EQ(errno, 77);
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

TEST_F(WaitForSingleObjectTest, what_cannot_be_waited_on) {
    const HANDLE closed = makeAutoEvent();
    vllCloseHandle(closed);
    for (const HANDLE handle : {HANDLE{0}, HANDLE{1}, closed, HANDLE{0x50000}, INVALID_HANDLE_VALUE}) {
        EXPECT_THAT(vllWaitForSingleObject(handle, INFINITE), Yields(WAIT_FAILED, EINVAL));
        const Errors lines = takeErrors();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[1],
                  format("VLL: WaitForSingleObject: invalid event handle = %d\n", static_cast<int>(handle)));
    }
    const Owned mapping(vlliCreateObject(OBJ_SHMEM));
    vlliGetObjectAddress(mapping)->fd = -1;
    EXPECT_THAT(vllWaitForSingleObject(mapping, 0), Yields(WAIT_FAILED, EINVAL));
    EXPECT_EQ(
        takeErrors(),
        Errors{format("VLL: WaitForSingleObject: invalid object type ( handle = %u, type = 0x1000000)\n",
                      HANDLE{mapping})});
}

}  // namespace
