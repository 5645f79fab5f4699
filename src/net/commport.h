// Serial ports: what the files of this module share.
//
// A record is set up from its first mask until it is stopped. While its mutex and its watchers can be used, a Watch stands
// for it beside the record, whose layout is fixed.
#pragma once

#include <linux/serial.h>
#include <optional>

#include "base/fork_handlers.h"
#include "vwincompat/serial.h"

extern const ForkHandlers kSerialForkHandlers;

// The events that the modem watcher reports.
constexpr uint32_t kModemEventMask = EV_CTS | EV_DSR | EV_RING | EV_RLSD;

// A driver's counters of modem-line transitions. Those that cannot be read count as unchanged.
using ModemCounters = std::optional<serial_icounter_struct>;

struct Watch {
    Watch *next;
    OverlappedRecord *record;
    int users;  // of the mutex and of this, besides the watchers
    // As they were when the record was armed, or when a change was last reported. Guarded by the record's mutex.
    ModemCounters counters;
};

// Enters a record whose watchers have been started: true, or false with errno.
bool vlliBeginWatch(OverlappedRecord *record);

// Removes a record whose watchers have ended, once nobody uses it any more. Does nothing for one that was not entered.
void vlliEndWatch(const OverlappedRecord *record);

// Keeps a record's mutex and Watch from being destroyed for a scope. Empty for a record that was not entered.
class WatchUse {
  public:
    explicit WatchUse(const OverlappedRecord *record);
    ~WatchUse();
    WatchUse(const WatchUse &) = delete;
    WatchUse &operator=(const WatchUse &) = delete;

    explicit operator bool() const { return watch_ != nullptr; }
    Watch *get() const { return watch_; }

  private:
    Watch *watch_;
};

// Start the watchers of a record: the thread's handle, or 0 with errno.
HANDLE vlliStartDataWatcher(OverlappedRecord *record);
HANDLE vlliStartModemWatcher(OverlappedRecord *record);

ModemCounters vlliReadModemCounters(int port);

// The start routines of the two watchers; the argument is an OverlappedRecord.
uint32_t vlliWaitForData(LPVOID overlapped);
uint32_t vlliWaitForModem(LPVOID overlapped);
