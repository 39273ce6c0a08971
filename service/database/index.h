// The index file: one entry per group.
// Any thread; the register database lock is held, or taken by GetOrgOffset and InitIndexMap.
#pragma once

#include <cstdint>
#include <span>

#include "database/database_lock.h"
#include "voq/index_record.h"
#include "voq/reg_key.h"

// Looks up the key's group. Returns 0 with `first` = offset of the group's first record, OrgNone when the group is not
// indexed, 0 when the index holds no entry; -1 when the index cannot be opened (`first` untouched).
[[nodiscard]] int FindIndex(const RegKey* key, std::uint32_t* first) VOQ_REQUIRES(DatabaseLock);

// Rewrites the first-record offset of the group's entry. 0, or -1 when there is none or the file cannot be opened.
int UpdateIndex(const RegKey* key, std::uint32_t first) VOQ_REQUIRES(DatabaseLock);

// Appends an entry for a group that has none. Returns false when it could not be written.
bool AddIndexItem(const RegKey* key, std::uint32_t first) VOQ_REQUIRES(DatabaseLock);

// Cuts the last entry off again, when the record it was to name could not be made.
void DropLastIndexItem() VOQ_REQUIRES(DatabaseLock);

// Org file offset of the range's record; 0 when the group is not indexed or the range is missing from it, OrgNone on a
// file error, a damaged chain, or when the chain ends first.
std::uint32_t GetOrgOffset(RegKey key) VOQ_EXCLUDES(DatabaseLock);

// Rewrites the map file of the key's group and the mapcount of its entry. 1 when the entry was found, else 0.
int FindIndexAndRefresh(const RegKey* key) VOQ_REQUIRES(DatabaseLock);

// Rewrites the maps and mapcounts of the entries with these numbers; start-up. False after messages when one could not
// be written; its mapcount is as it was.
[[nodiscard]] bool RefreshIndexMaps(std::span<const std::uint32_t> entries) VOQ_REQUIRES(DatabaseLock);

// Rewrites every map file and every mapcount; start-up.
void InitIndexMap() VOQ_EXCLUDES(DatabaseLock);
