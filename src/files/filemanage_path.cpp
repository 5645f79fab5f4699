// Windows paths, turned into Linux paths of the fixed directory tree. A path that is right as spelled costs one stat(2)
// per component; directories are read only to repair the case of letters.

#include <dirent.h>
#include <sys/stat.h>
#include <array>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/guards.h"
#include "base/text.h"
#include "files/filemanage.h"

namespace {

struct Prefix {
    std::string_view windows;
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

// True when text begins with the prefix, in any case. Text is not read beyond its end.
bool hasPrefix(const char *text, std::string_view prefix) {
    const size_t length = strnlen(text, prefix.size());
    return vlliEqualsIgnoringCase({text, length}, prefix);
}

using Directory = std::unique_ptr<DIR, int (*)(DIR *)>;

// Replaces name by the directory's first entry that differs from it in case alone: 1; 0 when there is none; -1 when the
// directory cannot be opened.
int takeSpellingFrom(const char *directory_path, char *name) {
    const NoCancel no_cancel;
    const std::string_view wanted = name;
    const Directory directory(opendir(directory_path), closedir);
    if (directory == nullptr) {
        return -1;
    }
    while (const dirent *entry = readdir(directory.get())) {
        if (vlliEqualsIgnoringCase(entry->d_name, wanted)) {
            memcpy(name, entry->d_name, wanted.size());
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
        if (hasPrefix(in, prefix.windows)) {
            end = stpcpy(out, prefix.linux_path);
            in += prefix.windows.size();
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
