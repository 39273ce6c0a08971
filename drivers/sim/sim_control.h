// The file through which a test watches and steers the PLC simulator: its layout, for C++ programs. docs/sim.md gives
// the same layout with examples in Python. All integers are little-endian.
//
// offset   size     content                                       written by
// 0        64       head: magic, version, size                    driver, when the file is new
// 64       64       settings: delay and failures                  test (failCount also by the driver, counting down)
// 128      64       statistics                                    driver
// 192      1028     holes: addresses that the device does not know  test
// 4096     131072   the last 4096 calls, 32 bytes each            driver
// 135168   4194304  registers: station x area x 65536 bytes       both
//
// Everything outside the registers is atomic. The registers are plain memory: a value that is changed while the driver
// copies it may arrive half old, half new.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

inline constexpr std::uint64_t SimMagic = 0x314D4953514F56;  // "VOQSIM1" and a zero byte
inline constexpr std::uint32_t SimVersion = 1;

inline constexpr std::uint32_t SimStations = 8;       // plcno mod 8
inline constexpr std::uint32_t SimAreas = 8;          // regid mod 8
inline constexpr std::uint32_t SimAreaBytes = 65536;  // addresses wrap around at the end of an area
inline constexpr std::uint32_t SimCounterArea = 5;    // areas 0 to 4 are memory
inline constexpr std::uint32_t SimSineArea = 6;
inline constexpr std::uint32_t SimSquareArea = 7;

inline constexpr std::uint32_t SimCallSlots = 4096;
inline constexpr std::uint32_t SimHoles = 64;  // more than any test digs

enum SimFailure : std::uint32_t {
    SIM_FAIL_NONE = 0,
    SIM_FAIL_TIMEOUT = 2,   // the call returns 2
    SIM_FAIL_ERROR = 3,     // the call returns 3
    SIM_FAIL_HANG = 4,      // the call does not return until the failure is another; then it goes on normally
    SIM_FAIL_CRASH = 5,     // the call ends the process
    SIM_FAIL_NONSENSE = 6,  // the call returns what no driver may
};

enum SimCommand : std::uint8_t { SIM_RDONE = 1, SIM_WRONE = 2, SIM_INIT = 3, SIM_DESTROY = 4, SIM_LOOP = 5 };

inline constexpr std::uint32_t SimAllStations = 0xFFFFFFFF;
inline constexpr std::uint32_t SimForever = 0xFFFFFFFF;

// One logged call. Of "Init" and "Destroy" the record shows the communication parameters of that moment instead: addr
// is baudOrAddress, regid is portNo, width is slaveNo, layout is dataBits.
struct SimCall {
    std::uint64_t startUs;  // CLOCK_MONOTONIC at the start of the call
    std::uint32_t addr;     // as in the call's RegKey, like the four below
    std::uint16_t regid;
    std::uint16_t width;
    std::uint8_t plcno;
    std::uint8_t layout;
    std::uint8_t command;  // SimCommand
    std::uint8_t result;
    std::uint32_t sequence;  // number of this call, from 1
    std::uint32_t flag;
    std::uint32_t subaddr;
};
static_assert(sizeof(SimCall) == 32);

// Addresses that a station's area does not have: a request that touches one of them is refused (PLC_DRV_REFUSED).
struct SimHole {
    std::atomic<std::uint32_t> plcno;
    std::atomic<std::uint32_t> regid;
    std::atomic<std::uint32_t> first;
    std::atomic<std::uint32_t> amount;
};

struct SimControl {
    // Head.
    std::atomic<std::uint64_t> magic;
    std::atomic<std::uint32_t> version;
    std::atomic<std::uint32_t> size;
    std::uint8_t headRest[48];

    // Settings. Set `failure` last: it takes effect with it.
    std::atomic<std::uint32_t> delayUs;      // every RdOne and WrOne takes so much longer
    std::atomic<std::uint32_t> failure;      // SimFailure
    std::atomic<std::uint32_t> failStation;  // a plcno, or SimAllStations
    std::atomic<std::uint32_t> failCount;    // calls still to fail, or SimForever
    std::atomic<std::uint32_t> failCommand;  // a SimCommand alone, 0 for RdOne and WrOne
    std::uint8_t settingsRest[44];

    // Statistics; the counts wrap.
    std::atomic<std::uint32_t> inits;
    std::atomic<std::uint32_t> destroys;
    std::atomic<std::uint32_t> loops;
    std::atomic<std::uint32_t> reads;        // RdOne, failed ones too
    std::atomic<std::uint32_t> writes;       // WrOne, failed ones too
    std::atomic<std::uint32_t> hanging;      // 1 while a call is being held
    std::atomic<std::uint32_t> loopSlaveNo;  // slaveNo at the last Loop
    std::atomic<std::uint32_t> logged;       // calls logged; the last one lies in slot (logged - 1) mod 4096
    std::uint8_t statisticsRest[32];

    // Holes. Set `holeCount` last.
    std::atomic<std::uint32_t> holeCount;
    SimHole holes[SimHoles];

    std::uint8_t gap[2876];
    std::array<std::atomic<std::uint64_t>, sizeof(SimCall) / 8> calls[SimCallSlots];

    std::uint8_t registers[SimStations][SimAreas][SimAreaBytes];
};
static_assert(std::endian::native == std::endian::little, "the file is little-endian");
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && sizeof(std::atomic<std::uint64_t>) == 8);
static_assert(offsetof(SimControl, delayUs) == 64);
static_assert(offsetof(SimControl, failCommand) == 80);
static_assert(offsetof(SimControl, inits) == 128);
static_assert(offsetof(SimControl, logged) == 156);
static_assert(offsetof(SimControl, holeCount) == 192 && offsetof(SimControl, holes) == 196);
static_assert(offsetof(SimControl, calls) == 4096);
static_assert(offsetof(SimControl, registers) == 135168);
static_assert(sizeof(SimControl) == 4329472);

// Call number `sequence`, counted from 1. It is the one asked for when its own sequence says so: later calls overwrite.
inline SimCall SimLoggedCall(const SimControl& control, std::uint32_t sequence)
{
    std::array<std::uint64_t, sizeof(SimCall) / 8> words;
    const auto& slot = control.calls[(sequence - 1) % SimCallSlots];
    for (std::size_t i = 0; i < words.size(); i++) words[i] = slot[i].load(std::memory_order_relaxed);
    return std::bit_cast<SimCall>(words);
}
