// Fresh values reach the register database: the value regions of records, their stamps and states.
// Main thread. May wait for a client's file lock and for the disk; never allocates beyond the streams themselves.
#pragma once

#include <cstdint>
#include <span>

#include "database/data_file.h"
#include "database/database_lock.h"
#include "database/org_file.h"
#include "voq/reg_key.h"

// The records that one operation brings up to date, and the files that it changes for that. Records are gathered; the
// values of those gathered go to the data file before the records go to the org file, and what lies side by side goes
// in one call. One such operation runs at a time, under the register database lock.
class FreshRecords
{
public:
    // Opens the org file for change; false after the open operation's messages.
    [[nodiscard]] bool Open() VOQ_REQUIRES(DatabaseLock) { return org_.OpenRW(); }
    [[nodiscard]] OrgFile& Org() { return org_; }

    // The record at `offset` as it is to be written. `source` begins with its value and lasts until Finish(); empty
    // when there is none to store. A value that cannot be stored makes the state PLC_ERROR: 1 would promise the value.
    void Add(std::uint32_t offset, const OrgNode& record, std::span<const unsigned char> source)
        VOQ_REQUIRES(DatabaseLock);
    // The same for a value that lies in the `length` bytes at `bytes`, the value of `sourceKey`: state 1, stamped now.
    // A record that does not lie inside them is left alone.
    void AddValue(const OrgWalk& at, const RegKey& sourceKey, const void* bytes, std::uint32_t length)
        VOQ_REQUIRES(DatabaseLock);
    // Writes what is left and forces each file to the disk that was changed, the data file first.
    void Finish() VOQ_REQUIRES(DatabaseLock);

private:
    void WriteGathered() VOQ_REQUIRES(DatabaseLock);

    OrgFile org_;
    ValueWriter values_;
    std::size_t gathered_ = 0;
};

// Carries a value just written to the PLC into every record that lies inside the written range, ends counted as
// WriteEnd counts them. `length`: bytes at `data`; a value that would reach past them is not copied.
void UpdateOrgAfterWrite(const RegKey& key, std::uint32_t length, const void* data) VOQ_EXCLUDES(DatabaseLock);
