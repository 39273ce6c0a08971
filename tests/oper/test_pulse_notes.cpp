// What settles the note of a pulse, and what does not.
#include <gtest/gtest.h>

#include <cstring>

#include "oper/pulse_notes.h"
#include "support/capture.h"
#include "support/scratch.h"
#include "voq/rt_item.h"

extern std::int64_t NowUs;

namespace
{
bool Answers;
std::string Written;
constexpr DrvOps Device = {[](RegKey, void* to) { return std::memset(to, 0xFF, 2), Answers ? PLC_SUCCESS : PLC_ERROR; },
                           [](RegKey key, void*) { return Written += std::to_string(key.addr) + " ", PLC_SUCCESS; }};

PulseNote Note(std::uint32_t addr, std::uint8_t bit, std::uint32_t subaddr = 0)
{
    PulseNote note{WordKey(addr, 1), bit, 0, 1, 0, 0};
    note.key.subaddr = subaddr;
    note.check = PulseNoteCheck(note);
    return note;
}

int Standing()
{
    int standing = 0;
    const std::string notes = FileBytes(PulsesName);
    for (std::size_t at = 26; at < notes.size(); at += sizeof(PulseNote)) standing += notes[at];
    return standing;
}

TEST(PulseNotes, StandUntilTheirBitsAreSettled)
{
    const Scratch scratch;
    std::filesystem::create_directory(PulsesName);  // there, and cannot be read
    EXPECT_FALSE(TakeOverPulseNotes());
    Output([] { EXPECT_FALSE(NotePulse(0, Note(1, 1))); });
    std::filesystem::remove(PulsesName);
    std::uint16_t slot = 0;
    for (const PulseNote& note : {Note(10, 3), Note(10, 3), Note(10, 4), Note(10, 3, 2048), Note(12, 3)})
        EXPECT_TRUE(NotePulse(slot++, note));
    EndPulse(0, true);  // another pulse of the bit runs
    WriteSettlesPulses(WordKey(0, 100));
    EXPECT_EQ(4, Standing());
    EndPulse(1, false);
    RegKey elsewhere[] = {WordKey(10, 1), WordKey(10, 1), WordKey(11, 9), Note(10, 3, 2048).key};
    elsewhere[0].plcno = elsewhere[1].regid = 9;
    for (const RegKey& key : elsewhere) WriteSettlesPulses(key);
    EXPECT_EQ(4, Standing());
    WriteSettlesPulses(WordKey(9, 2));
    EXPECT_EQ(3, Standing());
    EndPulse(2, false);
    EXPECT_TRUE(NotePulse(5, Note(10, 4)));  // a new pulse of a bit that is left over
    for (const std::uint16_t ended : {5, 5, 4}) EndPulse(ended, true);
    EXPECT_EQ(1, Standing());
    EndPulse(3, false);
    for (const bool answers : {false, true}) {
        Answers = answers;
        NowUs += 1'000'000;
        Output([] { PutLeftOverPulseBack(Device); });
        EXPECT_EQ(answers ? "10 " : "", Written);
        EXPECT_EQ(answers ? 0 : 1, Standing());
    }
    for (std::uint16_t n = 0; n < MostPulseNotes; ++n) EXPECT_TRUE(NotePulse(n, Note(n, 0)));
    Output([] { EXPECT_FALSE(NotePulse(0, Note(0, 1))); });
    EXPECT_EQ(MostPulseNotes, Standing());
}
}  // namespace
