// The tool that reads and changes profiles.
#include <unistd.h>

#include "support/files.h"
#include "support/fixture.h"
#include "support/private_machine.h"
#include "tool.h"

namespace {

using std::string;

class VllProfileTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(chdir(freshDirectory().c_str()), 0);
        ASSERT_EQ(symlink(toolPath("vll-profile").c_str(), "p"), 0);
    }
    void TearDown() override { EXPECT_EQ(chdir("/"), 0); }
};

TEST_F(VllProfileTest, commands) {
    writeFile("a.ini",
              "loose=1\n[Net]\n; c\n\"my key\" = 'v w'\nflag\n[Empty]\n[Dir]\nroot=/srv\n[net]\nother=1\n");
    const struct {
        const char *command;
        const char *expected;
    } rows[] = {
        {"./p get a.ini Net 'MY key'", "v w\n<0>\n"},
        {"./p get a.ini '' loose", "1\n<0>\n"},
        {"./p get a.ini Net other", "vll-profile: a.ini: other: No such file or directory\n<1>\n"},
        {"./p get a.ini Net other default", "default\n<0>\n"},
        {"./p get . Net other default", "vll-profile: .: other: Is a directory\n<3>\n"},
        {"./p sections a.ini", "Net\nEmpty\nDir\nnet\n<0>\n"},
        {"./p sections lost.ini", "vll-profile: lost.ini: No such file or directory\n<1>\n"},
        {"./p keys a.ini Net", "my key\nflag\n<0>\n"},
        {"./p keys a.ini Empty", "<0>\n"},
        {"./p keys a.ini Lost", "vll-profile: a.ini: Lost: No such file or directory\n<1>\n"},
        {"./p show a.ini Net", "my key=v w\nflag=\n<0>\n"},
        {"./p show a.ini", "loose=1\n[Net]\nmy key=v w\nflag=\n[Empty]\n[Dir]\nroot=/srv\n<0>\n"},
        {"./p delete a.ini Net flag && ./p delete a.ini Net flag",
         "vll-profile: a.ini: flag: No such file or directory\n<1>\n"},
        {"./p delete lost.ini Lost; ls",
         "vll-profile: lost.ini: Lost: No such file or directory\na.ini\np\n<0>\n"},
        {"./p delete a.ini Empty && ./p delete a.ini '' && ./p sections a.ini", "Net\nDir\nnet\n<0>\n"},
        {"./p set a.ini Dir root /home && ./p get a.ini dir ROOT", "/home\n<0>\n"},
        {"./p set b.ini S k 'a b' && cat b.ini", "\n[S]\nk=a b\n<0>\n"},
        {"./p set b.ini '' k '' && cat b.ini", "k=\n\n[S]\nk=a b\n<0>\n"},
        {"./p set b.ini S 'k=' v", "vll-profile: b.ini: k=: Invalid argument\n<2>\n"},
        {"./p set /proc/x.ini S k v", "vll-profile: /proc/x.ini: k: No such file or directory\n<1>\n"},
        {"./p show a.ini >/dev/full", "vll-profile: standard output: No space left on device\n<3>\n"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(shell(row.command), row.expected) << row.command;
    }
}

// A value is read back as it was set, or refused when no profile can hold it.
TEST_F(VllProfileTest, values_read_back_as_they_were_set) {
    for (const char *value : {"", "plain", "a b", "a#b", " a", "a ", "a ;b", "a\t#b", "\"a", "\"a\"", "'a",
                              "\"a b\" c", "a\\", "it's ;", "say \"x\" ;", ";"}) {
        setenv("VALUE", value, 1);
        EXPECT_EQ(shell("./p set a.ini S k \"$VALUE\" && ./p get a.ini S k"), string(value) + "\n<0>\n");
    }
    for (const char *value : {"a\nb", "'\" ", "\\ ;\\", "  \\"}) {
        setenv("VALUE", value, 1);
        EXPECT_EQ(shell("./p set a.ini S k \"$VALUE\""), "vll-profile: a.ini: k: Invalid argument\n<2>\n")
            << value;
    }
    EXPECT_EQ(shell("./p get a.ini S k"), ";\n<0>\n");
}

TEST_F(VllProfileTest, wrong_usage) {
    const string help = shell("./p --help");
    EXPECT_NE(help.find("usage: vll-profile get FILE"), string::npos);
    EXPECT_NE(help.find("<0>"), string::npos);
    for (const char *arguments : {"", "get", "get f", "get f s", "get f s k d x", "set f s k", "delete f",
                                  "sections f s", "keys f", "show", "show f s k", "list f"}) {
        const string output = shell(string("./p ") + arguments);
        EXPECT_NE(output.find("<2>"), string::npos) << arguments;
        EXPECT_EQ(output.substr(0, 6), "usage:") << arguments;
    }
}

TEST_F(VllProfileTest, long_lists) {
    string content;
    for (int i = 0; i < 5000; ++i) {
        content += "[section " + std::to_string(i) + "]\nkey=1\n";
    }
    writeFile("a.ini", content);
    EXPECT_EQ(shell("./p sections a.ini | wc -l | tr -d ' '"), "5000\n<0>\n");
    EXPECT_EQ(shell("./p sections a.ini | tail -n 1"), "section 4999\n<0>\n");
}

}  // namespace
