// The one configuration step of the process. Main thread, before any other thread exists.
#pragma once

#include <cstdint>

// Loads the port's parameters and driver, builds the working paths, makes the port's directory and FIFOs, resets the
// shared state, and makes the register database ready. `userDir`: root of the port directories. Returns 0, or -1 when
// the local build failed. Ends the process when the parameters cannot be used (exit status 0, to be started again), a
// path does not fit, another service holds the port, or a master's database cannot be read (exit status 1).
int RdUserFile(const char* projectPath, const char* userDir, std::uint16_t portIndex);
