// The project file ("ophmi.bin") as far as the service reads it: built from a model, and parsed back with every offset
// and count checked against the file. Pure.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "client/bytes.h"
#include "voq/com_info.h"
#include "voq/reg_key.h"

namespace voq
{

struct Project {
    std::uint16_t byteOrder = 0;  // the system's byte-order word
    std::vector<ComInfoRecord> ports;
    std::vector<RegKey> registers;
};

// Equal models give equal bytes.
Bytes BuildProject(const Project& project);

// Throws Error that names the place when the file does not hold what its offsets and counts say.
Project ParseProject(std::span<const std::uint8_t> file);

}  // namespace voq
