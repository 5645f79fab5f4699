// Beeps and numbers as text.
#pragma once

#include "vwincompat/system.h"

// What the console's tone request takes: the duration in ms above the period in timer ticks. The frequency is
// not 0.
uint32_t vlliToneArgument(int16_t frequency, int16_t duration);
