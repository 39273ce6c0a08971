// What the register database holds, read whole at start-up and judged in memory: the records, the chain, the groups,
// the value regions and the index, each corrected to what the forward chain says. Main thread, before any other thread
// exists: the only place of this layer that allocates. Writes nothing.
#pragma once

#include <cstdint>
#include <vector>

#include "database/database_lock.h"
#include "voq/index_record.h"
#include "voq/org_record.h"

// A group of ranges: one run of the chain.
struct OrgGroup {
    RegKey key;
    std::uint32_t first;    // offset of its first record
    std::uint32_t chained;  // number of that record in the chain, from 0
    std::uint32_t length;   // records
};

// In what the survey differs from the files, for the mending and its message.
struct OrgMends {
    bool header;
    bool links;
    bool cutRecord;
    bool regions;
    bool index;
    bool maps;
    [[nodiscard]] bool Any() const { return header || links || cutRecord || regions || index || maps; }
};

struct OrgSurvey {
    bool empty = false;           // the org file has no whole header; nothing else is set
    bool unreadable = false;      // a file cannot be opened or read; nothing can be said
    const char* fault = nullptr;  // what cannot be mended, in a few words
    std::uint32_t faultOffset = 0;
    OrgMends mends{};

    OrgHeader header{};                    // as the chain says
    std::vector<OrgNode> records;          // in file order; the links of chained records as the chain says
    std::vector<bool> changed;             // records that differ from the file
    std::vector<std::uint32_t> chain;      // offsets in chain order
    std::vector<OrgGroup> groups;          // in chain order
    std::vector<IndexItem> index;          // empty when the index file is to be empty
    std::vector<std::uint32_t> staleMaps;  // numbers of the index entries whose map and mapcount are to be made anew
    std::uint32_t wholeBytes = 0;          // length of the org file up to its last whole record
    std::uint32_t regionsEnd = 0;          // length that the data file needs
};

// What to do about maps that do not list what they should.
enum class MapCare {
    Judge,  // note the stale ones
    Leave,  // a set that was handed over keeps its maps and mapcounts
};

// Reads and judges the database. Stops at the first fault.
OrgSurvey SurveyDatabase(MapCare care) VOQ_REQUIRES(DatabaseLock);
