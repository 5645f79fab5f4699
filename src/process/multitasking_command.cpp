// The tokens of a command line. Quotes are not parsed as a shell parses them: a quote opens a token wherever it stands,
// and does not end the one that it stands in.

#include "base/text.h"
#include "process/multitasking.h"

bool CommandLine::copy(const char *text) {
    text_ = vlliCopyString(text != nullptr ? text : "");
    at_ = text_.get();
    return text_ != nullptr;
}

char *CommandLine::next() {
    for (; *at_ != '\0'; ++at_) {
        // The byte before is read as it is now: a terminator that the scan has written there ends a token too.
        const bool first = at_ == text_.get();
        const char before = first ? ' ' : at_[-1];
        if (in_quotes_) {
            if (*at_ == '"') {
                in_quotes_ = false;
                *at_ = '\0';
            }
        } else if (*at_ == '"') {
            in_quotes_ = true;
            return ++at_;
        } else if (!vlliIsBlank(*at_)) {
            if (vlliIsBlank(before) || before == '\0') {
                return at_++;
            }
        } else if (!first && !vlliIsBlank(before)) {
            *at_ = '\0';
        }
    }
    return nullptr;
}
