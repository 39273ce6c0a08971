// The real-time list: one-shot requests of both clients, waiting for the main loop. Admission, payload files, result
// files, and the answers that one driver access gives to several waiting requests.
// AddRtList runs on the service threads, everything else on the main thread. rt_rwlock guards links and count only:
// slot contents belong to the main thread while the slot is in use, and to the adding thread while it is free.
#pragma once

#include <atomic>
#include <cstdint>

#include "arch/lock.h"
#include "voq/request.h"
#include "voq/rt_item.h"

inline constexpr std::uint16_t RtSlots = 1024;  // slot 0 is never used
inline constexpr std::uint16_t RtEnd = 0xFFFF;  // no next entry

struct RtListHead {
    std::uint16_t count;
    std::uint16_t hint;  // where the search for a free slot starts
    std::uint16_t head;  // meaningful while count is not 0
    std::uint16_t tail;
};

extern RwLock rt_rwlock;
extern RtItem GuiRtList[RtSlots];
extern RtListHead GuiListHead VOQ_GUARDED_BY(rt_rwlock);
extern std::atomic<std::int32_t> rtDataFileCount;  // listed requests; written under rt_rwlock, read without it

// Empties the list; main thread, before either service thread can list a request.
void ResetRtList() VOQ_EXCLUDES(rt_rwlock);

// Admits a request, stores its payload in its rtData file and links it; a refusal is answered at once. `listcmd`: 3, 7,
// or subcmd x 256 + 6. `payload` lies in the frame and holds `payloadBytes` bytes; one that is shorter than its command
// needs is answered with code 3. Returns the slot, 0 when the request was refused.
std::uint16_t AddRtList(const RegRequest& request, std::uint16_t listcmd, std::uint16_t fileno,
                        const unsigned char* payload, std::uint32_t payloadBytes) VOQ_EXCLUDES(rt_rwlock);

// Slot of the first entry, and of the entry behind `slot`; RtEnd when there is none.
std::uint16_t FirstRt() VOQ_EXCLUDES(rt_rwlock);
std::uint16_t NextRt(std::uint16_t slot) VOQ_EXCLUDES(rt_rwlock);

// True while the entry waits to be served, a pending one too.
inline bool RtIdle(const RtItem& item)
{
    return item.result == 0 || item.result == RT_PENDING;
}

// Removes the request's rtData file and its entry.
void DelRtList(std::uint16_t slot) VOQ_EXCLUDES(rt_rwlock);

// Writes the request's result file by the result in its slot. A read or write that succeeded also reaches the
// subscribed ranges inside it. `buffer`: the value read or written, GetRegBuffLen bytes of the slot's key; for a change
// its u16 result.
void WriteBackRtData(std::uint16_t slot, const void* buffer) VOQ_EXCLUDES(rt_rwlock);

// Answers and removes a write whose result is in its slot; one that succeeded also answers the equal writes behind it,
// as far as no different write of the same register comes first.
void WriteBackRtData_Wr(std::uint16_t slot, const void* buffer) VOQ_EXCLUDES(rt_rwlock);

// Answers and removes a read whose result is in its slot. `key` is what was read into `buffer`, the slot's key or a
// wider one; a read that succeeded also answers every waiting read that it covered.
void WriteBackRtData_Rd(std::uint16_t slot, const RegKey& key, const void* buffer) VOQ_EXCLUDES(rt_rwlock);

// Answers a request that is not listed. Any thread.
void WriteBackRtDataWhenError(std::uint16_t fileno, int code, const RegRequest& request, std::uint16_t listcmd);
