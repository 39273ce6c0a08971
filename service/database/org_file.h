// The org file opened for one operation, and the bounded walk along its chain.
// Any thread; the register database lock is held from open to close, and one org file is open at a time. Never
// allocates beyond the stream itself.
#pragma once

#include <cstdint>
#include <span>

#include "arch/work_file.h"
#include "database/database_lock.h"
#include "voq/org_record.h"

class OrgFile
{
public:
    // Open OrgFileName under its whole-file lock; false after the open operation's messages.
    [[nodiscard]] bool OpenRO() VOQ_REQUIRES(DatabaseLock);
    [[nodiscard]] bool OpenRW() VOQ_REQUIRES(DatabaseLock);
    int Close() { return file_.Close(); }

    // A file too short for its header, or a failed write, is reported and yields false.
    [[nodiscard]] bool ReadHeader(OrgHeader& header) const;
    [[nodiscard]] bool WriteHeader(const OrgHeader& header) const;

    // True when a whole record lies at the offset.
    [[nodiscard]] bool Holds(std::uint32_t offset) const { return OrgOffsetValid(offset, size_); }
    // Reads or writes the record at an offset. A read outside the records, a short one, or a failed write is reported
    // with file and offset and yields false.
    [[nodiscard]] bool ReadNode(std::uint32_t offset, OrgNode& node);
    [[nodiscard]] bool WriteNode(std::uint32_t offset, const OrgNode& node) { return WriteNodes(offset, {&node, 1}); }
    // The same for records that lie side by side, the first of them at the offset.
    [[nodiscard]] bool WriteNodes(std::uint32_t offset, std::span<const OrgNode> nodes);

    // Where the next record is appended: the end of the file. A record cut off at the end is not counted.
    [[nodiscard]] std::uint32_t AppendOffset() const;
    [[nodiscard]] std::uint32_t MostRecords() const { return size_ / sizeof(OrgNode); }
    bool Sync() const { return file_.Sync(); }
    // Forces to the disk what records were written since the file was opened; nothing when there were none.
    bool SyncChanges() const { return !changed_ || file_.Sync(); }

private:
    static constexpr std::uint32_t MostOrgBytes = 0x7FFFFFFF;  // every offset fits a signed 32-bit value

    void Measure();

    WorkFile file_;
    std::uint32_t size_ = 0;
    bool changed_ = false;
};

// Visits the chain from a first record along the next links:
//     for (OrgWalk at(file, first); at.Valid(); at.Next()) ... at.Offset(), at.Node() ...
// Ends at link 0, and with a message at a record that cannot be read or after more steps than the file has records.
class OrgWalk
{
public:
    OrgWalk(OrgFile& file, std::uint32_t first);
    [[nodiscard]] bool Valid() const { return valid_; }
    [[nodiscard]] bool Damaged() const { return damaged_; }
    [[nodiscard]] std::uint32_t Offset() const { return offset_; }
    [[nodiscard]] const OrgNode& Node() const { return node_; }
    void Next();

private:
    void Load(std::uint32_t offset);

    OrgFile& file_;
    OrgNode node_{};
    std::uint32_t offset_ = 0;
    std::uint32_t stepsLeft_;
    bool valid_ = false;
    bool damaged_ = false;
};
