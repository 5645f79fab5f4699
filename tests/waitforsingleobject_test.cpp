#include "objmem.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class WaitForSingleObjectTest : public LibraryTest {};

TEST_F(WaitForSingleObjectTest, an_event_as_in_a_wait_on_several) {
    const Owned event(MakeAutoEvent(TRUE));
    errno = 77;
    EXPECT_EQ(vllWaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(vllWaitForSingleObject(event, 0), WAIT_TIMEOUT);
    const int64_t start = NowMs();
    EXPECT_EQ(vllWaitForSingleObject(event, 100), WAIT_TIMEOUT);
    EXPECT_GE(NowMs() - start, 100);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(TakeLog().size(), 0U);
    EXPECT_EQ(References(event), 1);
}

TEST_F(WaitForSingleObjectTest, handles_that_are_not_open) {
    const HANDLE closed = MakeAutoEvent();
    vllCloseHandle(closed);
    for (const HANDLE handle : {HANDLE{0}, HANDLE{1}, closed, HANDLE{0x50000}, INVALID_HANDLE_VALUE}) {
        errno = 0;
        EXPECT_EQ(vllWaitForSingleObject(handle, INFINITE), WAIT_FAILED);
        EXPECT_EQ(errno, EINVAL);
        const Errors lines = TakeErrors();
        ASSERT_EQ(lines.size(), 2U);
        EXPECT_EQ(lines[1], "VLL: WaitForSingleObject: invalid event handle = " +
                                std::to_string(static_cast<int>(handle)) + "\n");
    }
}

TEST_F(WaitForSingleObjectTest, a_file_mapping_cannot_be_waited_on) {
    const HANDLE shmem = vlliCreateObject(OBJ_SHMEM);
    vlliGetObjectAddress(shmem)->fd = -1;
    errno = 0;
    EXPECT_EQ(vllWaitForSingleObject(shmem, 0), WAIT_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(TakeErrors(), Errors{"VLL: WaitForSingleObject: invalid object type ( handle = " +
                                   std::to_string(shmem) + ", type = 0x1000000)\n"});
    EXPECT_TRUE(vlliCloseObject(shmem));
}

TEST_F(WaitForSingleObjectTest, failing_calls) {
    const Owned event(MakeAutoEvent());
    const std::string fd = std::to_string(vlliGetObjectAddress(event)->fd);
    const std::string efd = std::to_string(vlliGetObjectAddress(event)->efd);
    const std::string lead = "VLL: WaitForMultipleObjects: epoll_";
    const Failure failures[] = {
        {"epoll_create", 1, EMFILE, {lead + "create( 1 ) == -1, errno = 24\n"}},
        {"epoll_ctl",
         1,
         ENOMEM,
         {lead + "ctl( efd, EPOLL_CTL_ADD, events[0]->efd = " + efd + " ) = -1, errno = 12\n"}},
        {"epoll_ctl",
         2,
         ENOSPC,
         {lead + "ctl( efd, EPOLL_CTL_ADD, events[0]->fd  = " + fd + " ) = -1, errno = 28\n"}},
        {"epoll_wait", 1, EBADF, {}},
    };
    for (const Failure &failure : failures) {
        ExpectFailure(
            failure, [&] { return vllWaitForSingleObject(event, 10); }, WAIT_FAILED);
    }
    EXPECT_EQ(References(event), 1);
}

}  // namespace
