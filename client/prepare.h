// The register database that the service builds from a project at its first start, made without the service. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "client/project.h"
#include "client/snapshot.h"
#include "voq/stamp.h"

namespace voq
{

struct Prepared {
    Snapshot files;               // the data file is `files.dataSize` zeros
    std::vector<RegKey> refused;  // ranges of the port too large for a region: the service registers them neither
};

// The database of the port at `index`, every record stamped with `stamp`. Throws Error when there is no such port, or
// when the data file would be larger than the service can address. Tells how many of the project's registers it has
// placed.
Prepared PrepareDatabase(const Project& project, std::size_t index, const Stamp& stamp, const Told& told = {});

}  // namespace voq
