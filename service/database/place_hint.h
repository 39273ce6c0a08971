// Hints where the walk to a range's place in the chain may begin: where the last range of each group went, and the last
// one near each address. Ranges mostly come in ascending order, and the next one belongs right behind; in a list
// without order the walk from a near one is short. Any thread; the register database lock is held. Fixed tables. A hint
// is only a place to look at: the record there is read and judged by the operation that takes it.
#pragma once

#include <cstdint>

#include "database/database_lock.h"
#include "database/org_file.h"
#include "voq/reg_key.h"

// Where the walk to the key's place begins: at a record of its group that does not sort behind the key, or at `first`,
// the group's first record.
std::uint32_t WalkStart(OrgFile& file, const RegKey& key, std::uint32_t first) VOQ_REQUIRES(DatabaseLock);

// Notes that a range's new record lies at `offset`.
void NotePlace(const RegKey& key, std::uint32_t offset) VOQ_REQUIRES(DatabaseLock);

// Drops every hint, when the org list begins anew.
void ForgetPlaces() VOQ_REQUIRES(DatabaseLock);
