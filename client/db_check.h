// Verifies every invariant of the register database on a copy of its files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/snapshot.h"

namespace voq
{

enum class Severity : std::uint8_t {
    Violation,  // an invariant does not hold
    Note,       // worth knowing, allowed
};

struct Finding {
    Severity severity;
    std::string file;      // "org", "data", "index", or a map file's name
    std::uint64_t offset;  // byte offset in that file
    std::string text;
};

// All violations and notes, at most so many of each: a ruined file must not fill the screen or the memory.
inline constexpr std::size_t MaxFindings = 1000;
inline constexpr std::size_t MaxNotes = 100;
std::vector<Finding> CheckSnapshot(const Snapshot& snapshot);

bool HasViolation(const std::vector<Finding>& findings);

}  // namespace voq
