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

std::uint32_t Failures;

int Access(std::size_t length, void* value, bool write)
{
    static unsigned char device[MaxRegionBytes];
    if (length > sizeof device) abort();
    if (write) std::memcpy(device, value, length);
    if (!write) std::memset(value, 0x99, length);
    const bool failed = (Failures & 1u) != 0;
    Failures >>= 1;
    return failed ? PLC_ERROR : PLC_SUCCESS;
}

constexpr DrvOps Direct = {[](RegKey key, void* buf) { return Access(GetRegBuffLen(&key), buf, false); },
                           [](RegKey key, void* data) { return Access(GetRegBuffLen(&key), data, true); }};

std::int32_t Command(const char* command, void*, void** args)
{
    if (command[0] != 'W' && command[0] != 'R') return PLC_DRV_OK;
    const auto* request = static_cast<PlcRequest*>(args[0]);
    const int result = Access(static_cast<std::size_t>(request->length), request->data, command[0] == 'W');
    return result == PLC_SUCCESS ? PLC_DRV_OK : 3;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Header head;
    if (size < sizeof head) return 0;
    std::memcpy(&head, data, sizeof head);
    std::vector<unsigned char> operand(data + sizeof head, data + size);
    if (head.mode % 2 != 0) ResetBox();  // else nothing is kept
    ComInfo.byteOrder = head.portOrder;
    sysByteOder = head.panelOrder;
    Failures = head.failures;
    if (head.mode % 2 == 0) {
        DoRdChgWr(head.key, head.listcmd & 0xFF00u, operand, &head.pulseTime, head.nowMs, Direct);
    } else {
        constexpr std::uint8_t Commands[] = {3, 6, 6, 7};
        const auto command = static_cast<std::uint16_t>((head.listcmd & 0xFF00u) | Commands[head.listcmd % 4]);
        TakeOverPulseNotes();
        _cmd = Command;
        AddRtList({head.key, 0, 0, 5, 0}, command, 5, operand.data(), static_cast<std::uint32_t>(operand.size()));
        OperRtList();
        OperRtList();
        // Either it waits or it is answered.
        if (FileExists(RtPath::Result(5).Text()) == (GuiListHead.count != 0)) abort();
    }
    return 0;
}
