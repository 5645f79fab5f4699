// The grammar of a line.
#include <gtest/gtest.h>
#include <string>

#include "profile/config.h"

namespace {

using std::string;

struct EntryCase {
    int source_line;
    string line;
    const char *key;  // null: no entry
    const char *value;
};

const string kLongest(1023, 'n');
const string kTooLong(1024, 'n');

const EntryCase kEntries[] = {
    {__LINE__, "Name=Value\n", "Name", "Value"},
    {__LINE__, "  Name = Value  # note\n", "Name", "Value"},
    {__LINE__, "Name=Value#note\n", "Name", "Value#note"},
    {__LINE__, "url=a#b", "url", "a#b"},
    {__LINE__, "url=a #b", "url", "a"},
    {__LINE__, "url=a\t;b", "url", "a"},
    {__LINE__, "url=a  ;b", "url", "a"},
    {__LINE__, "url=a ; b = c # d", "url", "a"},
    {__LINE__, "k= ;x", "k", ";x"},
    {__LINE__, "k=;x ;y", "k", ";x"},
    {__LINE__, "k=#", "k", "#"},
    {__LINE__, "verbose\n", "verbose", ""},
    {__LINE__, "verbose ; yes = no", "verbose", ""},
    {__LINE__, "verbose;yes", "verbose;yes", ""},
    {__LINE__, "a;b#c=d", "a;b#c", "d"},
    {__LINE__, "two words = three more words \n", "two words", "three more words"},
    {__LINE__, "k=", "k", ""},
    {__LINE__, "k=  \t\r\n", "k", ""},
    {__LINE__, "k==v=w", "k", "=v=w"},
    {__LINE__, "k=v\r\n", "k", "v"},
    {__LINE__, "k = \f\v v \f\v\r\n", "k", "v"},
    {__LINE__, "k=a[b]c", "k", "a[b]c"},
    {__LINE__, "k[1]=v", "k[1]", "v"},
    {__LINE__, "]=v", "]", "v"},
    {__LINE__, "\"Long Key\" = 'a b'\n", "Long Key", "a b"},
    {__LINE__, "'k'=\"v\"", "k", "v"},
    {__LINE__, "\" k \" =\" v \"", " k ", " v "},
    {__LINE__, "'a=b;c #d'=e", "a=b;c #d", "e"},
    {__LINE__, "k='a ;b' ;c", "k", "a ;b"},
    {__LINE__, "k='v';c", "k", "v"},
    {__LINE__, "'k'#c", "k", ""},
    {__LINE__, "'k'", "k", ""},
    {__LINE__, "k=''", "k", ""},
    {__LINE__, "k='it\\'s'", "k", "it\\'s"},
    {__LINE__, "'it\\'s'=1", "it\\'s", "1"},
    {__LINE__, "k='a\\\"b'", "k", "a\\\"b"},
    {__LINE__, "k='a\"b'", "k", "a\"b"},
    {__LINE__, "k='a\\\\'", nullptr, nullptr},  // the second backslash shields the quote
    {__LINE__, "k='a\\\\' '", "k", "a\\\\' "},
    {__LINE__, "k=a'b'", "k", "a'b'"},
    {__LINE__, "k\"x\"=v", "k\"x\"", "v"},
    {__LINE__, "k='v' x", nullptr, nullptr},
    {__LINE__, "k='v'x", nullptr, nullptr},
    {__LINE__, "'k'x=v", nullptr, nullptr},
    {__LINE__, "'k' x", nullptr, nullptr},
    {__LINE__, "k='v", nullptr, nullptr},
    {__LINE__, "k='v\"", nullptr, nullptr},
    {__LINE__, "'k=v", nullptr, nullptr},
    {__LINE__, "'k\\'=v", nullptr, nullptr},
    {__LINE__, "''=v", nullptr, nullptr},
    {__LINE__, "\"\"", nullptr, nullptr},
    {__LINE__, "=v", nullptr, nullptr},
    {__LINE__, "  = v", nullptr, nullptr},
    {__LINE__, "; k=v", nullptr, nullptr},
    {__LINE__, "  # k=v", nullptr, nullptr},
    {__LINE__, "[k=v", nullptr, nullptr},
    {__LINE__, "", nullptr, nullptr},
    {__LINE__, "\n", nullptr, nullptr},
    {__LINE__, " \t\v\f\r\n", nullptr, nullptr},
    {__LINE__, "\nk=v", nullptr, nullptr},
    {__LINE__, "\xff\xfe=\x80", "\xff\xfe", "\x80"},
    {__LINE__, kLongest + "=v", kLongest.c_str(), "v"},
    {__LINE__, "'" + kLongest + "'=" + kLongest + "   ;", kLongest.c_str(), kLongest.c_str()},
    {__LINE__, kTooLong + "=v", nullptr, nullptr},
    {__LINE__, "'" + kTooLong + "'=v", nullptr, nullptr},
    {__LINE__, "k=" + kTooLong, nullptr, nullptr},
    {__LINE__, "k='" + kTooLong + "'", nullptr, nullptr},
    {__LINE__, "k=" + string(1023, 'v') + string(2000, ' '), "k", nullptr},
};

struct SectionCase {
    int source_line;
    string line;
    const char *name;  // null: no header
};

const SectionCase kSections[] = {
    {__LINE__, "[Net]\n", "Net"},
    {__LINE__, "[Net]  ; network", "Net"},
    {__LINE__, "[Net];network", "Net"},
    {__LINE__, "[Net]#network", "Net"},
    {__LINE__, " \t[Net]\r\n", "Net"},
    {__LINE__, "[ Net ]", " Net "},
    {__LINE__, "[[Net]", "[Net"},
    {__LINE__, "[a=b 'c\"]", "a=b 'c\""},
    {__LINE__, "[ ]", " "},
    {__LINE__, "[" + kLongest + "]", kLongest.c_str()},
    {__LINE__, "[" + kTooLong + "]", nullptr},
    {__LINE__, "[Net] x", nullptr},
    {__LINE__, "[Net]x", nullptr},
    {__LINE__, "[Net]]", nullptr},
    {__LINE__, "[]", nullptr},
    {__LINE__, "[", nullptr},
    {__LINE__, "[Net", nullptr},
    {__LINE__, "[Ne;t]", nullptr},
    {__LINE__, "[Ne#t]", nullptr},
    {__LINE__, "[Net\n]", nullptr},
    {__LINE__, "x[Net]", nullptr},
    {__LINE__, ";[Net]", nullptr},
    {__LINE__, "\n[Net]", nullptr},
    {__LINE__, "", nullptr},
};

TEST(ConfigParse, entries) {
    for (const EntryCase &row : kEntries) {
        SCOPED_TRACE(row.source_line);
        string key(kConfigNameSize, '?');
        string value(kConfigNameSize, '?');
        const string untouched = key;
        if (row.key == nullptr) {
            EXPECT_EQ(vlliGetValue(row.line.c_str(), key.data(), value.data()), 0);
            EXPECT_EQ(key + value, untouched + untouched);
            continue;
        }
        EXPECT_EQ(vlliGetValue(row.line.c_str(), key.data(), value.data()), 1);
        EXPECT_STREQ(key.c_str(), row.key);
        if (row.value != nullptr) {
            EXPECT_STREQ(value.c_str(), row.value);
        }
        EXPECT_EQ(vlliGetValue(row.line.c_str(), nullptr, nullptr), 1);
        EXPECT_EQ(vlliGetSectionName(row.line.c_str(), nullptr), 0);
    }
}

TEST(ConfigParse, section_headers) {
    for (const SectionCase &row : kSections) {
        SCOPED_TRACE(row.source_line);
        string name(kConfigNameSize, '?');
        const string untouched = name;
        EXPECT_EQ(vlliGetSectionName(row.line.c_str(), name.data()), row.name != nullptr);
        if (row.name != nullptr) {
            EXPECT_STREQ(name.c_str(), row.name);
            EXPECT_EQ(vlliGetValue(row.line.c_str(), nullptr, nullptr), 0);
        } else {
            EXPECT_EQ(name, untouched);
        }
    }
}

TEST(ConfigParse, nul_ends_a_line) {
    ConfigEntry entry;
    ASSERT_TRUE(vlliParseEntry(std::string_view("k=v\0w\n", 6), &entry));
    EXPECT_EQ(entry.value, "v");
    EXPECT_FALSE(vlliParseEntry(std::string_view("\0k=v\n", 5), &entry));
    EXPECT_FALSE(vlliParseEntry(std::string_view("'k\0'=v\n", 7), &entry));
    std::string_view name;
    EXPECT_FALSE(vlliParseSection(std::string_view("[N\0et]\n", 7), &name));
    ASSERT_TRUE(vlliParseSection(std::string_view("[Net]\0x\n", 8), &name));
    EXPECT_EQ(name, "Net");
}

TEST(ConfigParse, names_differ_in_more_than_ascii_case) {
    EXPECT_TRUE(vlliSameName("Net[Z]", "nET[z]"));
    EXPECT_FALSE(vlliSameName("Net", "Ne"));
    EXPECT_FALSE(vlliSameName("@", "`"));
    EXPECT_FALSE(vlliSameName("\xc4", "\xe4"));
}

}  // namespace
