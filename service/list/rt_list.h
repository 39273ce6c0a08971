// The real-time list: one-shot requests of both clients, waiting for the main loop. Admission, links and removal.
// AddRtList runs on the service threads, everything else on the main thread. rt_rwlock guards links and count only:
// slot contents belong to the main thread while the slot is in use, and to the adding thread while it is free.
#pragma once

#include <atomic>
#include <cstdint>

#include "arch/lock.h"
#include "arch/wake_up.h"
#include "list/slot_list.h"
#include "voq/request.h"
#include "voq/rt_item.h"

inline constexpr std::uint16_t RtSlots = 1024;
inline constexpr std::uint16_t RtEnd = SlotEnd;

extern RwLock rt_rwlock;
extern RtItem GuiRtList[RtSlots];
extern SlotListHead GuiListHead VOQ_GUARDED_BY(rt_rwlock);
extern std::atomic<std::int32_t> rtDataFileCount;  // listed requests; written under rt_rwlock, read without it
extern WakeUp RequestListed;                       // woken behind each request that is listed; the main loop waits

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

// Removes an answered request's entry. Its rtData file went before the answer appeared: the client may use the number
// for another request by now.
void DelRtList(std::uint16_t slot) VOQ_EXCLUDES(rt_rwlock);
