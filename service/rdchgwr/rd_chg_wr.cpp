// Read-change-write, on the main thread.
#include "rdchgwr/rd_chg_wr.h"

#include <cstring>

#include "rdchgwr/chg.h"
#include "rdchgwr/geometry.h"
#include "rdchgwr/pulse.h"
#include "rdchgwr/write_image.h"
#include "voq/rt_item.h"

namespace
{
unsigned char WorkBuffer[MaxRegionBytes];  // image of the register being changed; main thread

int ReadElements(unsigned char* buf, RegKey key, std::uint32_t elements, const DrvOps& ops)
{
    key.width = static_cast<std::uint16_t>(elements);
    return ops.read(key, buf);
}

// A field that ends on an element boundary overwrites its last element wholly.
bool EndsOnElement(std::span<const unsigned char> desc, std::uint32_t elementBytes)
{
    std::uint16_t run[2];
    std::memcpy(run, desc.data() + sizeof(ChgDesc), sizeof run);
    return elementBytes == 0 || (std::uint32_t{run[0]} + run[1]) % (8 * elementBytes) == 0;
}

int ReadChangeWrite(RegKey key, std::uint32_t cmdFlags, std::span<const unsigned char> desc, const DrvOps& ops)
{
    const std::uint32_t length = GetRegBuffLen(&key);
    if (length > MaxChangeBytes) return PLC_ERROR;
    std::memset(WorkBuffer, 0, sizeof WorkBuffer);
    const int result = DoRead(WorkBuffer, desc, key, ops);
    if (result != PLC_SUCCESS) return result;
    const std::uint32_t direction = Chg(WorkBuffer, desc, length, cmdFlags, key) & CMD_REVERSED;
    return WriteImage(key, WorkBuffer, ops, nullptr) + static_cast<int>(direction);
}
}  // namespace

int DoRdChgWr(RegKey key, std::uint32_t cmdFlags, std::span<unsigned char> data, std::uint32_t* pulseTime,
              std::uint32_t nowMs, const DrvOps& ops)
{
    if (data.data() == nullptr) return PLC_SUCCESS;
    if ((cmdFlags & CMD_PULSE) != 0) return DoPulse(key, data, pulseTime, nowMs, ops);
    if ((cmdFlags & CMD_CHANGE) != 0) return ReadChangeWrite(key, cmdFlags, data, ops);
    if (data.size() < GetRegBuffLen(&key)) return PLC_ERROR;
    return WriteImage(key, data.data(), ops, nullptr);
}

int DoRead(unsigned char* buf, std::span<const unsigned char> desc, RegKey key, const DrvOps& ops)
{
    if (desc.size() < ChangeNeeds(desc)) return PLC_ERROR;
    ChgDesc head;
    std::memcpy(&head, desc.data(), sizeof head);
    // A field beyond the register changes nothing: all of the register is read, so that it is written back as it was.
    if (static_cast<ChangeOp>(head.operation) != ChangeOp::BitField || !BitFieldInside(desc, GetRegBuffLen(&key))) {
        return ops.read(key, buf);
    }
    const std::uint32_t size = RegElemSize(&key);
    if (EndsOnElement(desc, size)) return ReadElements(buf, key, 1, ops);

    RegKey start = key;
    start.width = key.width > 2 ? 1 : key.width;
    const int result = ops.read(start, buf);
    if (result != PLC_SUCCESS) return result;

    RegKey before = key;  // all elements but the last
    before.width = static_cast<std::uint16_t>(key.width - 1);
    RegKey last = key;
    setAddrs(last, ChangeEnd(before), lastAddr(key));
    if (contain(start, last) != 0) return PLC_SUCCESS;
    return ops.read(last, buf + before.width * size);
}

int CheckTm(std::uint32_t* last, std::uint32_t now, std::uint32_t interval)
{
    if (now - *last < interval) return 0;
    *last = now;
    return 1;
}
