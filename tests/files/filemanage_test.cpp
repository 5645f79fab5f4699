#include "files/filemanage_test.h"

#include <filesystem>

#include "support/child.h"
#include "support/private_machine.h"

void FileTest::SetUp() {
    LibraryTest::SetUp();
    static bool machine_is_ready = false;
    if (!machine_is_ready) {
        machine_is_ready = true;
        enterPrivateRoot();
        umask(022);
        for (const char *path : {"/Ulmex", "/other"}) {
            ASSERT_EQ(mkdir(path, 0755), 0) << path;
        }
        coverDirectory("/var");
        coverDirectory("/etc");
        coverDirectory("/other", "1m");
    }
    for (const char *path : {"/Ulmex", "/var", "/etc", "/other"}) {
        for (const auto &entry : std::filesystem::directory_iterator(path)) {
            std::filesystem::remove_all(entry.path());
        }
    }
    for (const char *path : {"/Ulmex/config", "/var/ulmex", "/var/ulmex/a", "/var/ulmex/a/b",
                             "/var/ulmex/logs", "/var/tmp", "/var/tmp/upload"}) {
        ASSERT_EQ(mkdir(path, 0755), 0) << path;
    }
}

void FileTest::asUser(const std::function<void()> &body) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    expectInChild([&] {
        EXPECT_TRUE(setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0);
        body();
        return 0;
    });
}
