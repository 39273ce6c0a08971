// RTU frames; no state, no I/O.
#include "rtu_frame.h"

namespace
{

constexpr std::size_t MinFrame = 4;  // station, function, checksum

// Length of a request by its function, 0 when the function has none of its own.
std::size_t RequestLength(const std::uint8_t* bytes, std::size_t count)
{
    switch (bytes[1]) {
        case 1:
        case 2:
        case 3:
        case 4:
        case 5:
        case 6:
            return 8;
        case 15:
        case 16:
            return count > 6 ? 9u + bytes[6] : 0;
        default:
            return 0;
    }
}

}  // namespace

std::uint16_t RtuCrc(const std::uint8_t* bytes, std::size_t count)
{
    std::uint16_t crc = 0xFFFF;
    for (std::size_t i = 0; i < count; i++) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; bit++)
            crc = static_cast<std::uint16_t>((crc & 1) != 0 ? crc >> 1 ^ 0xA001 : crc >> 1);
    }
    return crc;
}

// A function without a length of its own is believed only of a frame that begins after a pause: anywhere else the
// chance that foreign traffic looks like one is too high.
std::size_t FindRequest(const std::uint8_t* bytes, std::size_t count, std::uint8_t station)
{
    for (std::size_t at = 0; at + MinFrame <= count; at++) {
        const std::size_t length = count - at;
        const std::uint8_t* frame = bytes + at;
        if (length > RtuMaxFrame || (frame[0] != station && frame[0] != 0)) continue;
        const std::size_t expected = RequestLength(frame, length);
        if (expected != length && (expected != 0 || at != 0)) continue;
        if (RtuCrc(frame, length) == 0) return length;
    }
    return 0;
}

std::size_t AnswerLength(const std::uint8_t* bytes)
{
    const std::uint8_t function = bytes[1];
    if ((function & 0x80) != 0) return 5;
    if (function >= 1 && function <= 4) return bytes[2] <= 250 ? 5u + bytes[2] : 0;
    return function == 5 || function == 6 || function == 15 || function == 16 ? 8 : 0;
}
