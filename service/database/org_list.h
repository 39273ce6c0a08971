// The org list: the port's persistent register table, and the value region of each range.
// Runs on the service threads (log-on, log-off) and on the main thread (start-up).
// Every operation holds the register database lock from open to close; clients are kept out by the whole-file lock.
// May wait for a client's file lock and for the disk; never allocates beyond the streams themselves.
#pragma once

#include <cstdint>

#include "database/database_lock.h"
#include "database/org_file.h"
#include "voq/org_record.h"

// What a registration does to a record's log-on count.
enum class OrgMode { Register = 0, LogOn = 1, LogOff = 2 };

// Fills a record for a new range: the key, the current time, everything else 0.
void InitOrgListNode(OrgNode* node, const RegKey& key);

// Inserts `node` (key, stamp and logtimes filled) in front of the record at `before`, or at the end of the chain when
// `before` is 0; appends its value region first. `updateIndex`: the group's index entry moves to the new record.
// The file is open for change and stays open. Returns false when nothing was inserted.
[[nodiscard]] bool InsertOrgBeforeNode(OrgFile& file, std::uint32_t before, OrgNode& node, bool updateIndex)
    VOQ_REQUIRES(DatabaseLock);

// Finds the range in its group, which begins at `first`, and counts the log-on or log-off, or inserts a new record in
// order; a log-on that inserted one refreshes the group's map file. Returns 0, or OrgNone when nothing was done.
std::uint32_t InsertOrgNode(const RegKey& key, std::uint32_t first, OrgMode mode) VOQ_REQUIRES(DatabaseLock);

// Registers a range. `first` as FindIndex gave it: 0 for an empty index, OrgNone for a new group, else the group's
// first record. Returns the new record's offset in the first two cases, 0 in the third, OrgNone when nothing was done.
std::uint32_t AddItem2OrgList(const RegKey& key, std::uint32_t first, OrgMode mode) VOQ_REQUIRES(DatabaseLock);

// Takes the record at the end of the chain out again, when its group could not be entered in the index. Its bytes and
// its region stay in the files, named by nothing.
void DropLastOrgItem(std::uint32_t offset) VOQ_REQUIRES(DatabaseLock);
