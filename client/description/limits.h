// What a project description may be at most: checked before it is parsed, so that a foreign one neither takes the
// parser's time nor its stack.
#pragma once

#include <cstddef>
#include <string>

#include "client/description/remarks.h"

namespace voq
{

inline constexpr std::size_t MaxDescriptionBytes = 8u << 20;  // some 80,000 registers
inline constexpr std::size_t MaxNesting = 8;                  // arrays and inline tables within each other
inline constexpr std::size_t MaxTextBytes = 256;              // of a key, a string or a number

// False, and one remark, when a description is longer, deeper or has longer texts, dotted keys, or other tables than
// it may.
bool WithinDescriptionLimits(const std::string& text, Remarks& remarks);

}  // namespace voq
