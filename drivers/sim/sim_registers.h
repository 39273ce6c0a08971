// The simulated registers: memory areas, and areas whose values move by themselves.
#pragma once

#include <cstdint>

#include "sim_control.h"
#include "voq/reg_key.h"

// Copy a range's value out of or into the registers: 0 done, 3 refused (`length` is not the range's, or the area's
// values are not to be written). Any station, area and address is safe: all wrap around.
int ReadRegisters(SimControl& control, const RegKey& key, std::uint8_t* data, std::int32_t length);
int WriteRegisters(SimControl& control, const RegKey& key, const std::uint8_t* data, std::int32_t length);
