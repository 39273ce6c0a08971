// Counters and flags that several modules share. Atomics are relaxed: a stale value only shifts a decision by one turn.
#pragma once

#include <atomic>
#include <cstdint>

#include "voq/retained_file.h"

// Consecutive driver time-outs and communication errors since the last success. Written by the main thread, read by the
// service threads when they admit a request.
inline std::atomic<std::int32_t> GlobeTimeout{0};
inline std::atomic<std::int32_t> GlobeComError{0};

// GUI log-ons minus GUI log-offs. Written by the GUI service thread, read by the main thread.
inline std::atomic<std::int32_t> LogOnAmount{0};

// Records that were added to the org list. Written under the register database lock, read by the main thread.
inline std::atomic<std::uint32_t> RecordsAdded{0};

// How often the stations' switches have changed. Main thread only.
inline std::uint32_t SwitchChanges = 0;

// Disabled PLC stations, one bit each. Main thread only.
inline StationWords StationDisable;

// True when PLC station `plcno` is switched off.
inline bool StationDisabled(std::uint8_t plcno)
{
    return StationIsOff(StationDisable, plcno);
}
