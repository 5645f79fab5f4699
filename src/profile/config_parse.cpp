#include <fcntl.h>
#include <unistd.h>
#include <cstring>

#include "profile/config.h"

namespace {

// Those that isspace(3) knows in the POSIX locale.
constexpr bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr bool startsComment(char c) {
    return c == ';' || c == '#';
}

constexpr bool isQuote(char c) {
    return c == '"' || c == '\'';
}

constexpr char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
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

// The line without what ends it.
std::string_view textOf(std::string_view line) {
    return cutAt(cutAt(line, '\n'), '\0');
}

void skipBlanks(std::string_view *text) {
    size_t i = 0;
    while (i < text->size() && isBlank((*text)[i])) {
        ++i;
    }
    text->remove_prefix(i);
}

// True when nothing, or a comment, is left.
bool isRest(std::string_view text) {
    skipBlanks(&text);
    return text.empty() || startsComment(text[0]);
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.back())) {
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
        if ((is_key && c == '=') || (isBlank(c) && i + 1 < text->size() && startsComment((*text)[i + 1]))) {
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

bool vlliSameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (lower(a[i]) != lower(b[i])) {
            return false;
        }
    }
    return true;
}

bool vlliParseSection(std::string_view line, std::string_view *name) {
    std::string_view text = line;
    skipBlanks(&text);
    if (text.empty() || text[0] != '[') {
        return false;  // most lines: told before their end is looked for
    }
    text = textOf(line);
    skipBlanks(&text);
    const size_t end = text.find_first_of("];#", 1);
    if (end == std::string_view::npos || text[end] != ']') {
        return false;
    }
    const std::string_view found = text.substr(1, end - 1);
    if (found.empty() || !fits(found) || !isRest(text.substr(end + 1))) {
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
    if (!isRest(text)) {
        return false;
    }
    *entry = found;
    return true;
}

bool vlliIsEntryOf(std::string_view line, std::string_view key) {
    std::string_view text = line;
    skipBlanks(&text);
    const bool quoted = !text.empty() && isQuote(text[0]);
    if (!quoted && !vlliSameName(text.substr(0, key.size()), key)) {
        return false;
    }
    ConfigEntry entry;
    return vlliParseEntry(line, &entry) && vlliSameName(entry.key, key);
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

bool ConfigReader::open(const char *file) {
    own_.reset(::open(file, O_RDONLY | O_CLOEXEC));
    return own_ && attach(own_.get());
}

bool ConfigReader::attach(int fd) {
    fd_ = fd;
    return fill();
}

// Reads on behind what is there: false with errno. At the end of the file nothing is added.
bool ConfigReader::fill() {
    memmove(buffer_, buffer_ + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    const int last_error = errno;
    ssize_t count;
    do {
        count = read(fd_, buffer_ + end_, sizeof buffer_ - end_);
    } while (count == -1 && errno == EINTR);
    if (count == -1) {
        error_ = errno;
        return false;
    }
    errno = last_error;
    at_end_ = count == 0;
    end_ += static_cast<size_t>(count);
    return true;
}

void ConfigReader::take(size_t length) {
    starts_line_ = ended_line_;
    line_ = std::string_view(buffer_ + begin_, length);
    begin_ += length;
    ended_line_ = line_.back() == '\n';
}

bool ConfigReader::next() {
    constexpr size_t kMost = kConfigLineSize - 1;
    for (;;) {
        const size_t there = end_ - begin_;
        const size_t length = there < kMost ? there : kMost;
        const void *newline = memchr(buffer_ + begin_, '\n', length);
        if (newline != nullptr) {
            take(static_cast<size_t>(static_cast<const char *>(newline) - (buffer_ + begin_)) + 1);
            return true;
        }
        if (length == kMost || (at_end_ && length != 0)) {
            take(length);
            return true;
        }
        if (at_end_ || error_ != 0 || !fill()) {
            return false;
        }
    }
}

bool ConfigReader::nextBlock() {
    while (begin_ == end_) {
        if (at_end_ || error_ != 0 || !fill()) {
            return false;
        }
    }
    take(end_ - begin_);
    return true;
}

bool ConfigReader::findSection(const char *section) {
    if (section == nullptr) {
        return true;
    }
    std::string_view name;
    while (next()) {
        if (vlliParseSection(line(), &name) && vlliSameName(name, section)) {
            return true;
        }
    }
    return false;
}

bool ConfigReader::nextEntry(ConfigEntry *entry) {
    std::string_view name;
    while (next()) {
        if (vlliParseSection(line(), &name)) {
            return false;
        }
        if (vlliParseEntry(line(), entry)) {
            return true;
        }
    }
    return false;
}
