// Requests and answers without what frames them. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t MaxPdu = 253;

// A request but for its values.
struct Question {
    std::uint8_t unit;
    std::uint8_t function;  // 1 to 6, 15 or 16
    std::uint16_t first;
    std::uint16_t count;
};

enum class Content { Answer, Exception, Other };

// The request, with the values at `data` when it writes: a byte for each coil, two for each register, high byte first.
// Returns its length, MaxPdu at most.
[[nodiscard]] std::size_t BuildPdu(const Question& question, const std::uint8_t* data, std::uint8_t* pdu);

// What the bytes are to the question. The code of an exception is the second byte.
[[nodiscard]] Content JudgePdu(const Question& question, const std::uint8_t* pdu, std::size_t length);

// The values of an answer that JudgePdu took for one; a write's has none.
void TakeValues(const Question& question, const std::uint8_t* pdu, std::uint8_t* data);
