// The real-time pass, on the main thread. Every request served starts the search at the head again, so that an urgent
// one goes first.
#include "oper/rt_pass.h"

#include <algorithm>
#include <bitset>
#include <cstdio>
#include <cstring>

#include "arch/clock.h"
#include "arch/work_file.h"
#include "comm/plc_oper.h"
#include "list/rt_answer.h"
#include "list/rt_file.h"
#include "list/rt_list.h"
#include "oper/pulse_notes.h"
#include "oper/read_plan.h"
#include "rdchgwr/pulse.h"
#include "rdchgwr/rd_chg_wr.h"
#include "state/com_state.h"
#include "stats/pass_stats.h"
#include "voq/chg_desc.h"
#include "voq/reg_range.h"

std::uint32_t MaxRtList = 3;

namespace
{
constexpr std::uint32_t SubcmdMask = 0xFF00;
constexpr DrvOps PlcOps = {PlcDrvReadPack, PlcDrvWritePack};

// Changes that were tried and stayed. A round of turns ends when every pending one has had its turn, so that none waits
// for ever behind more of them than a pass may try.
std::bitset<RtSlots> HadTurn;

// Reads that a joined read was refused for: each is read alone.
std::bitset<RtSlots> ReadAlone;

std::uint32_t RunningMs[RtSlots];  // how long the pulse lasts that a pending request runs; 0 when it waits for no time

// First entry that is wanted, or RtEnd.
std::uint16_t FindRt(bool (*wanted)(std::uint16_t slot))
{
    std::uint16_t slot = FirstRt();
    for (int steps = 0; slot != RtEnd && steps < RtSlots; ++steps) {
        if (RtIdle(GuiRtList[slot]) && wanted(slot)) return slot;
        slot = NextRt(slot);
    }
    return RtEnd;
}

// Answers a request whose rtData file is of no use.
void AnswerFailed(std::uint16_t slot)
{
    GuiRtList[slot].result = PLC_ERROR;
    WriteBackRtData(slot, ReadBuffer);
    DelRtList(slot);
}

// Reads a change's payload to the start of ReadBuffer. Returns its operand, without data after a message.
std::span<unsigned char> LoadChange(const RtItem& item)
{
    const RtPath path = RtPath::Payload(item.fileno);
    WorkFile file;
    if (!file.OpenRO(path.Text())) {
        std::puts("*VOQ*Rt ReadWrite fileopen error\r");
        return {};
    }
    std::uint16_t count = 0;
    if (!file.ReadRecord(0, count)) {
        std::printf("*VOQ*rdwr read %s ret=0\r\n", path.Text());
        return {};
    }
    if (!file.ReadAt(0, ReadBuffer, ChangeHeadBytes + count)) {
        std::printf("*VOQ*wdwr read %s 2 ret=0\r\n", path.Text());
        return {};
    }
    return {ReadBuffer + ChangeHeadBytes, count};
}

// Reads a write's value into ReadBuffer; false after a message.
bool LoadWrite(const RtItem& item, std::uint32_t served)
{
    const RtPath path = RtPath::Payload(item.fileno);
    const std::uint32_t length = GetRegBuffLen(&item.key);
    WorkFile file;
    if (!file.OpenRO(path.Text())) {
        std::puts("*VOQ*Rt write fileopen error\r");
        return false;
    }
    if (length <= MaxRegionBytes && file.ReadAt(0, ReadBuffer, length)) return true;
    std::printf("*VOQ*wr read %s ret=0,rtcount=%d\r\n", path.Text(), static_cast<int>(served));
    return false;
}

// False when the request is a pulse about to begin that could not be noted.
bool NotedIfPulse(std::uint16_t slot, std::span<const unsigned char> operand)
{
    const RtItem& item = GuiRtList[slot];
    PulseNote note;
    const bool begins = (item.command & CMD_PULSE) != 0 && item.pulsetime == 0;
    return !begins || !NoteOfPulse(item.key, operand, &note) || NotePulse(slot, note);
}

// Returns false when the change stays listed.
bool ServeChange(std::uint16_t slot)
{
    RtItem& item = GuiRtList[slot];
    const std::span<unsigned char> operand = LoadChange(item);
    if (operand.data() == nullptr || !NotedIfPulse(slot, operand)) {
        EndPulse(slot, false);
        AnswerFailed(slot);
        return true;
    }
    const int result = DoRdChgWr(item.key, item.command & SubcmdMask, operand, &item.pulsetime,
                                 static_cast<std::uint32_t>(GetMsFormStart()), PlcOps);
    item.result = static_cast<std::uint8_t>(result);
    if (item.result == 0 || result == RT_PENDING) {
        RunningMs[slot] = item.pulsetime != 0 ? PulseMs(operand) : 0;
        return false;
    }
    EndPulse(slot, result == PLC_SUCCESS);
    const auto answer = static_cast<std::uint16_t>(result);
    std::memcpy(ReadBuffer, &answer, sizeof answer);
    WriteBackRtData(slot, ReadBuffer);
    DelRtList(slot);
    return true;
}

void ServeWrite(std::uint16_t slot, std::uint32_t served)
{
    RtItem& item = GuiRtList[slot];
    if (!LoadWrite(item, served)) {
        AnswerFailed(slot);
        return;
    }
    item.result = static_cast<std::uint8_t>(PlcOper(item.key, ReadBuffer, PLC_WRITE));
    if (item.result == PLC_SUCCESS) WriteSettlesPulses(item.key);
    WriteBackRtData_Wr(slot, ReadBuffer);
}

bool WantedWrite(std::uint16_t slot)
{
    const RtItem& item = GuiRtList[slot];
    return (IsWrite(item) || IsChange(item)) && !HadTurn.test(slot);
}
bool WantedWaiting(std::uint16_t slot)
{
    return WantedWrite(slot) && GuiRtList[slot].result == 0;
}
bool WantedPending(std::uint16_t slot)
{
    return WantedWrite(slot) && GuiRtList[slot].result == RT_PENDING;
}

// What the writes and changes of one pass came to.
struct WritesServed {
    bool pendingTried = false;
    bool otherServed = false;  // urgent ones do not count: clients that keep sending them would hold up the others
};

void ServeWriteOrChange(std::uint16_t slot, std::uint32_t served, WritesServed& pass)
{
    const bool urgent = (GuiRtList[slot].key.flag & REG_FLAG_URGENT) != 0;
    if (IsWrite(GuiRtList[slot])) {
        ServeWrite(slot, served);
    } else if (ServeChange(slot)) {
        HadTurn.reset(slot);
    } else {
        HadTurn.set(slot);
        pass.pendingTried = true;
        return;
    }
    pass.otherServed |= !urgent;
}

void ServeWrites()
{
    if (FindRt(WantedPending) == RtEnd) HadTurn.reset();
    WritesServed pass;
    std::uint32_t served = 0;
    for (; served <= MaxRtList; ++served) {
        const std::uint16_t slot = FindRt(WantedWrite);
        if (slot == RtEnd) return;
        ServeWriteOrChange(slot, served, pass);
    }
    if (!pass.pendingTried || pass.otherServed) return;
    // Pending changes took the whole budget: one other write goes beyond it.
    const std::uint16_t slot = FindRt(WantedWaiting);
    if (slot != RtEnd) ServeWriteOrChange(slot, served, pass);
}

bool WantedRead(std::uint16_t slot)
{
    return IsRead(GuiRtList[slot]);
}

bool Within(const RegKey& read, const RegKey& range)
{
    return SameReadArea(range, read) && range.addr >= read.addr && PollEnd(range) <= PollEnd(read);
}

// The device refused the joined read `key`, made for `slot` and others.
void ReadEachAlone(const RegKey& key, std::uint16_t slot)
{
    for (int steps = 0; slot != RtEnd && steps < RtSlots; ++steps, slot = NextRt(slot)) {
        if (IsRead(GuiRtList[slot]) && Within(key, GuiRtList[slot].key)) ReadAlone.set(slot);
    }
}

// A joined read that is refused answers nobody.
void ServeRead(std::uint16_t slot)
{
    RtItem& item = GuiRtList[slot];
    RegKey key = item.key;
    if (pack_disable == 0 && !ReadAlone.test(slot)) GetRtRdPack(key, slot);
    const bool joined = NodeCompare(key, item.key) != 0;
    const int result = PlcOper(key, ReadBuffer, joined ? PLC_READ_JOINED : PLC_READ_RETRY);
    if (joined && LastRefused) {
        ReadEachAlone(key, slot);
        return;
    }
    ReadAlone.reset(slot);
    item.result = static_cast<std::uint8_t>(result);
    WriteBackRtData_Rd(slot, key, ReadBuffer);
    CountRealTimeRead(key);
}

void ServeReads()
{
    for (std::uint32_t served = 0; served <= MaxRtList; ++served) {
        const std::uint16_t slot = FindRt(WantedRead);
        if (slot == RtEnd) {
            ReadAlone.reset();
            return;
        }
        ServeRead(slot);
    }
}

// How long the request can do without a pass, at most `most`.
std::uint32_t CanWait(std::uint16_t slot, std::uint32_t most)
{
    const RtItem& item = GuiRtList[slot];
    if (item.result != RT_PENDING) return RtIdle(item) ? 0 : most;
    const std::uint32_t length = RunningMs[slot];
    if (length == 0) return most;
    const std::uint32_t passed = static_cast<std::uint32_t>(GetMsFormStart()) - item.pulsetime;
    return passed >= length ? 0
                            : static_cast<std::uint32_t>(std::min<std::uint64_t>(most, 1000ull * (length - passed)));
}

// A read while it grows over waiting ones. Ends are computed in 64 bits.
class RtWidening
{
public:
    RtWidening(RegKey& key, std::uint64_t limit) : key_(key), reach_(AddressSpan(limit, key)) {}

    // Takes a waiting read in when the limit allows it; a growth that the buffer could not hold is passed over.
    void Take(const RegKey& other)
    {
        const std::uint64_t start = key_.addr;
        const std::uint64_t end = PollEnd(key_);
        const std::uint64_t otherStart = other.addr;
        const std::uint64_t otherEnd = PollEnd(other);
        const bool upwards = otherStart >= start;
        if (upwards ? otherEnd > start + reach_ : otherStart + reach_ < end) return;
        const std::uint64_t newStart = std::min(start, otherStart);
        const std::uint64_t width = ElementsOfSpan(std::max(end, otherEnd) - newStart, key_);
        if (width > UINT16_MAX || width * ElemBytes(key_) > MaxRegionBytes) return;
        key_.addr = static_cast<std::uint32_t>(newStart);
        key_.width = static_cast<std::uint16_t>(width);
    }

private:
    RegKey& key_;
    std::uint64_t reach_;  // address units from the start that the limit covers
};

}  // namespace

void OperRtList()
{
    CountPass(Pass::RealTime);
    ServeWrites();
    ServeReads();
    const UncountedFailures uncounted;
    PutLeftOverPulseBack(PlcOps);
}

std::uint32_t RtIdleMicroseconds(std::uint32_t most)
{
    std::uint16_t slot = FirstRt();
    for (int steps = 0; slot != RtEnd && steps < RtSlots && most > 0; ++steps) {
        most = CanWait(slot, most);
        slot = NextRt(slot);
    }
    return most;
}

void GetRtRdPack(RegKey& key, std::uint16_t slot)
{
    // The answers count address units per whole element: a read of other sizes would cover requests that it cannot
    // answer.
    if (ElemBytes(key) % UnitBytes(key) != 0) return;
    const std::uint32_t limit = PortPackLimits(key).length;
    RtWidening widening(key, limit);
    std::uint16_t at = NextRt(slot);
    for (int steps = 0; at != RtEnd && steps < RtSlots; ++steps, at = NextRt(at)) {
        const RtItem& item = GuiRtList[at];
        if (!RtIdle(item) || !IsRead(item) || ReadAlone.test(at) || !SameReadArea(item.key, key)) continue;
        widening.Take(item.key);
        if (key.width == limit) return;
    }
}
