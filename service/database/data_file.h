// The data file: the value regions of all ranges, one after another, in order of creation. No header.
// Any thread; the register database lock is held. May wait for a client's file lock and for the disk.
#pragma once

#include <cstdint>

#include "database/database_lock.h"
#include "voq/org_record.h"

inline constexpr std::int32_t NoRegion = -1;

// Appends `size` bytes (at most MaxRegionBytes) and forces them to disk. Returns the offset at which they begin, or
// NoRegion when the file cannot be opened or written; the file is then as it was.
std::int32_t AddDataToFile(const void* buffer, std::uint32_t size) VOQ_REQUIRES(DatabaseLock);

enum class Copied {
    Stored,
    Outside,  // not wholly inside the source: the copy is not made
    Failed,   // the file could not be opened or written; after a message. Part of the value may have been stored
};

// Stores the record's part of a source block in its region: width elements from `source` + (record's addr - source's
// addr) x bytes per address unit. `length`: bytes at `source`.
[[nodiscard]] Copied Copy2DataFile(const OrgNode& node, const RegKey& sourceKey, const void* source,
                                   std::uint32_t length) VOQ_REQUIRES(DatabaseLock);
