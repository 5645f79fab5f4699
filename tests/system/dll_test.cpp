// Modules: loading, names and lists from the memory map, and the command line.
#include "system/dll.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cinttypes>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>

#include "support/child.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/shown_process.h"

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

TEST_F(ModuleTest, loads_for_all_or_refuses) {
    // In a child: the loader counts what is found so as used by the program, and never unloads it.
    expectInChild([] {
        const HMODULE module = vllLoadLibrary(makeModule("global.so").c_str());
        void *symbol = vllGetProcAddress(nullptr, "probeAnswer");
        return symbol != nullptr && symbol == vllGetProcAddress(module, "probeAnswer") ? 0 : 1;
    });
    EXPECT_EQ(vllLoadLibrary(makeScript(makeProgramDirectory(), "text.so", "no module").c_str()), nullptr);
    EXPECT_EQ(vllLoadLibrary("/nowhere/module.so"), nullptr);
    EXPECT_EQ(vllGetModuleHandle("/nowhere/module.so"), nullptr);
    EXPECT_NE(vllGetModuleHandle(nullptr), nullptr);
}

TEST_F(ModuleTest, file_names) {
    char name[VLL_MODULE_NAME_SIZE];
    for (const LPCVOID address : {static_cast<LPCVOID>(nullptr), reinterpret_cast<LPCVOID>(&ownPath)}) {
        EXPECT_THAT(vllGetModuleFileName(address, name), Yields(TRUE, 0));
        EXPECT_EQ(name, ownPath());
    }
    EXPECT_THAT(vllGetModuleFileName(nullptr, nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vlliGetModuleFileNameByAddress(nullptr, name), FailsWith(EINVAL));
    int local = 0;
    for (LPCVOID address : {static_cast<LPCVOID>(&local), reinterpret_cast<LPCVOID>(uintptr_t{1}),
                            reinterpret_cast<LPCVOID>(UINTPTR_MAX)}) {
        EXPECT_THAT(vllGetModuleFileName(address, name), FailsWith(ENOENT));
    }

    // A file that was removed, or replaced, still has the name of what is loaded.
    const std::string path = makeModule("with blanks and.so");
    const HMODULE module = vllLoadLibrary(path.c_str());
    const void *symbol = vllGetProcAddress(module, "probeAnswer");
    const std::function<void()> changes[] = {
        [] {},
        [&] { unlink(path.c_str()); },
        [&] { makeScript(path.substr(0, path.rfind('/')), "with blanks and.so", "new"); },
    };
    for (const auto &change : changes) {
        change();
        EXPECT_TRUE(vllGetModuleFileName(symbol, name));
        EXPECT_EQ(name, path);
    }
    EXPECT_TRUE(vllFreeLibrary(module));
}

TEST(MapLine, fields) {
    const struct {
        const char *text;
        uintptr_t start, end;
        const char *path;  // null: no code segment with a path
    } rows[] = {
        {"00008000-0000c000 r-xp 00000000 b3:02 17 /bin/x", 0x8000, 0xC000, "/bin/x"},
        {"8000-c000 r-xp 0 0:0 1 /a b/c.so (deleted)", 0x8000, 0xC000, "/a b/c.so"},
        {"8000-c000 r-xp 0 0:0 1 /d (deleted) (deleted)", 0x8000, 0xC000, "/d (deleted)"},
        {"8000-c000 r-xp 0 0:0 1 / (deleted)", 0x8000, 0xC000, "/"},
        {"fffff000-ffffffff r-xp 0 0:0 1 /-", 0xFFFFF000, 0xFFFFFFFF, "/-"},
        {"8000-c000 r--p 0 0:0 1 /bin/x", 0, 0, nullptr},
        {"8000-c000 rwxp 0 0:0 1 /bin/x", 0, 0, nullptr},
        {"8000-c000 r-xs 0 0:0 1 /bin/x", 0, 0, nullptr},
        {"8000-c000 r-xp 0 0:0 0 [vdso]", 0, 0, nullptr},
        {"8000-1c000 r-xp 0 0:0 1 /bin/x", 0, 0, nullptr},
        {"8000 c000 r-xp 0 0:0 1 /a-b", 0, 0, nullptr},
        {"/8000-c000 r-xp ", 0, 0, nullptr},
        {"", 0, 0, nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.text);
        std::string text = row.text;
        CodeSegment segment;
        ASSERT_EQ(vlliParseMapLine(text.data(), &segment), row.path != nullptr);
        if (row.path != nullptr) {
            EXPECT_EQ(segment.start, row.start);
            EXPECT_EQ(segment.end, row.end);
            EXPECT_STREQ(segment.path, row.path);
        }
    }
}

// The code segments of this process whose path holds ".so", in the order of the map, one line each.
std::string expectedList() {
    std::ifstream map("/proc/self/maps");
    std::string list;
    for (std::string line; std::getline(map, line);) {
        uintptr_t start, end;
        char path[512], flags[8];
        if (sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %7s %*s %*s %*s %511s", &start, &end, flags,
                   path) == 4 &&
            strcmp(flags, "r-xp") == 0 && strstr(path, ".so") != nullptr) {
            list += format("%-20s start = %08" PRIXPTR " end = %08" PRIXPTR "\r\n", path, start, end);
        }
    }
    return list;
}

TEST_F(ModuleTest, enumerates_code_segments) {
    const std::string path = makeModule("listed.so");
    const std::string directory = makeProgramDirectory() + "/dir.so.d";  // ".so" anywhere in the path
    ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    const std::string plain = makeScript(directory, "plain", std::string(100, 'x'));
    const int fd = open(plain.c_str(), O_RDONLY | O_CLOEXEC);
    void *code = mmap(nullptr, 100, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
    close(fd);
    ASSERT_NE(code, MAP_FAILED);
    const HMODULE module = vllLoadLibrary(path.c_str());
    std::vector<char> buffer(VLL_MODULE_LIST_SIZE);
    EXPECT_THAT(vllEnumerateLoadedModules(buffer.data()), Yields(TRUE, 0));
    const std::string once = buffer.data();
    EXPECT_EQ(once, expectedList());
    EXPECT_NE(once.find(path + " start = "), std::string::npos);
    EXPECT_NE(once.find(plain + " start = "), std::string::npos);
    EXPECT_EQ(once.find(ownPath() + " "), std::string::npos);
    EXPECT_TRUE(vllEnumerateLoadedModules(buffer.data()));
    EXPECT_EQ(buffer.data(), once + once);
    EXPECT_TRUE(vllFreeLibrary(module));
    munmap(code, 100);
}

TEST_F(ModuleTest, a_list_never_grows_over_its_bound) {
    std::vector<char> buffer(VLL_MODULE_LIST_SIZE + 1, 'x');
    EXPECT_THAT(vllEnumerateLoadedModules(nullptr), FailsWith(EINVAL));
    EXPECT_THAT(vllEnumerateLoadedModules(buffer.data()), FailsWith(EINVAL));
    // One byte too few, and just enough.
    const size_t used = VLL_MODULE_LIST_SIZE - expectedList().size();
    buffer[used] = '\0';
    EXPECT_THAT(vllEnumerateLoadedModules(buffer.data()), FailsWith(ENOBUFS));
    EXPECT_EQ(strlen(buffer.data()), used);
    buffer[used - 1] = '\0';
    EXPECT_TRUE(vllEnumerateLoadedModules(buffer.data()));
    EXPECT_EQ(buffer.data() + used - 1, expectedList());
    EXPECT_EQ(buffer[VLL_MODULE_LIST_SIZE], 'x');
}

TEST_F(ModuleTest, starting_address) {
    expectInChild([] {
        EXPECT_STREQ(vllGetModuleStartingAddress("no such module"), "");
        const std::string path = makeModule("addressed.so");
        const HMODULE module = vllLoadLibrary(path.c_str());
        const std::string digits = vllGetModuleStartingAddress("addressed.so");
        const size_t at = expectedList().find("addressed.so start = " + digits + " end");
        EXPECT_NE(at, std::string::npos) << digits;
        EXPECT_EQ(vllGetModuleStartingAddress("no such module"), digits);
        EXPECT_THAT(vllGetModuleStartingAddress(nullptr), FailsWith(EINVAL));
        EXPECT_STRNE(vllGetModuleStartingAddress("dll_test"), digits.c_str());
        return vllFreeLibrary(module) ? 0 : 1;
    });
}

TEST_F(ModuleTest, a_line_that_is_too_long_is_skipped) {
    // A path of 4,080 bytes makes its line longer than the buffer, whatever the width of its addresses; the line's end
    // has all that a line of its own has.
    expectInChild([] {
        std::string path = makeProgramDirectory();
        bool made = chdir(path.c_str()) == 0;
        const std::string part(200, 'd');
        for (int i = 0; i < 19; ++i) {
            made = made && mkdir(part.c_str(), 0755) == 0 && chdir(part.c_str()) == 0;
            path += "/" + part;
        }
        const std::string name = std::string(4080 - path.size() - strlen("/.so"), 'f') + ".so";
        const int fd = open(name.c_str(), O_RDWR | O_CREAT, 0755);
        if (!made || fd == -1 || ftruncate(fd, 4096) != 0) {
            return 4;
        }
        void *code = mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE, fd, 0);
        char buffer[VLL_MODULE_NAME_SIZE];
        EXPECT_THAT(vllGetModuleFileName(code, buffer), FailsWith(ENOENT));
        std::vector<char> list(VLL_MODULE_LIST_SIZE);
        EXPECT_TRUE(vllEnumerateLoadedModules(list.data()));
        EXPECT_EQ(strstr(list.data(), "ffff.so"), nullptr);
        return 0;
    });
}

TEST_F(ModuleTest, the_map_cannot_be_read) {
    char name[VLL_MODULE_NAME_SIZE] = "kept";
    char list[8] = "kept";
    const FailCall fail("fopen64", 1, EMFILE, 4);
    EXPECT_THAT(vllGetModuleFileName(reinterpret_cast<LPCVOID>(&ownPath), name), FailsWith(EMFILE));
    EXPECT_THAT(vllEnumerateLoadedModules(list), FailsWith(EMFILE));
    EXPECT_THAT(vllGetModuleStartingAddress("x"), FailsWith(EMFILE));
    EXPECT_THAT(vllGetCommandLine(), FailsWith(EMFILE));
    EXPECT_STREQ(name, "kept");
    EXPECT_STREQ(list, "kept");
}

TEST_F(ModuleTest, command_line) {
    const std::string expected = readFile("/proc/self/cmdline");
    const char *text = vllGetCommandLine();
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text, expected.size()), expected);
    EXPECT_EQ(vllGetCommandLine(), text);
}

}  // namespace
