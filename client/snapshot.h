// A copy of all files of a register database, as they were at one time.
#pragma once

#include <cstdint>
#include <functional>
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

// Hears how far something is: so much of so much.
using Told = std::function<void(std::size_t done, std::size_t of)>;

// Copies the files, one lock at a time, until the org file's structure is the same before and behind the others.
// Throws Error when a file is missing or unreadable, or when the structure never stops changing. Tells how many of
// the map files it has copied.
Snapshot TakeSnapshot(const PortDir& port, const Told& told = {});

}  // namespace voq
