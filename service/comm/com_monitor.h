// Changes that the operator makes while the service runs. Main thread, between the passes; every file is opened under
// its whole-file lock, so a check may wait for the GUI.
#pragma once

#include <cstdint>

// Applies new serial settings when the port's change flag is raised, sets the line mode, clears the flag.
int CheckIfComChg(std::uint16_t portIndex);

// Reloads the station-disable table of the port.
int CheckStaionEnable();

// Takes over a slave station number handed over in a file, and removes the file.
int CheckSlaveNo();
