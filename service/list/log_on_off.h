// Log-on and log-off through the org list, and registration of a project range.
#pragma once

#include <cstdint>

#include "database/database_lock.h"
#include "database/org_list.h"
#include "list/fast_list.h"
#include "voq/request.h"

// Finds or creates the range's record and counts it, then changes the fast list. Service threads. Returns 0, or -1 when
// the index cannot be read and nothing was changed.
int LogOnOff2OrgList(const RegRequest* request, OrgMode mode, std::uint16_t fileno)
    VOQ_EXCLUDES(DatabaseLock, fast_rwlock);

// Registers one project range. Main thread, start-up. Returns 0, or -1 when the index cannot be read.
int CheckOrgList(const RegKey* key) VOQ_EXCLUDES(DatabaseLock);
