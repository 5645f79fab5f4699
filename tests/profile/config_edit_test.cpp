// Editing profile files: bytes, failures, and what a killed process leaves.
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <csignal>
#include <cstring>

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

Operation setValue(const char *section, const char *key, const char *value) {
    return [=](const char *file) { return vllAddConfigValue(file, section, key, value); };
}
Operation deleteValue(const char *section, const char *key) {
    return [=](const char *file) { return vllDeleteConfigValue(file, section, key); };
}
Operation addSection(const char *section) {
    return [=](const char *file) { return vllAddConfigSection(file, section); };
}
Operation deleteSection(const char *section) {
    return [=](const char *file) { return vllDeleteConfigSection(file, section); };
}
Operation writeString(const char *section, const char *key, const char *value) {
    return [=](const char *file) { return vllWritePrivateProfileString(section, key, value, file); };
}

struct EditCase {
    string before;
    Operation edit;
    string after;
    int error = 0;  // of a failure, which leaves the file as before
};

// A literal with NUL bytes in it.
template <size_t Size>
string bytes(const char (&text)[Size]) {
    return string(text, Size - 1);
}

// A whole piece of a line, and no entry by itself: its key is too long.
const string kX4095 = string(4094, 'x') + "=";

const EditCase kEdits[] = {
    // set
    {"[S]\na=1\nb=2\nc=3\n", setValue("S", "b", "new"), "[S]\nb=new\na=1\nc=3\n"},
    {"x\n[s]\n; c\nB = 1\n\nb='2' ;\n[S]\nb=3\n", setValue("S", "b", "n"), "x\n[s]\nb=n\n; c\n\n[S]\nb=3\n"},
    {"[S]\n", setValue("S", "my key", "v"), "[S]\n\"my key\"=v\n"},
    {"[S]\n'my\tkey'=1\n", setValue("S", "my\tkey", " v ;x"), "[S]\n\"my\tkey\"= v ;x\n"},
    {"", setValue(nullptr, "k", "v"), "k=v\n"},
    {"a=1\nk=2\n[S]\nk=3", setValue(nullptr, "K", "v"), "K=v\na=1\n[S]\nk=3"},
    {"[S] ; no newline", setValue("S", "k", "v"), "[S] ; no newline\nk=v\n"},
    {"[S]\r\na=1\r\nb=2\r\n[T]\r\n", setValue("S", "a", "2"), "[S]\r\na=2\nb=2\r\n[T]\r\n"},
    {"[S]\n[T]\nk=1\n", setValue("S", "k", "v"), "[S]\nk=v\n[T]\nk=1\n"},
    {"[S\n[S] x\nk='1\n=k\n[S]\nk=1", setValue("S", "k", "v"), "[S\n[S] x\nk='1\n=k\n[S]\nk=v\n"},
    {bytes("a\0b\n[S]\0\nk=1\0=\nk\0\n\0k=1\n\xff"), setValue("S", "k", "v"),
     bytes("a\0b\n[S]\0\nk=v\n\0k=1\n\xff")},
    {"[S]\n", setValue("T", "k", "v"), "", ENOENT},

    // delete
    {"[S]\na=1\nb=2\nA\nc=3\n", deleteValue("s", "a"), "[S]\nb=2\nc=3\n"},
    {"[S]\n\"my key\" = 1\n", deleteValue("S", "MY KEY"), "[S]\n"},
    {"[S]\nb=1\na=1", deleteValue("S", "a"), "[S]\nb=1\n"},
    {"[S]\na=1\nb", deleteValue("S", "a"), "[S]\nb"},
    {"[S]\nb=1\n[T]\na=1\n", deleteValue("S", "a"), "", ENOENT},
    {"[S]\na=1\n", deleteValue("T", "a"), "", ENOENT},

    // delete a section
    {"; above\n[S]\n; in\n\na=1\n[T]\nb=1\n", deleteSection("s"), "; above\n[T]\nb=1\n"},
    {"[S]\na=1\n[S]\nb=1\n", deleteSection("S"), "[S]\nb=1\n"},
    {"; c\na\n[S]\nb", deleteSection(nullptr), "[S]\nb"},
    {"[S]", deleteSection("S"), ""},
    {"[S]\n[T] x\n[T\n[U]\n", deleteSection("S"), "[U]\n"},
    {"[S]\n", deleteSection("T"), "", ENOENT},

    // add a section
    {"x=1\n", addSection("S"), "x=1\n\n[S]\n"},
    {"x=1\n\n", addSection("S"), "x=1\n\n[S]\n"},
    {"x=1", addSection("S"), "x=1\n[S]\n"},
    {"\n", addSection("S"), "\n\n[S]\n"},
    {"\n\n", addSection(" S "), "\n\n[ S ]\n"},
    {"", addSection("S"), "\n[S]\n"},
    {"x=1\r\n\r\n", addSection("S"), "x=1\r\n\r\n\n[S]\n"},

    // the profile operation
    {"[S]\nk=1\nl=1\n", writeString("S", "k", nullptr), "[S]\nl=1\n"},
    {"[S]\nk=1\n[T]\n", writeString("S", nullptr, "v"), "[T]\n"},
    {"k=1\n[T]\n", writeString(nullptr, nullptr, nullptr), "[T]\n"},
    {"[T]\n", writeString("S", nullptr, nullptr), "[T]\n\n"},

    // lines in pieces: each is a line of its own, and what is written starts one
    {"[S]" + string(4091, ' ') + ";rest\nk=1\n", setValue("S", "k", "v"),
     "[S]" + string(4091, ' ') + ";\nk=v\nrest\n"},
    {"[S]\n" + kX4095 + "k=1\na=1\n", deleteValue("S", "k"), "[S]\n" + kX4095 + "\na=1\n"},
    {kX4095 + "[S]\na=1\n[T]\n", deleteSection("S"), kX4095 + "\n[T]\n"},
    {"[S]\nk=v ;" + string(4090, 'c') + "a=1\n", deleteValue("S", "k"), "[S]\na=1\n"},
};

TEST_F(ConfigEditTest, bytes_of_every_edit) {
    for (const EditCase &row : kEdits) {
        SCOPED_TRACE("row " + std::to_string(&row - kEdits) + ": " + row.before);
        writeFile(file_, row.before);
        writeFile(copy_, "what an earlier edit left");
        EXPECT_THAT(row.edit(file_.c_str()), Outcome(row.error));
        EXPECT_EQ(readFile(file_), row.error == 0 ? row.after : row.before);
        EXPECT_FALSE(exists(copy_));
    }
}

// A new section keeps the permissions, also those beyond the umask; other edits give those of a new file.
TEST_F(ConfigEditTest, permissions_of_the_new_file) {
    writeFile(file_, "[S]\n");
    for (const mode_t mode : {0600U, 0666U}) {
        chmod(file_.c_str(), mode);
        EXPECT_TRUE(vllAddConfigSection(file_.c_str(), mode == 0600 ? "T" : "U"));
        EXPECT_THAT(vllDeleteConfigValue(file_.c_str(), "S", "k"), FailsWith(ENOENT));
        EXPECT_EQ(modeOf(file_), mode);
    }
    // A section that exists leaves the copy.
    EXPECT_THAT(vllAddConfigSection(file_.c_str(), "s"), FailsWith(EEXIST));
    EXPECT_EQ(readFile(copy_), readFile(file_));
    chmod(copy_.c_str(), 0777);
    EXPECT_TRUE(vllAddConfigValue(file_.c_str(), "S", "k", "v"));
    EXPECT_EQ(modeOf(file_), 0644U);
}

TEST_F(ConfigEditTest, profile_operation_creates_the_file) {
    for (const auto &[edit, content] : {std::pair{writeString("S", "k", "v"), "\n[S]\nk=v\n"},
                                        {writeString(nullptr, "k", "v"), "k=v\n"},
                                        {writeString("S", "k", nullptr), "\n[S]\n"}}) {
        unlink(file_.c_str());
        EXPECT_THAT(edit(file_.c_str()), Outcome(strlen(content) == 5 ? ENOENT : 0));
        EXPECT_EQ(readFile(file_), content);
    }
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

// A child runs the edit and is killed at its n-th stop; each system call has two. True when it was done before.
bool killAtStop(int n, const Operation &edit, const string &file) {
    const pid_t pid = startChild([&]() -> int {
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        _exit(edit(file.c_str()) ? 0 : 1);  // what startChild() does at the end is no part of the edit
    });
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
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
    const string tail = string(9000, ';') + "\n";
    const string before = "[S]\nk=1\n" + tail;
    const struct {
        Operation edit;
        std::vector<string> steps;  // what the file holds, in this order
    } rows[] = {
        {setValue("S", "k", "v"), {before, "[S]\nk=v\n" + tail}},
        {addSection("T"), {before, before + "\n[T]\n"}},
        {writeString("T", "m", "n"), {before, before + "\n[T]\n", before + "\n[T]\nm=n\n"}},
    };
    for (const auto &row : rows) {
        auto step = row.steps.begin();
        int stops = 0;
        for (bool done = false; !done && !HasFailure(); ++stops) {
            writeFile(file_, before);
            done = killAtStop(stops, row.edit, file_);
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

const std::vector<Operation> kEveryEdit = {
    setValue("S", "k", "v"), deleteValue("S", "k"),      addSection("T"),
    deleteSection("S"),      writeString("S", "k", "v"), writeString("T", "k", "v")};

// Each of the edits must fail with this error and change nothing.
void expectFailures(const string &file, int error, const std::vector<Operation> &edits = kEveryEdit) {
    const string before = readFile(file);
    const bool had_copy = exists(file + "copy");
    for (const Operation &edit : edits) {
        SCOPED_TRACE(&edit - edits.data());
        EXPECT_THAT(edit(file.c_str()), FailsWith(error));
        EXPECT_TRUE(readFile(file) == before);
        EXPECT_EQ(exists(file + "copy"), had_copy);
    }
}

TEST_F(ConfigEditTest, files_that_cannot_be_edited) {
    mkdir(file_.c_str(), 0755);
    expectFailures(file_, EISDIR);
    rmdir(file_.c_str());
    writeFile(file_, "[S]\nk=1\n");
    mkdir(copy_.c_str(), 0755);
    expectFailures(file_, EEXIST);
    rmdir(copy_.c_str());
    ASSERT_EQ(mount(nullptr, "/mnt", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    expectFailures(file_, EROFS);
    ASSERT_EQ(mount(nullptr, "/mnt", nullptr, MS_REMOUNT, nullptr), 0);
    mkdir("/mnt/small", 0755);
    coverDirectory("/mnt/small", "64k");
    const string full = "/mnt/small/app.ini";
    writeFile(full, "[S]\nk=1\n[Big]\n" + string(40000, ';') + "\n");
    expectFailures(full, ENOSPC);
    umount2("/mnt/small", MNT_DETACH);
}

TEST_F(ConfigEditTest, failing_calls) {
    const string before = "[S]\nk=1\n" + string(9000, ';') + "\n";
    writeFile(file_, before);
    for (const auto &[call, nth] : {std::pair{"read", 2}, std::pair{"read", 3}, std::pair{"write", 1},
                                    std::pair{"write", 2}, std::pair{"fsync", 1}}) {
        const FailCall fail(call, nth, EIO);
        expectFailures(file_, EIO, {setValue("S", "k", "v")});
        EXPECT_TRUE(fail.happened()) << call << nth;
    }
    for (const char *call : {"read", "write", "fsync"}) {
        const FailCall interrupted(call, 1, EINTR);
        EXPECT_TRUE(vllAddConfigValue(file_.c_str(), nullptr, "k", "v")) << call;
        EXPECT_TRUE(interrupted.happened()) << call;
    }
    // A rename that fails is not reported; the new content is in the copy.
    writeFile(file_, before);
    const FailCall fail("rename", 1, EACCES);
    EXPECT_TRUE(vllDeleteConfigSection(file_.c_str(), "S"));
    EXPECT_EQ(readFile(file_), before);
    EXPECT_EQ(readFile(copy_), "");
}

TEST_F(ConfigEditTest, file_names_that_are_too_long_for_the_copy) {
    const string longest = "/mnt" + string(244, '/') + "app.ini";  // 255 bytes
    expectFailures("/" + longest, ENAMETOOLONG);
    EXPECT_FALSE(exists(file_));
    EXPECT_TRUE(vllWritePrivateProfileString("S", "k", "v", longest.c_str()));
    EXPECT_EQ(readFile(file_), "\n[S]\nk=v\n");
}

// Names that would not be read back are refused: every edit would add them once more.
TEST_F(ConfigEditTest, refused_names) {
    const string longest(1023, 'n');
    const string too_long(1024, 'n');
    const char *const file = file_.c_str();
    writeFile(file_, "[S]\nk=1\n");
    for (const char *key : {"", "a=b", ";k", "#k", "[k]", "\"k\"", "'k", "k\n", "a\nb", "=", "a\" b", "k\r",
                            too_long.c_str()}) {
        expectFailures(file_, EINVAL, {setValue("S", key, "v"), writeString("T", key, "v")});
    }
    for (const char *section : {"", "a]", "a;b", "#", "a\nb", too_long.c_str()}) {
        expectFailures(
            file_, EINVAL,
            {addSection(section), writeString(section, "k", "v"), writeString(section, nullptr, nullptr)});
    }
    expectFailures(file_, EINVAL,
                   {setValue("S", "k", too_long.c_str()), setValue("S", nullptr, "v"),
                    setValue("S", "k", nullptr), deleteValue("S", nullptr), addSection(nullptr)});
    for (const Operation &edit : kEveryEdit) {
        EXPECT_THAT(edit(nullptr), FailsWith(EINVAL));
    }

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

// What a call prints on standard output, in a child, and then its result.
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
    EXPECT_EQ(outputOf([&] { return vllRegSaveKey(0, file, nullptr); }),
              "Cannot open source file (/proc/Ulmex/VConfig/data).\n" + std::to_string(ENOENT));
    EXPECT_FALSE(exists(file_));
    EXPECT_EQ(vllRegSaveKey(0, nullptr, nullptr), EINVAL);
    EXPECT_THAT(__CopyFile("/proc/self/exe", "/dev/full", "w"), FailsWith(ENOSPC, 1));
    EXPECT_THAT(__CopyFile("/mnt", file, "w"), FailsWith(EISDIR, 1));
    // The store itself: /proc is covered.
    string store(100000, '\0');
    for (size_t i = 0; i < store.size(); ++i) {
        store[i] = static_cast<char>(i * 31);
    }
    EXPECT_EQ(outputOf([&] {
                  coverDirectory("/proc");
                  mkdir("/proc/Ulmex", 0755);
                  mkdir("/proc/Ulmex/VConfig", 0755);
                  writeFile("/proc/Ulmex/VConfig/data", store);
                  const LONG result = vllRegSaveKey(7, file, nullptr);
                  EXPECT_EQ(vllRegSaveKey(7, "/mnt/lost/x", nullptr), ENOENT);
                  umount2("/proc", MNT_DETACH);
                  return result;
              }),
              "Cannot open destination file (/mnt/lost/x).\n0");
    EXPECT_EQ(readFile(file_), store);
}

}  // namespace

extern "C" void __wrap_sync();
void __wrap_sync() {
    if (on_sync) {
        on_sync();
    }
}
