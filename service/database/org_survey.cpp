// Start-up reading and judging of the register database; main thread, writes nothing.
//
// Writes of the service go from the new record, which is on the disk before anything names it, towards the header and
// the index. So an operation cut short leaves a chain of whole records, with or without the new one, and around it a
// header, a link to or from the new record, an index entry or a map that lags. The first record of all follows its
// header and may be missing alone. Only such differences are corrected. Whole records outside the chain are what an
// undone insertion leaves: sound.
#include "database/org_survey.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "arch/fs.h"
#include "arch/work_file.h"
#include "state/paths.h"

namespace
{
// Bound of what start-up holds in memory: an org file of 14 MB, and an index entry for each of its records.
constexpr std::uint32_t MostCheckedRecords = 0x40000;

using GroupOrder = std::vector<std::pair<std::uint64_t, std::uint32_t>>;  // group number by group identity

bool Fault(OrgSurvey& survey, const char* what, std::uint32_t offset)
{
    survey.fault = what;
    survey.faultOffset = offset;
    return false;
}

// What a file holds that a power cut left longer than what was written to it.
template <typename Record>
bool AllZero(const Record& record)
{
    static constexpr Record Zero{};
    return std::memcmp(&record, &Zero, sizeof record) == 0;
}

// A record always has a time and a width.
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

// The first record of all follows its header: a power cut may take the record alone.
bool FirstRecordLost(const OrgSurvey& survey)
{
    const OrgHeader& header = survey.header;
    if (header.count != 1 || header.head != OrgFirstRecord || header.tail != OrgFirstRecord) return false;
    return survey.records.empty() || NeverWritten(survey.records[0]);
}

// What an append left when a power cut took the link to its record, but not the header behind it.
bool LinkToTailLost(const OrgSurvey& survey, const std::vector<bool>& seen, std::uint32_t end)
{
    const std::uint32_t tail = survey.header.tail;
    if (!OrgOffsetValid(tail, survey.wholeBytes) || seen[OrgRecordNumber(tail)]) return false;
    const OrgNode& record = survey.records[OrgRecordNumber(tail)];
    return record.prev == end && record.next == 0;
}

// Follows the chain from the head and sets the back links by it.
bool FollowChain(OrgSurvey& survey)
{
    std::vector<bool> seen(survey.records.size());
    std::uint32_t prev = 0;
    if (FirstRecordLost(survey)) {
        survey.header = {};
        survey.mends.header = true;
    }
    for (std::uint32_t offset = survey.header.head; offset != 0;) {
        if (!OrgOffsetValid(offset, survey.wholeBytes)) return Fault(survey, "a link to no record", offset);
        const std::uint32_t number = OrgRecordNumber(offset);
        if (seen[number]) return Fault(survey, "a link back into the chain", offset);
        seen[number] = true;
        OrgNode& record = survey.records[number];
        if (record.prev != prev) {
            record.prev = prev;
            survey.changed[number] = survey.mends.links = true;
        }
        if (NeverWritten(record)) return Fault(survey, "a record that was never written", offset);
        survey.chain.push_back(offset);
        if (record.next == 0 && LinkToTailLost(survey, seen, offset)) {
            record.next = survey.header.tail;
            survey.changed[number] = survey.mends.links = true;
        }
        prev = offset;
        offset = record.next;
    }
    if (survey.chain.empty() && !survey.records.empty() && !survey.index.empty()) {
        return Fault(survey, "an index, but no chain", 0);
    }
    const std::uint32_t tail = survey.header.tail;
    if (survey.header.count > survey.chain.size() && OrgOffsetValid(tail, survey.wholeBytes) &&
        !seen[OrgRecordNumber(tail)]) {
        return Fault(survey, "a chain that ends before its tail", prev);
    }
    return true;
}

// Cuts the chain into groups: each one run, ascending.
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

// No two regions share a byte, and all of them lie where regions can lie.
bool CheckRegions(OrgSurvey& survey)
{
    WorkFile file;
    if (!FileExists(DataFileName)) return true;
    if (!file.OpenRO(DataFileName)) return Unreadable(survey);
    const std::uint64_t have = file.Size();
    if (have == UINT32_MAX) return Unreadable(survey);
    const std::uint64_t most = std::min<std::uint64_t>(
        INT32_MAX, std::max<std::uint64_t>(have, std::uint64_t{survey.records.size()} * MaxRegionBytes));
    std::vector<std::pair<std::uint32_t, std::uint32_t>> regions;  // where it lies, whose it is
    std::uint64_t need = have;
    for (const std::uint32_t offset : survey.chain) {
        OrgNode& record = survey.records[OrgRecordNumber(offset)];
        const std::uint32_t size = GetRegBuffLen(&record.key);
        const std::uint64_t end = std::uint64_t{record.dataoffset} + size;
        if (size == 0) continue;
        if (size > MaxRegionBytes || end > most) return Fault(survey, "a region outside the data file", offset);
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

// A map that lists what its group holds. One that is not there is as it was handed over.
bool MapWhole(const OrgSurvey& survey, const IndexItem& item, const OrgGroup& group)
{
    char name[MapNameBytes];
    char path[PathBytes + MapNameBytes];
    if (item.mapcount != group.length || !MapFileName(item, name, sizeof name)) return false;
    std::snprintf(path, sizeof path, "%s%s", DataDir, name);
    if (!FileExists(path)) return true;
    WorkFile file;
    std::vector<MapItem> map(group.length);
    const auto size = static_cast<std::uint32_t>(group.length * sizeof(MapItem));
    if (!file.OpenRO(path) || file.Size() != size || !file.ReadAt(0, map.data(), size)) return false;
    for (std::uint32_t i = 0; i < group.length; ++i) {
        const std::uint32_t offset = survey.chain[group.chained + i];
        if (map[i] != MapEntryOf(survey.records[OrgRecordNumber(offset)].key, offset)) return false;
    }
    return true;
}

// Sets the index entries by the groups. An empty index stays so, the next log-on starts the table over; not one whose
// entries are all zeros, nor where there is one record: that is the first, whose entry was still to be written.
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
    std::vector<IndexItem> index;
    for (std::size_t i = 0; i < survey.index.size(); ++i) {
        IndexItem item = survey.index[i];
        const OrgGroup* group = FindGroup(survey, order, GroupNumber(item));
        if (group == nullptr) {
            return Fault(survey, "an index entry of no group", static_cast<std::uint32_t>(i * sizeof(IndexItem)));
        }
        const auto number = static_cast<std::size_t>(group - survey.groups.data());
        // No lookup gets as far as a group's second entry: it is another group's, damaged.
        if (item.first != group->first || indexed[number]) survey.mends.index = true;
        if (indexed[number]) continue;
        indexed[number] = true;
        item.first = group->first;
        if (!MapWhole(survey, item, *group)) survey.mends.maps = true;
        index.push_back(item);
    }
    survey.index = std::move(index);
    for (std::size_t i = 0; i < survey.groups.size(); ++i) {
        if (indexed[i]) continue;
        survey.index.push_back(IndexEntryOf(survey.groups[i].key, survey.groups[i].first));
        survey.mends.index = survey.mends.maps = true;
    }
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

OrgSurvey SurveyDatabase()
{
    OrgSurvey survey;
    GroupOrder order;
    if (ReadOrg(survey) && ReadIndex(survey) && FollowChain(survey) && FindGroups(survey, order) &&
        CheckRegions(survey) && CheckIndex(survey, order)) {
        CheckHeader(survey);
    }
    return survey;
}
