// The fast-list pass, on the main thread.
#include "oper/fast_pass.h"

#include <cstdio>

#include "comm/plc_oper.h"
#include "list/fast_list.h"
#include "oper/priority.h"
#include "oper/read_plan.h"
#include "voq/reg_range.h"

namespace
{
// Walks the subscriptions in list order and looks at their org records. An entry whose org offset names no usable
// record is never due and ends nothing; it is reported once.
class FastCursor
{
public:
    // The lock is held for as long as the cursor lives.
    FastCursor(OrgFile& file, std::uint16_t slot) VOQ_REQUIRES_SHARED(fast_rwlock)
        : file_(file), items_(OrgFastList), head_(OrgFastListHead.head), slot_(slot)
    {
        SkipUnusable();
    }

    [[nodiscard]] bool Valid() const { return slot_ != FastEnd; }
    [[nodiscard]] const OrgNode& Node() const { return node_; }
    [[nodiscard]] std::uint32_t Offset() const { return items_[slot_].orgoffset; }
    [[nodiscard]] bool Due() const { return PackOrNot(node_) != 0; }

    void Next()
    {
        slot_ = items_[slot_].next;
        SkipUnusable();
    }

    void SearchEnded() { CurrentFastList = head_; }
    void StopHere() { CurrentFastList = slot_; }
    void WalkEnded() { CurrentFastList = head_; }

private:
    void SkipUnusable();
    bool Load(const FastItem& item);

    OrgFile& file_;
    const FastItem* items_;
    std::uint16_t head_;
    std::uint16_t slot_;
    OrgNode node_{};
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

bool PlanFastRead(bool packed, ReadPlan& plan)
{
    const ReadLock listLock(fast_rwlock);
    const MutexLock databaseLock(DatabaseLock);
    if (CurrentFastList == 0) CurrentFastList = OrgFastListHead.head;
    OrgFile file;
    if (OrgFastListHead.count == 0 || !file.OpenRO()) return false;
    FastCursor cursor(file, CurrentFastList);
    return PlanRead(cursor, packed, plan);
}
}  // namespace

void OperFastList()
{
    ReadPlan plan;
    if (!PlanFastRead(true, plan)) return;
    const int result = PlcOper(plan.key, ReadBuffer, PLC_READ_ONCE);
    WriteBackRead(plan, result, StampRule::OneTime);
}

void OperFastList_NoPack()
{
    ReadPlan plan;
    if (!PlanFastRead(false, plan)) return;
    const int result = PlcOper(plan.key, ReadBuffer, PLC_READ_ONCE);
    std::printf("*VOQ*<OperFastList_NoPack>PlcOper ret=%d,addrType=%d flag=%x\r\n", result,
                static_cast<int>(UnitBytes(plan.key)), plan.key.flag);
    WriteBackRead(plan, result, StampRule::OneTime);
}
