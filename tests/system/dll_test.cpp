#include "system/dll.h"
#include "base/allocate.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "support/child.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/shown_process.h"
#include "vwincompat/module.h"

namespace {

std::string ownPath() {
    char path[PATH_MAX] = {};
    EXPECT_GT(readlink("/proc/self/exe", path, sizeof path - 1), 0);
    return path;
}

// A copy of the tests' own shared object, in a directory of the test's own.
std::string makeModule(const std::string &name) {
    const std::string own = ownPath();
    return makeScript(makeProgramDirectory(), name,
                      readFile(own.substr(0, own.rfind('/')) + "/probe_module.so"));
}

size_t countOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

class ModuleTest : public LibraryTest {};

TEST_F(ModuleTest, loads_and_finds_symbols) {
    const std::string path = makeModule("a module.so");
    EXPECT_EQ(vllGetModuleHandle(path.c_str()), nullptr);
    const HMODULE module = vllLoadLibrary(path.c_str());
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(vllLoadLibraryEx(path.c_str()), module);
    EXPECT_EQ(vllGetModuleHandle(path.c_str()), module);

    const auto *value = static_cast<const int *>(vllGetProcAddress(module, "probeValue"));
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(*value, 42);
    int (*answer)() = nullptr;
    void *symbol = vllGetProcAddress(module, "probeAnswer");
    memcpy(&answer, &symbol, sizeof answer);
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(vllGetProcAddress(module, "noSuchSymbol"), nullptr);
    EXPECT_THAT(vllGetProcAddress(module, nullptr), FailsWith(EINVAL));

    // The handle that was asked for took no part in the count of loads.
    EXPECT_TRUE(vllFreeLibrary(module));
    EXPECT_EQ(vllGetModuleHandle(path.c_str()), module);
    EXPECT_TRUE(vllFreeLibrary(module));
    EXPECT_EQ(vllGetModuleHandle(path.c_str()), nullptr);
    EXPECT_THAT(vllFreeLibrary(nullptr), FailsWith(EINVAL));
}

// In a child: the loader counts what is found so as used by the program, and never unloads it.
TEST_F(ModuleTest, what_is_loaded_is_there_for_all) {
    expectInChild([] {
        const HMODULE module = vllLoadLibrary(makeModule("global.so").c_str());
        void *symbol = vllGetProcAddress(nullptr, "probeAnswer");
        return symbol != nullptr && symbol == vllGetProcAddress(module, "probeAnswer") ? 0 : 1;
    });
}

TEST_F(ModuleTest, refuses_what_is_no_module) {
    const std::string text = makeScript(makeProgramDirectory(), "text.so", "no module");
    EXPECT_EQ(vllLoadLibrary(text.c_str()), nullptr);
    EXPECT_EQ(vllLoadLibrary("/nowhere/module.so"), nullptr);
    EXPECT_EQ(vllGetModuleHandle("/nowhere/module.so"), nullptr);
    EXPECT_NE(vllGetModuleHandle(nullptr), nullptr);
}

TEST_F(ModuleTest, file_names) {
    char name[VLL_MODULE_NAME_SIZE];
    EXPECT_TRUE(vllGetModuleFileName(nullptr, name));
    EXPECT_EQ(name, ownPath());
    EXPECT_TRUE(vllGetModuleFileName(reinterpret_cast<LPCVOID>(&ownPath), name));
    EXPECT_EQ(name, ownPath());
    EXPECT_THAT(vllGetModuleFileName(nullptr, nullptr), FailsWith(EINVAL));
    EXPECT_FALSE(vlliGetModuleFileNameByAddress(nullptr, name));

    const std::string path = makeModule("with blanks and.so");
    const HMODULE module = vllLoadLibrary(path.c_str());
    const void *symbol = vllGetProcAddress(module, "probeAnswer");
    EXPECT_TRUE(vllGetModuleFileName(symbol, name));
    EXPECT_EQ(name, path);

    // Replaced on disk: the old file is still what is loaded.
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_TRUE(vllGetModuleFileName(symbol, name));
    EXPECT_EQ(name, path);
    makeScript(path.substr(0, path.rfind('/')), "with blanks and.so", "new");
    EXPECT_TRUE(vllGetModuleFileName(symbol, name));
    EXPECT_EQ(name, path);
    EXPECT_TRUE(vllFreeLibrary(module));

    int local = 0;
    const std::unique_ptr<char, FreeDeleter> heap(static_cast<char *>(malloc(10)));
    for (LPCVOID address :
         {static_cast<LPCVOID>(&local), static_cast<LPCVOID>(heap.get()),
          reinterpret_cast<LPCVOID>(uintptr_t{1}), reinterpret_cast<LPCVOID>(UINTPTR_MAX)}) {
        EXPECT_THAT(vllGetModuleFileName(address, name), FailsWith(ENOENT));
    }
}

// ---- lines of the map ----

TEST(MapLine, fields) {
    struct {
        int line;
        const char *text;
        bool used;
        uintptr_t start, end;
        const char *path;
    } rows[] = {
        {__LINE__, "00008000-0000c000 r-xp 00000000 b3:02 17 /bin/x", true, 0x8000, 0xC000, "/bin/x"},
        {__LINE__, "8000-c000 r-xp 0 0:0 1 /a b/c.so (deleted)", true, 0x8000, 0xC000, "/a b/c.so"},
        {__LINE__, "8000-c000 r-xp 0 0:0 1 /d (deleted) (deleted)", true, 0x8000, 0xC000, "/d (deleted)"},
        {__LINE__, "8000-c000 r-xp 0 0:0 1 / (deleted)", true, 0x8000, 0xC000, "/"},
        {__LINE__, "fffff000-ffffffff r-xp 0 0:0 1 /-", true, 0xFFFFF000, 0xFFFFFFFF, "/-"},
        {__LINE__, "8000-c000 r--p 0 0:0 1 /bin/x", false, 0, 0, nullptr},
        {__LINE__, "8000-c000 rwxp 0 0:0 1 /bin/x", false, 0, 0, nullptr},
        {__LINE__, "8000-c000 r-xs 0 0:0 1 /bin/x", false, 0, 0, nullptr},
        {__LINE__, "8000-c000 r-xp 0 0:0 0 [vdso]", false, 0, 0, nullptr},
        {__LINE__, "8000-1c000 r-xp 0 0:0 1 /bin/x", false, 0, 0, nullptr},
        {__LINE__, "8000 c000 r-xp 0 0:0 1 /a-b", false, 0, 0, nullptr},
        {__LINE__, "/8000-c000 r-xp ", false, 0, 0, nullptr},
        {__LINE__, "", false, 0, 0, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.line);
        std::string text = row.text;
        CodeSegment segment;
        ASSERT_EQ(vlliParseMapLine(text.data(), &segment), row.used);
        if (row.used) {
            EXPECT_EQ(segment.start, row.start);
            EXPECT_EQ(segment.end, row.end);
            EXPECT_STREQ(segment.path, row.path);
        }
    }
}

// ---- lists ----

TEST_F(ModuleTest, enumerates_code_segments) {
    const std::string path = makeModule("listed.so");
    const std::string plain_directory = makeProgramDirectory() + "/dir.so.d";
    ASSERT_EQ(mkdir(plain_directory.c_str(), 0755), 0);
    const std::string plain = makeScript(plain_directory, "plain", std::string(100, 'x'));
    const int fd = open(plain.c_str(), O_RDONLY | O_CLOEXEC);
    void *code = mmap(nullptr, 100, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
    close(fd);
    ASSERT_NE(code, MAP_FAILED);
    const HMODULE module = vllLoadLibrary(path.c_str());

    std::vector<char> buffer(VLL_MODULE_LIST_SIZE);
    EXPECT_TRUE(vllEnumerateLoadedModules(buffer.data()));
    const std::string once = buffer.data();
    EXPECT_EQ(countOf(once, path + " start = "), 1U);
    EXPECT_EQ(countOf(once, plain + " start = "), 1U);  // ".so" anywhere in the path
    EXPECT_EQ(countOf(once, ownPath() + " "), 0U);
    char expected[300];
    snprintf(expected, sizeof expected, "%-20s start = %08" PRIXPTR " end = %08" PRIXPTR "\r\n",
             plain.c_str(), reinterpret_cast<uintptr_t>(code), reinterpret_cast<uintptr_t>(code) + 4096);
    EXPECT_NE(once.find(expected), std::string::npos) << once;

    // In ascending order, each line whole.
    std::istringstream lines(once);
    std::string line;
    uintptr_t last = 0;
    while (std::getline(lines, line)) {
        uintptr_t start = 0;
        uintptr_t end = 0;
        const size_t at = line.find(" start = ");
        ASSERT_NE(at, std::string::npos);
        ASSERT_EQ(sscanf(line.c_str() + at, " start = %" SCNxPTR " end = %" SCNxPTR, &start, &end), 2);
        EXPECT_EQ(line.back(), '\r');
        EXPECT_GE(start, last);
        EXPECT_GT(end, start);
        last = end;
    }

    EXPECT_TRUE(vllEnumerateLoadedModules(buffer.data()));
    EXPECT_EQ(std::string(buffer.data()), once + once);
    EXPECT_TRUE(vllFreeLibrary(module));
    munmap(code, 100);
}

TEST_F(ModuleTest, a_list_never_grows_over_its_bound) {
    std::vector<char> buffer(VLL_MODULE_LIST_SIZE + 1, 'x');
    EXPECT_THAT(vllEnumerateLoadedModules(nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllEnumerateLoadedModules(buffer.data()), FailsWith(EINVAL));
    const size_t kNearlyFull = VLL_MODULE_LIST_SIZE - 100;
    buffer[kNearlyFull] = '\0';
    const std::vector<char> before = buffer;
    EXPECT_THAT(vllEnumerateLoadedModules(buffer.data()), FailsWith(ENOBUFS));
    EXPECT_EQ(strlen(buffer.data()), kNearlyFull);
    EXPECT_EQ(buffer[VLL_MODULE_LIST_SIZE], 'x');
}

TEST_F(ModuleTest, starting_address) {
    expectInChild([] {
        EXPECT_STREQ(vllGetModuleStartingAddress("no such module"), "");
        const std::string path = makeModule("addressed.so");
        const HMODULE module = vllLoadLibrary(path.c_str());
        const std::string digits = vllGetModuleStartingAddress("addressed.so");
        EXPECT_GE(digits.size(), 8U);
        EXPECT_EQ(digits.find_first_not_of("0123456789ABCDEF"), std::string::npos);
        const uintptr_t start = static_cast<uintptr_t>(strtoull(digits.c_str(), nullptr, 16));
        char name[VLL_MODULE_NAME_SIZE];
        EXPECT_TRUE(vllGetModuleFileName(reinterpret_cast<LPCVOID>(start), name));
        EXPECT_EQ(name, path);
        EXPECT_FALSE(vllGetModuleFileName(reinterpret_cast<LPCVOID>(start - 1), name) && path == name);
        EXPECT_EQ(vllGetModuleStartingAddress("no such module"), digits);
        EXPECT_THAT(vllGetModuleStartingAddress(nullptr), FailsWith(EINVAL));
        EXPECT_STRNE(vllGetModuleStartingAddress("dll_test"), digits.c_str());
        return vllFreeLibrary(module) ? 0 : 1;
    });
}

TEST_F(ModuleTest, a_line_that_is_too_long_is_passed_over) {
    // A path of 4,080 bytes makes its line longer than a line may be, whatever the width of its addresses; its tail
    // has all the looks of a line of its own.
    expectInChild([] {
        const std::string start = makeProgramDirectory();
        if (chdir(start.c_str()) != 0) {
            return 1;
        }
        const std::string part(200, 'd');
        for (int i = 0; i < 19; ++i) {
            if (mkdir(part.c_str(), 0755) != 0 || chdir(part.c_str()) != 0) {
                return 2;
            }
        }
        char *directory = getcwd(nullptr, 0);
        if (directory == nullptr) {
            return 3;
        }
        const std::string name = std::string(4080 - strlen(directory) - strlen("/.so"), 'f') + ".so";
        free(directory);
        const int fd = open(name.c_str(), O_RDWR | O_CREAT, 0755);
        if (fd == -1 || ftruncate(fd, 4096) != 0) {
            return 4;
        }
        void *code = mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
        char path[VLL_MODULE_NAME_SIZE];
        EXPECT_THAT(vllGetModuleFileName(code, path), FailsWith(ENOENT));
        std::vector<char> list(VLL_MODULE_LIST_SIZE);
        EXPECT_TRUE(vllEnumerateLoadedModules(list.data()));
        EXPECT_EQ(strstr(list.data(), "ffff.so"), nullptr);
        return 0;
    });
}

TEST_F(ModuleTest, the_map_cannot_be_read) {
    char name[VLL_MODULE_NAME_SIZE] = "kept";
    char list[8] = "kept";
    {
        FailCall fail("fopen64", 1, EMFILE, 4);
        EXPECT_THAT(vllGetModuleFileName(reinterpret_cast<LPCVOID>(&ownPath), name), FailsWith(EMFILE));
        EXPECT_FALSE(vllEnumerateLoadedModules(list));
        EXPECT_EQ(vllGetModuleStartingAddress("x"), nullptr);
        EXPECT_THAT(vllGetCommandLine(), FailsWith(EMFILE));
    }
    EXPECT_STREQ(name, "kept");
    EXPECT_STREQ(list, "kept");
}

// ---- the command line ----

TEST_F(ModuleTest, command_line) {
    const std::string expected = readFile("/proc/self/cmdline");
    const char *text = vllGetCommandLine();
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text, expected.size()), expected);
    EXPECT_EQ(strlen(text), strlen(expected.c_str()));
    EXPECT_EQ(vllGetCommandLine(), text);
}

}  // namespace
