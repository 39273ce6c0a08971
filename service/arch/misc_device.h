// The box's misc device: line mode of the serial ports, unit identifier. Main thread.
#pragma once

#include <cstdint>

inline constexpr int UnitIdBytes = 16;

// Sets the line mode (0, 1 or 2) of serial port 0 or 1; any other pair opens and closes the device only.
void COM_SetMode(std::uint32_t port, std::uint32_t mode);

// Reads the unit identifier into a buffer of UnitIdBytes bytes, passed to the device as it is.
void GetUID(void* buffer);
