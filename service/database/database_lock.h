// The register database lock: orders the service's own threads on the org, data, index and map files. Not recursive.
// Taken after fast_rwlock, never before it.
#pragma once

#include "arch/lock.h"

inline Mutex DatabaseLock;
