// What the pointer probes do around fork(2).
#pragma once

#include "base/fork_handlers.h"

extern const ForkHandlers kProbeForkHandlers;
