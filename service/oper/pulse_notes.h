// Notes of the pulses whose bit may still be set, in the file `pulses` and in memory. A pulse is noted before its bit
// is driven and struck off when the bit is back. What an ended service, a failed last write or a lost request leaves
// over is put back as soon as the device answers. Main thread, master mode.
#pragma once

#include <cstdint>

#include "rdchgwr/drv_ops.h"
#include "voq/pulse_note.h"

// Reads the notes of an earlier run, which are all left over, and says how many when there are any. Start-up. True when
// there are; false also when the file cannot be read: it is then read before the first pulse is noted.
bool TakeOverPulseNotes();

// Notes the pulse of the request in `slot`; on the disk when it returns true. Takes over the note of another pulse of
// the same bit. False after a message: the bit must not be driven.
[[nodiscard]] bool NotePulse(std::uint16_t slot, const PulseNote& pulse);

// The request in `slot` is over; `back`: its bit is. Strikes the note off or leaves it over, when no other pulse of the
// bit runs. Nothing happens to a request without a note.
void EndPulse(std::uint16_t slot, bool back);

// A client has written the range: bits inside it that were left over are what it wants them to be.
void WriteSettlesPulses(const RegKey& written);

// Puts one bit that is left over back, in turn, with one attempt: a second after one that failed, else at once.
// Stations that are switched off are passed over. Waits as long as the device does.
void PutLeftOverPulseBack(const DrvOps& ops);
