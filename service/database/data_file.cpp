// The value regions, on any thread under the register database lock.
#include "database/data_file.h"

#include <algorithm>
#include <cstdio>

#include "arch/work_file.h"
#include "state/paths.h"
#include "voq/reg_range.h"

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

Copied Copy2DataFile(const OrgNode& node, const RegKey& sourceKey, const void* source, std::uint32_t length)
{
    const std::uint32_t size = GetRegBuffLen(&node.key);
    if (!ValueWithin(sourceKey, length, node.key)) return Copied::Outside;
    WorkFile file;
    if (!file.OpenRW(DataFileName)) return Copied::Failed;
    const auto* value = static_cast<const unsigned char*>(source) + ValueOffset(sourceKey, node.key);
    const bool stored = node.dataoffset <= INT32_MAX - size && file.WriteAt(node.dataoffset, value, size);
    if (!stored) {
        std::printf("*VOQ*data file %s: %u bytes at offset %u not written\r\n", DataFileName, size, node.dataoffset);
    }
    file.Sync();
    return stored ? Copied::Stored : Copied::Failed;
}
