// The org list, on the service threads and the main thread, under the register database lock.
// Every record that an operation is going to change is read and checked before its first write; the writes then go from
// the new record towards the header, so that one cut short leaves a chain that is whole (the first record of all
// follows its header). A new record is on the disk before anything names it: whatever else a power cut takes, the chain
// leads through whole records only.
#include "database/org_list.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "arch/clock.h"
#include "database/data_file.h"
#include "database/index.h"
#include "state/paths.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{
unsigned char ZeroBlock[MaxRegionBytes];  // source of every new region; never written

enum class Where { Same, BeforeOwn, BeforeOther, AtEnd, Nowhere };

struct OrgPlace {
    Where where;
    std::uint32_t offset;  // of the record found or inserted in front of
    OrgNode record;        // the record there
};

std::uint16_t FirstLogtimes(OrgMode mode)
{
    if (mode == OrgMode::LogOn) return 1;
    return mode == OrgMode::LogOff ? 0xFFFF : 0;
}

bool RegionAllowed(const RegKey& key)
{
    const std::uint32_t size = GetRegBuffLen(&key);
    if (size <= MaxRegionBytes) return true;
    std::printf("*VOQ*range of %u bytes refused, plcno=%d, regid=%d, addr=%d,width=%d\r\n", size, key.plcno, key.regid,
                static_cast<int>(key.addr), key.width);
    return false;
}

bool AddRegion(OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    const std::int32_t offset = AddDataToFile(ZeroBlock, GetRegBuffLen(&node.key));
    if (offset == NoRegion) return false;
    node.dataoffset = static_cast<std::uint32_t>(offset);
    return true;
}

bool Damaged(const char* what, std::uint32_t offset)
{
    std::printf("*VOQ*org file %s damaged: %s at offset %u\r\n", OrgFileName, what, offset);
    return false;
}

// Reads the record at `offset`, whose next link must be `next`.
bool ReadLinked(OrgFile& file, std::uint32_t offset, std::uint32_t next, OrgNode& node)
{
    if (!file.ReadNode(offset, node)) return false;
    return node.next == next || Damaged("wrong next link in the record", offset);
}

bool AppendNode(OrgFile& file, OrgHeader header, OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    const std::uint32_t here = file.AppendOffset();
    OrgNode last;
    node.prev = header.tail;
    node.next = 0;
    if (!ReadLinked(file, header.tail, 0, last) || !AddRegion(node)) return false;
    if (!file.WriteNode(here, node) || !file.Sync()) return false;
    OrgNode linked = last;
    linked.next = here;
    if (file.WriteNode(node.prev, linked) && file.WriteHeader({header.count + 1, header.head, here})) return true;
    // Left half done, it would keep every later range out until the next start.
    static_cast<void>(file.WriteNode(node.prev, last));
    static_cast<void>(file.WriteHeader(header));
    return false;
}

bool InsertInFront(OrgFile& file, OrgHeader header, std::uint32_t before, OrgNode& node, bool updateIndex)
    VOQ_REQUIRES(DatabaseLock)
{
    const std::uint32_t here = file.AppendOffset();
    OrgNode behind;
    OrgNode ahead{};
    if (!file.ReadNode(before, behind)) return false;
    node.prev = behind.prev;
    node.next = before;
    if (node.prev == 0 && header.head != before) return Damaged("wrong previous link in the record", before);
    if (node.prev != 0 && !ReadLinked(file, node.prev, before, ahead)) return false;
    // An index entry that lags behind the chain would let a range in a second time.
    const bool insideGroup = node.prev != 0 && SameGroup(ahead.key, node.key);
    if (insideGroup && (updateIndex || NodeCompare(ahead.key, node.key) != 1)) {
        return Damaged("index entry behind the start of its group", before);
    }
    if (!AddRegion(node) || !file.WriteNode(here, node) || !file.Sync()) return false;
    OrgNode linkedBehind = behind;
    OrgNode linkedAhead = ahead;
    linkedBehind.prev = linkedAhead.next = here;
    const std::uint32_t head = node.prev == 0 ? here : header.head;
    if (file.WriteNode(before, linkedBehind) && (node.prev == 0 || file.WriteNode(node.prev, linkedAhead)) &&
        file.WriteHeader({header.count + 1, head, header.tail}) &&
        (!updateIndex || UpdateIndex(&node.key, here) == 0)) {
        return true;
    }
    static_cast<void>(file.WriteHeader(header));
    if (node.prev != 0) static_cast<void>(file.WriteNode(node.prev, ahead));
    static_cast<void>(file.WriteNode(before, behind));
    return false;
}

// The first record of an empty list, over whatever the file holds in its place.
bool WriteFirstRecord(OrgFile& file, OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    if (!AddRegion(node)) return false;
    const OrgHeader header{1, OrgFirstRecord, OrgFirstRecord};
    if (!file.WriteHeader(header)) return false;
    if (file.WriteNode(OrgFirstRecord, node)) return true;
    static_cast<void>(file.WriteHeader({}));
    return false;
}

// Where the last range of a group went, and the last one near each address: ranges mostly come in ascending order, and
// the next one belongs right behind; in a list without order the walk from a near one is short. Only places to look at:
// the record there is read and judged under the lock of the operation that goes by it.
constexpr std::uint32_t LastPlaces = 4096;  // groups and addresses beyond that share the places
constexpr std::uint32_t NearAddresses = 8;
std::uint32_t LastPlace[LastPlaces] VOQ_GUARDED_BY(DatabaseLock);

std::uint32_t& LastPlaceOf(const RegKey& key, std::uint32_t part) VOQ_REQUIRES(DatabaseLock)
{
    const std::uint32_t mixed = ((key.regid * 31u + key.plcno) * 31 + key.layout) * 31 + SubaddrLow(key);
    return LastPlace[((2 * mixed + (GroupFlag(key) ? 1 : 0)) * 31 + part) % LastPlaces];
}

std::uint32_t& LastPlaceOfGroup(const RegKey& key) VOQ_REQUIRES(DatabaseLock)
{
    return LastPlaceOf(key, 0);
}

std::uint32_t& LastPlaceNear(const RegKey& key) VOQ_REQUIRES(DatabaseLock)
{
    return LastPlaceOf(key, 1 + key.addr / NearAddresses);
}

// Whether the walk to the key's place may begin there: at a record of the group, linked into the chain, that does not
// sort behind the key.
bool MayStart(OrgFile& file, const RegKey& key, std::uint32_t place, OrgNode& record)
{
    OrgNode ahead;
    const bool inGroup = file.Holds(place) && file.ReadNode(place, record) && SameGroup(record.key, key);
    const bool linked = inGroup && file.Holds(record.prev) && file.ReadNode(record.prev, ahead) && ahead.next == place;
    return linked && NodeCompare(record.key, key) != 2;
}

// The nearest of the places from which the walk may begin.
std::uint32_t WalkStart(OrgFile& file, const RegKey& key, std::uint32_t first) VOQ_REQUIRES(DatabaseLock)
{
    const std::uint32_t near = LastPlaceNear(key);
    const std::uint32_t last = LastPlaceOfGroup(key);
    OrgNode atNear;
    OrgNode atLast;
    const bool fromNear = MayStart(file, key, near, atNear);
    if (last == near || !MayStart(file, key, last, atLast)) return fromNear ? near : first;
    return fromNear && NodeCompare(atLast.key, atNear.key) == 1 ? near : last;
}

OrgPlace FindPlace(OrgFile& file, const RegKey& key, std::uint32_t first) VOQ_REQUIRES(DatabaseLock)
{
    OrgWalk at(file, WalkStart(file, key, first));
    for (; at.Valid(); at.Next()) {
        const OrgNode& record = at.Node();
        if (!SameGroup(record.key, key)) {
            if (at.Offset() != first) return {Where::BeforeOther, at.Offset(), record};
            Damaged("record of another group than the index names", first);
            return {Where::Nowhere, 0, {}};
        }
        const int order = NodeCompare(key, record.key);
        if (order == 1) return {Where::BeforeOwn, at.Offset(), record};
        if (order == 0) return {Where::Same, at.Offset(), record};
    }
    return {at.Damaged() ? Where::Nowhere : Where::AtEnd, 0, {}};
}

// Counts a log-on or log-off of a range that has its record; a registration changes nothing.
std::uint32_t CountRecord(OrgFile& file, OrgPlace& place, OrgMode mode)
{
    bool written = true;
    if (mode != OrgMode::Register) {
        place.record.logtimes = static_cast<std::uint16_t>(place.record.logtimes + (mode == OrgMode::LogOn ? 1 : -1));
        written = file.WriteNode(place.offset, place.record);
    }
    file.Sync();
    return written ? 0 : OrgNone;
}

std::uint32_t AddFirstItem(OrgFile& file, OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    if (!WriteFirstRecord(file, node)) return OrgNone;
    std::fill(std::begin(LastPlace), std::end(LastPlace), 0u);  // in what the file held before
    file.Sync();
    return OrgFirstRecord;
}

std::uint32_t AddNewGroup(OrgFile& file, OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    OrgHeader header;
    if (!file.ReadHeader(header)) return OrgNone;
    // Index entries, but no record: the entries of an index that outlived its org list.
    if (header.tail == 0) return AddFirstItem(file, node);
    const std::uint32_t here = file.AppendOffset();
    if (!AppendNode(file, header, node)) return OrgNone;
    file.Sync();
    return here;
}
}  // namespace

void InitOrgListNode(OrgNode* node, const RegKey& key)
{
    *node = {};
    node->key = key;
    GetCurrentTime(&node->stamp);
}

bool InsertOrgBeforeNode(OrgFile& file, std::uint32_t before, OrgNode& node, bool updateIndex)
{
    OrgHeader header;
    if (!RegionAllowed(node.key) || !file.ReadHeader(header)) return false;
    if (before != 0) return InsertInFront(file, header, before, node, updateIndex);
    if (header.tail == 0) return WriteFirstRecord(file, node);
    return AppendNode(file, header, node);
}

std::uint32_t InsertOrgNode(const RegKey& key, std::uint32_t first, OrgMode mode)
{
    OrgNode node;
    InitOrgListNode(&node, key);
    node.logtimes = FirstLogtimes(mode);
    OrgFile file;
    if (!file.OpenRW()) return OrgNone;
    OrgPlace place = FindPlace(file, key, first);
    if (place.where == Where::Nowhere) return OrgNone;
    if (place.where == Where::Same) return CountRecord(file, place, mode);

    const bool own = place.where == Where::BeforeOwn;
    const std::uint32_t here = file.AppendOffset();
    if (!InsertOrgBeforeNode(file, place.offset, node, own && place.offset == first)) return OrgNone;
    LastPlaceNear(key) = LastPlaceOfGroup(key) = here;
    if (own) file.Sync();
    file.Close();
    if (mode == OrgMode::LogOn) FindIndexAndRefresh(&key);
    return 0;
}

std::uint32_t AddItem2OrgList(const RegKey& key, std::uint32_t first, OrgMode mode)
{
    if (!RegionAllowed(key)) return OrgNone;
    if (first != 0 && first != OrgNone) return InsertOrgNode(key, first, mode);
    OrgNode node;
    InitOrgListNode(&node, key);
    node.logtimes = FirstLogtimes(mode);
    OrgFile file;
    if (!file.OpenRW()) return OrgNone;
    return first == 0 ? AddFirstItem(file, node) : AddNewGroup(file, node);
}

void DropLastOrgItem(std::uint32_t offset)
{
    OrgFile file;
    OrgHeader header;
    OrgNode node;
    if (!file.OpenRW() || !file.ReadHeader(header) || header.tail != offset || !file.ReadNode(offset, node)) return;
    if (node.prev == 0) {
        header = {};
    } else {
        OrgNode last;
        if (!ReadLinked(file, node.prev, offset, last)) return;
        last.next = 0;
        if (!file.WriteNode(node.prev, last)) return;
        --header.count;
        header.tail = node.prev;
    }
    static_cast<void>(file.WriteHeader(header));
    file.Sync();
}

void StoreValue(OrgFile& file, OrgWalk& at, const RegKey& sourceKey, const void* source, std::uint32_t length)
{
    OrgNode& record = at.Node();
    const Copied copied = Copy2DataFile(record, sourceKey, source, length);
    if (copied == Copied::Outside) return;
    // State 1 would promise the value.
    record.state = copied == Copied::Stored ? PLC_SUCCESS : PLC_ERROR;
    GetCurrentTime(&record.stamp);
    static_cast<void>(file.WriteNode(at.Offset(), record));
    file.Sync();
}

void UpdateOrgAfterWrite(const RegKey& key, std::uint32_t length, const void* data)
{
    const MutexLock lock(DatabaseLock);
    std::uint32_t first = 0;
    if (FindIndex(&key, &first) != 0 || first == 0 || first == OrgNone) return;
    OrgFile file;
    if (!file.OpenRW()) return;
    const std::uint32_t end = WriteEnd(key);
    for (OrgWalk at(file, first); at.Valid() && SameGroup(at.Node().key, key); at.Next()) {
        const RegKey& range = at.Node().key;
        if (range.addr >= key.addr && WriteEnd(range) <= end) StoreValue(file, at, key, data, length);
        if (end <= range.addr) return;
    }
}
