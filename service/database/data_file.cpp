// The value regions, on any thread under the register database lock.
#include "database/data_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "state/paths.h"
#include "voq/reg_range.h"

namespace
{
unsigned char Present[MaxRegionBytes] VOQ_GUARDED_BY(DatabaseLock);  // what a region holds before a value is stored
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

Copied ValueWriter::Copy(const OrgNode& node, const RegKey& sourceKey, const void* source, std::uint32_t length)
{
    const std::uint32_t size = GetRegBuffLen(&node.key);
    if (size > MaxRegionBytes || !ValueWithin(sourceKey, length, node.key)) return Copied::Outside;
    if (!file_.IsOpen() && !file_.OpenRW(DataFileName)) return Copied::Failed;
    const auto* value = static_cast<const unsigned char*>(source) + ValueOffset(sourceKey, node.key);
    const bool fits = node.dataoffset <= INT32_MAX - size;
    if (fits && file_.ReadSome(node.dataoffset, Present, size) == size && std::memcmp(Present, value, size) == 0) {
        return Copied::Stored;
    }
    changed_ = true;
    if (fits && file_.WriteAt(node.dataoffset, value, size)) return Copied::Stored;
    std::printf("*VOQ*data file %s: %u bytes at offset %u not written\r\n", DataFileName, size, node.dataoffset);
    return Copied::Failed;
}

Copied Copy2DataFile(const OrgNode& node, const RegKey& sourceKey, const void* source, std::uint32_t length)
{
    ValueWriter values;
    const Copied copied = values.Copy(node, sourceKey, source, length);
    values.SyncChanges();
    return copied;
}
