// The grammar of a profile's line: section headers and entries. Everything else is a line that readers skip.

#include <cstring>

#include "base/text.h"
#include "profile/config.h"

namespace {

constexpr bool startsComment(char c) {
    return c == ';' || c == '#';
}

constexpr bool isQuote(char c) {
    return c == '"' || c == '\'';
}

constexpr bool fits(std::string_view name) {
    return name.size() < kConfigNameSize;
}

std::string_view cutAt(std::string_view text, char end) {
    const void *found = text.empty() ? nullptr : memchr(text.data(), end, text.size());
    if (found == nullptr) {
        return text;
    }
    return text.substr(0, static_cast<size_t>(static_cast<const char *>(found) - text.data()));
}

// The line up to its newline or NUL.
std::string_view textOf(std::string_view line) {
    return cutAt(cutAt(line, '\n'), '\0');
}

void skipBlanks(std::string_view *text) {
    size_t i = 0;
    while (i < text->size() && vlliIsBlank((*text)[i])) {
        ++i;
    }
    text->remove_prefix(i);
}

// True when nothing but blanks and a comment is left.
bool isEndOfLine(std::string_view text) {
    skipBlanks(&text);
    return text.empty() || startsComment(text[0]);
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && vlliIsBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

// Takes a key or value that begins with a quote.
bool takeQuoted(std::string_view *text, std::string_view *taken) {
    const char quote = (*text)[0];
    for (size_t i = 1; i < text->size(); ++i) {
        if ((*text)[i] == quote) {
            *taken = text->substr(1, i - 1);
            text->remove_prefix(i + 1);
            return true;
        }
        if ((*text)[i] == '\\' && i + 1 < text->size() && (*text)[i + 1] == quote) {
            ++i;
        }
    }
    return false;
}

// Takes an unquoted key (up to '=') or value.
void takePlain(std::string_view *text, bool is_key, std::string_view *taken) {
    size_t i = 0;
    for (; i < text->size(); ++i) {
        const char c = (*text)[i];
        if ((is_key && c == '=') ||
            (vlliIsBlank(c) && i + 1 < text->size() && startsComment((*text)[i + 1]))) {
            break;
        }
    }
    *taken = trimmed(text->substr(0, i));
    text->remove_prefix(i);
}

bool take(std::string_view *text, bool is_key, std::string_view *taken) {
    if (!text->empty() && isQuote((*text)[0])) {
        return takeQuoted(text, taken);
    }
    takePlain(text, is_key, taken);
    return true;
}

void copyName(std::string_view name, char *buffer) {
    if (buffer != nullptr) {
        memcpy(buffer, name.data(), name.size());
        buffer[name.size()] = '\0';
    }
}

}  // namespace

bool vlliParseSection(std::string_view line, std::string_view *name) {
    std::string_view text = line;
    skipBlanks(&text);
    if (text.empty() || text[0] != '[') {
        return false;  // most lines are refused here, before their end is looked for
    }
    text = textOf(line);
    skipBlanks(&text);
    const size_t end = text.find_first_of("];#", 1);
    if (end == std::string_view::npos || text[end] != ']') {
        return false;
    }
    const std::string_view found = text.substr(1, end - 1);
    if (found.empty() || !fits(found) || !isEndOfLine(text.substr(end + 1))) {
        return false;
    }
    *name = found;
    return true;
}

bool vlliParseEntry(std::string_view line, ConfigEntry *entry) {
    std::string_view text = textOf(line);
    skipBlanks(&text);
    if (text.empty() || text[0] == '[' || text[0] == '=' || startsComment(text[0])) {
        return false;
    }
    ConfigEntry found;
    if (!take(&text, true, &found.key) || found.key.empty() || !fits(found.key)) {
        return false;
    }
    skipBlanks(&text);
    if (!text.empty() && text[0] == '=') {
        text.remove_prefix(1);
        skipBlanks(&text);
        if (!take(&text, false, &found.value) || !fits(found.value)) {
            return false;
        }
    }
    if (!isEndOfLine(text)) {
        return false;
    }
    *entry = found;
    return true;
}

bool vlliIsEntryOf(std::string_view line, std::string_view key) {
    std::string_view text = line;
    skipBlanks(&text);
    const bool quoted = !text.empty() && isQuote(text[0]);
    if (!quoted && !vlliEqualsIgnoringCase(text.substr(0, key.size()), key)) {
        return false;
    }
    ConfigEntry entry;
    return vlliParseEntry(line, &entry) && vlliEqualsIgnoringCase(entry.key, key);
}

int vlliGetSectionName(const char *line, char *name) {
    std::string_view found;
    if (!vlliParseSection(line, &found)) {
        return 0;
    }
    copyName(found, name);
    return 1;
}

int vlliGetValue(const char *line, char *key, char *value) {
    ConfigEntry entry;
    if (!vlliParseEntry(line, &entry)) {
        return 0;
    }
    copyName(entry.key, key);
    copyName(entry.value, value);
    return 1;
}
