// Windows paths, turned into Linux paths of the fixed directory tree.

#include <dirent.h>
#include <array>
#include <cstring>
#include <memory>

#include "base/guards.h"
#include "files/filemanage.h"

namespace {

struct Prefix {
    const char *windows;
    const char *linux_path;
};

constexpr std::array<Prefix, 3> kPrefixes = {{
    {"D:\\Tolvane\\", "/Ulmex"},
    {"E:\\", "/var/ulmex"},
    {"X:\\", "/var/tmp"},
}};

constexpr bool isSeparator(char c) {
    return c == '\\' || c == '/';
}

// ASCII letters only, whatever the locale.
constexpr char foldCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The length of prefix when text begins with it, else 0. Never reads past the text's end.
size_t matchPrefix(const char *text, const char *prefix) {
    size_t length = 0;
    while (prefix[length] != '\0') {
        if (foldCase(text[length]) != foldCase(prefix[length])) {
            return 0;
        }
        ++length;
    }
    return length;
}

bool equalsIgnoringCase(const char *one, const char *other) {
    while (*one != '\0' && foldCase(*one) == foldCase(*other)) {
        ++one;
        ++other;
    }
    return *one == *other;
}

using Directory = std::unique_ptr<DIR, int (*)(DIR *)>;

// Replaces name by the first entry that equals it but for case: 1; 0 without one; -1 when there is no directory.
int takeSpellingFrom(const char *directory_path, char *name) {
    const NoCancel no_cancel;
    const Directory directory(opendir(directory_path), closedir);
    if (directory == nullptr) {
        return -1;
    }
    while (const dirent *entry = readdir(directory.get())) {
        if (equalsIgnoringCase(entry->d_name, name)) {
            memcpy(name, entry->d_name, strlen(name));
            return 1;
        }
    }
    return 0;
}

}  // namespace

int vlliFixPathCase(char *path, char *component, int isLast) {
    struct stat status;
    if (stat(path, &status) == 0) {
        return 0;
    }
    component[-1] = '\0';
    const int found = takeSpellingFrom(path, component);
    component[-1] = '/';
    if (found == 0) {
        return isLast != 0 ? 0 : -1;
    }
    return found > 0 ? 0 : -1;
}

int vlliConvertToLinuxPath(char *out, const char *in) {
    char *end = out;
    for (const Prefix &prefix : kPrefixes) {
        const size_t length = matchPrefix(in, prefix.windows);
        if (length != 0) {
            end = stpcpy(out, prefix.linux_path);
            in += length;
            break;
        }
    }
    for (;;) {
        *end++ = '/';
        while (isSeparator(*in)) {
            ++in;
        }
        char *component = end;
        while (*in != '\0' && !isSeparator(*in)) {
            *end++ = *in++;
        }
        *end = '\0';
        const bool is_last = *in == '\0';
        if (vlliFixPathCase(out, component, is_last) == -1) {
            return -1;
        }
        if (is_last) {
            return 0;
        }
    }
}
