// What the event log does around fork(2): a child finds the lock free and the copies of the files whole.
#pragma once

#include "base/fork_handlers.h"

extern const ForkHandlers kEventLogForkHandlers;
