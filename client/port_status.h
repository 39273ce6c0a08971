// One look at a port: everything but the values, each file read under its own lock, one after another. What belongs
// together is therefore a little apart in time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/database.h"
#include "client/port_dir.h"
#include "client/stats.h"

namespace voq
{

enum class FifoState : std::uint8_t { Missing, NoReader, Read };

// How often a living service advances its counter, with a margin.
inline constexpr unsigned WatchdogSeconds = 11;

struct PortStatus {
    bool directory = false;                            // false: there is nothing else to see
    bool timeout = false, comerror = false;            // the markers of a failing link
    std::int64_t timeoutSince = 0, comerrorSince = 0;  // microseconds since 1970, of a marker that is there
    FifoState gui = FifoState::Missing, mek = FifoState::Missing;
    // One-shot writes and changes that wait; waiting reads leave no file.
    unsigned waiting = 0;
    std::int64_t oldestWaiting = 0;                        // microseconds
    std::optional<std::vector<std::uint8_t>> stationsOff;  // none when the retained settings cannot be read
    std::optional<Chain> org;                              // nothing when there is no org file
    std::map<std::uint8_t, unsigned> states;               // records on the chain by state
};

// Throws Error when a file cannot be read.
PortStatus ReadPortStatus(const PortDir& port);

// The same without the org file: waits for no lock of the database, and does not throw for one that is kept.
PortStatus ReadPortMarkers(const PortDir& port);

// The service's counter, that of the port at `index` of the project.
std::optional<std::uint32_t> ReadWatchdog(const PortDir& port, std::uint16_t index);

// "ok 12, never read 2", in ascending order of the states.
std::string StatesText(const std::map<std::uint8_t, unsigned>& states);

// The records on the chain by state, apart: those of subscribed ranges, which the service reads over and over, and
// those of all others, which it has read once.
struct SplitStates {
    std::map<std::uint8_t, unsigned> subscribed, others;
};
// Nothing when there is no org file.
std::optional<SplitStates> SplitBySubscription(const PortStatus& status, const Statistics& statistics);

// How many there are in all states.
unsigned CountOf(const std::map<std::uint8_t, unsigned>& states);

}  // namespace voq
