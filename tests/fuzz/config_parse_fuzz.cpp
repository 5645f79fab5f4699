// Any bytes as a line of a profile file: what the parser finds lies in the line, keeps to the limits, and is found
// again when it is written in other ways.
#include <cctype>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "check.h"
#include "profile/config.h"

namespace {

bool isInside(std::string_view part, std::string_view whole) {
    return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

bool hasBlankEnd(std::string_view text) {
    return !text.empty() && (isspace(static_cast<unsigned char>(text.front())) != 0 ||
                             isspace(static_cast<unsigned char>(text.back())) != 0);
}

// The parsers of NUL-terminated lines, which copy into buffers, find the same.
void checkBuffers(std::string_view line, bool is_section, std::string_view name, bool is_entry,
                  const ConfigEntry &entry) {
    const std::string text(line);  // cut at the first NUL, as the parser does
    char first[kConfigNameSize];
    char second[kConfigNameSize];
    VLL_CHECK(vlliGetSectionName(text.c_str(), first) == is_section);
    VLL_CHECK(!is_section || name == first);
    VLL_CHECK(vlliGetValue(text.c_str(), first, second) == is_entry);
    VLL_CHECK(!is_entry || (entry.key == first && entry.value == second));
}

// An entry that is written between quotes is read back as it was.
void checkAgain(const ConfigEntry &entry) {
    for (const char quote : {'"', '\''}) {
        if (entry.key.find(quote) == std::string_view::npos && entry.key.back() != '\\' &&
            entry.value.find(quote) == std::string_view::npos &&
            (entry.value.empty() || entry.value.back() != '\\')) {
            const std::string key(entry.key);
            const std::string value(entry.value);
            const std::string line = quote + key + quote + " = " + quote + value + quote + " ; comment\r\n";
            ConfigEntry again;
            VLL_CHECK(vlliParseEntry(line, &again) && again.key == key && again.value == value);
        }
    }
}

// The bytes that end a line do not change what it is.
void checkEnds(std::string_view line, bool is_section, std::string_view name, bool is_entry,
               const ConfigEntry &entry) {
    const size_t end = std::min(line.find('\n'), line.find('\0'));
    const std::string cut(line.substr(0, end));
    for (const char *ending : {"", "\n", "\r\n", " \t\n", "\nk=v", "\n[s]"}) {
        const std::string ended = cut + ending;
        std::string_view again_name;
        ConfigEntry again;
        VLL_CHECK(vlliParseSection(ended, &again_name) == is_section);
        VLL_CHECK(!is_section || again_name == name);
        VLL_CHECK(vlliParseEntry(ended, &again) == is_entry);
        VLL_CHECK(!is_entry || (again.key == entry.key && again.value == entry.value));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::unique_ptr<char[]> block(new char[size + (size == 0)]);
    if (size != 0) {
        memcpy(block.get(), data, size);
    }
    const std::string_view line(block.get(), size);
    std::string_view name;
    ConfigEntry entry;
    const bool is_section = vlliParseSection(line, &name);
    const bool is_entry = vlliParseEntry(line, &entry);
    VLL_CHECK(!is_section || !is_entry);
    if (is_section) {
        VLL_CHECK(isInside(name, line) && !name.empty() && name.size() < kConfigNameSize);
        VLL_CHECK(name.find_first_of("];#\n") == std::string_view::npos);
    }
    if (is_entry) {
        VLL_CHECK(isInside(entry.key, line) && !entry.key.empty() && entry.key.size() < kConfigNameSize);
        VLL_CHECK(entry.value.empty() || isInside(entry.value, line));
        VLL_CHECK(entry.value.size() < kConfigNameSize);
        const char before = entry.key.data() == line.data() ? ' ' : entry.key.data()[-1];
        const bool quoted = before == '"' || before == '\'';
        VLL_CHECK(quoted || !hasBlankEnd(entry.key));
        VLL_CHECK(vlliIsEntryOf(line, entry.key) && !vlliIsEntryOf(line, std::string(entry.key) + 'x'));
        checkAgain(entry);
    }
    checkBuffers(line, is_section, name, is_entry, entry);
    checkEnds(line, is_section, name, is_entry, entry);
    return 0;
}
