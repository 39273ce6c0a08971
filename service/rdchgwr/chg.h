// One change of a value image: arithmetic within limits, masks, single bits, decimal digits, runs of bits.
// Main thread; keeps no state between calls.
#pragma once

#include <cstdint>
#include <span>

#include "voq/chg_desc.h"
#include "voq/reg_key.h"

// Bytes that the descriptor's operation takes, its head included; more than there are when the head is cut short.
std::uint32_t ChangeNeeds(std::span<const unsigned char> desc);

// True when the bit field that the descriptor names lies inside `len` bytes. The descriptor holds what it needs.
bool BitFieldInside(std::span<const unsigned char> desc, std::uint32_t len);

// Changes the image of `len` bytes in place. `cmdFlags`: the request's flags, of which CMD_REVERSED counts. An
// operation, operand size, digit position or bit number beyond what there is leaves the image unchanged (an unknown
// value type still passes through byte order and BCD), as do a descriptor shorter than it needs and an image of more
// than MaxChangeBytes. Returns the direction for the next change: the CMD_REVERSED bit, inverted when the change
// bounced at a limit.
std::uint32_t Chg(unsigned char* buf, std::span<const unsigned char> desc, std::uint32_t len, std::uint32_t cmdFlags,
                  RegKey key);
