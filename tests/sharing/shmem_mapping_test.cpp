// File mappings and views.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "core/objmem.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
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

HANDLE CreateMemory(DWORD size, const char *name = nullptr, DWORD access = O_RDWR) {
    return vllCreateFileMapping(INVALID_HANDLE_VALUE, access, size, name);
}

char *MapWhole(HANDLE mapping, SIZE_T length) {
    return static_cast<char *>(vllMapViewOfFile(mapping, kReadWrite, 0, length));
}

TEST_F(ShmemMappingTest, named_memory_lives_as_long_as_its_users) {
    HANDLE mapping = CreateMemory(2 * kPage, kName);
    ASSERT_NE(mapping, 0U);
    EXPECT_EQ(errno, 0);
    char *view = MapWhole(mapping, 2 * kPage);
    ASSERT_NE(view, nullptr);
    strcpy(view, "shared");
    expectInChild([&] {
        const HANDLE other = CreateMemory(17, kName);
        EXPECT_EQ(errno, EEXIST);
        char *second = static_cast<char *>(vllMapViewOfFile(other, kReadWrite, 0, 2 * kPage));
        EXPECT_STREQ(second, "shared");
        second[kPage] = 'x';
        EXPECT_TRUE(vllUnmapViewOfFile(second));
        EXPECT_TRUE(vllCloseHandle(other));
        return 0;
    });
    EXPECT_EQ(view[kPage], 'x');
    EXPECT_TRUE(vllCloseHandle(mapping));  // the view keeps it
    mapping = CreateMemory(2 * kPage, kName);
    EXPECT_EQ(errno, EEXIST);
    char *second = static_cast<char *>(vllMapViewOfFile(mapping, PROT_READ, kPage, kPage));
    EXPECT_EQ(second[0], 'x');
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    EXPECT_TRUE(vllCloseHandle(mapping));
    EXPECT_EQ(second[0], 'x');
    EXPECT_TRUE(vllUnmapViewOfFile(second));
    mapping = CreateMemory(kPage, kName);
    EXPECT_EQ(errno, 0);
    view = MapWhole(mapping, kPage);
    EXPECT_TRUE(std::all_of(view, view + kPage, [](char byte) { return byte == 0; }));
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    EXPECT_TRUE(vllCloseHandle(mapping));
}

TEST_F(ShmemMappingTest, many_views_in_any_order) {
    constexpr uint32_t kViews = 100;  // several in each of the 32 chains
    const HANDLE mapping = CreateMemory(kPage);
    std::vector<char *> views;
    for (uint32_t i = 0; i < kViews; ++i) {
        views.push_back(MapWhole(mapping, kPage));
        ASSERT_NE(views.back(), nullptr) << i;
    }
    EXPECT_THAT(vllUnmapViewOfFile(views[0] + 1), FailsWith(EINVAL));
    EXPECT_FALSE(vllUnmapViewOfFile(nullptr));
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
    const auto names = [] {
        std::vector<std::string> list;
        for (const auto &entry : std::filesystem::directory_iterator("/dev/shm")) {
            list.push_back(entry.path());
        }
        return list;
    };
    const std::vector<std::string> before = names();
    for (const char *name : {static_cast<const char *>(nullptr), ""}) {
        errno = EEXIST;
        const HANDLE first = CreateMemory(kPage, name);
        EXPECT_EQ(errno, 0);
        const HANDLE second = CreateMemory(kPage, name);
        char *one = MapWhole(first, kPage);
        char *two = MapWhole(second, kPage);
        strcpy(one, "mine");
        EXPECT_EQ(two[0], 0);
        EXPECT_EQ(names(), before);
        // A child of fork() shares it.
        expectInChild([&] {
            strcat(MapWhole(first, kPage), " too");
            return 0;
        });
        EXPECT_STREQ(one, "mine too");
        for (char *view : {one, two}) {
            EXPECT_TRUE(vllUnmapViewOfFile(view));
        }
        EXPECT_TRUE(vllCloseHandle(first));
        EXPECT_TRUE(vllCloseHandle(second));
    }
    EXPECT_THAT(CreateMemory(kPage, nullptr, O_WRONLY), FailsWith(EBADF));
    EXPECT_EQ(names(), before);
}

// The name that the next anonymous mapping would take is in use by somebody else, or was left behind.
TEST_F(ShmemMappingTest, anonymous_memory_does_not_join_others) {
    for (const bool in_use : {true, false}) {
        SCOPED_TRACE(in_use);
        const HANDLE next = OBJ_SHMEM | (in_use ? objects[firstFreeObject].next : firstFreeObject);
        char name[32];
        snprintf(name, sizeof name, "%08X%08X", static_cast<unsigned>(getpid()), next);
        const HANDLE foreign = in_use ? CreateMemory(kPage, name) : 0;
        const int fd = shm_open(name, O_RDWR | O_CREAT, 0600);
        ASSERT_EQ(ftruncate(fd, kPage), 0);
        auto *used = static_cast<char *>(mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
        const HANDLE anonymous = CreateMemory(kPage);
        EXPECT_EQ(anonymous, next);
        EXPECT_EQ(errno, 0);
        char *own = MapWhole(anonymous, kPage);
        strcpy(used, "foreign");
        EXPECT_EQ(own[0], 0);
        EXPECT_TRUE(vllUnmapViewOfFile(own));
        EXPECT_TRUE(vllCloseHandle(anonymous));
        EXPECT_TRUE(vllCloseHandle(foreign));
        munmap(used, kPage);
        close(fd);
    }
    // A name that cannot be removed is somebody else's for good.
    const FailCall exists("shm_open", 1, EEXIST);
    const FailCall kept("shm_unlink", 1, EPERM);
    EXPECT_THAT(CreateMemory(kPage), FailsWith(EEXIST));
}

TEST_F(ShmemMappingTest, file_backed) {
    char path[] = "/tmp/vll_mapping_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_NE(fd, -1);
    ASSERT_EQ(write(fd, "0123456789", 10), 10);
    errno = EEXIST;
    const HANDLE mapping = vllCreateFileMapping(static_cast<HANDLE>(fd), O_RDWR, 1000000, "ignored");
    ASSERT_NE(mapping, 0U);
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(access("/dev/shm/ignored", F_OK), -1);
    EXPECT_EQ(close(fd), 0);
    char *view = MapWhole(mapping, 2 * kPage);
    ASSERT_NE(view, nullptr);
    EXPECT_TRUE(vllCloseHandle(mapping));
    std::copy_n("abc", 3, view + 3);
    char content[16] = {};
    const int again = open(path, O_RDONLY);
    EXPECT_EQ(read(again, content, sizeof content), 10);
    EXPECT_STREQ(content, "012abc6789");
    close(again);
    EXPECT_TRUE(vllIsBadReadPtr(view, 2 * kPage));  // past the file
    EXPECT_FALSE(vllIsBadReadPtr(view, kPage));
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    unlink(path);
    EXPECT_THAT(vllCreateFileMapping(static_cast<HANDLE>(again), O_RDWR, 1, nullptr), FailsWith(EBADF));
    EXPECT_THAT(vllCreateFileMapping(OBJ_EVENT, O_RDWR, 1, nullptr), FailsWith(EBADF));
}

TEST_F(ShmemMappingTest, refused_views) {
    const Owned mapping(CreateMemory(2 * kPage));
    const Owned event(makeManualEvent());
    const Owned mutex(vllCreateMutex(0, kName));
    const HANDLE closed = CreateMemory(kPage);
    vllCloseHandle(closed);
    // Records that lost their descriptors.
    const Owned without(vlliCreateObject(OBJ_SHMEM));
    const Owned without_file(vlliCreateObject(OBJ_SHMEM));
    vlliGetObjectAddress(without)->fd = vlliGetObjectAddress(without_file)->fd = -1;
    vlliGetObjectAddress(without_file)->flags = OBJF_FILE_BACKED;
    struct {
        HANDLE handle;
        DWORD protection;
        DWORD offset;
        SIZE_T length;
        int error;
    } rows[] = {
        {mapping, kReadWrite, 1, kPage, EINVAL},
        {mapping, kReadWrite, kPage - 1, 1, EINVAL},
        {mapping, kReadWrite, 0, 0, EINVAL},
        {mapping, kReadWrite, 0, ~SIZE_T{0}, ENOMEM},
        {event, kReadWrite, 0, kPage, EINVAL},
        {mutex, kReadWrite, 0, kPage, EINVAL},
        {closed, kReadWrite, 0, kPage, EINVAL},
        {OBJ_SHMEM | (event & kIndexMask), kReadWrite, 0, kPage, EINVAL},
        {without, kReadWrite, 0, kPage, EINVAL},
        {without_file, kReadWrite, 0, kPage, EBADF},
        {0, kReadWrite, 0, kPage, EINVAL},
    };
    const Inventory before = takeInventory();
    for (const auto &row : rows) {
        errno = 0;
        EXPECT_EQ(vllMapViewOfFile(row.handle, row.protection, row.offset, row.length), nullptr);
        EXPECT_EQ(errno, row.error) << std::hex << row.handle << " " << row.offset << " " << row.length;
    }
    std::ostringstream unused;
    unused << "VLLI: OpenObject( 0x" << std::uppercase << std::hex << closed << " ): Unused handle! \n";
    EXPECT_EQ(takeErrors(), (Errors{unused.str(), "VLLI: OpenObject( 0x0 ): Invalid handle value! \n"}));
    EXPECT_EQ(takeInventory(), before);
    {
        const FailCall fail("mmap64", 1, ENOMEM);
        EXPECT_THAT(MapWhole(mapping, kPage), FailsWith(ENOMEM));
    }
    // A view's handle is the library's: guessing it closes nothing.
    char *view = MapWhole(mapping, kPage);
    for (uint32_t index = 0; index < kObjectCount; ++index) {
        const HANDLE guess = OBJ_SHMEM | index;
        if (guess != mapping && guess != without && guess != without_file) {
            EXPECT_FALSE(vllCloseHandle(guess));
        }
    }
    view[0] = 1;
    EXPECT_TRUE(vllUnmapViewOfFile(view));
}

TEST_F(ShmemMappingTest, access_modes) {
    for (const DWORD access : {DWORD{3}, DWORD{O_RDWR | O_TRUNC}, DWORD{O_RDWR | O_EXCL}, 0xFFFFFFFFU}) {
        EXPECT_THAT(CreateMemory(kPage, kName, access), FailsWith(EINVAL));
    }
    // Read-only beside read-write: a user like any other, in this process and in others.
    HANDLE writer = CreateMemory(kPage, kName);
    const HANDLE reader = CreateMemory(kPage, kName, O_RDONLY);
    ASSERT_NE(reader, 0U);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_THAT(MapWhole(reader, kPage), FailsWith(EACCES));
    auto *view = static_cast<const char *>(vllMapViewOfFile(reader, PROT_READ, 0, kPage));
    char *writable = MapWhole(writer, kPage);
    writable[9] = '9';
    EXPECT_TRUE(vllUnmapViewOfFile(writable));
    EXPECT_TRUE(vllCloseHandle(writer));
    EXPECT_EQ(view[9], '9');
    expectInChild([] {
        const HANDLE other = CreateMemory(kPage, kName);
        EXPECT_EQ(errno, EEXIST);
        vllCloseHandle(other);
        return 0;
    });
    EXPECT_EQ(view[9], '9');
    EXPECT_TRUE(vllUnmapViewOfFile(view));
    EXPECT_TRUE(vllCloseHandle(reader));
    // Its last user could only read: the next creator resets the object all the same.
    writer = CreateMemory(kPage, kName);
    EXPECT_EQ(errno, 0);
    EXPECT_TRUE(vllCloseHandle(writer));
    const HANDLE idle = CreateMemory(kPage, kName, O_RDONLY);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_TRUE(vllCloseHandle(idle));
    EXPECT_THAT(CreateMemory(kPage, kName, O_WRONLY), FailsWith(EBADF));
}

TEST_F(ShmemMappingTest, failing_creation_leaves_nothing) {
    for (const int nth : {1, 2}) {
        const FailCall fail("ftruncate64", nth, ENOSPC);
        EXPECT_THAT(CreateMemory(kPage, kName), FailsWith(ENOSPC));
        EXPECT_TRUE(fail.happened());
    }
    std::vector<HANDLE> handles;
    for (uint32_t i = 0; i < kObjectCount; ++i) {
        handles.push_back(CreateMemory(kPage, kName));
        ASSERT_NE(handles.back(), 0U) << i;
    }
    EXPECT_THAT(CreateMemory(kPage, kName), FailsWith(ENOMEM));
    EXPECT_THAT(MapWhole(handles[0], kPage), FailsWith(ENOMEM));
    for (const HANDLE handle : handles) {
        EXPECT_TRUE(vllCloseHandle(handle));
    }
}

}  // namespace
