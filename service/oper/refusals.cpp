// What polling has learnt from refusals, on the main thread.
#include "oper/refusals.h"

#include <algorithm>

LearntTable RefusedAlone;
LearntTable Barriers;

void LearntTable::Note(Subscription of, std::uint64_t now)
{
    Fact& fact = facts_[of.slot];
    if (Known(of)) {
        fact.interval = std::min(2 * fact.interval, LongestRetryMs);
    } else {
        fact = {now, 0, of.serial, FirstRetryMs};
    }
    fact.retryAt = now + fact.interval;
}

void LearntTable::Drop(Subscription of)
{
    if (Known(of)) facts_[of.slot] = {};
}

std::uint16_t LearntTable::Count() const
{
    const ReadLock lock(fast_rwlock);
    std::uint16_t count = 0;
    for (std::uint16_t slot = 1; slot < FastSlots; ++slot) {
        const FastItem& item = OrgFastList[slot];
        if (item.inuse != 0 && Known({slot, item.serial})) ++count;
    }
    return count;
}
