#include "core/objmem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <cstring>

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/syslog_capture.h"

namespace {

class ObjmemTest : public LibraryTest {};

constexpr char kNoObject[] = "VLLI: AllocObject() error = ENOMEM\n";
constexpr char kNoMemObject[] = "VLLI: AllocMemObject() error = ENOMEM\n";

std::string invalid(const char *operation, HANDLE handle) {
    return format("VLLI: %s( 0x%X ): Invalid handle value! \n", operation, handle);
}

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

// Records without descriptors, so that only the tables end.
TEST_F(ObjmemTest, the_129th_record_and_the_33rd_memory_record_are_refused) {
    HANDLE handles[kObjectCount];
    for (uint32_t i = 0; i < kObjmemCount; ++i) {
        handles[i] = vllCreateMutex(FALSE, nullptr);
        ASSERT_NE(handles[i], 0U);
        EXPECT_EQ(vlliGetObjectAddress(handles[i])->mem->refCount, 1);
    }
    for (const uint32_t type : {OBJ_THREAD, OBJ_MUTEX, OBJ_SEMAPHORE}) {
        expectFailure(
            {nullptr, 0, ENOMEM, {kNoMemObject}}, [&] { return vlliCreateObject(type); }, 0);
    }
    for (uint32_t i = kObjmemCount; i < kObjectCount; ++i) {
        handles[i] = vlliCreateObject(OBJ_WAITABLE_TIMER);
        ASSERT_NE(handles[i], 0U);
        vlliGetObjectAddress(handles[i])->fd = -1;
    }
    const std::function<HANDLE()> creations[] = {[] { return makeAutoEvent(); },
                                                 [] { return vllCreateWaitableTimer(nullptr); },
                                                 [&] { return vllDuplicateHandle(handles[kObjmemCount]); }};
    for (const auto &create : creations) {
        expectFailure({nullptr, 0, ENOMEM, {kNoObject}}, create, 0);
    }
    EXPECT_EQ(firstFreeObject, kNoNext);
    EXPECT_EQ(lastFreeObject, kNoNext);
    for (const HANDLE handle : handles) {
        EXPECT_TRUE(vllCloseHandle(handle));
    }
}

TEST_F(ObjmemTest, create_refuses_what_is_no_type_code) {
    for (const uint32_t type : {0U, 0x50000U, 0x10001U, 0x300000U, 0x1300000U, 0xFFFF0000U}) {
        EXPECT_THAT(vlliCreateObject(type), Yields(0U, EINVAL));
    }
    EXPECT_EQ(takeErrors(), Errors{});
}

TEST_F(ObjmemTest, invalid_handles_are_refused_with_their_lines) {
    const Inventory before = takeInventory();
    for (const HANDLE handle : {0x50000U, 0x10080U, 0x1FFFFU, 0xFFFFFFFFU}) {
        SCOPED_TRACE(handle);
        EXPECT_THAT(vlliOpenObject(handle), Yields(nullptr, EINVAL));
        const std::vector<LogLine> log = takeLog();
        ASSERT_GE(log.size(), 3U) << "the stack follows";
        EXPECT_EQ(log[0].text, invalid("OpenObject", handle));
        EXPECT_EQ(log[1].text.compare(0, 29, "VLL: STACK: backtrace depth ="), 0);

        EXPECT_THAT(vllCloseHandle(handle), Yields(FALSE, EINVAL));
        const std::vector<LogLine> closed = takeLog();
        ASSERT_EQ(closed.size(), 1U) << "no stack";
        EXPECT_EQ(closed[0].text, invalid("CloseObject", handle));

        EXPECT_THAT(vllDuplicateHandle(handle), Yields(0U, EINVAL));
        EXPECT_EQ(takeErrors(), Errors{invalid("OpenObject", handle)});
    }
    EXPECT_EQ(takeInventory(), before);
}

TEST_F(ObjmemTest, a_free_record_is_neither_opened_nor_closed) {
    const HANDLE handle = makeAutoEvent();
    EXPECT_TRUE(vllCloseHandle(handle));
    const Inventory before = takeInventory();
    EXPECT_THAT(vlliOpenObject(handle), Yields(nullptr, EINVAL));
    const std::vector<LogLine> log = takeLog();
    ASSERT_EQ(log.size(), 1U) << "no stack";
    EXPECT_EQ(log[0].text, format("VLLI: OpenObject( 0x%X ): Unused handle! \n", handle));
    for (const auto close : {vllCloseHandle, vlliCloseObject}) {
        EXPECT_THAT(close(handle), Yields(FALSE, EINVAL));
    }
    const Owned live(makeAutoEvent());
    for (const uint32_t index : {handle & kIndexMask, live & kIndexMask, kObjectCount, 0xFFFFFFFFU}) {
        EXPECT_THAT(vlliFreeObject(index), Yields(FALSE, EBUSY));
    }
    EXPECT_EQ(takeErrors(), Errors{});
    EXPECT_EQ(takeInventory().free_objects, before.free_objects - 1);
    EXPECT_EQ(vlliGetObjectAddress(handle)->refCount, 0);
}

TEST_F(ObjmemTest, plain_descriptors) {
    EXPECT_TRUE(vllCloseHandle(0));
    EXPECT_NE(fcntl(0, F_GETFD), -1) << "handle 0 is no descriptor";
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GT(fd, 0);
    EXPECT_TRUE(vllCloseHandle(static_cast<HANDLE>(fd)));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_THAT(vllCloseHandle(static_cast<HANDLE>(fd)), Yields(FALSE, EBADF));
    EXPECT_THAT(vllDuplicateHandle(1), Yields(0U, EINVAL));
    EXPECT_EQ(takeErrors(), Errors{invalid("OpenObject", 1)}) << "a descriptor is no table handle";
}

// The handle's index is live, but the record was issued as another type.
TEST_F(ObjmemTest, forged_type_codes_do_nothing) {
    const Owned event(makeManualEvent());
    const HANDLE index = event & kIndexMask;
    for (const HANDLE type : {OBJ_WAITABLE_TIMER, OBJ_CONSOLE, OBJ_THREAD, OBJ_MUTEX, OBJ_SEMAPHORE,
                              OBJ_SHMEM, OBJ_NAMED_MUTEX, OBJ_NAMED_SEMAPHORE}) {
        const HANDLE forged = type | index;
        SCOPED_TRACE(type);
        EXPECT_THAT(vllCloseHandle(forged), Yields(FALSE, EINVAL));
        EXPECT_THAT(vllDuplicateHandle(forged), Yields(0U, EINVAL));
        EXPECT_THAT(vllSetEvent(forged), Yields(FALSE, EINVAL));
        EXPECT_THAT(vllSetWaitableTimer(forged, 1), Yields(FALSE, EINVAL));
        EXPECT_THAT(vllResumeThread(forged), Yields(0U, EINVAL));
        EXPECT_THAT(vllTerminateThread(forged, 1), Yields(FALSE, EINVAL));
        EXPECT_THAT(vllWaitForSingleObject(forged, 0), Yields(WAIT_FAILED, EINVAL));
        EXPECT_THAT(vllWaitForMultipleObjects(1, &forged, 0), Yields(WAIT_FAILED, EINVAL));
        ObjectRecord *record = vlliOpenObject(forged);  // opens, by contract
        EXPECT_EQ(record, vlliGetObjectAddress(event));
        EXPECT_TRUE(vlliCloseObject(forged));
    }
    EXPECT_EQ(vlliGetObjectAddress(event)->refCount, 1);
    EXPECT_FALSE(isSignalled(event));
    takeErrors();
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
    EXPECT_THAT(vlliDetachObjmem(nullptr), Yields(FALSE, EINVAL));
    const std::vector<LogLine> log = takeLog();
    ASSERT_GE(log.size(), 3U) << "the stack follows";
    EXPECT_EQ(log[0].text, "VLLI: DetachObjmem( mem = NUILL )\n");
    ObjmemRecord stranger[2] = {};
    stranger[0].refCount = stranger[1].refCount = 1;
    EXPECT_FALSE(vlliDetachObjmem(&stranger[0]));
    EXPECT_EQ(takeInventory(), before);
}

TEST_F(ObjmemTest, a_lock_that_cannot_be_taken_fails_cleanly) {
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
    for (const auto &[operation, result] : rows) {
        SCOPED_TRACE(&operation - &rows[0].first);
        expectFailure({"pthread_mutex_lock", 1, EDEADLK, {}}, operation, result);
    }
    EXPECT_EQ(vlliGetObjectAddress(event)->refCount, 1);
    // The real thing: the lock is error-checking, so its owner is told.
    const TableLock lock;
    EXPECT_EQ(vlliLockMemoryMutex(), EDEADLK);
}

// From an implementation of the published algorithm in another language, checked against a second one.
TEST_F(ObjmemTest, hash_is_lookup2) {
    const char *const text = "The quick brown fox jumps over the lazy dog";
    const struct {
        uint32_t length, initial0, initial1;
    } vectors[] = {
        {0, 0xbd49d10d, 0x6ddfb8c9},  {1, 0x312c4181, 0x3ed05d52},  {2, 0x8ab85a7d, 0xa209bade},
        {3, 0x61f32837, 0x325829e7},  {4, 0x41963a2a, 0xf7845cbb},  {5, 0x4bf9fa9b, 0xa58e96a0},
        {6, 0x3e4cbcde, 0x40d050bd},  {7, 0x9a00b688, 0xe9f9a147},  {8, 0x286fa134, 0xa66ac3ba},
        {9, 0x4c0fd80c, 0xe6429485},  {10, 0x44069373, 0x8eae6d63}, {11, 0x9335dea3, 0xd4b86bac},
        {12, 0xe0695d67, 0xd059424f}, {13, 0x0c6ac005, 0x8349c859}, {23, 0x8f489aa1, 0xd30ac588},
        {24, 0xd5a21ff2, 0xa5e484ad}, {25, 0x728393b1, 0xd49405ca}, {43, 0xfc1558de, 0xb70054e4},
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

void dropView(HANDLE handle) {
    vlliGetObjectAddress(handle)->addr = nullptr;  // nothing is mapped
    EXPECT_TRUE(vlliCloseObject(handle));
}

TEST_F(ObjmemTest, views_are_found_by_address_also_in_one_bucket) {
    // Three page addresses of one bucket, and one of another.
    std::vector<uintptr_t> addresses;
    uintptr_t other = 0;
    const auto bucket = [](uintptr_t address) { return vlliHash(&address, sizeof address, 1) & 31; };
    for (uintptr_t address = 0x40000000; addresses.size() < 3 || other == 0; address += 0x1000) {
        if (addresses.size() < 3 && bucket(address) == 5) {
            addresses.push_back(address);
        } else if (bucket(address) != 5) {
            other = address;
        }
    }
    const HANDLE views[] = {makeView(addresses[0]), makeView(addresses[1]), makeView(addresses[2]),
                            makeView(other)};
    EXPECT_EQ(mmapHashTable[5], views[2]) << "the newest first";
    const auto at = [](uintptr_t address) { return reinterpret_cast<void *>(address); };
    EXPECT_EQ(vlliUnhashMMapp(at(0x3000)), 0U);
    EXPECT_EQ(vlliUnhashMMapp(at(addresses[1])), views[1]) << "from the middle";
    EXPECT_EQ(vlliUnhashMMapp(at(addresses[1])), 0U);
    EXPECT_EQ(vlliUnhashMMapp(at(addresses[0])), views[0]);
    EXPECT_EQ(vlliUnhashMMapp(at(addresses[2])), views[2]);
    EXPECT_EQ(mmapHashTable[5], 0U);
    EXPECT_EQ(vlliUnhashMMapp(at(other)), views[3]);

    const HANDLE newer = makeView(other);
    vlliHashMMap(views[3]);
    EXPECT_EQ(vlliUnhashMMapp(at(other)), views[3]) << "of two views at one address the newer first";
    EXPECT_EQ(vlliUnhashMMapp(at(other)), newer);
    dropView(newer);
    for (const HANDLE view : views) {
        dropView(view);
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
            const HANDLE event = makeAutoEvent();
            vllCloseHandle(event);
        }
    };
    const HANDLE thread = startThread(body);
    for (int i = 0; i < 20; ++i) {
        const ChildResult result = runInChild([] {
            const HANDLE event = makeAutoEvent(TRUE);
            return event != 0 && isSignalled(event) && vllCloseHandle(event) ? 0 : 1;
        });
        EXPECT_TRUE(result.exited);
        EXPECT_EQ(result.status, 0);
    }
    stop = true;
    finishThread(thread);
}

}  // namespace
