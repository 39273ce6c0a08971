// Copies and walks the register database's files. One lock at a time; may wait for the service.
#include "client/database.h"

#include <cstring>
#include <unordered_set>

#include "client/locked_file.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace voq
{

namespace
{

template <typename Record>
std::vector<Record> ParseRecords(const Bytes& bytes)
{
    std::vector<Record> records(bytes.size() / sizeof(Record));
    if (!records.empty()) std::memcpy(records.data(), bytes.data(), records.size() * sizeof(Record));
    return records;
}

std::optional<IndexItem> FindIndexItem(const PortDir& port, const RegKey& key)
{
    const auto bytes = ReadLocked(port.Index());
    if (!bytes) return std::nullopt;
    for (const IndexItem& item : ParseIndex(*bytes)) {
        if (IndexMatches(item, key)) return item;
    }
    return std::nullopt;
}

std::optional<OrgNode> ReadRecord(const PortDir& port, std::uint32_t offset)
{
    const auto bytes = ReadLockedRange(port.Org(), offset, sizeof(OrgNode));
    if (!bytes || offset < OrgFirstRecord) return std::nullopt;
    return RecordAt<OrgNode>(*bytes, 0);
}

std::uint32_t FindInMap(const PortDir& port, const IndexItem& item, const RegKey& key)
{
    const auto bytes = ReadLocked(port.Map(item));
    if (!bytes) return 0;
    for (const MapItem& entry : ParseMap(*bytes)) {
        if (entry.addr != key.addr || entry.width != key.width) continue;
        const auto node = ReadRecord(port, entry.offset);
        if (node && SameRange(node->key, key)) return entry.offset;
    }
    return 0;
}

std::uint32_t FindInGroup(const PortDir& port, const IndexItem& item, const RegKey& key)
{
    const auto bytes = ReadLocked(port.Org());
    if (!bytes) return 0;
    const OrgImage org{*bytes};
    std::uint32_t offset = item.first;
    for (std::uint32_t step = 0; step < org.RecordsInFile() && offset != 0; ++step) {
        const auto node = org.Record(offset);
        if (!node || !SameGroup(node->key, key)) return 0;
        if (SameRange(node->key, key)) return offset;
        offset = node->next;
    }
    return 0;
}

}  // namespace

std::optional<OrgNode> OrgImage::Record(std::uint32_t offset) const
{
    if (!OrgOffsetValid(offset, bytes.size())) return std::nullopt;
    return RecordAt<OrgNode>(bytes, offset);
}

std::uint32_t OrgImage::RecordsInFile() const
{
    return OrgRecordsIn(bytes.size());
}

Chain WalkChain(const OrgImage& org)
{
    Chain chain;
    std::unordered_set<std::uint32_t> seen;
    std::uint32_t link = HeadLink;
    std::uint32_t offset = org.Header().head;
    // At most one step a record of the file: a record met again ends the walk.
    while (offset != 0) {
        const auto node = org.Record(offset);
        if (!node) {
            chain.badLink = link;
            break;
        }
        if (!seen.insert(offset).second) {
            chain.badLink = link;
            chain.cycle = true;
            break;
        }
        chain.records.push_back({offset, *node});
        link = offset + static_cast<std::uint32_t>(offsetof(OrgNode, next));
        offset = node->next;
    }
    return chain;
}

std::vector<IndexItem> ParseIndex(const Bytes& bytes)
{
    return ParseRecords<IndexItem>(bytes);
}
std::vector<MapItem> ParseMap(const Bytes& bytes)
{
    return ParseRecords<MapItem>(bytes);
}

std::uint32_t FindRange(const PortDir& port, const RegKey& key)
{
    const auto item = FindIndexItem(port, key);
    if (!item) return 0;
    const std::uint32_t offset = FindInMap(port, *item, key);
    return offset != 0 ? offset : FindInGroup(port, *item, key);
}

std::optional<Reading> ReadRange(const PortDir& port, const RegKey& key, std::uint32_t offset)
{
    const std::size_t length = GetRegBuffLen(&key);
    auto node = ReadRecord(port, offset);
    // The record and the value lie in two files and the service may refresh both in between. A record that still reads
    // the same behind the value belongs to it; a record refreshed faster than that is taken as it is at the end.
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (!node || !SameRange(node->key, key)) return std::nullopt;
        auto value = ReadLockedRange(port.Data(), node->dataoffset, length);
        if (!value || value->size() != length) return std::nullopt;
        const auto again = ReadRecord(port, offset);
        if (again && (std::memcmp(&*again, &*node, sizeof(OrgNode)) == 0 || attempt == 4)) {
            return Reading{*again, std::move(*value)};
        }
        node = again;
    }
    return std::nullopt;
}

std::string StateName(std::uint8_t state)
{
    switch (state) {
        case 0:
            return "never read";
        case PLC_SUCCESS:
            return "ok";
        case PLC_TIMEOUT:
            return "time-out";
        case PLC_ERROR:
            return "error";
        default:
            return "code " + std::to_string(state);
    }
}

}  // namespace voq
