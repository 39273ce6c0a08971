// Cuts the byte stream of a client FIFO into frames. Pure: works on the buffer it is handed, no I/O and no locks.
#pragma once

#include <cstdint>
#include <span>

#include "voq/request.h"

struct Frame {
    RegRequest request;
    std::span<const unsigned char> payload;  // what lies behind the request inside the frame
    std::size_t length;                      // of the whole frame
};

enum class FrameState {
    Whole,       // a frame was cut
    Incomplete,  // its end has not arrived yet
    Reload,      // a reload frame begins here
    Foreign,     // no marker
    Damaged,     // a length that no frame can have
};

// Bytes that must be there before the length of a first frame is looked at.
inline constexpr std::size_t FrameLookBytes = 25;

// Looks at the frame that begins with the first byte; `bytes` is not empty.
FrameState CutFrame(std::span<const unsigned char> bytes, Frame* frame);
