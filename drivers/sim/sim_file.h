// The simulator's state: mapped from the file that VOQ_SIM names, or from anonymous memory when it names none.
#pragma once

#include "sim_control.h"

struct SimFile {
    SimControl* control;  // null while nothing is mapped
    bool watched;         // the state is a file: somebody may look at the log and set failures
};

// Maps the state. False after a message when the file cannot be had, or holds something else.
[[nodiscard]] bool OpenSimFile(SimFile& file);

void CloseSimFile(SimFile& file);
