// Loads the communication parameters of the served port. Main thread, start-up.
#pragma once

#include <cstdint>

// Fills ComInfo, sysByteOder (panel) and pack_disable from the project file, or from the gateway box's own files.
// Returns 0, or -1 after a message.
int GetComInfo(const char* projectPath, std::uint16_t portIndex);
