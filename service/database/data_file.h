// The data file: the value regions of all ranges, one after another, in order of creation. No header.
// Any thread; the register database lock is held. May wait for a client's file lock and for the disk.
#pragma once

#include <cstdint>

#include "arch/work_file.h"
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

// The data file for the values of one operation, opened with the first of them.
class ValueWriter
{
public:
    // As Copy2DataFile. Bytes that the region holds already are not written.
    [[nodiscard]] Copied Copy(const OrgNode& node, const RegKey& sourceKey, const void* source, std::uint32_t length)
        VOQ_REQUIRES(DatabaseLock);

    // Forces the values to the disk, when any of them changed the file. The operation's last step but the org file's.
    void SyncChanges() const;

private:
    WorkFile file_;
    bool changed_ = false;
};

// Stores the record's part of a source block in its region: width elements from `source` + (record's addr - source's
// addr) x bytes per address unit. `length`: bytes at `source`.
[[nodiscard]] Copied Copy2DataFile(const OrgNode& node, const RegKey& sourceKey, const void* source,
                                   std::uint32_t length) VOQ_REQUIRES(DatabaseLock);
