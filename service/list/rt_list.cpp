// Admission, links and removal of one-shot requests. Service threads add, the main thread removes; file work is done
// without the lock.
#include "list/rt_list.h"

#include <cstdio>
#include <cstring>

#include "arch/fs.h"
#include "list/rt_file.h"
#include "state/counters.h"
#include "stats/intake_stats.h"
#include "voq/chg_desc.h"
#include "voq/reg_range.h"

RwLock rt_rwlock;
RtItem GuiRtList[RtSlots];
SlotListHead GuiListHead = EmptySlotList;
std::atomic<std::int32_t> rtDataFileCount{0};
WakeUp RequestListed;

namespace
{
constexpr std::int32_t MostListed = 1000;     // one more is listed before requests are refused
constexpr std::int32_t MostWhileFailing = 2;  // the same while the port fails
constexpr std::uint16_t NoSlot = 0;
constexpr int Admitted = 0;

std::uint16_t LoadWord(const unsigned char* bytes)
{
    std::uint16_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

// Bytes that the command stores; more than there are when even the count is cut short.
std::uint32_t PayloadNeeds(const RegKey& key, std::uint16_t listcmd, const unsigned char* payload, std::uint32_t bytes)
{
    if (CommandOf(listcmd) == RequestCommand::Write) return GetRegBuffLen(&key);
    if (CommandOf(listcmd) != RequestCommand::ReadChangeWrite) return 0;
    return bytes < ChangeHeadBytes ? ChangeHeadBytes : LoadWord(payload) + ChangeHeadBytes;
}

// Setting a bit is let in even while the port fails.
bool SetsBit(std::uint16_t listcmd, const unsigned char* payload, std::uint32_t bytes)
{
    return CommandOf(listcmd) == RequestCommand::ReadChangeWrite && bytes >= ChangeHeadBytes + sizeof(std::uint16_t) &&
           LoadWord(payload + ChangeHeadBytes) == static_cast<std::uint16_t>(ChangeOp::SetBit);
}

// The code of a refusal, or Admitted.
int Admission(bool evenWhileFailing)
{
    const std::int32_t listed = rtDataFileCount.load(std::memory_order_relaxed);
    if (!evenWhileFailing && GlobeTimeout.load(std::memory_order_relaxed) > 0) {
        return listed > MostWhileFailing ? RT_REFUSED_TIMEOUT : Admitted;
    }
    if (!evenWhileFailing && GlobeComError.load(std::memory_order_relaxed) > 0) {
        return listed > MostWhileFailing ? PLC_ERROR : Admitted;
    }
    if (listed <= MostListed) return Admitted;
    std::printf("*VOQ*rtDatafile too much,=%d\r\n", listed);
    return PLC_ERROR;
}

SlotList<RtItem, RtSlots> Requests() VOQ_REQUIRES(rt_rwlock)
{
    return {GuiRtList, GuiListHead};
}

std::uint16_t FirstSlot() VOQ_REQUIRES_SHARED(rt_rwlock)
{
    return GuiListHead.count == 0 ? RtEnd : GuiListHead.head;
}

std::uint16_t LinkRequest(const RegKey& key, std::uint16_t listcmd, std::uint16_t fileno) VOQ_EXCLUDES(rt_rwlock)
{
    const WriteLock lock(rt_rwlock);
    const std::uint16_t slot = Requests().FindFree();
    if (slot == RtEnd) return NoSlot;
    CountListing(static_cast<std::uint32_t>(rtDataFileCount.fetch_add(1, std::memory_order_relaxed)) + 1);
    Requests().LinkBefore(slot, (key.flag & REG_FLAG_URGENT) != 0 ? FirstSlot() : RtEnd);
    RtItem& item = GuiRtList[slot];
    item.key = key;
    item.command = listcmd;
    item.result = 0;
    item.inuse = 1;
    item.fileno = fileno;
    item.reserved = 0;
    item.pulsetime = 0;
    return slot;
}
}  // namespace

void ResetRtList()
{
    const WriteLock lock(rt_rwlock);
    Requests().Reset();
    rtDataFileCount.store(0, std::memory_order_relaxed);
}

std::uint16_t AddRtList(const RegRequest& request, std::uint16_t listcmd, std::uint16_t fileno,
                        const unsigned char* payload, std::uint32_t payloadBytes)
{
    const std::uint32_t needed = PayloadNeeds(request.key, listcmd, payload, payloadBytes);
    const bool fits = needed <= payloadBytes && GetRegBuffLen(&request.key) <= MaxRegionBytes;
    int code = fits ? Admission(SetsBit(listcmd, payload, payloadBytes)) : PLC_ERROR;
    std::uint16_t slot = NoSlot;
    if (code == Admitted && CommandOf(listcmd) != RequestCommand::Read && !StorePayload(fileno, payload, needed))
        code = PLC_ERROR;
    if (code == Admitted) {
        slot = LinkRequest(request.key, listcmd, fileno);
        if (slot != NoSlot) {
            RequestListed.Wake();
        } else {
            RemoveFile(RtPath::Payload(fileno).Text());
            code = PLC_ERROR;
        }
    }
    if (code != Admitted) {
        CountRefusal(code);
        WriteBackRtDataWhenError(fileno, code, request, listcmd);
    }
    return slot;
}

std::uint16_t FirstRt()
{
    const ReadLock lock(rt_rwlock);
    return FirstSlot();
}

std::uint16_t NextRt(std::uint16_t slot)
{
    const ReadLock lock(rt_rwlock);
    return GuiRtList[slot].next;
}

void DelRtList(std::uint16_t slot)
{
    const WriteLock lock(rt_rwlock);
    rtDataFileCount.fetch_sub(1, std::memory_order_relaxed);
    Requests().Unlink(slot);
}
