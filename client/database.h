// The register database as a client sees it: copies of the org, index and map files, and the way from a range to its
// value. Every walk is bounded by the size of the copied file, whatever its links say.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/bytes.h"
#include "client/port_dir.h"
#include "voq/index_record.h"
#include "voq/org_record.h"

namespace voq
{

// A copy of an org file.
struct OrgImage {
    Bytes bytes;

    // Zeros when the file is shorter than its header.
    OrgHeader Header() const { return RecordAt<OrgHeader>(bytes, 0).value_or(OrgHeader{}); }
    // Nothing when no whole record lies at the offset.
    std::optional<OrgNode> Record(std::uint32_t offset) const;
    std::uint32_t RecordsInFile() const;
};

struct OrgRecord {
    std::uint32_t offset;
    OrgNode node;
};

// The records from `first` along `next`. Ends at a link of 0, at a link that names no record (then `badLink` is where
// that link lies), or at a record already passed (`cycle`).
struct Chain {
    std::vector<OrgRecord> records;
    std::optional<std::uint32_t> badLink;
    bool cycle = false;
};
inline constexpr std::uint32_t HeadLink = offsetof(OrgHeader, head);
Chain WalkChain(const OrgImage& org);

// Whole entries only; a remainder is ignored.
std::vector<IndexItem> ParseIndex(const Bytes& bytes);
std::vector<MapItem> ParseMap(const Bytes& bytes);

// Org file offset of the range's record: through the index and the group's map file, or along the group when the map
// does not list the range yet. 0 when the range has no record.
std::uint32_t FindRange(const PortDir& port, const RegKey& key);

// A range's record and value, read so that the two belong together.
struct Reading {
    OrgNode node;
    Bytes value;
};

// Nothing when there is no record of this range at the offset, or its region is not in the data file.
std::optional<Reading> ReadRange(const PortDir& port, const RegKey& key, std::uint32_t offset);

// "never read", "ok", "time-out", "error", or "code N".
std::string StateName(std::uint8_t state);

}  // namespace voq
