// Entry of the PLC simulator: dispatch, failures on demand, and the log of calls.
// Runs on the service's threads, one command at a time. Allocates in "Init" alone; at zero delay it makes no system
// call.
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "sim_file.h"
#include "sim_registers.h"
#include "voq/plc_driver.h"
#include "voq/reg_range.h"

namespace
{

constexpr auto Relaxed = std::memory_order_relaxed;

struct Sim {
    SimFile file;
    std::uint16_t copied;  // last word carried from LW 0 to LW 1 in slave mode
    bool copiedOnce;
};

std::uint64_t NowUs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

void Sleep(std::uint32_t us)
{
    timespec left = {static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) != 0) {
    }
}

// Only one command runs at a time, so the slot and the count have one writer.
void Log(SimControl& control, SimCall call)
{
    call.sequence = control.logged.load(Relaxed) + 1;
    const auto words = std::bit_cast<std::array<std::uint64_t, sizeof(SimCall) / 8>>(call);
    auto& slot = control.calls[(call.sequence - 1) % SimCallSlots];
    for (std::size_t i = 0; i < words.size(); i++) slot[i].store(words[i], Relaxed);
    control.logged.store(call.sequence, std::memory_order_release);
}

void LogParameters(SimControl& control, SimCommand command, const ComInfoRecord* info)
{
    SimCall call = {};
    call.startUs = NowUs();
    call.command = command;
    if (info != nullptr) {
        call.addr = info->baudOrAddress;
        call.regid = info->portNo;
        call.width = info->slaveNo;
        call.layout = info->dataBits;
    }
    Log(control, call);
}

// Takes one off the calls that are still to fail; false when there is none left.
bool TakeFailure(SimControl& control)
{
    std::uint32_t count = control.failCount.load(Relaxed);
    while (count != 0 && count != SimForever)
        if (control.failCount.compare_exchange_weak(count, count - 1, Relaxed)) return true;
    return count == SimForever;
}

constexpr std::uint32_t Nonsense[] = {0x80000000, 1, 77, 0xFFFFFFFF, 0x7FFFFFFF};

// The failure that this call is to suffer: what it returns then; a held call comes back with none.
std::uint32_t Suffer(SimControl& control, SimCommand command, const RegKey& key)
{
    const std::uint32_t failure = control.failure.load(std::memory_order_acquire);
    if (failure < SIM_FAIL_TIMEOUT || failure > SIM_FAIL_NONSENSE) return SIM_FAIL_NONE;
    const std::uint32_t station = control.failStation.load(Relaxed);
    const std::uint32_t only = control.failCommand.load(Relaxed);
    if (station != SimAllStations && station != key.plcno) return SIM_FAIL_NONE;
    if (only != command && (only != 0 || command > SIM_WRONE)) return SIM_FAIL_NONE;
    if (!TakeFailure(control)) return SIM_FAIL_NONE;
    if (failure == SIM_FAIL_CRASH) std::abort();
    if (failure == SIM_FAIL_NONSENSE) return Nonsense[(control.logged + control.loops) % std::size(Nonsense)];
    if (failure != SIM_FAIL_HANG) return failure;

    control.hanging.store(1, std::memory_order_release);
    while (control.failure.load(std::memory_order_acquire) == SIM_FAIL_HANG) Sleep(1000);
    control.hanging.store(0, std::memory_order_release);
    return SIM_FAIL_NONE;
}

bool TouchesHole(const SimControl& control, const RegKey& key)
{
    const std::uint64_t end =
        key.addr + ((std::uint64_t{key.width} * ElemBytes(key) + UnitBytes(key) - 1) / UnitBytes(key));
    const std::uint32_t count = std::min(control.holeCount.load(std::memory_order_acquire), SimHoles);
    return std::any_of(control.holes, control.holes + count, [&](const SimHole& hole) {
        const std::uint64_t first = hole.first.load(Relaxed);
        return hole.plcno.load(Relaxed) == key.plcno && hole.regid.load(Relaxed) == key.regid && first < end &&
               first + hole.amount.load(Relaxed) > key.addr;
    });
}

std::int32_t Access(Sim& sim, SimCommand command, const PlcRequest* request)
{
    if (request == nullptr || request->key == nullptr || request->data == nullptr) return PLC_DRV_ERROR;
    SimControl& control = *sim.file.control;
    const RegKey key = *request->key;
    auto* data = static_cast<std::uint8_t*>(request->data);
    const bool read = command == SIM_RDONE;
    if (!sim.file.watched)
        return read ? ReadRegisters(control, key, data, request->length)
                    : WriteRegisters(control, key, data, request->length);

    const std::uint64_t start = NowUs();
    (read ? control.reads : control.writes).fetch_add(1, Relaxed);
    if (const std::uint32_t delay = control.delayUs.load(Relaxed); delay != 0) Sleep(delay);
    std::uint32_t result = Suffer(control, command, key);
    if (result == SIM_FAIL_NONE && TouchesHole(control, key)) result = PLC_DRV_REFUSED;
    if (result == SIM_FAIL_NONE)
        result = static_cast<std::uint32_t>(read ? ReadRegisters(control, key, data, request->length)
                                                 : WriteRegisters(control, key, data, request->length));
    Log(control, {start, key.addr, key.regid, key.width, key.plcno, key.layout, command,
                  static_cast<std::uint8_t>(result), 0, key.flag, key.subaddr});
    return static_cast<std::int32_t>(result);
}

// An instance that is there already is kept.
std::int32_t Init(void** slot, const ComInfoRecord* info)
{
    if (*slot == nullptr) {
        auto* sim = static_cast<Sim*>(std::calloc(1, sizeof(Sim)));
        if (sim == nullptr || !OpenSimFile(sim->file)) {
            std::free(sim);
            return PLC_DRV_ERROR;
        }
        *slot = sim;
    }
    SimControl& control = *static_cast<Sim*>(*slot)->file.control;
    control.inits.fetch_add(1, Relaxed);
    LogParameters(control, SIM_INIT, info);
    return static_cast<std::int32_t>(Suffer(control, SIM_INIT, {}));
}

std::int32_t Destroy(void** slot, const ComInfoRecord* info)
{
    if (*slot == nullptr) return PLC_DRV_OK;
    auto* sim = static_cast<Sim*>(*slot);
    const std::uint32_t failure = Suffer(*sim->file.control, SIM_DESTROY, {});
    if (failure != SIM_FAIL_NONE) return static_cast<std::int32_t>(failure);
    sim->file.control->destroys.fetch_add(1, Relaxed);
    LogParameters(*sim->file.control, SIM_DESTROY, info);
    CloseSimFile(sim->file);
    std::free(sim);
    *slot = nullptr;
    return PLC_DRV_OK;
}

// One turn in slave mode: a panel register travels from LW 0 to LW 1, so that a test sees the call-backs at work.
// Writes only a word that changed; waits a millisecond, as a driver that listens would.
std::int32_t Loop(Sim& sim, const ComInfoRecord* info, const UserOper* oper)
{
    sim.file.control->loops.fetch_add(1, Relaxed);
    if (info != nullptr) sim.file.control->loopSlaveNo.store(info->slaveNo, Relaxed);
    Sleep(1000);
    const std::uint32_t failure = Suffer(*sim.file.control, SIM_LOOP, {});
    if (failure != SIM_FAIL_NONE) return static_cast<std::int32_t>(failure);
    if (oper == nullptr || oper->read == nullptr || oper->write == nullptr) return PLC_DRV_ERROR;

    std::uint16_t word = 0;
    if (oper->read("LW", 0, 1, &word, 0) != 1) return PLC_DRV_ERROR;
    if (sim.copiedOnce && word == sim.copied) return PLC_DRV_OK;
    if (oper->write("LW", 1, 1, &word, 0) != 1) return PLC_DRV_ERROR;
    sim.copied = word;
    sim.copiedOnce = true;
    return PLC_DRV_OK;
}

}  // namespace

int32_t PlcDrvCmd(const char* command, void* target, void** args)
{
    if (command == nullptr || target == nullptr || args == nullptr) return PLC_DRV_ERROR;
    if (std::strcmp(command, "RdOne") == 0)
        return Access(*static_cast<Sim*>(target), SIM_RDONE, static_cast<PlcRequest*>(args[0]));
    if (std::strcmp(command, "WrOne") == 0)
        return Access(*static_cast<Sim*>(target), SIM_WRONE, static_cast<PlcRequest*>(args[0]));
    if (std::strcmp(command, "Loop") == 0)
        return Loop(*static_cast<Sim*>(target), static_cast<ComInfoRecord*>(args[0]), static_cast<UserOper*>(args[1]));
    if (std::strcmp(command, "Init") == 0)
        return Init(static_cast<void**>(target), static_cast<ComInfoRecord*>(args[0]));
    if (std::strcmp(command, "Destroy") == 0)
        return Destroy(static_cast<void**>(target), static_cast<ComInfoRecord*>(args[0]));
    return PLC_DRV_ERROR;
}
