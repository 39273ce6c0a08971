// Framing, on the service threads.
#include "oper/frame.h"

#include <cstring>

FrameState CutFrame(std::span<const unsigned char> bytes, Frame* frame)
{
    if (bytes[0] == ReloadMarker) return FrameState::Reload;
    if (bytes[0] != FrameMarker) return FrameState::Foreign;
    if (bytes.size() < FrameLookBytes) return FrameState::Incomplete;
    const std::size_t length = bytes[1] | static_cast<std::size_t>(bytes[2]) << 8;
    if (length < FrameMinBytes) return FrameState::Damaged;
    if (bytes.size() < length) return FrameState::Incomplete;
    std::memcpy(&frame->request, &bytes[FrameHeaderBytes], sizeof frame->request);
    frame->payload = bytes.subspan(FrameMinBytes, length - FrameMinBytes);
    frame->length = length;
    return FrameState::Whole;
}
