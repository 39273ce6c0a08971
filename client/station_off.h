// The stations that the operator has switched off, in the box's retained settings. A service polls none of them, from
// its next look at the file on. Ports of one number share their stations, whatever their links.
#pragma once

#include <cstdint>
#include <vector>

namespace voq
{

// Throws Error when the file cannot be read. All are on while there is no file.
std::vector<std::uint8_t> StationsOff(std::uint16_t portNo);

// Writes one bit, as the panel would: under the file's lock, forced to the disk; makes the file when it is missing.
// Throws Error.
void SwitchStation(std::uint16_t portNo, std::uint8_t station, bool off);

}  // namespace voq
