// The fast list, on the service threads (log-on, log-off) and the main thread (lookups), under fast_rwlock.
// Never allocates; only AddFastIndex touches files, and only for a log-on without org offset.
#include "list/fast_list.h"

#include <cstdio>

#include "database/index.h"
#include "stats/range_stats.h"
#include "voq/stats.h"

static_assert(StatsRanges == FastSlots);

RwLock fast_rwlock;
FastItem OrgFastList[FastSlots];
SlotListHead OrgFastListHead = EmptySlotList;
std::uint32_t FastListChanges;
std::uint16_t CurrentFastList;

namespace
{
std::uint32_t LastSerial VOQ_GUARDED_BY(fast_rwlock);

// Slot of the first entry, or FastEnd: the head of an empty list is 0, not FastEnd.
std::uint16_t FirstSlot() VOQ_REQUIRES_SHARED(fast_rwlock)
{
    return OrgFastListHead.count == 0 ? FastEnd : OrgFastListHead.head;
}

std::uint16_t FindFileno(std::uint16_t fileno) VOQ_REQUIRES_SHARED(fast_rwlock)
{
    for (std::uint16_t slot = FirstSlot(); slot != FastEnd; slot = OrgFastList[slot].next) {
        if (OrgFastList[slot].fileno == fileno) return slot;
    }
    return FastEnd;
}

// Where a range belongs: the slot that holds it already, or the slot to insert in front of, FastEnd for the end.
struct FastPlace {
    std::uint16_t slot;
    bool same;
};

FastPlace FindFastPlace(const RegKey& key) VOQ_REQUIRES_SHARED(fast_rwlock)
{
    bool groupPassed = false;
    for (std::uint16_t slot = FirstSlot(); slot != FastEnd; slot = OrgFastList[slot].next) {
        const RegKey& range = OrgFastList[slot].key;
        if (!SameGroup(range, key)) {
            if (groupPassed) return {slot, false};
            continue;
        }
        const int order = NodeCompare(key, range);
        if (order == 0) return {slot, true};
        if (order == 1) return {slot, false};
        groupPassed = true;
    }
    return {FastEnd, false};
}

SlotList<FastItem, FastSlots> Entries() VOQ_REQUIRES(fast_rwlock)
{
    return {OrgFastList, OrgFastListHead};
}

// The pass goes on at the entry behind a removed one, at the head behind the last.
void RemoveEntry(std::uint16_t slot) VOQ_REQUIRES(fast_rwlock)
{
    const std::uint16_t next = OrgFastList[slot].next;
    Entries().Unlink(slot);
    ++FastListChanges;
    if (OrgFastListHead.count == 0) {
        CurrentFastList = 0;
    } else if (CurrentFastList == slot) {
        CurrentFastList = next == FastEnd ? OrgFastListHead.head : next;
    }
}
}  // namespace

void ResetFastList()
{
    const WriteLock lock(fast_rwlock);
    Entries().Reset();
    ++FastListChanges;
    CurrentFastList = 0;
}

std::uint16_t FindValidFastIndex()
{
    return Entries().FindFree();
}

std::uint16_t AddFastIndex(RegKey key, std::uint16_t fileno, std::uint32_t orgoffset)
{
    const WriteLock lock(fast_rwlock);
    const FastPlace place = FindFastPlace(key);
    if (place.same) {
        const std::uint16_t times = ++OrgFastList[place.slot].logtimes;
        ShowSubscribers(place.slot, times);
        std::printf("*VOQ*Same req, LOGTIMES++ =%d\r\n", times);
        return place.slot;
    }
    const std::uint16_t slot = FindValidFastIndex();
    if (slot == FastEnd) {
        std::printf("*VOQ*fast list full, log-on refused,FILENO=%d\r\n", fileno);
        return FastEnd;
    }
    if (OrgFastListHead.count == 0) CurrentFastList = slot;
    Entries().LinkBefore(slot, place.slot);
    ++FastListChanges;
    FastItem& item = OrgFastList[slot];
    item.logtimes = 1;
    item.key = key;
    item.inuse = 1;
    item.fileno = fileno;
    if (++LastSerial == 0) ++LastSerial;
    item.serial = LastSerial;
    item.orgoffset = orgoffset != 0 ? orgoffset : GetOrgOffset(key);
    ShowLogOn(slot, key, item.orgoffset, fileno);
    return slot;
}

std::uint16_t DelFastIndex(std::uint16_t fileno)
{
    const WriteLock lock(fast_rwlock);
    const std::uint16_t slot = FindHandleItemIndex(fileno);
    if (slot == FastEnd) {
        std::printf("*VOQ*del fast fileno=%d error!!!\r\n", fileno);
        return FastEnd;
    }
    const std::uint16_t times = --OrgFastList[slot].logtimes;
    ShowSubscribers(slot, times);
    if (times == 0) RemoveEntry(slot);
    return 0;
}

std::uint16_t FindHandleItemIndex(std::uint16_t fileno)
{
    const std::uint16_t slot = FindFileno(fileno);
    if (slot == FastEnd) std::printf("*VOQ*FILENO not find in list,FILENO=%d\r\n", fileno);
    return slot;
}

std::uint16_t FindFastIndex(RegKey key, std::uint32_t orgoffset)
{
    for (std::uint16_t slot = FirstSlot(); slot != FastEnd; slot = OrgFastList[slot].next) {
        const FastItem& item = OrgFastList[slot];
        if (orgoffset != 0 && item.orgoffset == orgoffset) {
            std::printf("*VOQ*--->Same offset request!!!index=%d\r\n", slot);
            return slot;
        }
        if (orgoffset == 0 && SameRangeAndSubaddr(item.key, key)) {
            std::printf("*VOQ*--->Same reg request!!!index=%d\r\n", slot);
            return slot;
        }
    }
    return FastEnd;
}

std::uint16_t FindFastIndexUseStrart(RegKey key)
{
    for (std::uint16_t slot = FirstSlot(); slot != FastEnd; slot = OrgFastList[slot].next) {
        const RegKey& range = OrgFastList[slot].key;
        if (SameGroupAndSubaddr(range, key) && range.addr == key.addr) return slot;
    }
    return FastEnd;
}
