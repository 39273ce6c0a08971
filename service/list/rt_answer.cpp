// Answers of one-shot requests, on the main thread.
#include "list/rt_answer.h"

#include <cstdio>
#include <cstring>

#include "arch/fs.h"
#include "arch/work_file.h"
#include "database/write_through.h"
#include "list/fast_list.h"
#include "list/rt_file.h"
#include "state/com_state.h"
#include "stats/pass_stats.h"
#include "voq/reg_range.h"

namespace
{
constexpr std::uint32_t LooksPerAnswer = 10;  // entries that a gateway box looks at for each request answered

unsigned char EqualWrite[MaxRegionBytes];  // value of the write being compared; main thread

// The slot as it stands; its links change under the lock while the request is listed.
RtItem CopyOfSlot(std::uint16_t slot)
{
    const ReadLock lock(rt_rwlock);
    return GuiRtList[slot];
}

std::uint32_t AnswerBytes(const RtItem& item)
{
    if (item.result != PLC_SUCCESS) return 0;
    if (IsRead(item)) return GetRegBuffLen(&item.key);
    return IsChange(item) ? sizeof(std::uint16_t) : 0;
}

std::uint32_t SubscribedOffset(const RegKey& key)
{
    const ReadLock lock(fast_rwlock);
    const std::uint16_t slot = FindFastIndexUseStrart(key);
    return slot == FastEnd ? 0 : OrgFastList[slot].orgoffset;
}

// Carries a value of the whole range `key` into the org records inside it, from the subscribed one on.
void UpdateSubscribed(const RegKey& key, const void* buffer)
{
    const std::uint32_t first = SubscribedOffset(key);
    if (first == 0 || first == OrgNone) return;
    const std::uint64_t end = AnswerEnd(key);

    const MutexLock lock(DatabaseLock);
    FreshRecords records;
    if (!records.Open()) return;
    for (OrgWalk at(records.Org(), first); at.Valid() && SameGroup(at.Node().key, key); at.Next()) {
        const RegKey& range = at.Node().key;
        const bool inside = range.addr >= key.addr && AnswerEnd(range) <= end;
        if (inside) records.AddValue(at, key, buffer, GetRegBuffLen(&key));
        if (!inside && range.addr >= end) break;
    }
    records.Finish();
}

void AnswerAndRemove(std::uint16_t slot, const void* buffer)
{
    WriteBackRtData(slot, buffer);
    DelRtList(slot);
}

bool LookedFarEnough(std::uint32_t seen, std::uint32_t done)
{
    return isHmi == 0 && seen > done * LooksPerAnswer;
}

enum class Compared { Equal, Different, NotOpened, NotRead };

// Reads the waiting write's value into EqualWrite and compares it with the value written.
Compared CompareWrite(const RtItem& item, const void* written)
{
    const RtPath path = RtPath::Payload(item.fileno);
    const std::uint32_t length = GetRegBuffLen(&item.key);
    WorkFile file;
    if (!file.OpenRO(path.Text())) {
        std::puts("*VOQ*Rt write fileopen error\r");
        return Compared::NotOpened;
    }
    if (length > sizeof EqualWrite || !file.ReadAt(0, EqualWrite, length)) {
        std::printf("*VOQ*infunc wr read %s ret=0\r\n", path.Text());
        return Compared::NotRead;
    }
    if (std::memcmp(EqualWrite, written, length) == 0) return Compared::Equal;
    std::puts("*VOQ*write diffrent,break\r");
    return Compared::Different;
}

// True when the read of `key` holds the whole value of the waiting read `item`.
bool Covers(const RegKey& key, const RtItem& item)
{
    const RegKey& wanted = item.key;
    if (!IsRead(item) || !SameGroup(wanted, key) || wanted.addr < key.addr) return false;
    if (AnswerEnd(wanted) > AnswerEnd(key)) return false;
    return ValueWithin(key, GetRegBuffLen(&key), wanted);
}
}  // namespace

void WriteBackRtData(std::uint16_t slot, const void* buffer)
{
    const RtItem item = CopyOfSlot(slot);
    CountAnswer(item);
    // The answer frees the number: a payload that follows it is another request's.
    if (!IsRead(item)) RemoveFile(RtPath::Payload(item.fileno).Text());
    WriteResultFile(item, buffer, AnswerBytes(item));
    if (item.result == PLC_SUCCESS && (IsRead(item) || IsWrite(item))) UpdateSubscribed(item.key, buffer);
}

void WriteBackRtData_Wr(std::uint16_t slot, const void* buffer)
{
    const RtItem& served = GuiRtList[slot];
    std::uint16_t next = served.result == PLC_SUCCESS ? NextRt(slot) : RtEnd;
    std::uint32_t done = 1;
    for (std::uint32_t seen = 1; next != RtEnd && seen < RtSlots; ++seen) {
        const std::uint16_t at = next;
        RtItem& item = GuiRtList[at];
        next = NextRt(at);
        if (RtIdle(item) && IsWrite(item) && SameRangeAndSubaddr(item.key, served.key)) {
            const Compared compared = CompareWrite(item, buffer);
            if (compared == Compared::Different || compared == Compared::NotRead) break;
            if (compared == Compared::Equal) {
                item.result = PLC_SUCCESS;
                ++done;
                AnswerAndRemove(at, EqualWrite);
            }
        }
        if (LookedFarEnough(seen, done)) break;
    }
    AnswerAndRemove(slot, buffer);
}

void WriteBackRtData_Rd(std::uint16_t slot, const RegKey& key, const void* buffer)
{
    if (GuiRtList[slot].result != PLC_SUCCESS) {
        AnswerAndRemove(slot, buffer);
        return;
    }
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    std::uint32_t done = 1;
    std::uint16_t next = slot;
    for (std::uint32_t seen = 1; next != RtEnd && seen < RtSlots; ++seen) {
        const std::uint16_t at = next;
        RtItem& item = GuiRtList[at];
        next = NextRt(at);
        // The request that was served, the first, is answered even when the cover arithmetic rounds it out: it is never
        // widened then. Its slot may hold another request when the walk comes to it again.
        if (seen == 1 || (RtIdle(item) && Covers(key, item))) {
            item.result = PLC_SUCCESS;
            ++done;
            AnswerAndRemove(at, bytes + ValueOffset(key, item.key));
        }
        if (LookedFarEnough(seen, done)) return;
    }
}
