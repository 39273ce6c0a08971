// Reads and writes of the simulated registers. Called inside "RdOne" and "WrOne"; never allocates, never waits.
#include "sim_registers.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "voq/plc_driver.h"
#include "voq/reg_range.h"

namespace
{

constexpr double SinePeriod = 10.0;   // seconds
constexpr double SquarePeriod = 2.0;  // seconds
constexpr double SineStep = 16.0;     // neighbouring elements lie a sixteenth of a period apart

std::uint8_t* Area(SimControl& control, const RegKey& key)
{
    return control.registers[key.plcno % SimStations][key.regid % SimAreas];
}

// A bit lies at its address, one byte each; a word register at its address times the bytes per address unit.
std::uint32_t ByteOffset(const RegKey& key)
{
    const std::uint32_t unit = RegElemSize(&key) == 0 ? 1 : UnitBytes(key);
    return key.addr * unit % SimAreaBytes;
}

bool LengthFits(const RegKey& key, std::int32_t length)
{
    return RegElemSize(&key) <= 8 && length >= 0 && static_cast<std::uint32_t>(length) == GetRegBuffLen(&key);
}

double Seconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Calls copy(offset in the area, offset in the value, bytes) for the pieces of a value that lie in one run.
template <typename Copy>
void ForPieces(const RegKey& key, std::int32_t length, Copy copy)
{
    std::uint32_t offset = ByteOffset(key);
    const auto bytes = static_cast<std::uint32_t>(length);
    for (std::uint32_t done = 0; done < bytes; offset = 0) {
        const std::uint32_t piece = std::min(bytes - done, SimAreaBytes - offset);
        copy(offset, done, piece);
        done += piece;
    }
}

// Fills every element with value(i), little-endian.
template <typename Value>
void Fill(const RegKey& key, std::uint8_t* data, Value value)
{
    const std::uint32_t size = ElemBytes(key);
    for (std::uint32_t i = 0; i < key.width; i++) {
        const std::uint64_t number = value(i);
        std::memcpy(data + i * size, &number, size);
    }
}

// The counter lies in the first four bytes of its area, so that a test can see and set it.
void ReadCounter(std::uint8_t* area, const RegKey& key, std::uint8_t* data)
{
    std::uint32_t count;
    std::memcpy(&count, area, sizeof count);
    count++;
    std::memcpy(area, &count, sizeof count);
    const std::uint32_t mask = RegElemSize(&key) == 0 ? 1 : 0xFFFFFFFF;
    Fill(key, data, [=](std::uint32_t) { return count & mask; });
}

void ReadSine(const RegKey& key, std::uint8_t* data)
{
    const unsigned size = RegElemSize(&key);
    const double amplitude = size == 0 ? 0.5 : size == 1 ? 100 : 1000;
    const double turn = std::fmod(Seconds(), SinePeriod) / SinePeriod;
    const std::uint32_t first = ByteOffset(key) / ElemBytes(key);
    Fill(key, data, [=](std::uint32_t i) {
        const double phase = 2 * M_PI * (turn + (first + i) / SineStep);
        return static_cast<std::uint64_t>(std::lround(amplitude + amplitude * std::sin(phase)));
    });
}

void ReadSquare(const RegKey& key, std::uint8_t* data)
{
    const unsigned size = RegElemSize(&key);
    const std::uint64_t high = size == 0 ? 1 : size == 1 ? 100 : 1000;
    const std::uint64_t value = std::fmod(Seconds(), SquarePeriod) < SquarePeriod / 2 ? 0 : high;
    Fill(key, data, [=](std::uint32_t) { return value; });
}

}  // namespace

int ReadRegisters(SimControl& control, const RegKey& key, std::uint8_t* data, std::int32_t length)
{
    if (!LengthFits(key, length)) return PLC_DRV_ERROR;
    std::uint8_t* area = Area(control, key);
    switch (key.regid % SimAreas) {
        case SimCounterArea:
            ReadCounter(area, key, data);
            return PLC_DRV_OK;
        case SimSineArea:
            ReadSine(key, data);
            return PLC_DRV_OK;
        case SimSquareArea:
            ReadSquare(key, data);
            return PLC_DRV_OK;
        default:
            break;
    }
    ForPieces(key, length, [=](auto offset, auto done, auto bytes) { std::memcpy(data + done, area + offset, bytes); });
    return PLC_DRV_OK;
}

int WriteRegisters(SimControl& control, const RegKey& key, const std::uint8_t* data, std::int32_t length)
{
    const std::uint32_t number = key.regid % SimAreas;
    if (!LengthFits(key, length) || number == SimSineArea || number == SimSquareArea) return PLC_DRV_ERROR;
    std::uint8_t* area = Area(control, key);
    if (number == SimCounterArea) {
        std::uint32_t count = 0;
        std::memcpy(&count, data,
                    std::min<std::size_t>({sizeof count, ElemBytes(key), static_cast<std::size_t>(length)}));
        std::memcpy(area, &count, sizeof count);
        return PLC_DRV_OK;
    }
    ForPieces(key, length, [=](auto offset, auto done, auto bytes) { std::memcpy(area + offset, data + done, bytes); });
    return PLC_DRV_OK;
}
