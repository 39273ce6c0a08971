// Set bit and timed pulse of one register. Main thread; takes no lock. Waits as long as the device does.
#pragma once

#include <cstdint>
#include <span>

#include "rdchgwr/drv_ops.h"
#include "voq/pulse_note.h"
#include "voq/reg_key.h"

// Sets a bit (SetBit), or sets it and turns it back after the descriptor's time (Pulse). `pulseTime`: the request's
// own, 0 when no pulse runs. Returns PLC_SUCCESS, RT_PENDING (not finished), a failure code of the device, or PLC_ERROR
// before the device is touched when the descriptor is cut short or the register is too large.
int DoPulse(RegKey key, std::span<const unsigned char> desc, std::uint32_t* pulseTime, std::uint32_t nowMs,
            const DrvOps& ops);

// How long the pulse of a descriptor lasts that DoPulse has taken.
[[nodiscard]] std::uint32_t PulseMs(std::span<const unsigned char> desc);

// The note of the pulse that the descriptor asks for. False when it asks for none, or for one that DoPulse refuses.
[[nodiscard]] bool NoteOfPulse(const RegKey& key, std::span<const unsigned char> desc, PulseNote* note);

// Puts the bit of a note back, with one attempt and without a message. The note's register takes at most MaxPulseBytes.
// PLC_SUCCESS, or a failure code.
int PutPulseBack(const PulseNote& note, const DrvOps& ops);
