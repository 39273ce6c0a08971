// Arbitrary bytes as a one-shot request. First byte even: key, flags and operand go straight into the change, with a
// device that fails at times. Odd: the request takes the whole way, from admission through a pass to its answer.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "arch/fs.h"
#include "comm/plc_driver.h"
#include "list/rt_file.h"
#include "list/rt_list.h"
#include "memory_files.h"
#include "oper/pulse_notes.h"
#include "oper/rt_pass.h"
#include "rdchgwr/rd_chg_wr.h"
#include "state/com_state.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{
struct Header {
    std::uint8_t mode;
    std::uint8_t failures;  // one bit for each device access
    std::uint16_t listcmd;
    std::uint16_t portOrder, panelOrder;
    std::uint32_t pulseTime, nowMs;
    RegKey key;
};

std::uint8_t Failures;
std::uint32_t Seen;  // sum of the bytes the device was given

int Access(std::uint32_t length, void* out, const void* in)
{
    if (length > MaxRegionBytes) abort();
    if (out != nullptr) std::memset(out, 0x99, length);
    for (std::uint32_t i = 0; in != nullptr && i < length; ++i) Seen += static_cast<const unsigned char*>(in)[i];
    const bool failed = (Failures & 1) != 0;
    Failures = static_cast<std::uint8_t>(Failures >> 1);
    return failed ? PLC_ERROR : PLC_SUCCESS;
}

int Read(RegKey key, void* buf)
{
    return Access(GetRegBuffLen(&key), buf, nullptr);
}
int Write(RegKey key, void* data)
{
    return Access(GetRegBuffLen(&key), nullptr, data);
}

std::int32_t Command(const char* command, void*, void** args)
{
    const bool write = command[0] == 'W';
    if (!write && command[0] != 'R') return 0;
    const auto* request = static_cast<PlcRequest*>(args[0]);
    const auto length = static_cast<std::uint32_t>(request->length);
    return Access(length, write ? nullptr : request->data, write ? request->data : nullptr) == PLC_SUCCESS ? 0 : 3;
}

void ServeListed(const Header& head, unsigned char* payload, std::uint32_t size)
{
    const RtPath answer = RtPath::Result(5);
    ResetBox();
    _cmd = Command;
    ResetRtList();
    TakeOverPulseNotes();
    const RegRequest request{head.key, 0, 0, 5, 0};
    AddRtList(request, head.listcmd, 5, payload, size);
    OperRtList();
    OperRtList();
    const bool listed = GuiListHead.count != 0;
    if (FileExists(answer.Text()) == listed) abort();  // either it waits or it is answered
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool ready = StartBox();
    Header head;
    if (!ready || size < sizeof head) return 0;
    std::memcpy(&head, data, sizeof head);
    std::vector<unsigned char> operand(data + sizeof head, data + size);
    ComInfo.byteOrder = head.portOrder;
    sysByteOder = head.panelOrder;
    Failures = head.failures;
    if (head.mode % 2 == 0) {
        const DrvOps ops = {Read, Write};
        DoRdChgWr(head.key, head.listcmd & 0xFF00u, operand, &head.pulseTime, head.nowMs, ops);
    } else {
        constexpr std::uint8_t Commands[] = {3, 6, 6, 7};
        head.listcmd = static_cast<std::uint16_t>((head.listcmd & 0xFF00) | Commands[head.listcmd % 4]);
        ServeListed(head, operand.data(), static_cast<std::uint32_t>(operand.size()));
    }
    return 0;
}
