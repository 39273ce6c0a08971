// The index file, on any thread under the register database lock.
// May wait for a client's file lock and for the disk; never allocates beyond the streams themselves.
#include "database/index.h"

#include <algorithm>
#include <cstdio>

#include "arch/fs.h"
#include "arch/work_file.h"
#include "database/index_map.h"
#include "database/org_file.h"
#include "state/paths.h"

namespace
{
constexpr std::uint32_t EntryBytes = sizeof(IndexItem);
constexpr std::uint32_t BlockEntries = 64;

enum class Search { Found, Missing, Unreadable };

std::uint32_t EntryCount(const WorkFile& file)
{
    return file.Size() / EntryBytes;
}

// Looks for the first entry that matches the key; `position` is its offset.
Search FindEntry(const WorkFile& file, const RegKey& key, IndexItem& item, std::uint32_t& position)
{
    IndexItem block[BlockEntries];
    const std::uint32_t count = EntryCount(file);
    for (std::uint32_t start = 0; start < count; start += BlockEntries) {
        const std::uint32_t here = std::min(BlockEntries, count - start);
        if (!file.ReadAt(start * EntryBytes, block, here * EntryBytes)) {
            std::printf("*VOQ*index file %s damaged: no entry at offset %u\r\n", IndexFileName, start * EntryBytes);
            return Search::Unreadable;
        }
        const IndexItem* match =
            std::find_if(block, block + here, [&key](const IndexItem& entry) { return IndexMatches(entry, key); });
        if (match != block + here) {
            item = *match;
            position = (start + static_cast<std::uint32_t>(match - block)) * EntryBytes;
            return Search::Found;
        }
    }
    return Search::Missing;
}

bool WriteEntry(const WorkFile& file, std::uint32_t position, const IndexItem& item)
{
    const bool written = file.WriteRecord(position, item);
    if (!written) std::printf("*VOQ*index file %s: entry at offset %u not written\r\n", IndexFileName, position);
    return written;
}

bool OpenIndexRW(WorkFile& file)
{
    if (file.OpenRW(IndexFileName)) return true;
    std::puts("open index error");
    return false;
}

bool ReadEntry(const WorkFile& file, std::uint32_t number, IndexItem& item)
{
    if (file.ReadRecord(number * EntryBytes, item)) return true;
    std::printf("*VOQ*index file %s damaged: no entry at offset %u\r\n", IndexFileName, number * EntryBytes);
    return false;
}
}  // namespace

int FindIndex(const RegKey* key, std::uint32_t* first)
{
    WorkFile file;
    if (!file.OpenRO(IndexFileName)) {
        std::puts("open index error");
        return -1;
    }
    IndexItem item;
    std::uint32_t position = 0;
    switch (FindEntry(file, *key, item, position)) {
        case Search::Unreadable:
            return -1;
        case Search::Missing:
            *first = EntryCount(file) == 0 ? 0 : OrgNone;
            return 0;
        case Search::Found:
            break;
    }
    // The two values tell the caller "empty index" and "new group": it would write over the database.
    if (item.first == 0 || item.first == OrgNone) {
        std::printf("*VOQ*index file %s damaged: entry at offset %u names no record\r\n", IndexFileName, position);
        return -1;
    }
    *first = item.first;
    return 0;
}

int UpdateIndex(const RegKey* key, std::uint32_t first)
{
    WorkFile file;
    if (!OpenIndexRW(file)) return -1;
    IndexItem item;
    std::uint32_t position = 0;
    if (FindEntry(file, *key, item, position) != Search::Found) return -1;
    item.first = first;
    const bool written = WriteEntry(file, position, item);
    file.Sync();
    return written ? 0 : -1;
}

bool AddIndexItem(const RegKey* key, std::uint32_t first)
{
    WorkFile file;
    if (!file.OpenRW(IndexFileName)) return false;
    const std::uint32_t size = file.Size();
    if (size == UINT32_MAX) return false;  // an entry at that place would leave a gap of 4 GB to be searched
    // The new entry begins where the last whole one ends: behind half an entry no lookup would find it.
    const std::uint32_t end = size / EntryBytes * EntryBytes;
    const bool written = WriteEntry(file, end, IndexEntryOf(*key, first));
    if (!written) static_cast<void>(file.Truncate(end));
    file.Sync();
    return written;
}

void DropLastIndexItem()
{
    WorkFile file;
    if (!file.OpenRW(IndexFileName)) return;
    const std::uint32_t size = file.Size();
    if (size < EntryBytes || size == UINT32_MAX) return;
    if (!file.Truncate((size / EntryBytes - 1) * EntryBytes)) {
        std::printf("*VOQ*index file %s: last entry not removed\r\n", IndexFileName);
    }
    file.Sync();
}

std::uint32_t GetOrgOffset(RegKey key)
{
    const MutexLock lock(DatabaseLock);
    std::uint32_t first = 0;
    if (FindIndex(&key, &first) != 0) {
        std::puts("*VOQ*Index FILE OPEN ERROR!\r");
        return OrgNone;
    }
    if (first == 0 || first == OrgNone) {
        std::puts("*VOQ*Index not find,need logon?\r");
        return 0;
    }
    OrgFile file;
    if (!file.OpenRO()) {
        std::printf("*VOQ*open file %s error!!!\r\n", OrgFileName);
        return OrgNone;
    }
    OrgWalk at(file, first);
    for (; at.Valid(); at.Next()) {
        const RegKey& range = at.Node().key;
        // Not the group: records with another second address word or group bit are passed over.
        if (!SameStationArea(range, key)) {
            std::printf("*VOQ*ORG LIST NOT FIND, plcno=%d, regid=%d, addr=%d,width=%d\r\n", key.plcno, key.regid,
                        static_cast<int>(key.addr), key.width);
            return 0;
        }
        if (SameRangeAndSubaddr(range, key)) {
            std::printf("*VOQ*Find list,Offset=%x\r\n", at.Offset());
            return at.Offset();
        }
    }
    if (!at.Damaged()) {
        std::printf("*VOQ*THE END:ORG LIST NOT FIND,THIS SHOULD NOT HAPPEN:addr=%d regid=%d\r\n",
                    static_cast<int>(key.addr), key.regid);
    }
    return OrgNone;
}

int FindIndexAndRefresh(const RegKey* key)
{
    WorkFile file;
    if (!OpenIndexRW(file)) return 0;
    IndexItem item;
    std::uint32_t position = 0;
    if (FindEntry(file, *key, item, position) != Search::Found) return 0;
    const bool named = FileExists(MapPath(item).Text());
    item.mapcount = RefrashIndexMap(item);
    if (!named) SyncDirectory(DataDir);
    const bool written = WriteEntry(file, position, item);
    file.Sync();
    return written ? 1 : 0;
}

bool RefreshIndexMaps(std::span<const std::uint32_t> entries)
{
    WorkFile file;
    if (!OpenIndexRW(file)) return false;
    bool whole = true;
    for (const std::uint32_t number : entries) {
        IndexItem item;
        if (!ReadEntry(file, number, item)) return false;
        item.mapcount = RefrashIndexMap(item);
        whole &= item.mapcount != 0 && WriteEntry(file, number * EntryBytes, item);
    }
    SyncDirectory(DataDir);
    file.Sync();
    return whole;
}

void InitIndexMap()
{
    const MutexLock lock(DatabaseLock);
    WorkFile file;
    if (!file.OpenRW(IndexFileName)) {
        std::puts("*VOQ*InitindexMap: open index error\n\r");
        return;
    }
    const std::uint32_t count = EntryCount(file);
    for (std::uint32_t i = 0; i < count; ++i) {
        IndexItem item;
        if (!ReadEntry(file, i, item)) break;
        item.mapcount = RefrashIndexMap(item);
        std::printf("*VOQ*############i=%d,mapPcs=%d\r\n", static_cast<int>(i), static_cast<int>(item.mapcount));
        WriteEntry(file, i * EntryBytes, item);
    }
    if (count > 0) SyncDirectory(DataDir);
    file.Sync();
}
