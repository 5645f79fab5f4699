// The watchers of serial ports: thread routines.
#pragma once

#include "vwincompat/serial.h"

uint32_t vlliWaitForData(LPVOID overlapped);
uint32_t vlliWaitForModem(LPVOID overlapped);
