// The port of a command, followed through the client library.
#pragma once

#include <chrono>
#include <memory>

#include "client/port.h"
#include "tools/target.h"

// Opens the target's port. Throws voq::Error.
std::unique_ptr<voq::Port> OpenPort(const Target& target, const PortOptions& options, voq::PortSettings settings = {});

// Waits until there is an event, the time is over or a signal has come, at most 200 ms in any case. A lock that is held
// meanwhile is tried again by the next call. Throws voq::Error.
void Await(voq::Port& port, voq::Port::Clock::time_point until = voq::Port::Clock::time_point::max());
