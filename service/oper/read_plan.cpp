// One packed read, on the main thread. The write-back holds the register database lock and forces each file to the disk
// once.
#include "oper/read_plan.h"

#include <algorithm>
#include <span>

#include "arch/clock.h"
#include "database/write_through.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

unsigned char ReadBuffer[MaxRegionBytes];

Widening::Widening(const OrgNode& start, std::uint32_t orgOffset, PackLimits limits, std::uint32_t most)
    : plan_{start.key, orgOffset, 1}, limits_(limits), most_(most)
{
}

bool Widening::Take(const OrgNode& record)
{
    if (taken_ == most_) return false;
    const RegKey& read = plan_.key;
    const std::uint64_t addr = record.key.addr;
    const std::uint64_t maxEnd = PollEnd(read, limits_.length);
    const std::uint64_t packEnd = PollEnd(read);
    const std::uint64_t recordEnd = PollEnd(record.key);
    if (addr >= maxEnd || addr >= packEnd + AddressSpan(limits_.gap, read) || record.key.width >= limits_.length ||
        recordEnd > maxEnd) {
        return false;
    }
    const std::uint64_t span = ElementsOfSpan(std::max(packEnd, recordEnd) - read.addr, read);
    const std::uint64_t width = std::max<std::uint64_t>(span, read.width);
    const std::uint64_t bytes = width * ElemBytes(read);
    // Where elements are smaller than an address unit, a value can reach past the span.
    if (bytes > MaxRegionBytes || !ValueWithin(read, bytes, record.key)) return false;
    plan_.key.width = static_cast<std::uint16_t>(width);
    plan_.ranges = ++taken_;
    return true;
}

void WriteBackRead(const ReadPlan& plan, int result, StampRule rule)
{
    Stamp now;
    GetCurrentTime(&now);
    const RegKey& read = plan.key;
    const std::uint64_t packEnd = PollEnd(read);
    const std::span<const unsigned char> values(ReadBuffer, GetRegBuffLen(&read));

    const MutexLock lock(DatabaseLock);
    FreshRecords records;
    if (!records.Open()) return;
    for (OrgWalk at(records.Org(), plan.orgOffset); at.Valid(); at.Next()) {
        OrgNode record = at.Node();
        if (!SameGroup(record.key, read)) break;
        if (PollEnd(record.key) <= packEnd && ValueWithin(read, values.size(), record.key)) {
            if (rule == StampRule::PerRecord) GetCurrentTime(&now);
            record.stamp = now;
            record.state = static_cast<std::uint8_t>(result);
            const bool fresh = result == PLC_SUCCESS;
            records.Add(at.Offset(), record, fresh ? values.subspan(ValueOffset(read, record.key)) : values.first(0));
        }
        if (record.key.addr >= packEnd) break;
    }
    records.Finish();
}

void WriteBackRefused(const ReadPlan& plan)
{
    const MutexLock lock(DatabaseLock);
    OrgFile file;
    OrgNode record{};
    if (!file.OpenRW() || !file.ReadNode(plan.orgOffset, record)) return;
    GetCurrentTime(&record.stamp);
    record.state = PLC_ERROR;
    static_cast<void>(file.WriteNode(plan.orgOffset, record));
    file.SyncChanges();
}
