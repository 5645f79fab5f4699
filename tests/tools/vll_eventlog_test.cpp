// The tool that shows the event log.
#include <fcntl.h>
#include <sys/wait.h>
#include <fstream>

#include "support/child.h"
#include "support/fixture.h"
#include "support/private_machine.h"
#include "tool.h"

namespace {

using std::string;

constexpr char kCurrent[] = "/var/log/vservices";

string entry(const string &priority, const string &text) {
    return "Jan  2 03:04:05 unit1 " + priority + " gateway: " + text + "\n";
}

// The lines of an output without their years, which depend on today.
string withoutYears(string text) {
    for (size_t at = 0; (at = text.find("-01-02", at)) != text.npos; ++at) {
        text.replace(at - 4, 4, "YYYY");
    }
    return text;
}

class VllEventlogTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        coverDirectory("/var/log");
        setenv("T", toolPath("vll-eventlog").c_str(), 1);
    }
    void SetUp() override {
        std::ofstream("/var/log/vservices.0") << entry("user.info", "one");
        std::ofstream(kCurrent) << "Jan  2 03:04:05 unit1 daemon.info ntp: other\n"
                                << entry("user.warn", "a \"b\\ \x1b[1m\t\xC3\xA9\xE9")
                                << entry("user.err", "three");
    }
};

TEST_F(VllEventlogTest, commands) {
    const string one = "     1  YYYY-01-02 03:04:05  information  gateway  one\n";
    const string two = "     3  YYYY-01-02 03:04:05  warning      gateway  a \"b\\ ?[1m\t\xC3\xA9\xE9\n";
    const string three = "     4  YYYY-01-02 03:04:05  error        gateway  three\n";
    const struct {
        const char *command;
        string expected;
    } rows[] = {
        {"$T", one + two + three + "<0>\n"},
        {"$T -r", three + two + one + "<0>\n"},
        {"$T --last 2", two + three + "<0>\n"},
        {"$T -n 2 --reverse", three + two + "<0>\n"},
        {"$T -n 0; $T -r -n 0", "<0>\n"},
        {"$T -n 99", one + two + three + "<0>\n"},
        {"$T --json -n 2",
         "{\"record\":3,\"time\":\"YYYY-01-02T03:04:05\",\"type\":\"warning\",\"source\":\"gateway\","
         "\"computer\":\"unit1\",\"text\":\"a \\\"b\\\\ \\u001b[1m\\u0009\xC3\xA9\\ufffd\"}\n"
         "{\"record\":4,\"time\":\"YYYY-01-02T03:04:05\",\"type\":\"error\",\"source\":\"gateway\","
         "\"computer\":\"unit1\",\"text\":\"three\"}\n<0>\n"},
        {"$T --count", "4\n<0>\n"},
        {"$T >/dev/full", "vll-eventlog: output: No space left on device\n<3>\n"},
        {"$T --clear && $T --count && $T && ls /var/log", "0\nvservices\n<0>\n"},
        {"rm /var/log/vservices; $T --count; $T", "0\n<0>\n"},
        {"mkdir /var/log/vservices; $T; $T --count; $T --clear; rmdir /var/log/vservices",
         "vll-eventlog: log: Is a directory\nvll-eventlog: log: Is a directory\n"
         "vll-eventlog: log: Is a directory\n<0>\n"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(withoutYears(shell(row.command)), row.expected) << row.command;
    }
    for (const char *wrong :
         {"-n x", "-n -1", "-n ''", "-n 99999999999999999999", "-r -f", "--count --clear", "word", "-x"}) {
        EXPECT_NE(shell(string("$T ") + wrong).find("usage: vll-eventlog"), string::npos) << wrong;
        EXPECT_EQ(shell(string("$T ") + wrong + " 2>/dev/null"), "<2>\n") << wrong;
    }
}

TEST_F(VllEventlogTest, follows_through_a_rotation) {
    const pid_t tool = startChild([] {
        const int out = open("/var/log/out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, STDOUT_FILENO);
        const char *program = getenv("T");
        return program == nullptr ? 1 : execl(program, "vll-eventlog", "-f", "-n", "1", nullptr);
    });
    const auto shows = [](const string &texts) {
        return waitUntil([&] {
            std::ifstream file("/var/log/out");
            string found;
            for (string line; std::getline(file, line);) {
                found += line.substr(line.rfind(' '));
            }
            return found == texts;
        });
    };
    const auto append = [](const string &text, std::ios::openmode mode = std::ios::app) {
        std::ofstream(kCurrent, mode) << entry("user.info", text);
    };
    EXPECT_TRUE(shows(" three"));
    append("five");
    append("six");
    EXPECT_TRUE(shows(" three five six"));
    ASSERT_EQ(rename(kCurrent, "/var/log/vservices.0"), 0);
    append("seven");
    EXPECT_TRUE(shows(" three five six seven"));
    append("seven");
    EXPECT_TRUE(shows(" three five six seven seven"));
    remove("/var/log/vservices.0");
    append("anew", std::ios::trunc);
    EXPECT_TRUE(shows(" three five six seven seven anew"));
    kill(tool, SIGTERM);
    EXPECT_EQ(finishChild(tool).status, SIGTERM);
}

}  // namespace
