// What fork() does to the shared-memory objects that a process uses.
#pragma once

#include "base/fork_handlers.h"

extern const ForkHandlers kSharedObjectForkHandlers;
