// What a project description may be at most: checked before it is parsed, so that a foreign one neither takes the
// parser's time nor its stack.
#pragma once

#include <cstddef>
#include <string>

namespace voq
{

inline constexpr std::size_t MaxDescriptionBytes = 8u << 20;  // some 80,000 registers
inline constexpr std::size_t MaxNesting = 8;                  // arrays and inline tables within each other
inline constexpr std::size_t MaxTextBytes = 256;              // of a key, a string or a number

// Refuses a description that is longer, deeper or has longer texts, dotted keys, or tables other than [[port]] and
// [[register]]. Throws voq::Error "<file>:<line>: <text>".
void CheckDescriptionLimits(const std::string& text, const std::string& file);

}  // namespace voq
