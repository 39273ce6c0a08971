// Fresh values on their way into the register database, on the main thread.
#include "database/write_through.h"

#include "arch/clock.h"
#include "database/data_file.h"
#include "database/index.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

void StoreValue(OrgFile& file, OrgWalk& at, ValueWriter& values, const RegKey& sourceKey, const void* source,
                std::uint32_t length)
{
    OrgNode& record = at.Node();
    const Copied copied = values.Copy(record, sourceKey, source, length);
    if (copied == Copied::Outside) return;
    // State 1 would promise a value that is not in the data file.
    record.state = copied == Copied::Stored ? PLC_SUCCESS : PLC_ERROR;
    GetCurrentTime(&record.stamp);
    static_cast<void>(file.WriteNode(at.Offset(), record));
}

void UpdateOrgAfterWrite(const RegKey& key, std::uint32_t length, const void* data)
{
    const MutexLock lock(DatabaseLock);
    std::uint32_t first = 0;
    if (FindIndex(&key, &first) != 0 || first == 0 || first == OrgNone) return;
    OrgFile file;
    if (!file.OpenRW()) return;
    ValueWriter values;
    const std::uint32_t end = WriteEnd(key);
    for (OrgWalk at(file, first); at.Valid() && SameGroup(at.Node().key, key); at.Next()) {
        const RegKey& range = at.Node().key;
        if (range.addr >= key.addr && WriteEnd(range) <= end) StoreValue(file, at, values, key, data, length);
        if (end <= range.addr) break;
    }
    values.SyncChanges();
    file.SyncChanges();
}
