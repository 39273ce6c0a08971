// Start-up reading and judging of the register database; main thread, writes nothing.
//
// The service writes a new record, which is on the disk before a link names it, then the links, the header and the
// index entry. An operation cut short therefore leaves a chain of whole records, with or without the new one; a header,
// a link to or from the new record, an index entry or a map may be as they were before the operation. The first record
// of all is written after its header, so that record alone may be missing. Only these differences are corrected. Whole
// records outside the chain are left by insertions that were undone, and are sound.
#include "database/survey.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "arch/fs.h"
#include "arch/work_file.h"
#include "database/index_map.h"
#include "state/paths.h"

namespace
{
// Bound of what start-up holds in memory: an org file of 14 MB, and an index entry for each of its records.
constexpr std::uint32_t MostCheckedRecords = 0x40000;

// The groups sorted by GroupNumber: that number, and the group's place in the survey.
using GroupOrder = std::vector<std::pair<std::uint64_t, std::uint32_t>>;

bool Fault(OrgSurvey& survey, const char* what, std::uint32_t offset)
{
    survey.fault = what;
    survey.faultOffset = offset;
    return false;
}

// True for a record of zeros: a power cut can leave a file longer than what was written to it, filled with zeros.
template <typename Record>
bool AllZero(const Record& record)
{
    static constexpr Record Zero{};
    return std::memcmp(&record, &Zero, sizeof record) == 0;
}

// True when at most the links of the record were written: each record has a time and a width otherwise.
bool NeverWritten(OrgNode record)
{
    record.prev = record.next = 0;
    return AllZero(record);
}

bool Unreadable(OrgSurvey& survey)
{
    survey.unreadable = true;
    return false;
}

bool ReadOrg(OrgSurvey& survey)
{
    WorkFile file;
    if (!file.OpenRO(OrgFileName)) return Unreadable(survey);
    const std::uint32_t size = file.Size();
    survey.empty = size < OrgFirstRecord;
    if (survey.empty) return false;
    if (size == UINT32_MAX || !file.ReadRecord(0, survey.header)) return Unreadable(survey);
    const std::uint32_t count = OrgRecordsIn(size);
    if (count > MostCheckedRecords) return Fault(survey, "more records than are ever kept", size);
    survey.records.resize(count);
    survey.changed.resize(count);
    survey.wholeBytes = OrgRecordOffset(count);
    survey.mends.cutRecord = survey.wholeBytes != size;
    if (count > 0 && !file.ReadAt(OrgFirstRecord, survey.records.data(), count * sizeof(OrgNode))) {
        return Unreadable(survey);
    }
    return true;
}

bool ReadIndex(OrgSurvey& survey)
{
    WorkFile file;
    if (!FileExists(IndexFileName)) return true;
    if (!file.OpenRO(IndexFileName)) return Unreadable(survey);
    const std::uint32_t size = file.Size();
    if (size == UINT32_MAX) return Unreadable(survey);
    const std::uint32_t count = size / sizeof(IndexItem);
    if (count > MostCheckedRecords) return Fault(survey, "more index entries than are ever kept", size);
    survey.index.resize(count);
    if (count > 0 && !file.ReadAt(0, survey.index.data(), count * sizeof(IndexItem))) {
        return Unreadable(survey);
    }
    return true;
}

// True when a power cut took the first record of all, which is written after its header.
bool FirstRecordLost(const OrgSurvey& survey)
{
    const OrgHeader& header = survey.header;
    if (header.count != 1 || header.head != OrgFirstRecord || header.tail != OrgFirstRecord) return false;
    return survey.records.empty() || NeverWritten(survey.records[0]);
}

// True when the header's tail is a record that the chain has not led to.
bool TailUnseen(const OrgSurvey& survey, const std::vector<bool>& seen)
{
    const std::uint32_t tail = survey.header.tail;
    return OrgOffsetValid(tail, survey.wholeBytes) && !seen[OrgRecordNumber(tail)];
}

// True when a power cut took the link from the chain's end to an appended record, but not the header behind that link.
bool LinkToTailLost(const OrgSurvey& survey, const std::vector<bool>& seen, std::uint32_t end)
{
    if (!TailUnseen(survey, seen)) return false;
    const OrgNode& record = survey.records[OrgRecordNumber(survey.header.tail)];
    return record.prev == end && record.next == 0;
}

void SetLink(OrgSurvey& survey, std::uint32_t offset, std::uint32_t OrgNode::*link, std::uint32_t to)
{
    const std::uint32_t number = OrgRecordNumber(offset);
    if (survey.records[number].*link == to) return;
    survey.records[number].*link = to;
    survey.changed[number] = survey.mends.links = true;
}

// Puts the record at `offset` behind the last one of the chain, and mends the links between these two and to a lost
// tail.
bool AddToChain(OrgSurvey& survey, std::vector<bool>& seen, std::uint32_t offset)
{
    if (!OrgOffsetValid(offset, survey.wholeBytes)) return Fault(survey, "a link to no record", offset);
    const std::uint32_t number = OrgRecordNumber(offset);
    if (seen[number]) return Fault(survey, "a link back into the chain", offset);
    if (NeverWritten(survey.records[number])) return Fault(survey, "a record that was never written", offset);
    seen[number] = true;
    SetLink(survey, offset, &OrgNode::prev, survey.chain.empty() ? 0 : survey.chain.back());
    survey.chain.push_back(offset);
    if (survey.records[number].next == 0 && LinkToTailLost(survey, seen, offset)) {
        SetLink(survey, offset, &OrgNode::next, survey.header.tail);
    }
    return true;
}

// Follows the chain from the head to its end.
bool FollowChain(OrgSurvey& survey)
{
    if (FirstRecordLost(survey)) {
        survey.header = {};
        survey.mends.header = true;
    }
    std::vector<bool> seen(survey.records.size());
    for (std::uint32_t offset = survey.header.head; offset != 0;) {
        if (!AddToChain(survey, seen, offset)) return false;
        offset = survey.records[OrgRecordNumber(offset)].next;
    }
    if (survey.chain.empty() && !survey.records.empty() && !survey.index.empty()) {
        return Fault(survey, "an index, but no chain", 0);
    }
    if (survey.header.count > survey.chain.size() && TailUnseen(survey, seen)) {
        return Fault(survey, "a chain that ends before its tail", survey.chain.empty() ? 0 : survey.chain.back());
    }
    return true;
}

// Cuts the chain into groups. Each group must be one run of it, in ascending order.
bool FindGroups(OrgSurvey& survey, GroupOrder& order)
{
    const OrgNode* last = nullptr;
    for (std::uint32_t chained = 0; chained < survey.chain.size(); ++chained) {
        const std::uint32_t offset = survey.chain[chained];
        const OrgNode& record = survey.records[OrgRecordNumber(offset)];
        if (last == nullptr || !SameGroup(last->key, record.key)) {
            order.emplace_back(GroupNumber(record.key), static_cast<std::uint32_t>(survey.groups.size()));
            survey.groups.push_back({record.key, offset, chained, 0});
        } else if (NodeCompare(last->key, record.key) != 1) {
            return Fault(survey, "a record out of order", offset);
        }
        ++survey.groups.back().length;
        last = &record;
    }
    std::sort(order.begin(), order.end());
    const auto twice =
        std::adjacent_find(order.begin(), order.end(), [](const auto& a, const auto& b) { return a.first == b.first; });
    return twice == order.end() || Fault(survey, "a group in two runs", survey.groups[(twice + 1)->second].first);
}

const OrgGroup* FindGroup(const OrgSurvey& survey, const GroupOrder& order, std::uint64_t identity)
{
    const auto at = std::lower_bound(order.begin(), order.end(), std::pair{identity, std::uint32_t{0}});
    return at != order.end() && at->first == identity ? &survey.groups[at->second] : nullptr;
}

// Checks that no two regions share a byte, and that each lies where a region can lie. A record whose region is larger
// than any can be is passed over, as polling does.
bool CheckRegions(OrgSurvey& survey)
{
    WorkFile file;
    if (!FileExists(DataFileName)) return true;
    if (!file.OpenRO(DataFileName)) return Unreadable(survey);
    const std::uint64_t have = file.Size();
    if (have == UINT32_MAX) return Unreadable(survey);
    const std::uint64_t most = std::min<std::uint64_t>(
        INT32_MAX, std::max<std::uint64_t>(have, std::uint64_t{survey.records.size()} * MaxRegionBytes));
    std::vector<std::pair<std::uint32_t, std::uint32_t>> regions;  // offset of a region, and of its record
    std::uint64_t need = have;
    for (const std::uint32_t offset : survey.chain) {
        OrgNode& record = survey.records[OrgRecordNumber(offset)];
        const std::uint32_t size = GetRegBuffLen(&record.key);
        const std::uint64_t end = std::uint64_t{record.dataoffset} + size;
        if (size == 0 || size > MaxRegionBytes) continue;
        if (end > most) return Fault(survey, "a region outside the data file", offset);
        regions.emplace_back(record.dataoffset, offset);
        if (end > have && record.state != 0) {
            record.state = 0;
            survey.changed[OrgRecordNumber(offset)] = true;
        }
        need = std::max(need, end);
    }
    survey.regionsEnd = static_cast<std::uint32_t>(need);
    survey.mends.regions = need > have;
    std::sort(regions.begin(), regions.end());
    for (std::size_t i = 1; i < regions.size(); ++i) {
        const OrgNode& before = survey.records[OrgRecordNumber(regions[i - 1].second)];
        if (std::uint64_t{before.dataoffset} + GetRegBuffLen(&before.key) > regions[i].first) {
            return Fault(survey, "a region inside another", regions[i].second);
        }
    }
    return true;
}

// True when the map file lists records of its group in chain order, in whole entries, as many as mapcount says. It need
// not list all: a log-off that made a record left the map as it was. A missing file is no fault.
bool MapSound(const OrgSurvey& survey, const IndexItem& item, const OrgGroup& group)
{
    const MapPath path(item);
    if (!path.Fits() || !FileExists(path.Text())) return true;
    if (item.mapcount > group.length) return false;
    WorkFile file;
    std::vector<MapItem> map(item.mapcount);
    const auto size = static_cast<std::uint32_t>(map.size() * sizeof(MapItem));
    if (!file.OpenRO(path.Text()) || file.Size() != size || !file.ReadAt(0, map.data(), size)) return false;
    auto entry = map.begin();
    for (std::uint32_t i = 0; i < group.length && entry != map.end(); ++i) {
        const std::uint32_t offset = survey.chain[group.chained + i];
        if (*entry == MapEntryOf(survey.records[OrgRecordNumber(offset)].key, offset)) ++entry;
    }
    return entry == map.end();
}

// Sets the entries that are there by the groups: each names its group's first record, and a group has one entry. Marks
// the groups that have one in `indexed`.
bool CheckEntries(OrgSurvey& survey, const GroupOrder& order, std::vector<bool>& indexed)
{
    std::vector<IndexItem> kept;
    for (std::size_t i = 0; i < survey.index.size(); ++i) {
        IndexItem item = survey.index[i];
        const OrgGroup* group = FindGroup(survey, order, GroupNumber(item));
        if (group == nullptr) {
            return Fault(survey, "an index entry of no group", static_cast<std::uint32_t>(i * sizeof(IndexItem)));
        }
        const auto number = static_cast<std::size_t>(group - survey.groups.data());
        if (item.first != group->first || indexed[number]) survey.mends.index = true;
        // No lookup gets as far as a group's second entry, so none made it: it is a damaged entry of another group.
        if (indexed[number]) continue;
        indexed[number] = true;
        item.first = group->first;
        kept.push_back(item);
    }
    survey.index = std::move(kept);
    return true;
}

void AddMissingEntries(OrgSurvey& survey, const std::vector<bool>& indexed)
{
    for (std::size_t i = 0; i < survey.groups.size(); ++i) {
        if (indexed[i]) continue;
        survey.index.push_back(IndexEntryOf(survey.groups[i].key, survey.groups[i].first));
        survey.mends.index = true;
    }
}

// Notes the entries whose maps are not sound.
void CheckMaps(OrgSurvey& survey, const GroupOrder& order)
{
    for (std::uint32_t i = 0; i < survey.index.size(); ++i) {
        const OrgGroup* group = FindGroup(survey, order, GroupNumber(survey.index[i]));
        if (group != nullptr && !MapSound(survey, survey.index[i], *group)) survey.staleMaps.push_back(i);
    }
    survey.mends.maps = !survey.staleMaps.empty();
}

// Sets the index entries by the groups. An empty index stays empty, and the next log-on starts the table over, but for
// two cases: its entries were all zeros, or there is one record only, the first of all, whose entry was still to be
// written.
bool CheckIndex(OrgSurvey& survey, const GroupOrder& order)
{
    if (std::erase_if(survey.index, AllZero<IndexItem>) > 0) survey.mends.index = true;
    if (survey.index.empty() && !survey.mends.index && survey.chain.size() != 1) return true;
    if (survey.chain.empty()) {
        survey.index.clear();
        survey.mends.index = true;
        return true;
    }
    std::vector<bool> indexed(survey.groups.size());
    if (!CheckEntries(survey, order, indexed)) return false;
    AddMissingEntries(survey, indexed);
    return true;
}

void CheckHeader(OrgSurvey& survey)
{
    OrgHeader right{};
    if (!survey.chain.empty()) {
        right = {static_cast<std::uint32_t>(survey.chain.size()), survey.chain.front(), survey.chain.back()};
    }
    const OrgHeader& header = survey.header;
    survey.mends.header |= header.count != right.count || header.head != right.head || header.tail != right.tail;
    survey.header = right;
}
}  // namespace

OrgSurvey SurveyDatabase(MapCare care)
{
    OrgSurvey survey;
    GroupOrder order;
    if (ReadOrg(survey) && ReadIndex(survey) && FollowChain(survey) && FindGroups(survey, order) &&
        CheckRegions(survey) && CheckIndex(survey, order)) {
        CheckHeader(survey);
        if (care == MapCare::Judge) CheckMaps(survey, order);
    }
    return survey;
}
