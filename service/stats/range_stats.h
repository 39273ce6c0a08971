// The subscribed ranges, by slot of the fast list, and the rounds of polling. A row is changed under that list's lock:
// by a log-on or log-off, which excludes the main thread, and by the main thread, which excludes those.
#pragma once

#include <cstdint>
#include <span>

#include "stats/driver_stats.h"
#include "voq/reg_key.h"

// A log-on made the entry, or found it; a log-off took one subscription away, the last one with 0 left.
void ShowLogOn(std::uint16_t slot, const RegKey& key, std::uint32_t orgOffset, std::uint16_t fileno);
void ShowSubscribers(std::uint16_t slot, std::uint16_t subscribers);

// A range of a read, as it was when that was planned: the slot may hold another one behind the read.
struct ReadRange {
    std::uint16_t slot;
    std::uint32_t orgOffset;
};

// One read of the fast-list pass, from its plan to its end. Main thread.
class FastRead
{
public:
    FastRead();
    // The list's lock is held. `result`: as stored in the records.
    void Ended(const RegKey& read, std::span<const ReadRange> ranges, std::uint32_t wanted, int result);

private:
    DriverTime before_;
};

// The pass has come to the end of the list. Main thread.
void EndRound();

// What was learnt of a range that the device refuses; the list's lock is held. Refused alone since now, or not any
// more; joined with its neighbour no more, or (0) again.
void ShowRefused(std::uint16_t slot, bool refused);
void ShowApart(std::uint16_t slot, std::uint32_t neighbour);
