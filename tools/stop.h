// Ending a command by a signal.
#pragma once

#include <csignal>

// The signal that came, 0 until then.
extern volatile std::sig_atomic_t Stopped;

// Catches SIGINT, SIGTERM and SIGHUP: the first one sets Stopped, a second one of the same kind ends the process.
void CatchSignals();
