// The org list, on the service threads and the main thread, under the register database lock.
// An operation reads and checks every record that it is going to change before its first write. It writes the new
// record first, then the links to that record, then the header: an operation cut short leaves a whole chain. Only the
// first record of all is written after its header. A new record is on the disk before a link names it, so that the
// chain leads through whole records whatever else a power cut takes.
#include "database/org_list.h"

#include <cstdio>

#include "arch/clock.h"
#include "database/data_file.h"
#include "database/index.h"
#include "database/place_hint.h"
#include "state/counters.h"
#include "state/paths.h"
#include "voq/reg_range.h"

namespace
{
unsigned char ZeroBlock[MaxRegionBytes];  // source of every new region; never written

// Where a range belongs in the chain.
enum class Where {
    Same,         // the range has its record
    BeforeOwn,    // in front of a record of its group
    BeforeOther,  // at the end of its group, in front of the next one
    AtEnd,        // at the end of the chain
    Nowhere,      // not to be told: the chain is damaged
};

struct OrgPlace {
    Where where;
    std::uint32_t offset;  // of the range's record, or of the one to insert in front of; 0 for neither
    OrgNode record;        // the record at `offset`
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

// A new record's place in the chain: the records on both sides of it, read and checked before the first write. A link
// of 0 in the new record means that there is none on that side.
struct Neighbours {
    OrgNode ahead{};
    OrgNode behind{};
};

// Appends the value region and writes the new record, which nothing names yet, to the disk.
bool WriteNewRecord(OrgFile& file, std::uint32_t here, OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    RecordsAdded.fetch_add(1, std::memory_order_relaxed);
    return AddRegion(node) && file.WriteNode(here, node) && file.Sync();
}

// Makes the neighbours and the header name the new record at `here`. `header`: as it was before.
bool WriteLinks(OrgFile& file, const OrgHeader& header, std::uint32_t here, const OrgNode& node, Neighbours around)
{
    around.behind.prev = around.ahead.next = here;
    const std::uint32_t head = node.prev == 0 ? here : header.head;
    const std::uint32_t tail = node.next == 0 ? here : header.tail;
    return (node.next == 0 || file.WriteNode(node.next, around.behind)) &&
           (node.prev == 0 || file.WriteNode(node.prev, around.ahead)) &&
           file.WriteHeader({header.count + 1, head, tail});
}

bool AppendNode(OrgFile& file, const OrgHeader& header, OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    const std::uint32_t here = file.AppendOffset();
    Neighbours around;
    node.prev = header.tail;
    node.next = 0;
    if (!ReadLinked(file, node.prev, 0, around.ahead) || !WriteNewRecord(file, here, node)) return false;
    if (WriteLinks(file, header, here, node, around)) return true;
    // A record that is linked by half would keep every later range out until the next start.
    static_cast<void>(file.WriteNode(node.prev, around.ahead));
    static_cast<void>(file.WriteHeader(header));
    return false;
}

// Reads the records on both sides of the place in front of `before`, and sets the new record's links.
bool ReadNeighbours(OrgFile& file, const OrgHeader& header, std::uint32_t before, OrgNode& node, Neighbours& around)
{
    if (!file.ReadNode(before, around.behind)) return false;
    node.prev = around.behind.prev;
    node.next = before;
    if (node.prev != 0) return ReadLinked(file, node.prev, before, around.ahead);
    return header.head == before || Damaged("wrong previous link in the record", before);
}

bool InsertInFront(OrgFile& file, const OrgHeader& header, std::uint32_t before, OrgNode& node, bool updateIndex)
    VOQ_REQUIRES(DatabaseLock)
{
    const std::uint32_t here = file.AppendOffset();
    Neighbours around;
    if (!ReadNeighbours(file, header, before, node, around)) return false;
    // An index entry that names a later record than its group's first would let a range in a second time.
    const bool insideGroup = node.prev != 0 && SameGroup(around.ahead.key, node.key);
    if (insideGroup && (updateIndex || NodeCompare(around.ahead.key, node.key) != 1)) {
        return Damaged("index entry behind the start of its group", before);
    }
    if (!WriteNewRecord(file, here, node)) return false;
    const bool linked = WriteLinks(file, header, here, node, around);
    if (linked && (!updateIndex || UpdateIndex(&node.key, here) == 0)) return true;
    static_cast<void>(file.WriteHeader(header));
    if (node.prev != 0) static_cast<void>(file.WriteNode(node.prev, around.ahead));
    static_cast<void>(file.WriteNode(before, around.behind));
    return false;
}

// Writes the first record of an empty list, over whatever the file holds where the first record belongs.
bool WriteFirstRecord(OrgFile& file, OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    RecordsAdded.fetch_add(1, std::memory_order_relaxed);
    if (!AddRegion(node)) return false;
    const OrgHeader header{1, OrgFirstRecord, OrgFirstRecord};
    if (!file.WriteHeader(header)) return false;
    if (file.WriteNode(OrgFirstRecord, node)) return true;
    static_cast<void>(file.WriteHeader({}));
    return false;
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
    ForgetPlaces();  // the hints are places in the list that the file held before
    file.Sync();
    return OrgFirstRecord;
}

std::uint32_t AddNewGroup(OrgFile& file, OrgNode& node) VOQ_REQUIRES(DatabaseLock)
{
    OrgHeader header;
    if (!file.ReadHeader(header)) return OrgNone;
    // No record, though the index has entries: it outlived its org list.
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
    NotePlace(key, here);
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
