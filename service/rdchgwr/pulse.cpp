// Set bit and timed pulse, on the main thread. A pulse takes several calls: it keeps nothing but its start time.
#include "rdchgwr/pulse.h"

#include <cstdio>
#include <cstring>

#include "rdchgwr/write_image.h"
#include "voq/chg_desc.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{
constexpr std::uint32_t WidthUnitMs = 100;

// The image that gives the register's bit the lowest bit of `value`. A bit register takes the value as it is; a word
// register is read first, false when that fails.
bool Compose(const RegKey& key, std::uint8_t bit, std::uint32_t value, const DrvOps& ops, unsigned char* image)
{
    std::uint32_t word = value;
    if (RegElemSize(&key) != 0) {
        std::memset(image, 0, sizeof word);
        if (ops.read(key, image) != PLC_SUCCESS) return false;
        std::memcpy(&word, image, sizeof word);
        if (bit < 32) word = (word & ~(std::uint32_t{1} << bit)) | (value & 1) << bit;
    }
    std::memcpy(image, &word, sizeof word);
    return true;
}

int ReadFailed()
{
    std::printf("*VOQ*Do Pluse Read failed\n\r");
    return RT_PENDING;
}

void WriteFailed(int result)
{
    std::printf("*VOQ*Do Pluse write ret=%d\r\n", result);
}

std::uint32_t ValueOf(const ChgDesc& head)
{
    return head.format & CHG_TYPE_MASK;
}

// What puts the bit back.
std::uint32_t RestValue(const ChgDesc& head)
{
    return ~ValueOf(head) & 1;
}
}  // namespace

int DoPulse(RegKey key, std::span<const unsigned char> desc, std::uint32_t* pulseTime, std::uint32_t nowMs,
            const DrvOps& ops)
{
    ChgDesc head;
    if (desc.size() < sizeof head) return PLC_ERROR;
    std::memcpy(&head, desc.data(), sizeof head);
    const auto operation = static_cast<ChangeOp>(head.operation);
    if (operation != ChangeOp::SetBit && operation != ChangeOp::Pulse) return RT_PENDING;
    if (GetRegBuffLen(&key) > MaxPulseBytes) return PLC_ERROR;

    const std::uint32_t value = ValueOf(head);
    unsigned char image[MaxPulseBytes];
    if (operation == ChangeOp::SetBit) {
        if (!Compose(key, head.bit, value, ops, image)) return RT_PENDING;
        return WriteImage(key, image, ops, nullptr);
    }
    if (nowMs == 0) nowMs = 1;  // a time of 0 says that no pulse runs
    if (*pulseTime == 0) {
        *pulseTime = nowMs;
        if (!Compose(key, head.bit, value, ops, image)) return ReadFailed();
        WriteImage(key, image, ops, nullptr);
        return RT_PENDING;
    }
    if (nowMs - *pulseTime < head.size * WidthUnitMs) return RT_PENDING;
    *pulseTime = nowMs;
    if (!Compose(key, head.bit, RestValue(head), ops, image)) return ReadFailed();
    const int result = WriteImage(key, image, ops, WriteFailed);
    *pulseTime = 0;
    return result;
}

std::uint32_t PulseMs(std::span<const unsigned char> desc)
{
    ChgDesc head;
    std::memcpy(&head, desc.data(), sizeof head);
    return head.size * WidthUnitMs;
}

bool NoteOfPulse(const RegKey& key, std::span<const unsigned char> desc, PulseNote* note)
{
    ChgDesc head;
    if (desc.size() < sizeof head || GetRegBuffLen(&key) > MaxPulseBytes) return false;
    std::memcpy(&head, desc.data(), sizeof head);
    if (static_cast<ChangeOp>(head.operation) != ChangeOp::Pulse) return false;
    *note = {};
    note->key = key;
    note->bit = RegElemSize(&key) == 0 ? 0 : head.bit;
    note->value = static_cast<std::uint8_t>(RestValue(head));
    note->inuse = 1;
    note->check = PulseNoteCheck(*note);
    return true;
}

int PutPulseBack(const PulseNote& note, const DrvOps& ops)
{
    unsigned char image[MaxPulseBytes];
    if (!Compose(note.key, note.bit, note.value, ops, image)) return PLC_ERROR;
    return ops.write(note.key, image);
}
