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
#include "support/private_machine.h"

namespace {

const char *const kPassword = "open sesame";

// A hash of the password by a method, "$6$" or "$y$", made by the system's own libcrypt.
std::string makeHash(const std::string &setting) {
    crypt_data data = {};
    const char *hash = crypt_r(kPassword, setting.c_str(), &data);
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
            // Longer than the first try at a lookup's room.
            const std::string comment =
                account.name == "manyfields" ? std::string(3000, 'c') : "A " + account.name;
            passwd += account.name + ":" + account.passwd_field + ":" + std::to_string(id) + ":" +
                      std::to_string(id + 1) + ":" + comment + ":/home/" + account.name + ":/bin/" +
                      account.name + "\n";
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
    int id = 2000;
    for (const Account &account : makeAccounts()) {
        SCOPED_TRACE(account.name);
        passwd user = {};
        errno = 0;
        EXPECT_EQ(vllLogonUser(account.name.c_str(), kPassword, &user), account.accepted ? TRUE : FALSE);
        if (account.accepted) {
            EXPECT_EQ(user.pw_name, account.name);
            EXPECT_EQ(user.pw_passwd,
                      account.passwd_field == "x" ? account.shadow_field : account.passwd_field);
            EXPECT_EQ(user.pw_uid, static_cast<uid_t>(id));
            EXPECT_EQ(user.pw_gid, static_cast<gid_t>(id + 1));
            EXPECT_EQ(std::string(user.pw_gecos).size(),
                      account.name == "manyfields" ? 3000 : account.name.size() + 2);
            EXPECT_EQ(user.pw_dir, "/home/" + account.name);
            EXPECT_EQ(user.pw_shell, "/bin/" + account.name);
        } else {
            EXPECT_EQ(errno, EACCES);
            EXPECT_EQ(user.pw_name, nullptr);
        }
        for (const char *wrong : {"", "open sesam", "open sesame ", "*0"}) {
            EXPECT_THAT(vllLogonUser(account.name.c_str(), wrong, &user), FailsWith(EACCES));
        }
        ++id;
    }
}

TEST_F(LogonTest, refuses) {
    passwd user = {};
    for (const char *name : {"nobody-of-that-name", "", "root", "sha512:", "SHA512"}) {
        errno = 0;
        EXPECT_FALSE(vllLogonUser(name, kPassword, &user)) << name;
        EXPECT_EQ(errno, EACCES) << name;
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

TEST_F(LogonTest, threads_do_not_disturb_one_another) {
    const char *const names[] = {"sha512", "yescrypt", "inpasswd"};
    std::vector<std::thread> threads;
    for (const char *name : names) {
        threads.emplace_back([name] {
            for (int i = 0; i < 20; ++i) {
                passwd user = {};
                ASSERT_TRUE(vllLogonUser(name, kPassword, &user));
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
    int failures = 0;
    for (int nth = 1;; ++nth) {
        passwd user = {};
        BOOL accepted = FALSE;
        int error = 0;
        std::thread([&] {
            FailCall in_thread("malloc", nth, ENOMEM);
            accepted = vllLogonUser("sha512", kPassword, &user);
            error = errno;
            failures += in_thread.happened();
        }).join();
        if (accepted) {
            break;
        }
        EXPECT_TRUE(error == ENOMEM || error == EACCES) << error;
        ASSERT_LT(nth, 20);
    }
    EXPECT_GE(failures, 2);
}

}  // namespace
