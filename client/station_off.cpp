// Reads and writes station bits. One lock at a time; may wait for the panel and the services.
#include "client/station_off.h"

#include "client/locked_file.h"
#include "voq/retained_file.h"

namespace voq
{

std::vector<std::uint8_t> StationsOff(std::uint16_t portNo)
{
    StationWords words = {};
    const auto bytes = ReadLockedRange(RetainedSettings, RetainedStations(portNo), sizeof words);
    if (bytes) std::memcpy(words, bytes->data(), bytes->size());
    std::vector<std::uint8_t> off;
    for (unsigned station = 0; station < 256; ++station) {
        if (StationIsOff(words, static_cast<std::uint8_t>(station))) off.push_back(static_cast<std::uint8_t>(station));
    }
    return off;
}

void SwitchStation(std::uint16_t portNo, std::uint8_t station, bool off)
{
    const std::uint64_t word = RetainedStations(portNo) + station / 16 * sizeof(std::uint16_t);
    ChangeLocked(RetainedSettings, RetainedFileBytes, word, sizeof(std::uint16_t), [&](std::span<std::uint8_t> bytes) {
        auto bits = *RecordAt<std::uint16_t>(bytes, 0);
        const auto bit = static_cast<std::uint16_t>(1u << station % 16);
        bits = static_cast<std::uint16_t>(off ? bits | bit : bits & ~bit);
        std::memcpy(bytes.data(), &bits, sizeof bits);
    });
}

}  // namespace voq
