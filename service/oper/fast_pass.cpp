// The fast-list pass, on the main thread.
#include "oper/fast_pass.h"

#include <algorithm>
#include <cstdio>

#include "arch/clock.h"
#include "comm/plc_oper.h"
#include "list/fast_list.h"
#include "oper/halving.h"
#include "oper/priority.h"
#include "oper/read_plan.h"
#include "oper/refusals.h"
#include "oper/rest.h"
#include "stats/pass_stats.h"
#include "stats/range_stats.h"
#include "voq/reg_range.h"

namespace
{
Halving Halves;
Rest Nothing;  // since a walk over the whole list

// A read to make, the subscription that it begins with, and the barrier that it tries to cross.
struct PlannedRead {
    ReadPlan plan;
    Subscription first;
    Subscription crossed;
};

// The ranges of the read at hand.
class Joined
{
public:
    void Clear()
    {
        amount_ = 0;
        wanted_.Clear();
    }
    void Add(std::uint16_t slot, std::uint32_t orgOffset, const RegKey& key)
    {
        if (amount_ < FastSlots) ranges_[amount_++] = {slot, orgOffset};
        wanted_.Add(key);
    }
    void Ended(FastRead& stats, const RegKey& read, int result) const
    {
        const ReadLock lock(fast_rwlock);
        stats.Ended(read, {ranges_, amount_}, wanted_.Of(read), result);
    }

private:
    ReadRange ranges_[FastSlots];
    std::size_t amount_ = 0;
    WantedElements wanted_;
};

Joined JoinedRanges;
bool RoundEnds;  // the last planning came to the end of the list

// Walks the subscriptions in list order and looks at their org records. An entry whose org offset names no usable
// record is never due and ends nothing; it is reported once. Keeps to what was learnt from refusals.
class FastCursor
{
public:
    // The lock is held for as long as the cursor lives.
    FastCursor(OrgFile& file, std::uint16_t slot) VOQ_REQUIRES_SHARED(fast_rwlock)
        : file_(file),
          items_(OrgFastList),
          head_(OrgFastListHead.head),
          slot_(slot),
          whole_(slot == head_),
          mark_(FastListChanges),
          now_(SteadyMs())
    {
        GetCurrentTime(&wall_);
        SkipUnusable();
    }

    [[nodiscard]] bool Valid() const { return slot_ != FastEnd; }
    [[nodiscard]] const OrgNode& Node() const { return node_; }
    [[nodiscard]] std::uint32_t Offset() const { return items_[slot_].orgoffset; }
    [[nodiscard]] bool Due();

    void Next()
    {
        slot_ = items_[slot_].next;
        SkipUnusable();
    }

    [[nodiscard]] std::uint32_t BeginRead()
    {
        first_ = Entry();
        return RefusedAlone.Known(first_) ? 1 : Halves.Most(node_.key);
    }
    void PassOver();
    [[nodiscard]] bool Barred();

    void SearchEnded()
    {
        CurrentFastList = head_;
        if (whole_) Nothing.Begin(untilDueUs_, mark_);
    }
    void Joins() { JoinedRanges.Add(slot_, items_[slot_].orgoffset, node_.key); }
    void StopHere()
    {
        if (crossed_.slot == slot_) crossed_ = {};
        CurrentFastList = slot_;
    }
    void WalkEnded() { CurrentFastList = head_; }

    [[nodiscard]] Subscription First() const { return first_; }
    [[nodiscard]] Subscription Crossed() const { return crossed_; }

private:
    [[nodiscard]] Subscription Entry() const { return {slot_, items_[slot_].serial}; }
    void SkipUnusable();
    bool Load(const FastItem& item);

    OrgFile& file_;
    const FastItem* items_;
    std::uint16_t head_;
    std::uint16_t slot_;
    OrgNode node_{};
    bool whole_;  // the walk began at the head
    std::uint32_t mark_;
    std::uint32_t untilDueUs_ = LongestRestUs;  // until the first of those seen falls due
    Stamp wall_;                                // the clocks are asked once a walk
    std::uint64_t now_;
    Subscription first_;
    Subscription crossed_;
    bool passedBarrier_ = false;
    std::uint64_t refusedEnd_ = UINT64_MAX;  // a read that reaches it holds a range that is refused alone
};

std::uint32_t ReportedOffset[FastSlots];  // org offset last reported as unusable, by slot

bool FastCursor::Load(const FastItem& item)
{
    if (item.orgoffset == 0 || item.orgoffset == OrgNone) return false;
    if (file_.Holds(item.orgoffset)) {
        return file_.ReadNode(item.orgoffset, node_) && GetRegBuffLen(&node_.key) <= MaxRegionBytes;
    }
    if (ReportedOffset[slot_] != item.orgoffset) {
        std::printf("*VOQ*fast list: no record at org offset %u of fileno %d, not polled\r\n", item.orgoffset,
                    item.fileno);
        ReportedOffset[slot_] = item.orgoffset;
    }
    return false;
}

void FastCursor::SkipUnusable()
{
    for (int steps = 0; steps < FastSlots && slot_ < FastSlots; ++steps) {
        if (Load(items_[slot_])) return;
        slot_ = items_[slot_].next;
    }
    slot_ = FastEnd;
}

bool FastCursor::Due()
{
    const bool due = PackOrNot(node_, wall_) != 0;
    if (due && !RefusedAlone.Waits(Entry(), now_)) return true;
    const std::uint64_t until = due ? 1000 * (RefusedAlone.RetryAt(Entry()) - now_) : UntilDueUs(node_, wall_);
    untilDueUs_ = static_cast<std::uint32_t>(std::min<std::uint64_t>(untilDueUs_, until));
    return false;
}

void FastCursor::PassOver()
{
    if (RefusedAlone.Known(Entry())) refusedEnd_ = std::min(refusedEnd_, PollEnd(node_.key));
    if (Barriers.Known(Entry())) passedBarrier_ = true;
}

// One barrier is tried again at a time, so that what comes of the read is due to it.
bool FastCursor::Barred()
{
    if (RefusedAlone.Known(Entry()) || passedBarrier_ || PollEnd(node_.key) >= refusedEnd_) return true;
    if (!Barriers.Known(Entry())) return false;
    if (crossed_.serial != 0 || Barriers.Waits(Entry(), now_)) return true;
    crossed_ = Entry();
    return false;
}

bool PlanFastRead(bool packed, PlannedRead& read)
{
    RoundEnds = false;
    const ReadLock listLock(fast_rwlock);
    if (Nothing.Holds(FastListChanges)) return false;
    const MutexLock databaseLock(DatabaseLock);
    if (CurrentFastList == 0) CurrentFastList = OrgFastListHead.head;
    OrgFile file;
    if (OrgFastListHead.count == 0 || !file.OpenRO()) return false;
    FastCursor cursor(file, CurrentFastList);
    JoinedRanges.Clear();
    const bool planned = PlanRead(cursor, packed, read.plan);
    RoundEnds = CurrentFastList == OrgFastListHead.head;
    if (!planned) return false;
    read.first = cursor.First();
    read.crossed = cursor.Crossed();
    return true;
}

int MakeRead(const PlannedRead& read)
{
    FastRead stats;
    const int result = PlcOper(read.plan.key, ReadBuffer, PLC_READ_ONCE);
    if (LastRefused && read.plan.ranges > 1) JoinedRanges.Clear();  // no range has had its turn
    JoinedRanges.Ended(stats, read.plan.key, result);
    return result;
}

// Shows what is known of a subscription, unless it is gone by now.
void ShowLearnt(Subscription of)
{
    const ReadLock lock(fast_rwlock);
    const FastItem& item = OrgFastList[of.slot];
    if (item.inuse == 0 || item.serial != of.serial) return;
    ShowRefused(of.slot, RefusedAlone.Known(of));
    ShowApart(of.slot, Barriers.Known(of) ? OrgFastList[item.prev].orgoffset : 0);
}

void Learn(LearntTable& table, Subscription of)
{
    table.Note(of, SteadyMs());
    ShowLearnt(of);
}

void Forget(LearntTable& table, Subscription of)
{
    if (!table.Known(of)) return;
    table.Drop(of);
    ShowLearnt(of);
}

// The next pass starts where this one did, unless that subscription is gone by now.
void StartAgainAt(Subscription first)
{
    RoundEnds = false;
    const ReadLock lock(fast_rwlock);
    const FastItem& item = OrgFastList[first.slot];
    if (item.inuse != 0 && item.serial == first.serial) CurrentFastList = first.slot;
}

void Refused(const PlannedRead& read)
{
    if (read.plan.ranges == 1) {
        Halves.Done(1, false);
        Learn(RefusedAlone, read.first);
        WriteBackRefused(read.plan);
        return;
    }
    if (read.crossed.serial != 0) {
        Learn(Barriers, read.crossed);
    } else {
        Halves.Refused(read.plan.key, read.plan.ranges);
    }
    StartAgainAt(read.first);
}

// What the read teaches, and what of it reaches the register database.
void Finish(const PlannedRead& read, int result)
{
    if (LastRefused) {
        Refused(read);
        return;
    }
    const bool answered = result == PLC_SUCCESS;
    if (answered) {
        Forget(RefusedAlone, read.first);
        Forget(Barriers, read.crossed);
    }
    if (Halves.Done(read.plan.ranges, answered)) Learn(Barriers, read.first);
    WriteBackRead(read.plan, result, StampRule::OneTime);
}

void EndPass()
{
    if (RoundEnds) EndRound();
}
}  // namespace

void OperFastList()
{
    CountPass(Pass::Fast);
    PlannedRead read;
    if (PlanFastRead(true, read)) Finish(read, MakeRead(read));
    EndPass();
}

void OperFastList_NoPack()
{
    CountPass(Pass::Fast);
    PlannedRead read;
    if (PlanFastRead(false, read)) {
        const RegKey& key = read.plan.key;
        const int result = MakeRead(read);
        std::printf("*VOQ*<OperFastList_NoPack>PlcOper ret=%d,addrType=%d flag=%x\r\n", result,
                    static_cast<int>(UnitBytes(key)), key.flag);
        Finish(read, result);
    }
    EndPass();
}
