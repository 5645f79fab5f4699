// Checking passwords, against account files of the test's own.
#include "vwincompat/security.h"

#include <crypt.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>
#include <thread>
#include <utility>

#include "support/child.h"
#include "support/faults.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/private_machine.h"

namespace {

const char *const kPassword = "open sesame";

// A hash of the password, made by the system's own libcrypt.
std::string makeHash(const char *setting) {
    crypt_data data = {};
    const char *hash = crypt_r(kPassword, setting, &data);
    return hash != nullptr ? hash : "";
}

struct Account {
    std::string name;
    std::string passwd_field;
    std::string shadow_field;  // "-": no entry
    bool accepted;
};

std::vector<Account> makeAccounts() {
    const std::string sha512 = makeHash("$6$rounds=1000$saltsalt$");
    const std::string yescrypt = makeHash("$y$j75$abcdefgh$");
    return {
        {"sha512", "x", sha512, true},
        {"yescrypt", "x", yescrypt, true},
        {"inpasswd", sha512, "-", true},
        {"passwdfirst", sha512, "!", true},
        {"noshadow", "x", "-", false},
        {"empty", "", "-", false},
        {"emptyshadow", "x", "", false},
        {"locked", "x", "!", false},
        {"lockedhash", "x", "!" + sha512, false},
        {"star", "x", "*", false},
        {"failure0", "x", "*0", false},
        {"failure1", "x", "*1", false},
        {"xx", "x", "x", false},
        {"malformed", "x", "$6$", false},
        {"unknown", "x", "$99$salt$hash", false},
        {"cut", "x", sha512.substr(0, sha512.size() - 1), false},
        {"longer", "x", sha512 + "a", false},
        {"manyfields", "x", sha512, true},
    };
}

class LogonTest : public LibraryTest {
  protected:
    static void SetUpTestSuite() {
        static bool covered = false;  // for the rest of the process, also when the tests are repeated
        if (std::exchange(covered, true)) {
            return;
        }
        std::string passwd = "root:*:0:0:root:/root:/bin/sh\n";
        std::string shadow;
        int id = 2000;
        for (const Account &account : makeAccounts()) {
            // The comment of manyfields is longer than the first buffer of a lookup.
            const std::string comment(account.name == "manyfields" ? 3000 : 3, 'c');
            const char *name = account.name.c_str();
            passwd += account.name + ":" + account.passwd_field + format(":%d:%d:", id, id + 1) + comment +
                      format(":/home/%s:/bin/%s\n", name, name);
            if (account.shadow_field != "-") {
                shadow += account.name + ":" + account.shadow_field + ":19000:0:99999:7:::\n";
            }
            ++id;
        }
        coverFile("/etc/passwd", passwd);
        coverFile("/etc/shadow", shadow);
        chmod("/etc/shadow", 0600);
    }
};

TEST_F(LogonTest, accounts) {
    uid_t id = 2000;
    for (const Account &account : makeAccounts()) {
        SCOPED_TRACE(account.name);
        passwd user = {};
        EXPECT_THAT(vllLogonUser(account.name.c_str(), kPassword, &user),
                    account.accepted ? Yields(TRUE, 0) : Yields(FALSE, EACCES));
        if (account.accepted) {
            EXPECT_EQ(user.pw_name, account.name);
            EXPECT_EQ(user.pw_passwd,
                      account.passwd_field == "x" ? account.shadow_field : account.passwd_field);
            EXPECT_EQ(user.pw_uid, id);
            EXPECT_EQ(user.pw_gid, id + 1);
            EXPECT_EQ(strlen(user.pw_gecos), account.name == "manyfields" ? 3000U : 3U);
            EXPECT_EQ(user.pw_dir, "/home/" + account.name);
            EXPECT_EQ(user.pw_shell, "/bin/" + account.name);
        } else {
            EXPECT_EQ(user.pw_name, nullptr);
        }
        for (const char *wrong : {"", "open sesam", "open sesame ", "*0"}) {
            EXPECT_THAT(vllLogonUser(account.name.c_str(), wrong, &user), FailsWith(EACCES));
        }
        ++id;
    }
    passwd user;
    for (const char *name : {"nobody-of-that-name", "", "root", "sha512:", "SHA512"}) {
        EXPECT_THAT(vllLogonUser(name, kPassword, &user), FailsWith(EACCES));
    }
    EXPECT_THAT(vllLogonUser("sha512", std::string(100000, 'p').c_str(), &user), FailsWith(EACCES));
    EXPECT_THAT(vllLogonUser(nullptr, kPassword, &user), FailsWith(EINVAL));
    EXPECT_THAT(vllLogonUser("sha512", nullptr, &user), FailsWith(EINVAL));
    EXPECT_THAT(vllLogonUser("sha512", kPassword, nullptr), FailsWith(EINVAL));
}

TEST_F(LogonTest, without_privilege_the_shadow_hash_cannot_be_read) {
    expectInChild([] {
        passwd user;
        if (setgid(65534) != 0 || setuid(65534) != 0) {
            return 1;
        }
        EXPECT_TRUE(vllLogonUser("inpasswd", kPassword, &user));
        EXPECT_THAT(vllLogonUser("sha512", kPassword, &user), FailsWith(EACCES));
        return 0;
    });
}

// The strings of a logon are those of its thread, until it logs on again.
TEST_F(LogonTest, threads_do_not_disturb_one_another) {
    std::vector<std::thread> threads;
    for (const char *name : {"sha512", "yescrypt", "inpasswd"}) {
        threads.emplace_back([name] {
            for (int i = 0; i < 20; ++i) {
                passwd user = {};
                ASSERT_TRUE(vllLogonUser(name, kPassword, &user));
                sched_yield();
                EXPECT_STREQ(user.pw_name, name);
                EXPECT_FALSE(vllLogonUser(name, "wrong", &user));
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

// In a fresh thread each time, which has none of the blocks yet.
TEST_F(LogonTest, memory_runs_out) {
    bool accepted = false;
    int failures = 0;
    while (!accepted) {
        std::thread([&] {
            const FailCall fail("malloc", failures + 1, ENOMEM);
            passwd user;
            accepted = vllLogonUser("sha512", kPassword, &user) != 0;
            EXPECT_EQ(accepted, !fail.happened());
            EXPECT_TRUE(accepted || errno == ENOMEM || errno == EACCES) << errno;
        }).join();
        failures += !accepted;
    }
    EXPECT_EQ(failures, 2);  // the strings of either database
}

}  // namespace
