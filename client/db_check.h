// Verifies every invariant of the register database on a copy of its files.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/bytes.h"
#include "client/database.h"
#include "client/port_dir.h"

namespace voq
{

// The files as they were at one time. `maps` is keyed by file name and holds nothing for a missing file.
struct Snapshot {
    OrgFile org;
    Bytes index;
    std::map<std::string, std::optional<Bytes>> maps;
    std::uint64_t dataSize = 0;
};

// Copies the files, one lock at a time, until the org file's structure is the same before and behind the others.
// Throws Error when a file is missing or unreadable, or when the structure never stops changing.
Snapshot TakeSnapshot(const PortDir& port);

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
