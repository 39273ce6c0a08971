// Registers a project's ranges as the service does: records in the order of the project, chained in the order of their
// groups. Pure; any thread.
#include "client/prepare.h"

#include <limits>
#include <string>

#include "client/error.h"
#include "voq/index_record.h"
#include "voq/org_record.h"
#include "voq/reg_range.h"

namespace voq
{

namespace
{

struct PreparedTable {
    OrgHeader header = {};
    std::vector<OrgNode> nodes;  // in order of creation
    std::vector<IndexItem> index;
    std::uint64_t dataSize = 0;

    OrgNode& At(std::uint32_t offset) { return nodes[OrgRecordNumber(offset)]; }
    std::uint32_t NextOffset() const { return OrgRecordOffset(static_cast<std::uint32_t>(nodes.size())); }
};

IndexItem* FindGroup(PreparedTable& table, const RegKey& key)
{
    for (IndexItem& item : table.index) {
        if (IndexMatches(item, key)) return &item;
    }
    return nullptr;
}

// The record of the group before which the range belongs; 0 for the end of the chain. False when it is there already.
bool FindPlace(PreparedTable& table, const IndexItem& group, const RegKey& key, std::uint32_t& before)
{
    for (before = group.first; before != 0; before = table.At(before).next) {
        const RegKey& other = table.At(before).key;
        if (!SameGroup(other, key)) return true;
        const int order = NodeCompare(key, other);
        if (order == 0) return false;
        if (order == 1) return true;
    }
    return true;
}

void Link(PreparedTable& table, OrgNode node, std::uint32_t before)
{
    const std::uint32_t here = table.NextOffset();
    node.next = before;
    node.prev = before == 0 ? table.header.tail : table.At(before).prev;
    if (node.prev == 0) {
        table.header.head = here;
    } else {
        table.At(node.prev).next = here;
    }
    if (before == 0) {
        table.header.tail = here;
    } else {
        table.At(before).prev = here;
    }
    ++table.header.count;
    table.nodes.push_back(node);
}

void Register(PreparedTable& table, const RegKey& key, const Stamp& stamp)
{
    IndexItem* group = FindGroup(table, key);
    std::uint32_t before = 0;
    if (group != nullptr && !FindPlace(table, *group, key, before)) return;
    const std::uint32_t here = table.NextOffset();
    if (group == nullptr) {
        table.index.push_back(IndexEntryOf(key, here));
    } else if (before == group->first) {
        group->first = here;
    }
    OrgNode node = {};
    node.key = key;
    node.stamp = stamp;
    node.dataoffset = static_cast<std::uint32_t>(table.dataSize);
    Link(table, node, before);
    table.dataSize += GetRegBuffLen(&key);
    if (table.dataSize > std::numeric_limits<std::int32_t>::max()) {
        throw Error("the values of the port's ranges take more than 2147483647 bytes");
    }
}

Bytes MapOf(PreparedTable& table, IndexItem& group)
{
    Bytes map;
    group.mapcount = 0;
    for (std::uint32_t at = group.first; at != 0 && IndexMatches(group, table.At(at).key); at = table.At(at).next) {
        PutRecord(map, map.size(), MapEntryOf(table.At(at).key, at));
        ++group.mapcount;
    }
    return map;
}

Snapshot FilesOf(PreparedTable& table)
{
    Snapshot files;
    files.dataSize = table.dataSize;
    PutRecord(files.org.bytes, 0, table.header);
    for (const OrgNode& node : table.nodes) PutRecord(files.org.bytes, files.org.bytes.size(), node);
    for (IndexItem& group : table.index) {
        char name[MapNameBytes];
        Bytes map = MapOf(table, group);
        if (MapFileName(group, name, sizeof name)) files.maps[name] = std::move(map);
        PutRecord(files.index, files.index.size(), group);
    }
    return files;
}

}  // namespace

Prepared PrepareDatabase(const Project& project, std::size_t index, const Stamp& stamp, const Told& told)
{
    if (index >= project.ports.size()) {
        throw Error("there is no port " + std::to_string(index) + ": the project has " +
                    std::to_string(project.ports.size()) + ", the first is 0");
    }
    Prepared prepared;
    PreparedTable table;
    std::size_t done = 0;
    for (const RegKey& key : project.registers) {
        if (told) told(done++, project.registers.size());
        if (key.portno != project.ports[index].portNo || key.convpara >> 16 != 0) continue;
        if (GetRegBuffLen(&key) > MaxRegionBytes) {
            prepared.refused.push_back(key);
        } else {
            Register(table, key, stamp);
        }
    }
    prepared.files = FilesOf(table);
    return prepared;
}

}  // namespace voq
