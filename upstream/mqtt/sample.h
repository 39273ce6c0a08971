// What is known of a register at one moment, as it goes upstream. Pure; any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "client/description/meaning.h"

namespace voq::mqtt
{

// One element: a number without loss, a text, or nothing that can be said (no finite number, no packed BCD).
using Element = std::variant<std::monostate, std::int64_t, double, std::string>;
using Value = std::vector<Element>;

// The elements of an image: an integer that is not scaled as it is, whatever names its numbers or bits have; every
// other number scaled; a text as one element; raw ones in hexadecimal. Texts are made valid UTF-8.
Value ReadValue(const Meaning& meaning, const ValueCoding& coding, std::span<const std::uint8_t> image);

enum class State : std::uint8_t { NeverRead, Good, Timeout, Failed, Refused, StationOff, NoService };
inline constexpr std::size_t States = 7;
const char* StateWord(State state);

struct Sample {
    std::uint32_t metric = 0;  // its place in the catalogue
    State state = State::NeverRead;
    std::int64_t time = 0;     // us since 1970: of the PLC access, or of the change to this state
    std::int64_t valueAt = 0;  // us since 1970: when the value was read; 0 without one
    Value value;               // the last good one; empty before there is one
};

}  // namespace voq::mqtt
