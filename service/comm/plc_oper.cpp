// PLC reads and writes on the main thread.
#include "comm/plc_oper.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "arch/clock.h"
#include "comm/marker.h"
#include "comm/plc_driver.h"
#include "database/write_through.h"
#include "state/com_state.h"
#include "state/counters.h"
#include "stats/heartbeat.h"
#include "voq/reg_range.h"

namespace
{
constexpr int Attempts = 3;
constexpr int TimeoutMarkerAt = 3;
constexpr int ComErrorMarkerAt = 5;
constexpr int FailureCountTop = 1000;  // beyond it the count drops back, so that it never wraps
constexpr int FailureCountAgain = 10;

using ChunkOper = int (*)(RegKey key, void* buffer);

// Elements of the range in one driver request: all of it, or as many as the port's limit allows and end on an address
// unit, since the next chunk begins there; 0 when no number does. A bit register has an address for each element.
std::uint32_t ChunkWidth(const RegKey& key)
{
    const std::uint32_t limit = PortPackLimits(key).length;
    if (limit == 0 || key.width <= limit) return key.width;
    if (RegElemSize(&key) == 0) return limit;
    const std::uint32_t whole = UnitBytes(key) / std::gcd(ElemBytes(key), UnitBytes(key));
    return limit - limit % whole;
}

// Hands the range to `oper` in pieces of at most the port's request limit, in ascending order; ends at the first
// failure. A limit of 0 is no limit.
int ForEachChunk(const RegKey& key, void* buffer, ChunkOper oper)
{
    const bool bits = RegElemSize(&key) == 0;
    const std::uint32_t limit = ChunkWidth(key);
    if (key.width > 0 && limit == 0) return PLC_ERROR;
    const std::uint32_t bufferStep = limit * ElemBytes(key);
    const std::uint32_t addressStep = bits ? limit : bufferStep / UnitBytes(key);

    RegKey chunk = key;
    auto* at = static_cast<unsigned char*>(buffer);
    for (std::uint32_t left = key.width; left > 0; left -= chunk.width) {
        chunk.width = static_cast<std::uint16_t>(left < limit ? left : limit);
        const int result = oper(chunk, at);
        if (result != PLC_SUCCESS) return result;
        chunk.addr += addressStep;
        at += bufferStep;
    }
    return PLC_SUCCESS;
}

int WithRetries(RegKey key, void* buffer, ChunkOper oper, int mode, bool takesRefusal = false)
{
    int result = PLC_ERROR;
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        result = oper(key, buffer);
        if (result == PLC_SUCCESS || (takesRefusal && LastRefused)) return result;
        const Waiting waiting(StatsWait::Pause);
        TaskSleep(static_cast<std::int32_t>(comIntervals));
    }
    std::printf("*VOQ*ERROR timeout! mode:%d error:%d\r\n", mode, Attempts);
    return result;
}

int WriteWithRetries(RegKey key, void* buffer)
{
    return WithRetries(key, buffer, PlcDrvWrite, PLC_WRITE);
}
int ReadWithRetries(RegKey key, void* buffer)
{
    return WithRetries(key, buffer, PlcDrvRead, PLC_READ_RETRY);
}
int ReadJoined(RegKey key, void* buffer)
{
    return WithRetries(key, buffer, PlcDrvRead, PLC_READ_RETRY, true);
}

// Only the main thread changes the counters; the service threads look at them.
void CountFailure(std::atomic<std::int32_t>& counter, int markerAt, int (*setMarker)())
{
    if (FailuresUncounted) return;
    const std::int32_t count = counter.load(std::memory_order_relaxed) + 1;
    if (count == markerAt) setMarker();
    counter.store(count > FailureCountTop ? FailureCountAgain : count, std::memory_order_relaxed);
}

void ClearFailures(std::atomic<std::int32_t>& counter, int (*clearMarker)())
{
    if (counter.load(std::memory_order_relaxed) == 0) return;
    clearMarker();
    counter.store(0, std::memory_order_relaxed);
}

void NoteSuccess()
{
    ClearFailures(GlobeTimeout, ClrTimeout);
    ClearFailures(GlobeComError, ClrComError);
}

std::int32_t Transfer(TimedCall::Kind kind, const RegKey& key, void* buffer)
{
    const std::int32_t driverResult = DriverTransfer(kind, key, buffer);
    LastRefused = driverResult == PLC_DRV_REFUSED;
    return driverResult;
}

int NoteFailure(std::int32_t driverResult)
{
    if (driverResult == PLC_DRV_TIMEOUT) {
        CountFailure(GlobeTimeout, TimeoutMarkerAt, SetTimeout);
        return PLC_TIMEOUT;
    }
    if (driverResult == PLC_DRV_REFUSED) {
        ClearFailures(GlobeTimeout, ClrTimeout);
        return PLC_ERROR;
    }
    CountFailure(GlobeComError, ComErrorMarkerAt, SetComError);
    return PLC_ERROR;
}
}  // namespace

int PlcOper(RegKey key, void* buffer, int mode)
{
    LastRefused = false;  // there may be nothing to transfer
    switch (mode) {
        case PLC_READ_ONCE:
            return ForEachChunk(key, buffer, PlcDrvRead);
        case PLC_WRITE:
            return ForEachChunk(key, buffer, WriteWithRetries);
        case PLC_READ_RETRY:
            return ForEachChunk(key, buffer, ReadWithRetries);
        case PLC_READ_JOINED:
            return ForEachChunk(key, buffer, ReadJoined);
        default:
            return PLC_SUCCESS;
    }
}

int PlcDrvReadPack(RegKey key, void* buffer)
{
    return ForEachChunk(key, buffer, PlcDrvRead);
}

int PlcDrvWritePack(RegKey key, void* buffer)
{
    return ForEachChunk(key, buffer, PlcDrvWrite);
}

int PlcDrvRead(RegKey key, void* buffer)
{
    if (_cmd == nullptr) return PLC_ERROR;
    const std::uint32_t length = GetRegBuffLen(&key);
    if (GroupFlag(key)) {
        std::memset(buffer, 0, length);
        return PLC_SUCCESS;
    }
    // The driver is told a length of 0 for the element sizes that name none; the region still has bytes.
    if (PlcGetBytes(key) < length) std::memset(buffer, 0, length);
    const std::int32_t driverResult = Transfer(TimedCall::Kind::Read, key, buffer);
    if (driverResult != PLC_DRV_OK) return NoteFailure(driverResult);
    NoteSuccess();
    return PLC_SUCCESS;
}

int PlcDrvWrite(RegKey key, void* buffer)
{
    if (_cmd == nullptr) return PLC_ERROR;
    const std::int32_t driverResult = Transfer(TimedCall::Kind::Write, key, buffer);
    if (driverResult != PLC_DRV_OK) return NoteFailure(driverResult);
    UpdateOrgAfterWrite(key, PlcGetBytes(key), buffer);
    NoteSuccess();
    return PLC_SUCCESS;
}
