// Arbitrary bytes in a client FIFO, cut anywhere: every request ends in the real lists and files, the passes then run
// on them, and the register database stays sound.
#include <fuzzer/FuzzedDataProvider.h>

#include "database/check.h"
#include "database/index.h"
#include "list/rt_list.h"
#include "memory_files.h"
#include "oper/fast_pass.h"
#include "oper/intake.h"
#include "oper/org_pass.h"
#include "oper/rt_pass.h"
#include "support/scratch.h"

namespace
{
std::uint8_t Byte(FuzzedDataProvider& in)
{
    std::uint8_t byte = 0;
    in.ConsumeData(&byte, 1);
    return byte;
}

// A whole frame about a range of a small world, so that requests meet.
std::string WholeFrame(FuzzedDataProvider& in)
{
    static constexpr std::uint8_t Commands[] = {1, 1, 2, 3, 6, 7, 1, 7},
                                  Layouts[] = {0x22, 0x00, 0x41, 0x24, 0x29, 0x2F};
    const std::uint8_t kind = Byte(in), where = Byte(in);
    RegRequest request{};
    request.cmd = Commands[kind & 7];
    const std::uint32_t flag = static_cast<std::uint32_t>(Byte(in)) << 16 | (kind & 0x80u) << 2;
    const std::uint8_t width = Byte(in);
    request.key = WordKey(Byte(in), width, Layouts[(where >> 1) % 6]);
    request.key.flag = flag;
    request.key.plcno = where & 1;
    request.subcmd = Byte(in);
    request.fileno = Byte(in);
    if ((kind & 0x40) != 0) request.orgoffset = 12u + 56u * (Byte(in) & 7u);
    const std::string payload = in.ConsumeBytesAsString(Byte(in));
    const std::size_t length = FrameMinBytes + payload.size();
    std::string frame{static_cast<char>(FrameMarker), static_cast<char>(length), static_cast<char>(length >> 8)};
    return frame.append(reinterpret_cast<const char*>(&request), sizeof request) + payload;
}
}  // namespace

// Input: a byte that chooses the FIFO and where the stream is cut, one for the port's limits, then runs of bytes taken
// as they are (even first byte, their number) or as the content of a whole frame (odd first byte).
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    const std::uint8_t how = Byte(in), limits = Byte(in);
    std::string stream;
    while (in.remaining_bytes() > 0) {
        const std::uint8_t run = Byte(in);
        stream += (run & 1) != 0 ? WholeFrame(in) : in.ConsumeBytesAsString(run / 2u);
    }

    ResetBox();
    ComInfo.wordLimit = ComInfo.bitLimit = limits & 63;
    ComInfo.wordGap = ComInfo.bitGap = limits >> 6;
    const std::size_t piece = how < 4 ? 16384 : how / 2;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        FifoBytes = stream.substr(at, piece);
        (how & 1) != 0 ? CheckMekRtList() : CheckGuiRtList();
    }
    for (int i = 0; i < 3; ++i) {
        OperRtList();
        OperFastList();
        OperOrgList();
        OperFastList_NoPack();
    }
    InitIndexMap();  // a log-off that creates a record leaves the group's map as it is
    if (CheckDatabase(MapCare::Judge) != DatabaseState::Sound) abort();
    return 0;
}
