// What a module does around fork(2), so that a child finds its locks free and its data in order.
#pragma once

// The handlers run before the fork, after it in the parent, and after it in the child. Any of them may be null. errno
// is kept around them. They may run before the module was used for the first time.
struct ForkHandlers {
    void (*prepare)();
    void (*parent)();
    void (*child)();
};
