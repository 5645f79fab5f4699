#include "core/objmem.h"

#include <fcntl.h>
#include <atomic>
#include <cstring>

#include "support/child.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class ObjmemTest : public LibraryTest {};

TEST(ObjmemOrderTest, handles_of_a_fresh_process_come_in_order_and_return_late) {
    if (!inFreshProcess()) {
        return;
    }
    vllvwincompatMain();
    const Owned first(makeManualEvent()), second(makeManualEvent());
    EXPECT_EQ(HANDLE{first}, 0x10000U);
    EXPECT_EQ(HANDLE{second}, 0x10001U);
    for (HANDLE index = 2; index < kObjectCount; ++index) {
        const Owned timer(vllCreateWaitableTimer(nullptr));
        EXPECT_EQ(HANDLE{timer}, OBJ_WAITABLE_TIMER | index);
    }
    const Owned third(makeManualEvent());
    EXPECT_EQ(HANDLE{third}, 0x10002U);
}

// Timers without descriptors fill the table, so that the descriptors do not end first.
TEST_F(ObjmemTest, the_129th_record_and_the_33rd_memory_record_are_refused) {
    HANDLE handles[kObjectCount];
    for (uint32_t i = 0; i < kObjmemCount; ++i) {
        handles[i] = i % 2 == 0 ? vllCreateMutex(FALSE, nullptr) : vllCreateSemaphore(0, nullptr);
        ASSERT_NE(handles[i], 0U);
    }
    for (const uint32_t type : {OBJ_THREAD, OBJ_MUTEX, OBJ_SEMAPHORE}) {
        expectFailure(
            {nullptr, 0, ENOMEM, {"VLLI: AllocMemObject() error = ENOMEM\n"}},
            [&] { return vlliCreateObject(type); }, 0);
    }
    for (uint32_t i = kObjmemCount; i < kObjectCount; ++i) {
        handles[i] = vlliCreateObject(OBJ_WAITABLE_TIMER);
        ASSERT_NE(handles[i], 0U);
        vlliGetObjectAddress(handles[i])->fd = -1;
    }
    const std::function<HANDLE()> creations[] = {
        [] { return makeAutoEvent(); }, [] { return vllCreateWaitableTimer(nullptr); },
        [] { return vllGetStdHandle(0) + 1; }, [&] { return vllDuplicateHandle(handles[kObjmemCount]); }};
    for (const auto &create : creations) {
        expectFailure({nullptr, 0, ENOMEM, {"VLLI: AllocObject() error = ENOMEM\n"}}, create, 0);
    }
    for (const HANDLE handle : handles) {
        EXPECT_TRUE(vllCloseHandle(handle));
    }
}

// bad_handles_test.cpp has the results; this has the lines, and the stack that follows one of them.
TEST_F(ObjmemTest, lines_of_refused_handles) {
    const HANDLE closed = makeAutoEvent();
    EXPECT_TRUE(vllCloseHandle(closed));
    const struct {
        bool open;
        HANDLE handle;
        std::string line;
        bool stack;
    } rows[] = {
        {true, 0x5AbC0, "VLLI: OpenObject( 0x5ABC0 ): Invalid handle value! \n", true},
        {true, closed, format("VLLI: OpenObject( 0x%X ): Unused handle! \n", closed), false},
        {false, 0x10080, "VLLI: CloseObject( 0x10080 ): Invalid handle value! \n", false},
    };
    for (const auto &row : rows) {
        if (row.open) {
            EXPECT_THAT(vlliOpenObject(row.handle), FailsWith(EINVAL));
        } else {
            EXPECT_THAT(vlliCloseObject(row.handle), FailsWith(EINVAL));
        }
        const std::vector<LogLine> log = takeLog();
        ASSERT_EQ(log.size() > 1, row.stack);
        EXPECT_EQ(log[0].text, row.line);
        EXPECT_TRUE(!row.stack || log[1].text.compare(0, 29, "VLL: STACK: backtrace depth =") == 0);
    }
}

TEST_F(ObjmemTest, what_is_neither_created_nor_closed_nor_freed) {
    for (const uint32_t type : {0U, 0x50000U, 0x10001U, 0x300000U, 0x1300000U, 0xFFFF0000U}) {
        EXPECT_THAT(vlliCreateObject(type), FailsWith(EINVAL));
    }
    const Owned live(makeAutoEvent());
    const HANDLE handle = makeAutoEvent();
    EXPECT_TRUE(vllCloseHandle(handle));
    const Inventory before = takeInventory();
    EXPECT_THAT(vlliCloseObject(handle), FailsWith(EINVAL));
    for (const uint32_t index : {handle & kIndexMask, live & kIndexMask, kObjectCount, 0xFFFFFFFFU}) {
        EXPECT_THAT(vlliFreeObject(index), FailsWith(EBUSY));
    }
    EXPECT_EQ(takeInventory(), before);
    EXPECT_EQ(takeErrors(), Errors{});
}

TEST_F(ObjmemTest, plain_descriptors_are_closed_but_0) {
    EXPECT_TRUE(vllCloseHandle(0));
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    const auto fd = static_cast<HANDLE>(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(vllCloseHandle(fd));
    EXPECT_THAT(vllCloseHandle(fd), FailsWith(EBADF));
}

TEST_F(ObjmemTest, any_type_code_opens_a_live_record) {
    const Owned event(makeManualEvent());
    const HANDLE other = OBJ_MUTEX | (event & kIndexMask);
    EXPECT_EQ(vlliOpenObject(other), vlliGetObjectAddress(event));
    EXPECT_EQ(references(event), 2);
    EXPECT_TRUE(vlliCloseObject(other));
}

TEST_F(ObjmemTest, memory_records_count_their_users) {
    const HANDLE handle = vlliCreateObject(OBJ_THREAD);
    ASSERT_NE(handle, 0U);
    vlliGetObjectAddress(handle)->fd = -1;
    ObjmemRecord *mem = vlliGetObjectAddress(handle)->mem;
    EXPECT_TRUE(vlliAttachObjmem(mem));
    EXPECT_EQ(mem->refCount, 2);
    EXPECT_TRUE(vlliDetachObjmem(mem));
    EXPECT_TRUE(vllCloseHandle(handle)) << "the last object record takes its memory record along";
    EXPECT_EQ(mem->refCount, 0);
    const Inventory before = takeInventory();
    EXPECT_FALSE(vlliAttachObjmem(mem));
    EXPECT_FALSE(vlliDetachObjmem(mem));
    EXPECT_THAT(vlliDetachObjmem(nullptr), FailsWith(EINVAL));
    const std::vector<LogLine> log = takeLog();
    ASSERT_GE(log.size(), 3U) << "the stack follows";
    EXPECT_EQ(log[0].text, "VLLI: DetachObjmem( mem = NUILL )\n");
    ObjmemRecord stranger[2] = {};
    stranger[0].refCount = stranger[1].refCount = 1;
    EXPECT_FALSE(vlliDetachObjmem(&stranger[0]));
    EXPECT_EQ(takeInventory(), before);
}

// The lock is error-checking: a thread that holds it gets an error from every operation.
TEST_F(ObjmemTest, operations_of_the_thread_that_holds_the_lock_fail) {
    const Owned event(makeAutoEvent());
    ObjmemRecord used = {};
    used.refCount = 1;
    const std::pair<std::function<int64_t()>, int64_t> rows[] = {
        {[] { return vlliLockMemoryMutex(); }, EDEADLK},
        {[] { return vlliInitObjMem(); }, -1},
        {[] { return vlliCreateObject(OBJ_EVENT); }, 0},
        {[] { return vlliCreateObject(OBJ_THREAD); }, 0},
        {[&] { return vlliOpenObject(event) != nullptr; }, 0},
        {[&] { return vlliCloseObject(event); }, 0},
        {[&] { return vllCloseHandle(event); }, 0},
        {[&] { return vllDuplicateHandle(event); }, 0},
        {[&] { return vlliFreeObject(event & kIndexMask); }, 0},
        {[&] { return vlliAttachObjmem(&used); }, 0},
        {[&] { return vlliDetachObjmem(&used); }, 0},
        {[&] { return vlliHashMMap(event); }, EDEADLK},
        {[&] { return vlliUnhashMMapp(&used); }, 0},
    };
    {
        const TableLock lock;
        for (const auto &[operation, result] : rows) {
            EXPECT_THAT(operation(), FailsWith(EDEADLK, result)) << &operation - &rows[0].first;
        }
        vllvwincompatExit();
        errno = 0;
        vllvwincompatMain();
        EXPECT_EQ(errno, 0) << "the start reports nothing";
    }
    EXPECT_EQ(references(event), 1);
    EXPECT_EQ(used.refCount, 1);
}

// The values are those of two other implementations of the published algorithm.
TEST_F(ObjmemTest, hash_is_lookup2) {
    const char *const text = "The quick brown fox jumps over the lazy dog";
    const struct {
        uint32_t length, initial0, initial1;
    } vectors[] = {
        {0, 0xbd49d10d, 0x6ddfb8c9},  {1, 0x312c4181, 0x3ed05d52},  {4, 0x41963a2a, 0xf7845cbb},
        {7, 0x9a00b688, 0xe9f9a147},  {8, 0x286fa134, 0xa66ac3ba},  {11, 0x9335dea3, 0xd4b86bac},
        {12, 0xe0695d67, 0xd059424f}, {23, 0x8f489aa1, 0xd30ac588}, {43, 0xfc1558de, 0xb70054e4},
    };
    for (const auto &vector : vectors) {
        EXPECT_EQ(vlliHash(text, vector.length, 0), vector.initial0) << vector.length;
        EXPECT_EQ(vlliHash(text, vector.length, 1), vector.initial1) << vector.length;
        char unaligned[64];
        memcpy(unaligned + 1, text, vector.length);
        EXPECT_EQ(vlliHash(unaligned + 1, vector.length, 0), vector.initial0) << vector.length;
    }
}

HANDLE makeView(uintptr_t address) {
    const HANDLE handle = vlliCreateObject(OBJ_SHMEM);
    ObjectRecord *record = vlliGetObjectAddress(handle);
    record->fd = -1;
    record->addr = reinterpret_cast<void *>(address);
    EXPECT_EQ(vlliHashMMap(handle), 0);
    return handle;
}

TEST_F(ObjmemTest, views_are_found_by_address_also_in_one_bucket) {
    const auto bucket = [](uintptr_t address) { return vlliHash(&address, sizeof address, 1) & 31; };
    std::vector<uintptr_t> at;  // four page addresses of one bucket
    for (uintptr_t address = 0x40000000; at.size() < 4; address += 0x1000) {
        if (bucket(address) == 5) {
            at.push_back(address);
        }
    }
    const HANDLE views[] = {makeView(at[0]), makeView(at[1]), makeView(at[2]), makeView(at[1]),
                            makeView(0x3000)};
    EXPECT_NE(bucket(0x3000), 5U);
    EXPECT_EQ(mmapHashTable[5], views[3]);
    const std::pair<uintptr_t, HANDLE> steps[] = {
        {at[3], 0},        {at[1], views[3]}, {at[1], views[1]}, {at[1], 0},
        {at[2], views[2]}, {at[0], views[0]}, {at[0], 0},        {0x3000, views[4]},
    };
    for (const auto &[address, view] : steps) {
        EXPECT_EQ(vlliUnhashMMapp(reinterpret_cast<void *>(address)), view)
            << "of two at one address the newer";
    }
    EXPECT_EQ(mmapHashTable[5], 0U);
    for (const HANDLE view : views) {
        vlliGetObjectAddress(view)->addr = nullptr;  // nothing is mapped
        EXPECT_TRUE(vlliCloseObject(view));
    }
}

// Threads that create, duplicate, use and close at once; some close handles that others still use.
TEST_F(ObjmemTest, the_tables_survive_concurrent_use) {
    std::atomic<HANDLE> shared{0};
    const auto body = [&] {
        for (int i = 0; i < 300; ++i) {
            const HANDLE event = makeAutoEvent(TRUE);
            ASSERT_NE(event, 0U);
            const HANDLE duplicate = vllDuplicateHandle(event);
            ASSERT_NE(duplicate, 0U);
            EXPECT_TRUE(vllCloseHandle(event));
            EXPECT_TRUE(isSignalled(duplicate));
            const HANDLE before = shared.exchange(duplicate);
            if (before != 0) {
                vllSetEvent(before);
                EXPECT_TRUE(vllCloseHandle(before));
            }
        }
    };
    HANDLE threads[4];
    for (HANDLE &thread : threads) {
        thread = startThread(body);
    }
    for (const HANDLE thread : threads) {
        finishThread(thread);
    }
    EXPECT_TRUE(vllCloseHandle(shared));
    EXPECT_EQ(takeErrors(), Errors{});
}

TEST_F(ObjmemTest, a_forked_child_has_a_usable_table) {
    SKIP_UNLESS_FORKS_BESIDE_BUSY_THREADS();
    std::atomic<bool> stop{false};
    const auto body = [&] {
        while (!stop) {
            vllCloseHandle(makeAutoEvent());
        }
    };
    const HANDLE thread = startThread(body);
    for (int i = 0; i < 20; ++i) {
        expectInChild([] {
            const HANDLE event = makeAutoEvent(TRUE);
            return event != 0 && isSignalled(event) && vllCloseHandle(event) ? 0 : 1;
        });
    }
    stop = true;
    finishThread(thread);
}

}  // namespace
