// The grammar of a line.
#include <gtest/gtest.h>
#include <string>

#include "profile/config.h"
#include "support/rows.h"

namespace {

using std::string;

const string kLongest(1023, 'n');
const string kTooLong(1024, 'n');

// What a line is: "[name]", "key|value", or "" for neither.
string parse(const string &line) {
    std::string_view name = "?";
    ConfigEntry entry{"?", "?"};
    string key(kConfigNameSize, '?');
    string value(kConfigNameSize, '?');
    const bool is_section = vlliParseSection(line, &name);
    const bool is_entry = vlliParseEntry(line, &entry);
    // The forms with buffers agree. Buffers may be null, and are untouched when the line is something else.
    EXPECT_EQ(vlliGetSectionName(line.c_str(), key.data()), is_section);
    EXPECT_EQ(string(key.c_str()), is_section ? name : string(kConfigNameSize, '?'));
    EXPECT_EQ(vlliGetValue(line.c_str(), key.data(), value.data()), is_entry);
    EXPECT_EQ(string(value.c_str()), is_entry ? entry.value : string(kConfigNameSize, '?'));
    EXPECT_EQ(vlliGetSectionName(line.c_str(), nullptr), is_section);
    EXPECT_EQ(vlliGetValue(line.c_str(), nullptr, nullptr), is_entry);
    if (is_entry) {
        EXPECT_EQ(key.c_str(), entry.key);
        EXPECT_EQ(name, "?");
        return string(entry.key) + "|" + string(entry.value);
    }
    EXPECT_EQ(string(entry.key) + string(entry.value), "??");
    return is_section ? "[" + string(name) + "]" : "";
}

TEST(ConfigParse, entries) {
    for (const char *row : {"Name=Value\n -> Name|Value",
                            "  Name = Value  # note\n -> Name|Value",
                            "url=a#b -> url|a#b",
                            "url=a\t;b -> url|a",
                            "url=a  ;b -> url|a",
                            "url=a ; b = c # d -> url|a",
                            "k= ;x -> k|;x",
                            "k=;x ;y -> k|;x",
                            "verbose ; yes = no -> verbose|",
                            "a;b#c=d -> a;b#c|d",
                            "two words = and more \n -> two words|and more",
                            "k=  \t\r\n -> k|",
                            "k==v=w -> k|=v=w",
                            "k = \f\v v \f\v\r\n -> k|v",
                            "k[1]=a[b]c -> k[1]|a[b]c",
                            "]=v -> ]|v",
                            "\xff\xfe=\x80 -> \xff\xfe|\x80",
                            "\"Long Key\" = 'a b'\n -> Long Key|a b",
                            "\" k \" =\" v \" ->  k | v ",
                            "'a=b;c #d'=e -> a=b;c #d|e",
                            "k='a ;b' ;c -> k|a ;b",
                            "k='v';c -> k|v",
                            "'k'#c -> k|",
                            "k='' -> k|",
                            "'it\\'s'='it\\'s' -> it\\'s|it\\'s",
                            "k='a\\\"b' -> k|a\\\"b",
                            "k='a\"b' -> k|a\"b",
                            "k='a\\\\' ' -> k|a\\\\' ",
                            "k=a'b' -> k|a'b'",
                            "k\"x\"=v -> k\"x\"|v"}) {
        EXPECT_EQ(parse(splitRow(row).first), splitRow(row).second);
    }
    EXPECT_EQ(parse(string("k=v\0w\n", 6)), "k|v");
    EXPECT_EQ(parse(kLongest + "=v"), kLongest + "|v");
    EXPECT_EQ(parse("'" + kLongest + "'=" + kLongest + "   ;"), kLongest + "|" + kLongest);
    EXPECT_EQ(parse("k=" + kLongest + string(2000, ' ')), "k|" + kLongest);
}

TEST(ConfigParse, section_headers) {
    for (const char *row : {"[Net]\n -> [Net]", "[Net]  ; network -> [Net]", " \t[Net]#\r\n -> [Net]",
                            "[ Net ] -> [ Net ]", "[[Net] -> [[Net]", "[a=b 'c\"] -> [a=b 'c\"]"}) {
        EXPECT_EQ(parse(splitRow(row).first), splitRow(row).second);
    }
    EXPECT_EQ(parse(string("[Net]\0x\n", 8)), "[Net]");
    EXPECT_EQ(parse("[" + kLongest + "]"), "[" + kLongest + "]");
}

TEST(ConfigParse, neither) {
    for (const char *line :
         {"",      "\n",        " \t\v\f\r\n", "=v",     "  = v",   "; k=v",  "  # k=v", "[k=v",
          "\nk=v", "k='a\\\\'", "k='v' x",     "k='v'x", "'k'x=v",  "'k' x",  "k='v",    "k='v\"",
          "'k=v",  "'k\\'=v",   "''=v",        "\"\"",   "[Net] x", "[Net]x", "[Net]]",  "[]",
          "[",     "[Net",      "[Ne;t]",      "[Ne#t]", "[Net\n]", ";[Net]", "\n[Net]"}) {
        EXPECT_EQ(parse(line), "") << line;
    }
    const string nul(1, '\0');
    for (const string &line :
         {kTooLong + "=v", "'" + kTooLong + "'=v", "k=" + kTooLong, "k='" + kTooLong + "'",
          "[" + kTooLong + "]", nul + "k=v", "'k" + nul + "'=v", "[N" + nul + "et]"}) {
        EXPECT_EQ(parse(line), "") << line.size();
    }
}

}  // namespace
