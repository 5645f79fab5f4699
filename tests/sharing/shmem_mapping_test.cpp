// File mappings and views.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <set>

#include "core/objmem.h"
#include "sharing/named_objects.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/matchers.h"
#include "support/private_machine.h"
#include "support/syslog_capture.h"

namespace {

constexpr const char *kName = "/vll_mapping_test";
constexpr DWORD kReadWrite = PROT_READ | PROT_WRITE;
constexpr SIZE_T kPage = 4096;

class ShmemMappingTest : public LibraryTest {
  protected:
    void TearDown() override {
        LibraryTest::TearDown();
        shm_unlink(kName);
    }
};

HANDLE createMemory(DWORD size, const char *name = nullptr, DWORD access = O_RDWR) {
    return vllCreateFileMapping(INVALID_HANDLE_VALUE, access, size, name);
}

char *mapWhole(HANDLE mapping, SIZE_T length, DWORD protection = kReadWrite) {
    return static_cast<char *>(vllMapViewOfFile(mapping, protection, 0, length));
}

std::set<std::string> namesInUse() {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator("/dev/shm")) {
        names.insert(entry.path());
    }
    return names;
}

TEST_F(ShmemMappingTest, named_memory_lives_as_long_as_its_users) {
    HANDLE mapping = fresh(createMemory(2 * kPage, kName));
    char *view = mapWhole(mapping, 2 * kPage);
    ASSERT_NE(view, nullptr);
    strcpy(view, "shared");
    expectInChild([&] {
        const HANDLE other = inUse(createMemory(17, kName));
        char *second = mapWhole(other, 2 * kPage);
        EXPECT_STREQ(second, "shared");
        second[kPage] = 'x';
        EXPECT_TRUE(vllUnmapViewOfFile(second));
        EXPECT_TRUE(vllCloseHandle(other));
        return 0;
    });
    EXPECT_EQ(view[kPage], 'x');
    EXPECT_TRUE(vllCloseHandle(mapping));  // the view keeps the object
    mapping = inUse(createMemory(2 * kPage, kName));
    char *second = static_cast<char *>(vllMapViewOfFile(mapping, PROT_READ, kPage, kPage));
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    EXPECT_TRUE(vllCloseHandle(mapping));
    EXPECT_EQ(second[0], 'x');
    EXPECT_TRUE(vllUnmapViewOfFile(second));
    mapping = fresh(createMemory(kPage, kName));
    view = mapWhole(mapping, kPage);
    EXPECT_TRUE(std::all_of(view, view + kPage, [](char byte) { return byte == 0; }));
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    EXPECT_TRUE(vllCloseHandle(mapping));
}

TEST_F(ShmemMappingTest, many_views_in_any_order) {
    constexpr uint32_t kViews = 100;  // several in each of the 32 chains
    const HANDLE mapping = createMemory(kPage);
    std::vector<char *> views;
    for (uint32_t i = 0; i < kViews; ++i) {
        views.push_back(mapWhole(mapping, kPage));
        ASSERT_NE(views.back(), nullptr) << i;
    }
    EXPECT_THAT(vllUnmapViewOfFile(views[0] + 1), FailsWith(EINVAL));
    EXPECT_THAT(vllUnmapViewOfFile(nullptr), FailsWith(EINVAL));
    EXPECT_TRUE(vllCloseHandle(mapping));
    views[0][7] = 'v';
    for (uint32_t i = 0; i < kViews; ++i) {
        const uint32_t pick = (i * 37) % kViews;
        EXPECT_EQ(views[pick][7], 'v');
        EXPECT_TRUE(vllUnmapViewOfFile(views[pick]));
        EXPECT_FALSE(vllUnmapViewOfFile(views[pick]));
    }
}

TEST_F(ShmemMappingTest, anonymous_memory_is_private_and_nameless) {
    const std::set<std::string> before = namesInUse();
    for (const char *name : {static_cast<const char *>(nullptr), ""}) {
        errno = EEXIST;
        const Owned first(fresh(createMemory(kPage, name)));
        const Owned second(fresh(createMemory(kPage, name)));
        char *one = mapWhole(first, kPage);
        char *two = mapWhole(second, kPage);
        strcpy(one, "mine");
        EXPECT_EQ(two[0], 0);
        EXPECT_EQ(namesInUse(), before);
        // A child of fork() shares it.
        expectInChild([&] {
            strcat(mapWhole(first, kPage), " too");
            return 0;
        });
        EXPECT_STREQ(one, "mine too");
        EXPECT_TRUE(vllUnmapViewOfFile(one));
        EXPECT_TRUE(vllUnmapViewOfFile(two));
    }
    EXPECT_THAT(createMemory(kPage, nullptr, O_WRONLY), FailsWith(EBADF));
    EXPECT_EQ(namesInUse(), before);
}

// The name that the next anonymous mapping would take is in use by another program, or was left behind.
TEST_F(ShmemMappingTest, anonymous_memory_does_not_join_others) {
    for (const bool in_use : {true, false}) {
        SCOPED_TRACE(in_use);
        const HANDLE next = OBJ_SHMEM | (in_use ? objects[firstFreeObject].next : firstFreeObject);
        const std::string name = format("%08X%08X", static_cast<unsigned>(getpid()), next);
        const HANDLE foreign = in_use ? createMemory(kPage, name.c_str()) : 0;
        const Fd fd(shm_open(name.c_str(), O_RDWR | O_CREAT, 0600));
        ASSERT_EQ(pwrite(fd.get(), "foreign", 7, 0), 7);
        const Owned anonymous(fresh(createMemory(kPage)));
        EXPECT_EQ(anonymous, next);
        char *own = mapWhole(anonymous, kPage);
        EXPECT_EQ(own[0], 0);
        EXPECT_TRUE(vllUnmapViewOfFile(own));
        EXPECT_TRUE(vllCloseHandle(foreign));
    }
    // A name that cannot be removed stays in the way.
    const FailCall exists("shm_open", 1, EEXIST);
    const FailCall kept("shm_unlink", 1, EPERM);
    EXPECT_THAT(createMemory(kPage), FailsWith(EEXIST));
}

TEST_F(ShmemMappingTest, file_backed) {
    const std::string path = freshDirectory() + "/file";
    writeFile(path, "0123456789");
    Fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    const auto number = static_cast<HANDLE>(file.get());
    errno = EEXIST;
    const HANDLE mapping = fresh(vllCreateFileMapping(number, O_RDWR, 1000000, "ignored"));
    EXPECT_FALSE(exists("/dev/shm/ignored"));
    file.reset();
    char *view = mapWhole(mapping, 2 * kPage);
    ASSERT_NE(view, nullptr);
    EXPECT_TRUE(vllCloseHandle(mapping));
    std::copy_n("abc", 3, view + 3);
    EXPECT_EQ(readFile(path), "012abc6789");
    EXPECT_TRUE(vllIsBadReadPtr(view, 2 * kPage));  // past the file
    EXPECT_FALSE(vllIsBadReadPtr(view, kPage));
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    EXPECT_THAT(vllCreateFileMapping(number, O_RDWR, 1, nullptr), FailsWith(EBADF));
    EXPECT_THAT(vllCreateFileMapping(OBJ_EVENT, O_RDWR, 1, nullptr), FailsWith(EBADF));
}

TEST_F(ShmemMappingTest, refused_views) {
    const Owned mapping(createMemory(2 * kPage));
    const Owned event(makeManualEvent());
    const Owned mutex(vllCreateMutex(0, kName));
    const HANDLE closed = createMemory(kPage);
    vllCloseHandle(closed);
    const struct {
        HANDLE handle;
        DWORD offset;
        SIZE_T length;
        int error;
    } rows[] = {
        {mapping, 1, kPage, EINVAL},
        {mapping, 0, 0, EINVAL},
        {mapping, 0, ~SIZE_T{0}, ENOMEM},
        {event, 0, kPage, EINVAL},
        {mutex, 0, kPage, EINVAL},
        {closed, 0, kPage, EINVAL},
        {OBJ_SHMEM | (event & kIndexMask), 0, kPage, EINVAL},
        {0, 0, kPage, EINVAL},
    };
    const Inventory before = takeInventory();
    for (const auto &row : rows) {
        EXPECT_THAT(vllMapViewOfFile(row.handle, kReadWrite, row.offset, row.length), FailsWith(row.error))
            << std::hex << row.handle << " " << row.offset << " " << row.length;
    }
    EXPECT_EQ(takeErrors(), (Errors{format("VLLI: OpenObject( 0x%X ): Unused handle! \n", closed),
                                    "VLLI: OpenObject( 0x0 ): Invalid handle value! \n"}));
    EXPECT_EQ(takeInventory(), before);
    // A view's handle is the library's: guessing it closes nothing.
    char *view = mapWhole(mapping, kPage);
    for (uint32_t index = 0; index < kObjectCount; ++index) {
        EXPECT_TRUE((OBJ_SHMEM | index) == mapping || !vllCloseHandle(OBJ_SHMEM | index));
    }
    view[0] = 1;
    EXPECT_TRUE(vllUnmapViewOfFile(view));
}

TEST_F(ShmemMappingTest, access_modes) {
    for (const DWORD access : {DWORD{3}, DWORD{O_RDWR | O_TRUNC}, DWORD{O_RDWR | O_EXCL}, 0xFFFFFFFFU}) {
        EXPECT_THAT(createMemory(kPage, kName, access), FailsWith(EINVAL));
    }
    // A read-only mapping is a user like any other, in this process and for others.
    HANDLE writer = fresh(createMemory(kPage, kName));
    const HANDLE reader = inUse(createMemory(kPage, kName, O_RDONLY));
    EXPECT_THAT(mapWhole(reader, kPage), FailsWith(EACCES));
    const char *view = mapWhole(reader, kPage, PROT_READ);
    char *writable = mapWhole(writer, kPage);
    writable[9] = '9';
    EXPECT_TRUE(vllUnmapViewOfFile(writable));
    EXPECT_TRUE(vllCloseHandle(writer));
    expectInChild([] {
        vllCloseHandle(inUse(createMemory(kPage, kName)));
        return 0;
    });
    EXPECT_EQ(view[9], '9');
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    EXPECT_TRUE(vllCloseHandle(reader));
    // The last user could only read: the next creator resets the object.
    writer = fresh(createMemory(kPage, kName));
    EXPECT_TRUE(vllCloseHandle(writer));
    EXPECT_TRUE(vllCloseHandle(inUse(createMemory(kPage, kName, O_RDONLY))));
    EXPECT_THAT(createMemory(kPage, kName, O_WRONLY), FailsWith(EBADF));
}

TEST_F(ShmemMappingTest, nothing_left_to_create_with) {
    for (const int nth : {1, 2}) {
        const FailCall fail("ftruncate64", nth, ENOSPC);
        EXPECT_THAT(createMemory(kPage, kName), FailsWith(ENOSPC));
    }
    std::vector<HANDLE> handles;
    for (uint32_t i = 0; i < kObjectCount; ++i) {
        handles.push_back(createMemory(kPage, kName));
        ASSERT_NE(handles.back(), 0U) << i;
    }
    EXPECT_THAT(createMemory(kPage, kName), FailsWith(ENOMEM));
    EXPECT_THAT(mapWhole(handles[0], kPage), FailsWith(ENOMEM));
    for (const HANDLE handle : handles) {
        EXPECT_TRUE(vllCloseHandle(handle));
    }
}

}  // namespace
