// The fast list: the ranges that clients are subscribed to now, in memory, each group together and sorted.
// Written by the service threads (log-on, log-off), read by the main thread; fast_rwlock guards all of it.
// Never allocates; a log-on without org offset reads the index and org files while it holds the lock.
#pragma once

#include <cstdint>

#include "arch/lock.h"
#include "list/slot_list.h"
#include "voq/reg_key.h"
#include "voq/reg_range.h"

inline constexpr std::uint16_t FastSlots = 2048;
inline constexpr std::uint16_t FastEnd = SlotEnd;

struct FastItem {
    RegKey key;
    std::uint32_t orgoffset;  // the range's record in the org file; 0 or OrgNone when there is none
    std::uint16_t prev;       // 0 for the first entry
    std::uint16_t next;       // FastEnd for the last entry
    std::uint16_t fileno;     // of the log-on that made the entry
    std::uint16_t inuse;
    std::uint16_t logtimes;  // log-ons not yet matched by a log-off
    std::uint32_t serial;    // tells the entry from an earlier one in its slot; never 0
};

extern RwLock fast_rwlock;
extern FastItem OrgFastList[FastSlots] VOQ_GUARDED_BY(fast_rwlock);
extern SlotListHead OrgFastListHead VOQ_GUARDED_BY(fast_rwlock);

extern std::uint32_t FastListChanges VOQ_GUARDED_BY(fast_rwlock);  // entries added and removed so far; wraps

// Entry at which the next fast-list pass starts. The service threads touch it under the write lock; the main thread
// moves it under the read lock, which keeps them out.
extern std::uint16_t CurrentFastList;

// Empties the list; start-up.
void ResetFastList() VOQ_EXCLUDES(fast_rwlock);

// A free slot, also stored as the hint; FastEnd when all 2047 are taken.
std::uint16_t FindValidFastIndex() VOQ_REQUIRES(fast_rwlock);

// Subscribes a range. `orgoffset` 0: it is looked up. Returns the slot of the new or existing entry, FastEnd when the
// list is full.
std::uint16_t AddFastIndex(RegKey key, std::uint16_t fileno, std::uint32_t orgoffset) VOQ_EXCLUDES(fast_rwlock);

// Takes one subscription off the entry with this fileno. 0, or FastEnd when there is none.
std::uint16_t DelFastIndex(std::uint16_t fileno) VOQ_EXCLUDES(fast_rwlock);

// Slot of the first entry with this fileno, or FastEnd after a message.
std::uint16_t FindHandleItemIndex(std::uint16_t fileno) VOQ_REQUIRES_SHARED(fast_rwlock);

// Slot of the entry with this org offset when it is not 0, else of the entry equal to the key; FastEnd when none.
std::uint16_t FindFastIndex(RegKey key, std::uint32_t orgoffset) VOQ_REQUIRES_SHARED(fast_rwlock);

// Slot of the first entry that starts at the key's range, whatever its width; FastEnd when none.
std::uint16_t FindFastIndexUseStrart(RegKey key) VOQ_REQUIRES_SHARED(fast_rwlock);
