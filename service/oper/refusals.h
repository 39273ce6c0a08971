// What polling has learnt from a device that refuses: which subscribed ranges it does not answer even alone, and into
// which ones no read may pass from the one before, since both are answered and refused together. Main thread; no locks,
// no clock of its own. Nothing is kept beyond the process; what belongs to a subscription ends with it.
#pragma once

#include <cstdint>

#include "list/fast_list.h"

// One entry of the fast list; another log-on in the same slot has another serial number, and none has 0.
struct Subscription {
    std::uint16_t slot = 0;
    std::uint32_t serial = 0;
};

inline constexpr std::uint32_t FirstRetryMs = 60 * 1000;  // twice as long after each retry that was refused
inline constexpr std::uint32_t LongestRetryMs = 60 * 60 * 1000;

// One fact for each subscription, so that there is always room. Times: SteadyMs.
class LearntTable
{
public:
    // Refused now, for the first time or once more.
    void Note(Subscription of, std::uint64_t now);
    void Drop(Subscription of);

    [[nodiscard]] bool Known(Subscription of) const { return of.serial != 0 && facts_[of.slot].serial == of.serial; }
    // When it is tried again, and when it was refused first; 0 when it is not known.
    [[nodiscard]] std::uint64_t RetryAt(Subscription of) const { return Known(of) ? facts_[of.slot].retryAt : 0; }
    [[nodiscard]] std::uint64_t Since(Subscription of) const { return Known(of) ? facts_[of.slot].since : 0; }
    [[nodiscard]] bool Waits(Subscription of, std::uint64_t now) const { return RetryAt(of) > now; }

    // How many of the subscriptions it holds for.
    [[nodiscard]] std::uint16_t Count() const VOQ_EXCLUDES(fast_rwlock);

private:
    struct Fact {
        std::uint64_t since;
        std::uint64_t retryAt;
        std::uint32_t serial;
        std::uint32_t interval;
    };
    Fact facts_[FastSlots];
};

extern LearntTable RefusedAlone;  // the range is not polled until its retry, and a retry is a read of its own
extern LearntTable Barriers;      // no read passes into the range from one before it, but for a retry
