// The first program of the machine whose plug is pulled. It mounts the storage, starts the service beside a simulated
// PLC, looks at what is left of the register database and then works as a client. Everything worth knowing goes to the
// serial line, a line each that begins with "@"; what may be relied on is said behind the fact, what is asked for
// before.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "client/port_dir.h"
#include "drivers/sim/sim_control.h"
#include "voq/reg_key.h"

inline const voq::PortDir Port{"/d/user", voq::LinkType::Ethernet, 1};
inline constexpr unsigned PulseStation = 1, PulseArea = 3, PulseBits = 64;  // the bits that are pulsed, one byte each
inline constexpr unsigned WaitMs = 20000;  // for whatever the service does at once on any machine that is not broken

extern SimControl* Plc;  // its registers are new in each start of the machine: a PLC has no part in the storage

// With `out` false the line may still be on its way when the call returns.
void Say(const std::string& line, bool out = false);
std::string NameOf(const RegKey& key);
// Asks until the answer is yes; throws voq::Error that says what was waited for in vain.
void WaitFor(const std::string& what, const std::function<bool()>& there);

// Registers, logs on and off, writes, changes and pulses, until the machine is gone: ten minutes at most. `known` are
// the ranges that are registered.
void Work(unsigned seed, std::vector<RegKey> known);
