// Blanks and letter case in the POSIX locale. The functions of the C library depend on the program's locale, which
// must not change how a file is read.
#pragma once

#include <string_view>

// The characters for which isspace(3) is true in the POSIX locale.
constexpr bool vlliIsBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

constexpr char vlliToLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Compares without regard to the case of ASCII letters.
constexpr bool vlliEqualsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (vlliToLower(a[i]) != vlliToLower(b[i])) {
            return false;
        }
    }
    return true;
}
