// The value regions, on any thread under the register database lock.
#include "database/data_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "state/paths.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{
constexpr std::uint32_t PageBytes = 4096;  // the least that is read of the file
constexpr std::uint32_t JoinBytes = 8;     // fewer equal bytes do not end a run: the largest element is not torn

// Part of the data file, as it is or is about to be. Whole pages begin it, and any region fits behind the first of
// them.
unsigned char Block[PageBytes + MaxRegionBytes] VOQ_GUARDED_BY(DatabaseLock);

void ReportUnwritten(std::uint32_t at, std::uint32_t size)
{
    std::printf("*VOQ*data file %s: %u bytes at offset %u not written\r\n", DataFileName, size, at);
}
}  // namespace

std::int32_t AddDataToFile(const void* buffer, std::uint32_t size)
{
    WorkFile file;
    if (!file.OpenRW(DataFileName)) return NoRegion;
    const std::uint32_t end = file.Size();
    if (size > MaxRegionBytes || end > INT32_MAX - size) {
        std::printf("*VOQ*data file %s: no room for a region of %u bytes\r\n", DataFileName, size);
        return NoRegion;
    }
    if (file.WriteAt(end, buffer, size) && file.Sync()) return static_cast<std::int32_t>(end);
    std::printf("*VOQ*data file %s: region of %u bytes at offset %u not written\r\n", DataFileName, size, end);
    static_cast<void>(file.Truncate(end));
    return NoRegion;
}

void ValueWriter::SyncChanges() const
{
    if (changed_) file_.Sync();
}

void ValueWriter::Store(OrgNode& record, std::span<const unsigned char> source)
{
    const std::uint32_t size = GetRegBuffLen(&record.key), at = record.dataoffset;
    if (size == 0) return;
    const bool fits = at <= INT32_MAX - size;
    if (!Open() || !fits) {
        if (!fits) ReportUnwritten(at, size);
        record.state = PLC_ERROR;
        return;
    }
    if (!InBlock(at, size)) {
        Flush();
        Load(at, size, source.size());
    }
    if (InBlock(at, size)) {
        StoreInBlock(record, source.data(), size);
        return;
    }
    // The file ends before the region does.
    DropBlock();
    if (!Write(at, source.data(), size)) record.state = PLC_ERROR;
}

bool ValueWriter::Open()
{
    if (!file_.IsOpen() && !refused_) refused_ = !file_.OpenRW(DataFileName);
    return !refused_;
}

bool ValueWriter::InBlock(std::uint32_t at, std::uint32_t size) const
{
    return at >= blockStart_ && at + size <= blockEnd_;
}

// Reads the page at which the region begins, and all of the source's reach when regions come in the order of the file.
void ValueWriter::Load(std::uint32_t at, std::uint32_t size, std::size_t ahead)
{
    const bool inOrder = blockEnd_ == 0 || at == blockEnd_;
    const std::uint32_t inPage = at % PageBytes;
    const std::size_t wanted = std::max<std::size_t>(PageBytes, inPage + (inOrder ? ahead : size));
    blockStart_ = at - inPage;
    const std::size_t got = file_.ReadSome(blockStart_, Block, std::min(wanted, sizeof Block));
    blockEnd_ = blockStart_ + static_cast<std::uint32_t>(got);
}

void ValueWriter::StoreInBlock(OrgNode& record, const unsigned char* value, std::uint32_t size)
{
    const std::uint32_t at = record.dataoffset;
    unsigned char* const present = Block + (at - blockStart_);
    const bool same = std::memcmp(present, value, size) == 0;
    if (same || at != regionEnd_) Flush();
    regionEnd_ = at + size;
    if (same) return;
    for (std::uint32_t i = 0; i < size; ++i) {
        if (present[i] == value[i]) continue;
        const bool joins = runFirst_ != nullptr && at + i - runEnd_ < JoinBytes;
        if (!joins) {
            Flush();
            runFirst_ = &record;
            runStart_ = at + i;
        }
        runLast_ = &record;
        runEnd_ = at + i + 1;
        present[i] = value[i];
    }
}

void ValueWriter::Flush()
{
    if (runFirst_ == nullptr) return;
    if (!Write(runStart_, Block + (runStart_ - blockStart_), runEnd_ - runStart_)) {
        for (OrgNode* lost = runFirst_; lost <= runLast_; ++lost) lost->state = PLC_ERROR;
        DropBlock();
    }
    runFirst_ = nullptr;
}

bool ValueWriter::Write(std::uint32_t at, const unsigned char* bytes, std::uint32_t size)
{
    changed_ = true;
    if (file_.WriteAt(at, bytes, size)) return true;
    ReportUnwritten(at, size);
    return false;
}

Copied Copy2DataFile(const OrgNode& node, const RegKey& sourceKey, const void* source, std::uint32_t length)
{
    if (GetRegBuffLen(&node.key) > MaxRegionBytes || !ValueWithin(sourceKey, length, node.key)) return Copied::Outside;
    const std::uint64_t begin = ValueOffset(sourceKey, node.key);
    OrgNode record = node;
    record.state = PLC_SUCCESS;
    ValueWriter values;
    values.Store(record, std::span(static_cast<const unsigned char*>(source), length).subspan(begin));
    values.Flush();
    values.SyncChanges();
    return record.state == PLC_SUCCESS ? Copied::Stored : Copied::Failed;
}
