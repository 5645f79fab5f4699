#include <cctype>

#include "process/multitasking.h"

namespace {

bool isBlank(char byte) {
    return isspace(static_cast<unsigned char>(byte)) != 0;
}

}  // namespace

size_t vlliCutCommandLine(char *text, char **tokens, size_t room) {
    size_t count = 0;
    bool in_quotes = false;
    for (char *byte = text; *byte != '\0'; ++byte) {
        // What the scan has cut off counts as the end of a token, so the byte before is looked at as it is now.
        const bool first = byte == text;
        const char before = first ? ' ' : byte[-1];
        char *token = nullptr;
        if (in_quotes) {
            if (*byte == '"') {
                in_quotes = false;
                *byte = '\0';
            }
        } else if (*byte == '"') {
            in_quotes = true;
            token = byte + 1;
        } else if (!isBlank(*byte)) {
            token = isBlank(before) || before == '\0' ? byte : nullptr;
        } else if (!first && !isBlank(before)) {
            *byte = '\0';
        }
        if (token != nullptr) {
            if (count == room) {
                return room + 1;
            }
            tokens[count++] = token;
        }
    }
    return count;
}
