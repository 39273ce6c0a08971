// Answers of one-shot requests: the result file, the subscribed ranges that a fresh value reaches, and the other
// waiting requests that one driver access has satisfied. Main thread; waits for the register database and for the disk.
#pragma once

#include <cstdint>

#include "list/rt_list.h"
#include "voq/reg_key.h"

// Removes the request's rtData file, then writes its result file by the result in its slot. A read or write that
// succeeded also reaches the subscribed ranges inside it. `buffer`: the value read or written, GetRegBuffLen bytes of
// the slot's key; for a change its u16 result.
void WriteBackRtData(std::uint16_t slot, const void* buffer) VOQ_EXCLUDES(rt_rwlock);

// Answers and removes a write whose result is in its slot; one that succeeded also answers the equal writes behind it,
// as far as no different write of the same register comes first.
void WriteBackRtData_Wr(std::uint16_t slot, const void* buffer) VOQ_EXCLUDES(rt_rwlock);

// Answers and removes a read whose result is in its slot. `key` is what was read into `buffer`, the slot's key or a
// wider one; a read that succeeded also answers every waiting read that it covered.
void WriteBackRtData_Rd(std::uint16_t slot, const RegKey& key, const void* buffer) VOQ_EXCLUDES(rt_rwlock);
