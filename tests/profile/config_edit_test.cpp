// Editing profile files: bytes, failures, and what a killed process leaves.
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>

#include "profile/config.h"
#include "support/child.h"
#include "support/faults.h"
#include "support/files.h"
#include "support/fixture.h"
#include "support/matchers.h"
#include "support/objects.h"
#include "support/private_machine.h"

namespace {

using std::string;

// Stands before sync(2), which would wait for the whole machine's disks.
std::function<void()> on_sync;

class ConfigEditTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        file_ = freshDirectory() + "/app.ini";
        copy_ = file_ + "copy";
        umask(022);
    }
    void TearDown() override {
        on_sync = nullptr;
        LibraryTest::TearDown();
    }

    string file_;
    string copy_;
};

using Operation = std::function<BOOL(const char *file)>;

Operation Add(const char *section, const char *key, const char *value) {
    return [=](const char *file) { return vllAddConfigValue(file, section, key, value); };
}
Operation Delete(const char *section, const char *key) {
    return [=](const char *file) { return vllDeleteConfigValue(file, section, key); };
}
Operation AddSection(const char *section) {
    return [=](const char *file) { return vllAddConfigSection(file, section); };
}
Operation DeleteSection(const char *section) {
    return [=](const char *file) { return vllDeleteConfigSection(file, section); };
}
Operation Write(const char *section, const char *key, const char *value) {
    return [=](const char *file) { return vllWritePrivateProfileString(section, key, value, file); };
}

struct EditCase {
    long source_line;
    string before;
    Operation edit;
    string after;   // of a success
    int error = 0;  // of a failure: the file is as before
};

// A literal with NUL bytes in it.
template <size_t Size>
string Bytes(const char (&text)[Size]) {
    return string(text, Size - 1);
}

const string kX4095 =
    string(4094, 'x') + "=";  // a whole piece, an entry by itself no more: its key is too long

const EditCase kEdits[] = {
    // set
    {__LINE__, "[S]\na=1\nb=2\nc=3\n", Add("S", "b", "new"), "[S]\nb=new\na=1\nc=3\n"},
    {__LINE__, "x\n[s]\n; c\nB = 1\n\nb='2' ;\n[S]\nb=3\n", Add("S", "b", "n"),
     "x\n[s]\nb=n\n; c\n\n[S]\nb=3\n"},
    {__LINE__, "[S]\n", Add("S", "my key", "v"), "[S]\n\"my key\"=v\n"},
    {__LINE__, "[S]\n'my\tkey'=1\n", Add("S", "my\tkey", " v ;x"), "[S]\n\"my\tkey\"= v ;x\n"},
    {__LINE__, "[S]\n", Add("S", "k", ""), "[S]\nk=\n"},
    {__LINE__, "", Add(nullptr, "k", "v"), "k=v\n"},
    {__LINE__, "a=1\nk=2\n[S]\nk=3", Add(nullptr, "K", "v"), "K=v\na=1\n[S]\nk=3"},
    {__LINE__, "k=1", Add(nullptr, "k", "v"), "k=v\n"},
    {__LINE__, "[S]", Add("S", "k", "v"), "[S]\nk=v\n"},
    {__LINE__, "[S] ; no newline", Add("S", "k", "v"), "[S] ; no newline\nk=v\n"},
    {__LINE__, "[S]\r\na=1\r\nb=2\r\n[T]\r\n", Add("S", "a", "2"), "[S]\r\na=2\nb=2\r\n[T]\r\n"},
    {__LINE__, "[S]\n[T]\nk=1\n", Add("S", "k", "v"), "[S]\nk=v\n[T]\nk=1\n"},
    {__LINE__, "[S\n[S] x\nk='1\n=k\n[S]\nk=1", Add("S", "k", "v"), "[S\n[S] x\nk='1\n=k\n[S]\nk=v\n"},
    {__LINE__, Bytes("a\0b\n[S]\0\nk=1\0=\nk\0\n\0k=1\n\xff"), Add("S", "k", "v"),
     Bytes("a\0b\n[S]\0\nk=v\n\0k=1\n\xff")},
    {__LINE__, "[S]\n", Add("T", "k", "v"), "", ENOENT},
    {__LINE__, "", Add("S", "k", "v"), "", ENOENT},

    // delete
    {__LINE__, "[S]\na=1\nb=2\nA\nc=3\n", Delete("s", "a"), "[S]\nb=2\nc=3\n"},
    {__LINE__, "a=1\n[S]\na=1\n", Delete(nullptr, "a"), "[S]\na=1\n"},
    {__LINE__, "[S]\n\"my key\" = 1\n", Delete("S", "MY KEY"), "[S]\n"},
    {__LINE__, "[S]\nb=1\na=1", Delete("S", "a"), "[S]\nb=1\n"},
    {__LINE__, "[S]\na=1\nb", Delete("S", "a"), "[S]\nb"},
    {__LINE__, "[S]\nb=1\n[T]\na=1\n", Delete("S", "a"), "", ENOENT},
    {__LINE__, "[S]\na=1\n", Delete("T", "a"), "", ENOENT},

    // delete a section
    {__LINE__, "; above\n[S]\n; in\n\na=1\n[T]\nb=1\n", DeleteSection("s"), "; above\n[T]\nb=1\n"},
    {__LINE__, "[S]\na=1\n[S]\nb=1\n", DeleteSection("S"), "[S]\nb=1\n"},
    {__LINE__, "; c\na\n[S]\nb", DeleteSection(nullptr), "[S]\nb"},
    {__LINE__, "[S]\n", DeleteSection(nullptr), "[S]\n"},
    {__LINE__, "[S]", DeleteSection("S"), ""},
    {__LINE__, "[S]\n[T] x\n[T\n[U]\n", DeleteSection("S"), "[U]\n"},
    {__LINE__, "[S]\n", DeleteSection("T"), "", ENOENT},

    // add a section
    {__LINE__, "x=1\n", AddSection("S"), "x=1\n\n[S]\n"},
    {__LINE__, "x=1\n\n", AddSection("S"), "x=1\n\n[S]\n"},
    {__LINE__, "x=1", AddSection("S"), "x=1\n[S]\n"},
    {__LINE__, "\n", AddSection("S"), "\n\n[S]\n"},
    {__LINE__, "\n\n", AddSection(" S "), "\n\n[ S ]\n"},
    {__LINE__, "", AddSection("S"), "\n[S]\n"},
    {__LINE__, "x=1\r\n\r\n", AddSection("S"), "x=1\r\n\r\n\n[S]\n"},

    // the profile operation
    {__LINE__, "", Write("S", "k", "v"), "\n[S]\nk=v\n"},
    {__LINE__, "[s]\nk=1\n", Write("S", "k", "v"), "[s]\nk=v\n"},
    {__LINE__, "k=1\n", Write(nullptr, "k", "v"), "k=v\n"},
    {__LINE__, "[S]\nk=1\nl=1\n", Write("S", "k", nullptr), "[S]\nl=1\n"},
    {__LINE__, "k=1\n[S]\n", Write(nullptr, "k", nullptr), "[S]\n"},
    {__LINE__, "[S]\nk=1\n[T]\n", Write("S", nullptr, "v"), "[T]\n"},
    {__LINE__, "k=1\n[T]\n", Write(nullptr, nullptr, nullptr), "[T]\n"},
    {__LINE__, "[T]\n", Write("S", nullptr, nullptr), "[T]\n\n"},
    {__LINE__, "[S]\nk=1\n", Write("S", "l", nullptr), "", ENOENT},

    // lines in pieces: each is a line of its own, and what is written starts one
    {__LINE__, "[S]" + string(4091, ' ') + ";rest\nk=1\n", Add("S", "k", "v"),
     "[S]" + string(4091, ' ') + ";\nk=v\nrest\n"},
    {__LINE__, "[S]\n" + kX4095 + "k=1\na=1\n", Delete("S", "k"), "[S]\n" + kX4095 + "\na=1\n"},
    {__LINE__, kX4095 + "[S]\na=1\n[T]\n", DeleteSection("S"), kX4095 + "\n[T]\n"},
    {__LINE__, "[S]\nk=v ;" + string(4090, 'c') + "a=1\n", Delete("S", "k"), "[S]\na=1\n"},
};

TEST_F(ConfigEditTest, bytes_of_every_edit) {
    for (const EditCase &row : kEdits) {
        SCOPED_TRACE(row.source_line);
        writeFile(file_, row.before);
        writeFile(copy_, "what an earlier edit left");
        chmod(file_.c_str(), 0640);
        chmod(copy_.c_str(), 0777);
        errno = 0;
        EXPECT_EQ(row.edit(file_.c_str()), row.error == 0);
        EXPECT_EQ(row.error == 0 ? 0 : errno, row.error);
        EXPECT_EQ(readFile(file_), row.error == 0 ? row.after : row.before);
        EXPECT_FALSE(exists(copy_));
    }
}

TEST_F(ConfigEditTest, permissions_of_the_new_file) {
    writeFile(file_, "[S]\n");
    chmod(file_.c_str(), 0600);
    EXPECT_FALSE(vllDeleteConfigValue(file_.c_str(), "S", "k"));
    EXPECT_EQ(modeOf(file_), 0600U);
    for (const mode_t mode : {0600U, 0666U}) {  // beyond the umask, too
        chmod(file_.c_str(), mode);
        EXPECT_TRUE(vllAddConfigSection(file_.c_str(), mode == 0600 ? "T" : "U"));
        EXPECT_EQ(modeOf(file_), mode);
    }
    EXPECT_TRUE(vllAddConfigValue(file_.c_str(), "S", "k", "v"));
    EXPECT_EQ(modeOf(file_), 0644U);
}

TEST_F(ConfigEditTest, a_section_that_exists_leaves_the_copy) {
    writeFile(file_, "[S]\n");
    EXPECT_THAT(vllAddConfigSection(file_.c_str(), "s"), FailsWith(EEXIST));
    EXPECT_EQ(readFile(copy_), "[S]\n");
    EXPECT_TRUE(vllAddConfigValue(file_.c_str(), "S", "k", "v"));
    EXPECT_FALSE(exists(copy_));
}

TEST_F(ConfigEditTest, profile_operation_creates_the_file) {
    EXPECT_TRUE(vllWritePrivateProfileString("S", "k", "v", file_.c_str()));
    EXPECT_EQ(readFile(file_), "\n[S]\nk=v\n");
    unlink(file_.c_str());
    EXPECT_TRUE(vllWritePrivateProfileString(nullptr, "k", "v", file_.c_str()));
    EXPECT_EQ(readFile(file_), "k=v\n");
    unlink(file_.c_str());
    EXPECT_THAT(vllWritePrivateProfileString("S", "k", nullptr, file_.c_str()), FailsWith(ENOENT));
    EXPECT_EQ(readFile(file_), "\n[S]\n");
    EXPECT_THAT(vllWritePrivateProfileString("S", "k", "v", "/mnt/lost/app.ini"), FailsWith(ENOENT));
}

// At the first sync the copy is whole and the file is the old one, at the second it is the new one.
TEST_F(ConfigEditTest, order_of_an_edit) {
    writeFile(file_, "[S]\n");
    std::vector<string> seen;
    on_sync = [&] { seen.push_back(readFile(file_) + (exists(copy_) ? "|" + readFile(copy_) : "")); };
    EXPECT_TRUE(vllAddConfigValue(file_.c_str(), "S", "k", "v"));
    EXPECT_EQ(seen, (std::vector<string>{"[S]\n|[S]\nk=v\n", "[S]\nk=v\n"}));
    seen.clear();
    EXPECT_TRUE(vllAddConfigSection(file_.c_str(), "T"));
    EXPECT_TRUE(seen.empty());
}

// A child runs the operation and is killed at its n-th stop; each system call has two. True when it was done before.
bool KillAtStop(int n, const std::function<void()> &operation) {
    const pid_t pid = startChild([&]() -> int {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        operation();
        _exit(0);  // how StartChild() ends a child is no part of the operation
    });
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSTOPPED(status));
    for (int stop = 0; stop < n && WIFSTOPPED(status); ++stop) {
        EXPECT_EQ(ptrace(PTRACE_SYSCALL, pid, nullptr, nullptr), 0);
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
    }
    if (!WIFSTOPPED(status)) {
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        return true;
    }
    kill(pid, SIGKILL);
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return false;
}

// So no reader ever misses the file, either.
TEST_F(ConfigEditTest, killed_at_every_system_call) {
    const string before = "[S]\nk=1\nl=2\n" + string(9000, ';') + "\n";
    const string tail = before.substr(12);
    const struct {
        Operation edit;
        std::vector<string> steps;  // what the file holds, in this order
    } rows[] = {
        {Add("S", "k", "v"), {before, "[S]\nk=v\nl=2\n" + tail}},
        {Delete("S", "l"), {before, "[S]\nk=1\n" + tail}},
        {AddSection("T"), {before, before + "\n[T]\n"}},
        {DeleteSection("S"), {before, ""}},
        {Write("T", "m", "n"), {before, before + "\n[T]\n", before + "\n[T]\nm=n\n"}},
    };
    for (const auto &row : rows) {
        auto step = row.steps.begin();
        int stops = 0;
        for (bool done = false; !done && !HasFailure(); ++stops) {
            writeFile(file_, before);
            done = KillAtStop(stops, [&] { row.edit(file_.c_str()); });
            EXPECT_TRUE(exists(file_));
            const string content = readFile(file_);
            step = std::find(step, row.steps.end(), content);
            EXPECT_NE(step, row.steps.end()) << "at stop " << stops;
            // Whatever is left there does not disturb the next edit.
            EXPECT_TRUE(vllAddConfigValue(file_.c_str(), nullptr, "next", "edit"));
            EXPECT_EQ(readFile(file_), "next=edit\n" + content);
            EXPECT_FALSE(exists(copy_));
        }
        EXPECT_EQ(step, row.steps.end() - 1);
        EXPECT_GT(stops, 20);
    }
}

// Runs every kind of edit, each of which must fail with this error and change nothing.
void expectAllFail(const string &file, int error) {
    const Operation edits[] = {Add("S", "k", "v"), Delete("S", "k"),     AddSection("T"),
                               DeleteSection("S"), Write("S", "k", "v"), Write("T", "k", "v")};
    const string before = readFile(file);
    const bool had_copy = exists(file + "copy");
    for (const Operation &edit : edits) {
        SCOPED_TRACE(&edit - edits);
        errno = 0;
        EXPECT_THAT(edit(file.c_str()), FailsWith(error));
        EXPECT_TRUE(readFile(file) == before);
        EXPECT_EQ(exists(file + "copy"), had_copy);
    }
}

TEST_F(ConfigEditTest, files_that_cannot_be_edited) {
    mkdir(file_.c_str(), 0755);
    expectAllFail(file_, EISDIR);
    rmdir(file_.c_str());
    writeFile(file_, "[S]\nk=1\n");
    mkdir(copy_.c_str(), 0755);
    expectAllFail(file_, EEXIST);
    rmdir(copy_.c_str());
    ASSERT_EQ(mount(nullptr, "/mnt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    expectAllFail(file_, EROFS);
}

TEST_F(ConfigEditTest, disk_full) {
    mkdir("/mnt/small", 0755);
    coverDirectory("/mnt/small", "64k");
    const string file = "/mnt/small/app.ini";
    writeFile(file, "[S]\nk=1\n[Big]\n" + string(40000, ';') + "\n");
    expectAllFail(file, ENOSPC);
    umount2("/mnt/small", MNT_DETACH);
}

TEST_F(ConfigEditTest, failing_calls) {
    writeFile(file_, "[S]\nk=1\n" + string(9000, ';') + "\n");
    const string before = readFile(file_);
    const struct {
        const char *call;
        int nth;
    } rows[] = {{"read", 2}, {"read", 3}, {"write", 1}, {"write", 2}, {"fsync", 1}};
    for (const auto &row : rows) {
        for (const Operation &edit : {Add("S", "k", "v"), Delete("S", "k"), DeleteSection("S")}) {
            SCOPED_TRACE(row.call);
            const FailCall fail(row.call, row.nth, EIO);
            const bool done = edit(file_.c_str());
            EXPECT_EQ(done, !fail.happened());
            EXPECT_EQ(done ? EIO : errno, EIO);
            EXPECT_FALSE(exists(copy_));
            EXPECT_EQ(done || readFile(file_) == before, true);
            writeFile(file_, before);
        }
    }
    for (const char *call : {"read", "write", "fsync"}) {
        const FailCall interrupted(call, 1, EINTR);
        EXPECT_TRUE(vllAddConfigValue(file_.c_str(), "S", "k", "v")) << call;
        EXPECT_TRUE(interrupted.happened()) << call;
    }
    // A rename that fails is not told; the new content is in the copy.
    writeFile(file_, before);
    const FailCall fail("rename", 1, EACCES);
    EXPECT_TRUE(vllDeleteConfigSection(file_.c_str(), "S"));
    EXPECT_EQ(readFile(file_), before);
    EXPECT_EQ(readFile(copy_), "");
}

TEST_F(ConfigEditTest, file_names_that_leave_no_room_for_the_copy) {
    const string longest = "/mnt" + string(244, '/') + "app.ini";
    ASSERT_EQ(longest.size(), 255U);
    writeFile(longest, "[S]\nk=1\n");
    EXPECT_TRUE(vllAddConfigValue(longest.c_str(), "S", "k", "v"));
    EXPECT_TRUE(vllAddConfigSection(longest.c_str(), "T"));
    EXPECT_EQ(readFile(file_), "[S]\nk=v\n\n[T]\n");
    expectAllFail("/" + longest, ENAMETOOLONG);
    unlink(file_.c_str());
    EXPECT_FALSE(vllWritePrivateProfileString("S", "k", "v", ("/" + longest).c_str()));
    EXPECT_FALSE(exists(file_));
}

// Names that would not be read back are refused: every edit would add them once more.
TEST_F(ConfigEditTest, refused_names) {
    const string longest(1023, 'n');
    const string too_long(1024, 'n');
    writeFile(file_, "[S]\nk=1\n");
    const string before = readFile(file_);
    const auto refused = [&](BOOL result) {
        const bool as_expected = !result && errno == EINVAL && readFile(file_) == before;
        errno = 0;
        return as_expected && !exists(copy_);
    };
    const char *const file = file_.c_str();
    for (const char *key : {"", "a=b", ";k", "#k", "[k]", "\"k\"", "'k", "k\n", "a\nb", "=", "a\" b", "k\r",
                            too_long.c_str()}) {
        EXPECT_TRUE(refused(vllAddConfigValue(file, "S", key, "v"))) << key;
        EXPECT_TRUE(refused(vllWritePrivateProfileString("T", key, "v", file))) << key;
    }
    for (const char *section : {"", "a]", "a;b", "#", "a\nb", too_long.c_str()}) {
        EXPECT_TRUE(refused(vllAddConfigSection(file, section))) << section;
        EXPECT_TRUE(refused(vllWritePrivateProfileString(section, "k", "v", file))) << section;
        EXPECT_TRUE(refused(vllWritePrivateProfileString(section, nullptr, nullptr, file))) << section;
    }
    EXPECT_TRUE(refused(vllAddConfigValue(file, "S", "k", too_long.c_str())));
    EXPECT_TRUE(refused(vllAddConfigValue(file, "S", nullptr, "v")));
    EXPECT_TRUE(refused(vllAddConfigValue(file, "S", "k", nullptr)));
    EXPECT_TRUE(refused(vllAddConfigValue(nullptr, "S", "k", "v")));
    EXPECT_TRUE(refused(vllDeleteConfigValue(file, "S", nullptr)));
    EXPECT_TRUE(refused(vllDeleteConfigValue(nullptr, "S", "k")));
    EXPECT_TRUE(refused(vllDeleteConfigSection(nullptr, "S")));
    EXPECT_TRUE(refused(vllAddConfigSection(file, nullptr)));
    EXPECT_TRUE(refused(vllAddConfigSection(nullptr, "S")));
    EXPECT_TRUE(refused(vllWritePrivateProfileString("S", "k", "v", nullptr)));

    string value(1024, '~');
    DWORD size = 1024;
    EXPECT_TRUE(vllWritePrivateProfileString(longest.c_str(), longest.c_str(), longest.c_str(), file));
    EXPECT_TRUE(vllReadConfigValue(file, longest.c_str(), longest.c_str(), value.data(), &size));
    EXPECT_EQ(value, longest + '\0');
    for (const char *key : {"a=b c", "k;", "k#", "a\tb", " k", "it's", "a]"}) {
        EXPECT_TRUE(vllAddConfigValue(file, "S", key, "v")) << key;
        EXPECT_TRUE(vllReadConfigValue(file, "S", key, value.data(), &(size = 1024))) << key;
    }
}

// A cancel that is pending does not end a thread half-way through an edit.
TEST_F(ConfigEditTest, not_a_cancellation_point) {
    bool done = false;
    const auto body = [&] {
        pthread_cancel(pthread_self());
        done = vllWritePrivateProfileString("S", "k", "v", file_.c_str()) != 0 &&
               vllGetPrivateProfileInt("S", "k", 7, file_.c_str()) == 0;
    };
    finishThread(startThread(body));
    EXPECT_TRUE(done);
    EXPECT_EQ(readFile(file_), "\n[S]\nk=v\n");
}

// Standard output of a call in a child.
string outputOf(const std::function<int()> &body) {
    const string output = "/mnt/output";
    const ChildResult result = runInChild([&] {
        EXPECT_NE(freopen(output.c_str(), "w", stdout), nullptr);
        return body();
    });
    EXPECT_TRUE(result.exited);
    return readFile(output) + std::to_string(result.status);
}

TEST_F(ConfigEditTest, saving_the_configuration_store) {
    const char *const file = file_.c_str();
    const string missing = std::to_string(ENOENT);
    EXPECT_EQ(outputOf([&] { return vllRegSaveKey(0, file, nullptr); }),
              "Cannot open source file (/proc/Ulmex/VConfig/data).\n" + missing);
    EXPECT_FALSE(exists(file_));
    EXPECT_EQ(vllRegSaveKey(0, nullptr, nullptr), EINVAL);

    const string source = file_ + ".source";
    string content(100000, '\0');
    for (size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i * 31);
    }
    writeFile(source, content);
    writeFile(file_, "old");
    EXPECT_EQ(__CopyFile(source.c_str(), file, "w"), 0);
    EXPECT_EQ(readFile(file_), content);
    EXPECT_EQ(outputOf([&] { return __CopyFile(source.c_str(), "/mnt/lost/x", "w"); }),
              "Cannot open destination file (/mnt/lost/x).\n1");
    EXPECT_THAT(__CopyFile(source.c_str(), "/dev/full", "w"), FailsWith(ENOSPC, 1));
    EXPECT_THAT(__CopyFile("/mnt", file, "w"), FailsWith(EISDIR, 1));

    // The store itself, where /proc can be covered.
    EXPECT_EQ(outputOf([&] {
                  coverDirectory("/proc");
                  mkdir("/proc/Ulmex", 0755);
                  mkdir("/proc/Ulmex/VConfig", 0755);
                  writeFile("/proc/Ulmex/VConfig/data", "the store");
                  const LONG result = vllRegSaveKey(7, file, nullptr);
                  EXPECT_EQ(vllRegSaveKey(7, "/mnt/lost/x", nullptr), ENOENT);
                  umount2("/proc", MNT_DETACH);
                  return result;
              }),
              "Cannot open destination file (/mnt/lost/x).\n0");
    EXPECT_EQ(readFile(file_), "the store");
}

}  // namespace

extern "C" void __wrap_sync();
void __wrap_sync() {
    if (on_sync) {
        on_sync();
    }
}
