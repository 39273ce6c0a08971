// The serial line of the RTU master, and the time limit of a request. Runs inside "RdOne" and "WrOne". Waits for the
// station, never longer than the time limit and what the line takes to carry the frames; allocates only when the line's
// settings have changed.
#include <algorithm>
#include <cstring>

#include "clock.h"
#include "connection.h"
#include "mapping.h"
#include "rtu_frame.h"
#include "serial_line.h"
#include "voq/plc_driver.h"

namespace
{

constexpr std::uint32_t FrameBytes = 17;  // of a request and its answer together, beside the values
constexpr std::size_t CrcBytes = 2;
constexpr std::uint8_t Broadcast = 0, LastUnit = 247;
constexpr std::uint64_t DrainMs = 50;  // a line that never falls silent is used all the same

// A frame begins after a pause; what arrives in it was meant for an earlier request.
bool AwaitPause(Connection& connection, int gapMs)
{
    const std::uint64_t start = NowMs();
    const std::uint64_t silent = start - connection.lastMs;
    int wait = silent >= static_cast<std::uint64_t>(gapMs) ? 0 : gapMs - static_cast<int>(silent);
    while (true) {
        const LineEvent event = WaitLine(connection.context, wait);
        if (event != LineEvent::Bytes) return event == LineEvent::Quiet;
        EmptyLine(connection.context);
        if (NowMs() - start >= DrainMs) return true;
        wait = gapMs;
    }
}

bool Open(Connection& connection)
{
    if (!connection.open) connection.open = OpenLine(connection.context, connection.reporter);
    return connection.open;
}

}  // namespace

bool SameTarget(const ComInfoRecord& a, const ComInfoRecord& b)
{
    return SameLine(a, b);
}

void NameTarget(Connection& connection, const ComInfoRecord& info)
{
    NameLine(info, connection.reporter);
}

const char* const UnitsServed = "stations are 1 to 247";

bool ServesUnit(std::uint8_t unit)
{
    return unit != Broadcast && unit <= LastUnit;
}

// A device that was pulled and plugged in again since the last request is another one by the same name.
int PrepareRequest(Connection& connection, const ComInfoRecord& info, std::uint8_t unit, std::uint32_t payload,
                   std::uint32_t& limitMs)
{
    if (connection.context == nullptr) connection.context = NewLine(info, connection.reporter);
    if (connection.context == nullptr) return PLC_DRV_ERROR;
    connection.madeFor = info;
    if (modbus_set_slave(connection.context, unit) != 0) return PLC_DRV_ERROR;

    if (!Open(connection)) return PLC_DRV_ERROR;
    if (!AwaitPause(connection, FrameGapMs(info))) {
        CloseConnection(connection);
        if (!Open(connection)) return PLC_DRV_ERROR;
    }
    limitMs += WireMs(info, FrameBytes + payload);
    return PLC_DRV_OK;
}

bool SendPdu(Connection& connection, std::uint8_t unit, const std::uint8_t* pdu, std::size_t length)
{
    std::uint8_t request[1 + MaxPdu] = {unit};
    std::memcpy(request + 1, pdu, length);
    return modbus_send_raw_request(connection.context, request, static_cast<int>(1 + length)) > 0;
}

// libmodbus has looked at the checksum of the station that was asked, not at that of others.
bool TakeApart(const std::uint8_t* frame, int got, Answer& answer)
{
    const std::size_t length = got > 0 ? static_cast<std::size_t>(got) : AnswerLength(frame);
    if (length < 1 + CrcBytes + 1 || (got == 0 && RtuCrc(frame, length) != 0)) return false;
    answer = {0, frame[0], frame + 1, length - 1 - CrcBytes};
    return true;
}

// Answers on a line carry no number. Shortly after a time-out, an answer may be the late one for the request that timed
// out; then a second one follows. It costs a wait only when a station answers again so soon.
bool AnswerIsSure(Connection& connection, const ComInfoRecord& info, std::uint8_t unit)
{
    const Station& station = connection.stations.stations[unit];
    const std::uint64_t end = station.timeoutMs + RequestTimeoutMs(info), now = NowMs();
    if (station.timeouts == 0 || now >= end) return true;
    return WaitLine(connection.context, static_cast<int>(end - now)) == LineEvent::Quiet;
}

// A line cannot be told from a new one; only a device that is gone has to be opened again.
void AbandonRequest(Connection& connection, Outcome outcome)
{
    if (outcome != Outcome::Broken) return;
    EmptyLine(connection.context);
    CloseConnection(connection);
}
