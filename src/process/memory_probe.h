// Pointer probes.
#pragma once

#include "base/fork_handlers.h"

extern const ForkHandlers kProbeForkHandlers;
