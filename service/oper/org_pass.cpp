// The org-list pass, on the main thread.
#include "oper/org_pass.h"

#include "arch/clock.h"
#include "comm/plc_oper.h"
#include "oper/halving.h"
#include "oper/read_plan.h"
#include "oper/rest.h"
#include "state/counters.h"
#include "stats/pass_stats.h"
#include "voq/reg_range.h"

std::uint32_t CurrentNode;
std::uint16_t LoopReStart;

namespace
{
Halving Halves;
Rest Nothing;  // since a walk over the whole chain

// Differs when a record was added, or when a time-out that kept all records from being due is over.
std::uint32_t Mark()
{
    const bool timeout = GlobeTimeout.load(std::memory_order_relaxed) != 0;
    return RecordsAdded.load(std::memory_order_relaxed) << 1 | (timeout ? 1 : 0);
}

// Walks the chain; a record that was never read is due while its station is on and the port is not in time-out.
class OrgCursor
{
public:
    OrgCursor(OrgFile& file, std::uint32_t offset) : file_(file), walk_(file, offset), first_(offset), mark_(Mark())
    {
        GetCurrentTime(&started_);
    }

    [[nodiscard]] bool Valid() const { return walk_.Valid(); }
    [[nodiscard]] const OrgNode& Node() { return walk_.Node(); }
    [[nodiscard]] std::uint32_t Offset() const { return walk_.Offset(); }
    void Next() { walk_.Next(); }

    [[nodiscard]] bool Due()
    {
        const OrgNode& record = walk_.Node();
        // Reports a clock that went back. The clock is asked once a walk, and again only for such a record.
        if (Later(record.stamp, started_)) NodeTimePassed(record.stamp.seconds, record.stamp.microseconds);
        return record.state == 0 && !StationDisabled(record.key.plcno) &&
               GlobeTimeout.load(std::memory_order_relaxed) == 0 && GetRegBuffLen(&record.key) <= MaxRegionBytes;
    }

    [[nodiscard]] std::uint32_t BeginRead() { return Halves.Most(Node().key); }
    void PassOver() {}
    [[nodiscard]] static bool Barred() { return false; }
    void SearchEnded()
    {
        CurrentNode = ChainHead();
        if (first_ == CurrentNode) Nothing.Begin(LongestRestUs, mark_);
    }

    void Joins()
    {
        ++joined_;
        wanted_.Add(walk_.Node().key);
    }
    void CountIn(const ReadPlan& plan) const { CountRead(Pass::Org, plan.key, joined_, wanted_.Of(plan.key)); }

    void StopHere() { CurrentNode = walk_.Valid() ? walk_.Offset() : 0; }

    void WalkEnded()
    {
        CurrentNode = ChainHead();
        LoopReStart = 1;
    }

private:
    static bool Later(const Stamp& one, const Stamp& other)
    {
        return one.seconds > other.seconds || (one.seconds == other.seconds && one.microseconds > other.microseconds);
    }

    [[nodiscard]] std::uint32_t ChainHead() const
    {
        OrgHeader header{};
        return file_.ReadHeader(header) ? header.head : 0;
    }

    OrgFile& file_;
    OrgWalk walk_;
    std::uint32_t first_;
    std::uint32_t mark_;
    Stamp started_;
    std::uint32_t joined_ = 0;
    WantedElements wanted_;
};

bool PlanOrgRead(bool packed, ReadPlan& plan)
{
    const MutexLock lock(DatabaseLock);
    OrgFile file;
    if (!file.OpenRO()) return false;
    OrgCursor cursor(file, CurrentNode);
    if (!PlanRead(cursor, packed, plan)) return false;
    cursor.CountIn(plan);
    return true;
}

// Refused: the same ranges again, in smaller reads, or none of them is left to blame but this one. A record is read
// once here, so nothing is learnt.
void Refused(const ReadPlan& plan)
{
    if (plan.ranges > 1) {
        Halves.Refused(plan.key, plan.ranges);
        CurrentNode = plan.orgOffset;
        LoopReStart = 0;
    } else {
        Halves.Done(1, false);
        WriteBackRefused(plan);
    }
}

void OrgPass(bool packed)
{
    CountPass(Pass::Org);
    ReadPlan plan;
    if (Nothing.Holds(Mark()) || !PlanOrgRead(packed, plan)) return;
    const int result = PlcOper(plan.key, ReadBuffer, PLC_READ_ONCE);
    if (LastRefused) {
        Refused(plan);
        return;
    }
    Halves.Done(plan.ranges, result == PLC_SUCCESS);
    WriteBackRead(plan, result, StampRule::PerRecord);
}
}  // namespace

void OperOrgList()
{
    OrgPass(true);
}

void OperOrgList_NoPack()
{
    OrgPass(false);
}
