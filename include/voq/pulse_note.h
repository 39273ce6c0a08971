// The notes of running pulses: the file `pulses` in the port directory, a fixed table of records in place. A record
// says which bit may still be set and what it holds at rest.
//
// offset size field   meaning
//  0     24   key     the register
// 24     1    bit     its bit, 0 of a bit register
// 25     1    value   what is written to put it back, 0 or 1
// 26     1    inuse   1 while the note stands; a record struck off is all zeros
// 27     1    unused  0
// 28     4    check   PulseNoteCheck of the bytes before it: a torn or foreign record is not believed
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "voq/reg_key.h"

struct PulseNote {
    RegKey key;
    std::uint8_t bit;
    std::uint8_t value;
    std::uint8_t inuse;
    std::uint8_t unused;
    std::uint32_t check;
};

static_assert(sizeof(PulseNote) == 32 && std::is_trivially_copyable_v<PulseNote>);
static_assert(offsetof(PulseNote, key) == 0 && offsetof(PulseNote, bit) == 24 && offsetof(PulseNote, value) == 25);
static_assert(offsetof(PulseNote, inuse) == 26 && offsetof(PulseNote, unused) == 27 &&
              offsetof(PulseNote, check) == 28);

inline constexpr std::uint16_t MostPulseNotes = 1024;

// FNV-1a over the 28 bytes before the check.
inline std::uint32_t PulseNoteCheck(const PulseNote& note)
{
    unsigned char bytes[offsetof(PulseNote, check)];
    std::memcpy(bytes, &note, sizeof bytes);
    std::uint32_t check = 0x811C9DC5;
    for (const unsigned char byte : bytes) check = (check ^ byte) * 0x01000193;
    return check;
}
