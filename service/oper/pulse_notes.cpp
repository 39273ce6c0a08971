// Notes of pulses, on the main thread.
#include "oper/pulse_notes.h"

#include <cstdio>
#include <cstring>

#include "arch/clock.h"
#include "arch/fs.h"
#include "arch/work_file.h"
#include "list/rt_list.h"
#include "rdchgwr/pulse.h"
#include "rdchgwr/rd_chg_wr.h"
#include "state/counters.h"
#include "state/paths.h"
#include "voq/chg_desc.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

static_assert(MostPulseNotes == RtSlots);

namespace
{
constexpr std::uint32_t TryEveryMs = 1000;
constexpr std::uint16_t NoPlace = MostPulseNotes;

PulseNote Notes[MostPulseNotes];        // as they lie in the file
std::uint16_t Running[MostPulseNotes];  // requests whose pulse of the note's bit runs; none: it is left over
std::uint16_t NoteOf[RtSlots];          // place of the request's note, counted from 1; 0 for none
std::uint16_t LeftOver;                 // notes that are left over
std::uint16_t LastTried;                // place of the last of them that was tried
std::uint32_t LastTry;                  // when, by GetMsFormStart
bool FileRead;
bool NameOnDisk;  // the directory was synced after the file was made

std::uint32_t NowMs()
{
    return static_cast<std::uint32_t>(GetMsFormStart());
}

bool Sound(const PulseNote& note)
{
    return note.inuse == 1 && note.check == PulseNoteCheck(note) && GetRegBuffLen(&note.key) <= MaxPulseBytes;
}

bool ReadNotes()
{
    std::memset(Notes, 0, sizeof Notes);
    FileRead = !FileExists(PulsesName);
    WorkFile file;
    if (FileRead || !file.OpenRO(PulsesName)) return FileRead;
    const std::uint32_t there = file.Size();
    FileRead = file.ReadSome(0, Notes, sizeof Notes) == (there < sizeof Notes ? there : sizeof Notes);
    for (PulseNote& note : Notes) {
        if (FileRead && Sound(note)) {
            ++LeftOver;
        } else {
            note = {};
        }
    }
    if (LeftOver == 0) return FileRead;
    file.Sync();
    std::printf("*VOQ*pulses cut short: %d, their bits are put back\r\n", LeftOver);
    return FileRead;
}

// Writes one note in place, of a new file the whole table, so that the file never grows afterwards.
bool WriteNote(std::uint16_t place, bool sync)
{
    const bool there = FileExists(PulsesName);
    WorkFile file;
    if (there ? !file.OpenRW(PulsesName) : !file.Create(PulsesName)) return false;
    const bool written = there ? file.WriteRecord(place * sizeof(PulseNote), Notes[place]) : file.WriteRecord(0, Notes);
    if (!written || !sync) return written;
    if (!file.Sync()) return false;
    NameOnDisk = (there && NameOnDisk) || SyncDirectory(DataDir);
    return NameOnDisk;
}

void StrikeOff(std::uint16_t place)
{
    Notes[place] = {};
    static_cast<void>(WriteNote(place, false));
}

bool SameBit(const PulseNote& a, const PulseNote& b)
{
    return SameStationArea(a.key, b.key) && a.key.subaddr == b.key.subaddr && a.key.addr == b.key.addr &&
           a.bit == b.bit;
}

// Place of the bit's note, else a free one; NoPlace when all are taken.
std::uint16_t PlaceFor(const PulseNote& pulse)
{
    std::uint16_t unused = NoPlace;
    for (std::uint16_t place = 0; place < MostPulseNotes; ++place) {
        const bool taken = Notes[place].inuse != 0;
        if (taken && SameBit(Notes[place], pulse)) return place;
        if (!taken && unused == NoPlace) unused = place;
    }
    return unused;
}

// A note that stands already is on the disk.
bool StoreNote(std::uint16_t place, const PulseNote& pulse)
{
    const PulseNote before = Notes[place];
    if (std::memcmp(&before, &pulse, sizeof pulse) == 0) return true;
    Notes[place] = pulse;
    if (WriteNote(place, true)) return true;
    Notes[place] = before;
    static_cast<void>(WriteNote(place, false));
    return false;
}

// Place of the next note behind the last one tried that may be tried; NoPlace when there is none.
std::uint16_t NextLeftOver()
{
    for (std::uint16_t steps = 1; steps <= MostPulseNotes; ++steps) {
        const auto place = static_cast<std::uint16_t>((LastTried + steps) % MostPulseNotes);
        const PulseNote& note = Notes[place];
        if (note.inuse != 0 && Running[place] == 0 && !StationDisabled(note.key.plcno)) return place;
    }
    return NoPlace;
}
}  // namespace

bool TakeOverPulseNotes()
{
    std::memset(Running, 0, sizeof Running);
    std::memset(NoteOf, 0, sizeof NoteOf);
    LeftOver = 0;
    LastTried = MostPulseNotes - 1;
    LastTry = 0 - TryEveryMs;  // the first attempt is due at once
    NameOnDisk = false;
    return ReadNotes() && LeftOver != 0;
}

bool NotePulse(std::uint16_t slot, const PulseNote& pulse)
{
    const bool known = FileRead || ReadNotes();
    const std::uint16_t place = known ? PlaceFor(pulse) : NoPlace;
    const bool taken = place != NoPlace && Notes[place].inuse != 0;
    if (place == NoPlace || !StoreNote(place, pulse)) {
        std::printf("*VOQ*pulse refused, it could not be noted in %s\r\n", PulsesName);
        return false;
    }
    if (taken && Running[place] == 0) --LeftOver;
    ++Running[place];
    NoteOf[slot] = static_cast<std::uint16_t>(place + 1);
    return true;
}

void EndPulse(std::uint16_t slot, bool back)
{
    if (NoteOf[slot] == 0) return;
    const auto place = static_cast<std::uint16_t>(NoteOf[slot] - 1);
    NoteOf[slot] = 0;
    if (--Running[place] != 0) return;
    if (back) {
        StrikeOff(place);
    } else if (LeftOver++ == 0) {
        LastTry = NowMs();
    }
}

void WriteSettlesPulses(const RegKey& written)
{
    for (std::uint16_t place = 0; LeftOver != 0 && place < MostPulseNotes; ++place) {
        const PulseNote& note = Notes[place];
        const bool left = note.inuse != 0 && Running[place] == 0;
        if (!left || !SameStationArea(note.key, written) || note.key.subaddr != written.subaddr) continue;
        if (!ValueWithin(written, GetRegBuffLen(&written), note.key)) continue;
        StrikeOff(place);
        --LeftOver;
    }
}

void PutLeftOverPulseBack(const DrvOps& ops)
{
    if (LeftOver == 0 || CheckTm(&LastTry, NowMs(), TryEveryMs) == 0) return;
    const std::uint16_t place = NextLeftOver();
    if (place == NoPlace) return;
    LastTried = place;
    const PulseNote note = Notes[place];
    const bool back = PutPulseBack(note, ops) == PLC_SUCCESS;
    LastTry = NowMs() - (back ? TryEveryMs : 0);  // an attempt may have taken longer than the second
    if (!back) return;
    std::printf("*VOQ*pulse ended: bit %d is back, plcno=%d, regid=%d, addr=%u\r\n", note.bit, note.key.plcno,
                note.key.regid, note.key.addr);
    StrikeOff(place);
    --LeftOver;
}
