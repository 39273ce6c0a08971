// The operator's retained serial settings, and how they reach the communication parameters.
// Main thread: at start-up, and when the change flag is raised.
#pragma once

#include "state/com_state.h"
#include "voq/retained_file.h"

// Reads the record of ComInfo's port number. 1 when it holds settings, else 0.
int CheckSRWComPara(SerialSettings* settings);

// Copies each field that lies in its range into ComInfo; the others keep their value.
void Copy2ComInfo(const SerialSettings& settings) VOQ_REQUIRES(DriverLock);
