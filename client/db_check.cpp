// The register database's invariants: header, chain, groups, index, map files, value regions. Pure. Time and memory
// grow with the files' size only, whatever they hold.
#include "client/db_check.h"

#include <algorithm>
#include <unordered_map>

#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace voq
{

namespace
{

// A group's run in the chain.
struct Run {
    std::size_t first;  // index into the chain
    std::size_t count;
};

struct Checker {
    const Snapshot& files;
    Chain chain;
    std::unordered_map<std::uint64_t, Run> runs;
    std::unordered_map<std::uint32_t, std::size_t> place;  // record offset to its index in the chain
    std::vector<Finding> findings;
    std::size_t violations;

    void Bad(const std::string& file, std::uint64_t offset, const std::string& text)
    {
        if (violations++ < MaxFindings) findings.push_back({Severity::Violation, file, offset, text});
    }
    void Note(const std::string& file, std::uint64_t offset, const std::string& text)
    {
        if (findings.size() < MaxNotes) findings.push_back({Severity::Note, file, offset, text});
    }

    void CheckHeader();
    void CheckLinks();
    void CheckGroups();
    void CheckRegions();
    void CheckIndex();
    void CheckMap(const IndexItem& item, std::uint64_t entryOffset, const Run& run);
    void CheckMapEntries(const std::string& name, const std::vector<MapItem>& entries, const Run& run);
};

std::string Str(std::uint64_t value)
{
    return std::to_string(value);
}

std::string RangeText(const RegKey& key)
{
    return "addr " + Str(key.addr) + " width " + Str(key.width);
}

std::string GroupText(const IndexItem& item)
{
    return "station " + Str(item.plcno) + " area " + Str(item.regid) + " layout " + Str(item.layout) + " subaddr " +
           Str(item.subaddr) + " group bit " + Str(item.flagbit);
}

std::string GroupText(const RegKey& key)
{
    return GroupText(IndexEntryOf(key, 0));
}

void Checker::CheckHeader()
{
    const std::size_t size = files.org.bytes.size();
    if (size < sizeof(OrgHeader)) return Bad("org", 0, "shorter than its header: " + Str(size) + " bytes");
    const OrgHeader header = files.org.Header();
    const std::size_t rest = (size - sizeof(OrgHeader)) % sizeof(OrgNode);
    if (rest != 0) Bad("org", size - rest, "a record is cut off after " + Str(rest) + " bytes");
    if (header.count != chain.records.size()) {
        Bad("org", offsetof(OrgHeader, count),
            "count is " + Str(header.count) + ", the chain visits " + Str(chain.records.size()));
    }
    const std::uint32_t last = chain.records.empty() ? 0 : chain.records.back().offset;
    if (!chain.badLink && header.tail != last) {
        Bad("org", offsetof(OrgHeader, tail), "tail is " + Str(header.tail) + ", the chain ends at " + Str(last));
    } else if (header.tail != 0 && !files.org.Record(header.tail)) {
        Bad("org", offsetof(OrgHeader, tail), "tail " + Str(header.tail) + " is not on a record");
    }
}

void Checker::CheckLinks()
{
    if (chain.badLink) {
        const std::string link = Str(*RecordAt<std::uint32_t>(files.org.bytes, *chain.badLink));
        Bad("org", *chain.badLink,
            chain.cycle ? "the chain comes back to record " + link : "the link " + link + " is not on a record");
    }
    std::uint32_t previous = 0;
    for (std::size_t i = 0; i < chain.records.size(); ++i) {
        const auto& [offset, node] = chain.records[i];
        if (node.prev != previous) {
            Bad("org", offset + offsetof(OrgNode, prev),
                "prev is " + Str(node.prev) + ", the record before is " + Str(previous));
        }
        place.emplace(offset, i);
        previous = offset;
    }
    // An insertion that could not be finished leaves its record behind, and the bytes of its value.
    for (std::uint32_t i = 0; i < files.org.RecordsInFile(); ++i) {
        const std::uint32_t offset = OrgRecordOffset(i);
        if (!place.contains(offset)) Note("org", offset, "the record is not on the chain");
    }
}

void Checker::CheckGroups()
{
    for (std::size_t i = 0; i < chain.records.size(); ++i) {
        const auto& [offset, node] = chain.records[i];
        if (i == 0 || !SameGroup(chain.records[i - 1].node.key, node.key)) {
            if (!runs.emplace(GroupNumber(node.key), Run{i, 1}).second) {
                Bad("org", offset, "the group is not one run of the chain: " + GroupText(node.key));
            }
            continue;
        }
        ++runs[GroupNumber(node.key)].count;
        const RegKey& before = chain.records[i - 1].node.key;
        const int order = NodeCompare(before, node.key);
        if (order == 0) Bad("org", offset, "the range is there twice: " + RangeText(node.key));
        if (order == 2) {
            Bad("org", offset, RangeText(node.key) + " stands behind " + RangeText(before) + " in its group");
        }
    }
}

void Checker::CheckRegions()
{
    struct Region {
        std::uint64_t begin, end;
        std::uint32_t record;
    };
    std::vector<Region> regions;
    for (const auto& [offset, node] : chain.records) {
        const std::uint32_t size = GetRegBuffLen(&node.key);
        const std::uint64_t end = std::uint64_t{node.dataoffset} + size;
        const std::uint64_t field = offset + offsetof(OrgNode, dataoffset);
        if (size > MaxRegionBytes) {
            Note("org", offset,
                 "a region of " + Str(size) + " bytes, more than " + Str(MaxRegionBytes) + ": never read");
            continue;
        }
        if (end > files.dataSize) {
            Bad("org", field, "the region ends at " + Str(end) + ", the data file at " + Str(files.dataSize));
        }
        if (size == 0) Note("org", offset, "the range has no elements");
        if (node.state > RT_REFUSED_TIMEOUT) Note("org", offset + offsetof(OrgNode, state), "state " + Str(node.state));
        if (size != 0) regions.push_back({node.dataoffset, end, offset});
    }
    std::sort(regions.begin(), regions.end(), [](const Region& a, const Region& b) { return a.begin < b.begin; });
    std::uint64_t covered = 0;
    std::uint32_t owner = 0;
    for (const Region& region : regions) {
        if (region.begin < covered) {
            Bad("org", region.record + offsetof(OrgNode, dataoffset),
                "the region at " + Str(region.begin) + " overlaps that of record " + Str(owner));
        }
        if (region.end > covered) {
            covered = region.end;
            owner = region.record;
        }
    }
    if (covered < files.dataSize) Note("data", covered, Str(files.dataSize - covered) + " bytes belong to no record");
}

void Checker::CheckIndex()
{
    const std::size_t rest = files.index.size() % sizeof(IndexItem);
    if (rest != 0) Note("index", files.index.size() - rest, Str(rest) + " bytes behind the last entry are not read");
    const std::vector<IndexItem> items = ParseIndex(files.index);
    std::unordered_map<std::uint64_t, std::size_t> seen;
    for (std::size_t i = 0; i < items.size(); ++i) {
        const IndexItem& item = items[i];
        const std::uint64_t offset = i * sizeof(IndexItem);
        if (!seen.emplace(GroupNumber(item), i).second) {
            Bad("index", offset, "a second entry for the group: " + GroupText(item));
            continue;
        }
        const auto run = runs.find(GroupNumber(item));
        if (run == runs.end()) {
            Bad("index", offset, "no record is of the entry's group: " + GroupText(item));
            continue;
        }
        const std::uint32_t first = chain.records[run->second.first].offset;
        if (item.first != first) {
            Bad("index", offset + offsetof(IndexItem, first),
                "first is " + Str(item.first) + ", the group begins at " + Str(first));
        }
        CheckMap(item, offset, run->second);
    }
    for (const auto& [group, run] : runs) {
        const OrgRecord& record = chain.records[run.first];
        if (!seen.contains(group))
            Bad("org", record.offset, "the group is not in the index: " + GroupText(record.node.key));
    }
}

void Checker::CheckMap(const IndexItem& item, std::uint64_t entryOffset, const Run& run)
{
    char name[MapNameBytes];
    if (!MapFileName(item, name, sizeof name)) return;
    const std::uint64_t countOffset = entryOffset + offsetof(IndexItem, mapcount);
    const auto found = files.maps.find(name);
    if (found == files.maps.end() || !found->second) {
        if (item.mapcount != 0) {
            return Note("index", countOffset, "mapcount is " + Str(item.mapcount) + ", there is no file " + name);
        }
        return Note("index", countOffset, std::string("no map file ") + name + " yet");
    }
    const Bytes& bytes = *found->second;
    const std::vector<MapItem> entries = ParseMap(bytes);
    const std::size_t rest = bytes.size() % sizeof(MapItem);
    if (rest != 0) Bad(name, bytes.size() - rest, "an entry is cut off after " + Str(rest) + " bytes");
    if (item.mapcount != entries.size()) {
        Bad("index", countOffset, "mapcount is " + Str(item.mapcount) + ", the map file holds " + Str(entries.size()));
    }
    CheckMapEntries(name, entries, run);
    if (entries.size() < run.count) {
        Note(name, 0, "lists " + Str(entries.size()) + " of the group's " + Str(run.count) + " records");
    }
}

void Checker::CheckMapEntries(const std::string& name, const std::vector<MapItem>& entries, const Run& run)
{
    std::size_t next = run.first;  // the earliest place in the chain that the entry may name
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const MapItem& entry = entries[i];
        const std::uint64_t offset = i * sizeof(MapItem);
        const auto at = place.find(entry.offset);
        if (at == place.end() || at->second < run.first || at->second >= run.first + run.count) {
            Bad(name, offset, "offset " + Str(entry.offset) + " is no record of the group");
            continue;
        }
        const RegKey& key = chain.records[at->second].node.key;
        if (entry != MapEntryOf(key, entry.offset)) {
            Bad(name, offset, "does not name the range of record " + Str(entry.offset) + ": " + RangeText(key));
        }
        if (at->second < next) Bad(name, offset, "record " + Str(entry.offset) + " is not in chain order");
        next = at->second + 1;
    }
}

}  // namespace

std::vector<Finding> CheckSnapshot(const Snapshot& snapshot)
{
    Checker checker{snapshot, WalkChain(snapshot.org), {}, {}, {}, 0};
    checker.CheckHeader();
    if (snapshot.org.bytes.size() >= sizeof(OrgHeader)) {
        checker.CheckLinks();
        checker.CheckGroups();
        checker.CheckRegions();
        checker.CheckIndex();
    }
    return std::move(checker.findings);
}

bool HasViolation(const std::vector<Finding>& findings)
{
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Severity::Violation; });
}

}  // namespace voq
