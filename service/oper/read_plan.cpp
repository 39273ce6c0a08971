// One packed read, on the main thread. The write-back holds the register database lock and forces each file to the disk
// once.
#include "oper/read_plan.h"

#include <algorithm>

#include "arch/clock.h"
#include "database/data_file.h"
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

    const MutexLock lock(DatabaseLock);
    OrgFile file;
    if (!file.OpenRW()) return;
    ValueWriter values;
    for (OrgWalk at(file, plan.orgOffset); at.Valid(); at.Next()) {
        OrgNode& record = at.Node();
        if (!SameGroup(record.key, read)) break;
        const bool inside = PollEnd(record.key) <= packEnd && ValueWithin(read, GetRegBuffLen(&read), record.key);
        if (inside) {
            const bool lost =
                result == PLC_SUCCESS && values.Copy(record, read, ReadBuffer, GetRegBuffLen(&read)) != Copied::Stored;
            if (rule == StampRule::PerRecord) GetCurrentTime(&now);
            record.stamp = now;
            // State 1 would promise the value.
            record.state = static_cast<std::uint8_t>(lost ? PLC_ERROR : result);
            static_cast<void>(file.WriteNode(at.Offset(), record));
        }
        if (record.key.addr >= packEnd) break;
    }
    values.SyncChanges();
    file.SyncChanges();
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
