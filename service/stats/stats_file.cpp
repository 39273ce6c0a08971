// Shows sections by the protocol of voq/stats.h.
#include "stats/stats_file.h"

#include <atomic>
#include <cstddef>
#include <cstdio>

#include "arch/clock.h"
#include "arch/process.h"
#include "arch/shared_file.h"
#include "arch/system_error.h"

namespace
{
// The words of a record, whatever its fields are.
using Word [[gnu::may_alias]] = std::uint32_t;

// The mapped file; null while there is none.
unsigned char* Shown = nullptr;

void Store(Word& to, std::uint32_t value)
{
    std::atomic_ref<std::uint32_t>(to).store(value, std::memory_order_relaxed);
}

// Bytes `From` to `To` of a section, on word boundaries; the others are as they were.
template <std::size_t From, std::size_t To, typename Section>
void ShowBytes(Section& section)
{
    static_assert(offsetof(Section, sequence) == 0 && From % sizeof(Word) == 0 && To % sizeof(Word) == 0);
    if (Shown == nullptr) return;
    const std::ptrdiff_t at = reinterpret_cast<unsigned char*>(&section) - reinterpret_cast<unsigned char*>(&Stats);
    const Word* const from = reinterpret_cast<const Word*>(&section);
    Word* const to = reinterpret_cast<Word*>(Shown + at);
    Store(to[0], section.sequence + 1);
    std::atomic_thread_fence(std::memory_order_release);
    for (std::size_t i = From / sizeof(Word); i < To / sizeof(Word); ++i) Store(to[i], from[i]);
    section.sequence += 2;
    std::atomic_ref<std::uint32_t>(to[0]).store(section.sequence, std::memory_order_release);
}

template <typename Section>
void ShowSection(Section& section)
{
    ShowBytes<sizeof section.sequence, sizeof section>(section);
}
}  // namespace

void StartStats(const char* path, std::uint16_t portIndex)
{
    StatsHeader& header = Stats.header;
    header.magic = StatsMagic;
    header.version = StatsVersion;
    header.size = sizeof(StatsFile);
    header.pid = OwnProcessId();
    header.started = WallMicroseconds();
    header.startedMono = MonoMicroseconds();
    header.portIndex = portIndex;
    Stats.loop.round.lostStation = StatsNoStation;
    Shown = static_cast<unsigned char*>(MapNewFile(path, &Stats, sizeof Stats));
    if (Shown == nullptr) {
        std::printf("*VOQ*%s cannot be made, nobody sees the statistics\r\n", path);
        PrintSystemError("stats:");
    }
}

void Show(StatsPort& section)
{
    ShowSection(section);
}
void Show(StatsThread& section)
{
    ShowSection(section);
}
void Show(StatsIntake& section)
{
    ShowSection(section);
}
void Show(StatsLoop& section)
{
    ShowSection(section);
}
void Show(StatsDriver& section)
{
    ShowSection(section);
}
void Show(StatsStation& section)
{
    ShowSection(section);
}
void Show(StatsRange& section)
{
    ShowSection(section);
}
void ShowRead(StatsRange& section)
{
    ShowBytes<offsetof(StatsRange, readNumber), offsetof(StatsRange, apartFrom)>(section);
}
