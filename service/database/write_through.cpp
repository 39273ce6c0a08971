// Fresh values on their way into the register database, on the main thread.
#include "database/write_through.h"

#include "arch/clock.h"
#include "database/index.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{
constexpr std::size_t MostGathered = 256;  // more than a driver read of most devices covers; a larger one takes turns

// What was gathered: records, the place of each, and what begins with its value.
OrgNode Records[MostGathered] VOQ_GUARDED_BY(DatabaseLock);
std::uint32_t Offsets[MostGathered] VOQ_GUARDED_BY(DatabaseLock);
std::span<const unsigned char> Sources[MostGathered] VOQ_GUARDED_BY(DatabaseLock);

// How many of the gathered records, from the one with this number on, lie side by side.
std::size_t SideBySide(std::size_t first, std::size_t gathered) VOQ_REQUIRES(DatabaseLock)
{
    std::size_t next = first + 1;
    while (next < gathered && Offsets[next] == Offsets[next - 1] + sizeof(OrgNode)) ++next;
    return next - first;
}
}  // namespace

void FreshRecords::Add(std::uint32_t offset, const OrgNode& record, std::span<const unsigned char> source)
{
    if (gathered_ == MostGathered) WriteGathered();
    Records[gathered_] = record;
    Offsets[gathered_] = offset;
    Sources[gathered_] = source;
    ++gathered_;
}

void FreshRecords::AddValue(const OrgWalk& at, const RegKey& sourceKey, const void* bytes, std::uint32_t length)
{
    OrgNode record = at.Node();
    if (GetRegBuffLen(&record.key) > MaxRegionBytes || !ValueWithin(sourceKey, length, record.key)) return;
    record.state = PLC_SUCCESS;
    GetCurrentTime(&record.stamp);
    const std::span source(static_cast<const unsigned char*>(bytes), length);
    Add(at.Offset(), record, source.subspan(ValueOffset(sourceKey, record.key)));
}

void FreshRecords::WriteGathered()
{
    for (std::size_t i = 0; i < gathered_; ++i) {
        if (!Sources[i].empty()) values_.Store(Records[i], Sources[i]);
    }
    values_.Flush();
    for (std::size_t first = 0; first < gathered_;) {
        const std::size_t count = SideBySide(first, gathered_);
        static_cast<void>(org_.WriteNodes(Offsets[first], {Records + first, count}));
        first += count;
    }
    gathered_ = 0;
}

void FreshRecords::Finish()
{
    WriteGathered();
    values_.SyncChanges();
    org_.SyncChanges();
}

void UpdateOrgAfterWrite(const RegKey& key, std::uint32_t length, const void* data)
{
    const MutexLock lock(DatabaseLock);
    std::uint32_t first = 0;
    if (FindIndex(&key, &first) != 0 || first == 0 || first == OrgNone) return;
    FreshRecords records;
    if (!records.Open()) return;
    const std::uint32_t end = WriteEnd(key);
    for (OrgWalk at(records.Org(), first); at.Valid() && SameGroup(at.Node().key, key); at.Next()) {
        const RegKey& range = at.Node().key;
        if (range.addr >= key.addr && WriteEnd(range) <= end) records.AddValue(at, key, data, length);
        if (end <= range.addr) break;
    }
    records.Finish();
}
