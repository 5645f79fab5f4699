// The last error as callers see it, and messages that contain the system's text for an error.

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/allocate.h"
#include "base/failure.h"
#include "vwincompat/library.h"

namespace {

// The system's text, at most 127 bytes of it.
using ErrorText = std::array<char, 128>;

void fillErrorText(int error, ErrorText *text) {
    // The GNU form of strerror_r() may return a static text instead of filling the buffer.
    const KeepErrno keep_errno;
    const char *system_text = strerror_r(error, text->data(), text->size());
    if (system_text != text->data()) {
        snprintf(text->data(), text->size(), "%s", system_text);
    }
}

}  // namespace

DWORD vllGetLastError() {
    return static_cast<DWORD>(errno);
}

void vllSetLastError(DWORD code) {
    errno = static_cast<int>(code);
}

int32_t vllFormatErrorMessage(char **message, const char *prefix, int32_t error, const char *format, ...) {
    ErrorText text;
    fillErrorText(error, &text);
    const char *lead = prefix != nullptr ? prefix : "";
    const char *colon = *lead != '\0' ? ": " : "";

    va_list arguments;
    va_start(arguments, format);
    const int formatted = format != nullptr ? vsnprintf(nullptr, 0, format, arguments) : 0;
    va_end(arguments);
    if (formatted < 0) {
        return -1;
    }
    const size_t head = strlen(lead) + strlen(colon) + strlen(text.data()) + strlen(" - ");
    const size_t length = head + static_cast<size_t>(formatted);
    if (length > INT32_MAX) {
        return Fail(EOVERFLOW, -1);
    }
    HeapBlock<char> buffer = vlliAllocate<char>(length + 1);
    if (buffer == nullptr) {
        return -1;
    }
    strcpy(stpcpy(stpcpy(stpcpy(buffer.get(), lead), colon), text.data()), " - ");
    if (format != nullptr) {
        va_start(arguments, format);
        vsnprintf(buffer.get() + head, length + 1 - head, format, arguments);
        va_end(arguments);
    }
    if (message != nullptr) {
        *message = buffer.release();
    }
    return static_cast<int32_t>(length);
}
