// The slave on a serial line. Runs inside "Loop". Waits for at most IdleMs when the line is quiet and a little longer
// when it is not; allocates only when the line's settings have changed.
//
// The line is read here and not by libmodbus, which on a line with several stations would take the next request for the
// answer of a station that gave none.
#include <errno.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "clock.h"
#include "rtu_frame.h"
#include "serial_line.h"
#include "slave.h"
#include "slave_serve.h"

struct Slave {
    modbus_t* context;      // null until the first turn
    ComInfoRecord madeFor;  // the parameters that the context was made from
    bool open;
    Reporter reporter;
    std::uint64_t lastMs;  // when the last byte was read
    std::size_t have;
    std::uint8_t bytes[2 * RtuMaxFrame];
};

namespace
{

constexpr std::uint16_t LastStation = 247;
constexpr std::uint64_t BusyMs = 50;   // the longest turn on a line that does not fall silent
constexpr std::uint64_t StaleMs = 50;  // an unfinished frame is given up after this, or two pauses
constexpr int ChecksumBytes = 2;
constexpr int StationBytes = 1;

void CloseSlave(Slave& slave)
{
    if (slave.open) {
        EmptyLine(slave.context);
        modbus_close(slave.context);
    }
    slave.open = false;
    slave.have = 0;
}

void ReleaseSlave(Slave& slave)
{
    if (slave.context == nullptr) return;
    CloseSlave(slave);
    modbus_free(slave.context);
    slave.context = nullptr;
}

bool OpenSlave(Slave& slave, const ComInfoRecord& info)
{
    if (slave.context != nullptr && !SameLine(slave.madeFor, info)) ReleaseSlave(slave);
    if (slave.context == nullptr) slave.context = NewLine(info, slave.reporter);
    if (slave.context == nullptr) return false;
    slave.madeFor = info;
    if (!slave.open) slave.open = OpenLine(slave.context, slave.reporter);
    return slave.open;
}

// Takes in what is waiting; of a full buffer the older half goes.
bool TakeBytes(Slave& slave)
{
    if (slave.have == sizeof slave.bytes) {
        std::memmove(slave.bytes, slave.bytes + RtuMaxFrame, RtuMaxFrame);
        slave.have = RtuMaxFrame;
    }
    const ssize_t got =
        read(modbus_get_socket(slave.context), slave.bytes + slave.have, sizeof slave.bytes - slave.have);
    if (got <= 0) return got < 0 && (errno == EAGAIN || errno == EINTR);
    slave.have += static_cast<std::size_t>(got);
    slave.lastMs = NowMs();
    return true;
}

// Listens until the line falls silent, at the latest when the turn is over.
LineEvent Listen(Slave& slave, int gapMs)
{
    const std::uint64_t end = NowMs() + BusyMs;
    int wait = IdleMs;
    while (NowMs() < end) {
        const LineEvent event = WaitLine(slave.context, wait);
        if (event != LineEvent::Bytes) return event;
        if (!TakeBytes(slave)) return LineEvent::Gone;
        wait = gapMs;
    }
    return LineEvent::Bytes;
}

bool ServeFrame(Slave& slave, std::uint8_t station, const UserOper& oper)
{
    const std::size_t length = FindRequest(slave.bytes, slave.have, station);
    if (length == 0) return true;
    const std::uint8_t* frame = slave.bytes + slave.have - length;
    slave.have = 0;
    const Indication indication = {frame, static_cast<int>(length), StationBytes, ChecksumBytes};
    return ServeRequest(slave.context, indication, oper, frame[0] == MODBUS_BROADCAST_ADDRESS);
}

}  // namespace

Slave* NewSlave()
{
    return static_cast<Slave*>(std::calloc(1, sizeof(Slave)));
}

void FreeSlave(Slave* slave)
{
    ReleaseSlave(*slave);
    std::free(slave);
}

int SlaveTurn(Slave& slave, const ComInfoRecord& info, const UserOper& oper)
{
    if (!OpenSlave(slave, info)) {
        poll(nullptr, 0, IdleMs);
        return PLC_DRV_ERROR;
    }
    const int gapMs = FrameGapMs(info);
    const LineEvent event = Listen(slave, gapMs);
    const bool silent = event == LineEvent::Quiet;
    const bool numbered = info.slaveNo != 0 && info.slaveNo <= LastStation;
    const bool served = !silent || !numbered || ServeFrame(slave, static_cast<std::uint8_t>(info.slaveNo), oper);
    if (event == LineEvent::Gone || !served) {
        Report(slave.reporter, "line failed, closed", event == LineEvent::Gone ? EIO : errno);
        CloseSlave(slave);
        return PLC_DRV_ERROR;
    }
    if (silent && NowMs() - slave.lastMs > std::max<std::uint64_t>(StaleMs, 2 * static_cast<std::uint64_t>(gapMs)))
        slave.have = 0;
    return PLC_DRV_OK;
}
