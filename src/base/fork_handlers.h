// What a module does around fork(2), so that a child finds its locks free and its state true.
#pragma once

// Before the fork; after it in the parent; after it in the child. Any may be null. They run with the last error kept.
// They may run before the module was used for the first time.
struct ForkHandlers {
    void (*prepare)();
    void (*parent)();
    void (*child)();
};
