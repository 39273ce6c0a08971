// A fresh value reaches the register database: the value regions of the records that lie inside it, and their stamps.
// Main thread. May wait for a client's file lock and for the disk; never allocates beyond the streams themselves.
#pragma once

#include <cstdint>

#include "database/data_file.h"
#include "database/database_lock.h"
#include "database/org_file.h"
#include "voq/reg_key.h"

// Stores a fresh value in the region of the record that the walk stands on, and stamps the record: state 1, or 3 when
// the value could not be stored. The caller forces the org file to the disk. A record that does not lie inside the
// `length` bytes at `source` is left alone.
void StoreValue(OrgFile& file, OrgWalk& at, ValueWriter& values, const RegKey& sourceKey, const void* source,
                std::uint32_t length) VOQ_REQUIRES(DatabaseLock);

// Carries a value just written to the PLC into every record that lies inside the written range, ends counted as
// WriteEnd counts them. `length`: bytes at `data`; a value that would reach past them is not copied.
void UpdateOrgAfterWrite(const RegKey& key, std::uint32_t length, const void* data) VOQ_EXCLUDES(DatabaseLock);
