// A serial line of the box: its device, its settings from the port's parameters, its timing. For the RTU master and the
// RTU slave alike.
#pragma once

#include <modbus.h>

#include <cstdint>

#include "report.h"
#include "voq/com_info.h"

[[nodiscard]] bool SameLine(const ComInfoRecord& a, const ComInfoRecord& b);

// Names the reporter after the line's device.
void NameLine(const ComInfoRecord& info, Reporter& reporter);

// A libmodbus context for the line, not yet open; names the reporter after the device. Null for settings that no line
// can have, which is reported.
[[nodiscard]] modbus_t* NewLine(const ComInfoRecord& info, Reporter& reporter);

// False, and reported, when the device is missing or does not take the settings.
[[nodiscard]] bool OpenLine(modbus_t* context, Reporter& reporter);

// Waits for at most `waitMs` until a byte arrives.
enum class LineEvent { Quiet, Bytes, Gone };
[[nodiscard]] LineEvent WaitLine(modbus_t* context, int waitMs);

// Throws away what is waiting in either direction, so that closing need not wait for a line that takes nothing.
void EmptyLine(modbus_t* context);

// The pause that ends a frame, three and a half characters, in milliseconds, rounded up.
[[nodiscard]] int FrameGapMs(const ComInfoRecord& info);

// How long the line takes to carry so many bytes.
[[nodiscard]] std::uint32_t WireMs(const ComInfoRecord& info, std::uint32_t bytes);
