// A copy of all files of a register database, as they were at one time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "client/bytes.h"
#include "client/database.h"
#include "client/port_dir.h"

namespace voq
{

// `maps` is keyed by file name and holds nothing for a missing file.
struct Snapshot {
    OrgImage org;
    Bytes index;
    std::map<std::string, std::optional<Bytes>> maps;
    std::uint64_t dataSize = 0;
};

// Copies the files, one lock at a time, until the org file's structure is the same before and behind the others.
// Throws Error when a file is missing or unreadable, or when the structure never stops changing.
Snapshot TakeSnapshot(const PortDir& port);

}  // namespace voq
