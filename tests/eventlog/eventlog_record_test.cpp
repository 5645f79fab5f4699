// From the lines of the log to records.
#include "eventlog_fixture.h"

#include "support/clock.h"

namespace {

// The time that these tests run at: 2026-11-16 16:21:16 UTC.
constexpr time_t kNow = 1794846076;

TEST_F(EventLogTest, records_of_lines) {
    const FakeTime now(kNow);
    const Record none = {};
    const auto info = [](const std::string &source, const std::string &computer, const std::string &message) {
        return Record{1, 4, kNow, source, computer, message};
    };
    // Of the source "gateway" on the host "u".
    const auto typed = [](WORD type) { return Record{1, type, kNow, "gateway", "u", "a"}; };
    const std::string host63(63, 'h');
    const std::string long_text(600, 'x');
    const std::string stamp = "Nov 16 16:21:16 ";
    const std::string prefix = stamp + "unit1 user.info ";
    const Record cut = info("gateway", "unit1", long_text.substr(0, 470));
    const std::pair<std::string, Record> cases[] = {
        {prefix + "gatekeeper: call set up", info("gatekeeper", "unit1", "call set up")},
        {prefix + "GATEKEEPER; up", info("GATEKEEPER", "unit1", "up")},
        {stamp + "u user.warning gateway: a", typed(2)},
        {stamp + "u USER.DEBUG gateway: a", typed(4)},
        {stamp + "u user.error gateway: a", typed(1)},
        {stamp + "u user.er gateway: a", typed(0)},
        {stamp + "u daemon.err gateway: a", typed(0)},
        {stamp + "u user.notice gateway: a", typed(0)},
        {prefix + "gateway: two  blanks\tand a ", info("gateway", "unit1", "two  blanks\tand a ")},
        {stamp + "  unit1\tuser.info  gateway:  x", info("gateway", "unit1", " x")},
        {stamp + "u\r user.info gateway: a\r", info("gateway", "u\r", "a\r")},
        {prefix + "gateway:", info("gateway", "unit1", "")},
        {prefix + "gateway: ", info("gateway", "unit1", "")},
        // The first occurrence of the name counts.
        {stamp + "gateway user.info gateway: up", info("gateway", "gateway", "ser.info gateway: up")},
        // Lines of other programs, and of the library.
        {prefix + "gateway[123]: up", none},
        {prefix + "gateways: up", none},
        {prefix + "gateway:x", none},
        {prefix + "gatewa: up", none},
        {prefix + "init: gateway: up", none},
        {prefix + "x", none},
        {stamp + "unit1 gateway: up", none},
        {"", none},
        {" ", none},
        {prefix + "gateway: about VLL: this", none},
        {prefix + "gateway: xvLli:x", none},
        {prefix + "gateway: vll:", none},
        {stamp + "vll: user.info gateway: up", none},
        {prefix + "gateway: vll vlli", info("gateway", "unit1", "vll vlli")},
        // Limits: 63 characters of a token, 511 of the line.
        {stamp + host63 + " user.info gateway: a", info("gateway", host63, "a")},
        {stamp + host63 + "h user.info gateway: a", info("gateway", host63, "a")},
        {stamp + long_text + " user.info gateway: a", none},
        {stamp + "u user.info" + host63 + host63 + " gateway: a", typed(4)},
        {(prefix + "gateway: " + long_text).substr(0, 511), cut},
        {(prefix + "gateway: " + long_text).substr(0, 512), cut},
        {prefix + "gateway: " + std::string(100000, 'x'), cut},
        {stamp + "u" + std::string(480, ' ') + "user.info gateway: cut", none},
        // The largest record.
        {stamp + "gatekeeper" + host63 + " user.info gatekeeper: " + long_text,
         info("gatekeeper", "gatekeeper" + host63.substr(10),
              (host63.substr(2) + " user.info gatekeeper: " + long_text).substr(0, 511 - 28))},
    };
    for (const auto &[text, expected] : cases) {
        SCOPED_TRACE(text.substr(0, 100));
        put(kCurrent, text + "\n");
        openLog();
        EXPECT_EQ(count(), text.empty() ? 0U : 1U);  // the first byte of a file is never counted
        const std::vector<Record> all = readAll(kForwards);
        ASSERT_EQ(all.size(), expected.number);
        EXPECT_TRUE(all.empty() || bytesOf(all[0]) == bytesOf(expected)) << all[0].message;
        closeLog();
    }
}

TEST_F(EventLogTest, record_times) {
    constexpr FILETIME kAny = 0;
    const struct {
        const char *line;
        time_t now;
        FILETIME time;
    } cases[] = {
        {"Nov 16 16:21:16 unit1", kNow, kNow},
        {"nov  1 00:00:00 unit1", kNow, 1793491200},
        {"Dec 31 23:59:59 unit1", 1767225600, 1767225599},  // read in January 2026
        {"Dec  1 00:00:00 unit1", kNow, 1764547200},        // December 2025, in November 2026
        {"Jan 31 00:00:00 unit1", kNow, 1769817600},
        {"Feb 29 00:00:00 unit1", kNow, 1772323200},  // carried over
        {"Xyz 16 16:21:16 unit1", kNow, kNow},        // no month: the current one
        {"16 Nov 16:21:16 unit1", kNow, 1793406076},  // no month, day and hour: the day before the first
        {"Nov 99999999999 x", kNow, kAny},            // no fault
        {"Nov 16 -1:-1:-1", kNow, kAny},
        {"Nov", kNow, 1793404800},
        {"", kNow, 1793404800},
        {"Nov 16 16:21:16 unit1", -1, -1},
    };
    for (const auto &c : cases) {
        const FakeTime now(c.now);
        const FILETIME time = vlliGetRecordTime(c.line);
        EXPECT_TRUE(c.time == kAny || c.time == time) << c.line << ": " << time;
    }
}

}  // namespace
