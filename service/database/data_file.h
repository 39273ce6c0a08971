// The data file: the value regions of all ranges, one after another, in order of creation. No header.
// Any thread; the register database lock is held. May wait for a client's file lock and for the disk.
#pragma once

#include <cstdint>
#include <span>

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

// The data file for the values of one operation, opened with the first of them. What the regions hold is read in
// blocks. Only what differs is written, a run of it in one call, over as many records as lie side by side; a run is
// written when it ends, so that a record stays where it is until Flush() has returned.
class ValueWriter
{
public:
    // Stores the value of a record, whose region is not above MaxRegionBytes. `source` begins with the value; behind it
    // lies what the operation may store next. A record whose value cannot be stored, now or when its run ends, gets
    // state PLC_ERROR after a message; part of the value may have been stored.
    void Store(OrgNode& record, std::span<const unsigned char> source) VOQ_REQUIRES(DatabaseLock);
    // Ends the last run.
    void Flush() VOQ_REQUIRES(DatabaseLock);

    // Forces the values to the disk, when any of them changed the file. The operation's last step but the org file's.
    void SyncChanges() const;

private:
    [[nodiscard]] bool Open();
    [[nodiscard]] bool InBlock(std::uint32_t at, std::uint32_t size) const;
    void DropBlock() { blockEnd_ = blockStart_; }
    void Load(std::uint32_t at, std::uint32_t size, std::size_t ahead) VOQ_REQUIRES(DatabaseLock);
    void StoreInBlock(OrgNode& record, const unsigned char* value, std::uint32_t size) VOQ_REQUIRES(DatabaseLock);
    [[nodiscard]] bool Write(std::uint32_t at, const unsigned char* bytes, std::uint32_t size);

    WorkFile file_;
    bool refused_ = false;  // could not be opened
    bool changed_ = false;
    std::uint32_t blockStart_ = 0, blockEnd_ = 0;  // of what the block holds of the file
    std::uint32_t regionEnd_ = 0;                  // of the value stored last
    std::uint32_t runStart_ = 0, runEnd_ = 0;      // of what differs and is not written yet, in the block
    OrgNode* runFirst_ = nullptr;                  // the records that it belongs to, in an array of the caller's
    OrgNode* runLast_ = nullptr;
};

// Stores the record's part of a source block in its region: width elements from `source` + (record's addr - source's
// addr) x bytes per address unit. `length`: bytes at `source`.
[[nodiscard]] Copied Copy2DataFile(const OrgNode& node, const RegKey& sourceKey, const void* source,
                                   std::uint32_t length) VOQ_REQUIRES(DatabaseLock);
