// Serial lines through libmodbus. Runs inside the driver's commands; opens without waiting for a carrier, and allocates
// only in NewLine.
#include "serial_line.h"

#include <errno.h>
#include <poll.h>
#include <termios.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace
{

// libmodbus takes any other for 9600 without a word.
constexpr std::uint32_t Bauds[] = {110,   300,   600,    1200,   2400,   4800,   9600,   19200,
                                   38400, 57600, 115200, 230400, 460800, 500000, 576000, 921600};
constexpr char Parities[] = {'N', 'O', 'E'};
constexpr std::uint32_t FastBaud = 19200;  // above it the pause no longer shrinks
constexpr int FastGapMs = 2;

bool Possible(const ComInfoRecord& info)
{
    const bool known = std::find(std::begin(Bauds), std::end(Bauds), info.baudOrAddress) != std::end(Bauds);
    return known && (info.dataBits == 7 || info.dataBits == 8) && info.parity < sizeof Parities &&
           (info.stopBits == 1 || info.stopBits == 2);
}

std::uint32_t BitsPerByte(const ComInfoRecord& info)
{
    return 1u + info.dataBits + (info.parity != 0 ? 1u : 0u) + info.stopBits;
}

}  // namespace

bool SameLine(const ComInfoRecord& a, const ComInfoRecord& b)
{
    return a.portNo == b.portNo && a.baudOrAddress == b.baudOrAddress && a.dataBits == b.dataBits &&
           a.parity == b.parity && a.stopBits == b.stopBits;
}

// The environment is for boxes that name their ports otherwise.
void NameLine(const ComInfoRecord& info, Reporter& reporter)
{
    char text[32];
    std::snprintf(text, sizeof text, "VOQ_SERIAL_%u", info.portNo);
    const char* device = std::getenv(text);
    if (device == nullptr || *device == '\0') {
        std::snprintf(text, sizeof text, "/dev/ttyS%u", info.portNo);
        device = text;
    }
    std::snprintf(reporter.name, sizeof reporter.name, "%s", device);
}

modbus_t* NewLine(const ComInfoRecord& info, Reporter& reporter)
{
    NameLine(info, reporter);
    modbus_t* context = nullptr;
    errno = EINVAL;
    if (Possible(info))
        context = modbus_new_rtu(reporter.name, static_cast<int>(info.baudOrAddress), Parities[info.parity],
                                 info.dataBits, info.stopBits);
    if (context == nullptr) Report(reporter, "line settings", errno);
    return context;
}

bool OpenLine(modbus_t* context, Reporter& reporter)
{
    if (modbus_connect(context) == 0) return true;
    Report(reporter, "cannot open the line", errno);
    return false;
}

LineEvent WaitLine(modbus_t* context, int waitMs)
{
    pollfd line = {modbus_get_socket(context), POLLIN, 0};
    if (poll(&line, 1, waitMs) <= 0) return LineEvent::Quiet;
    return (line.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? LineEvent::Gone : LineEvent::Bytes;
}

void EmptyLine(modbus_t* context)
{
    tcflush(modbus_get_socket(context), TCIOFLUSH);
}

int FrameGapMs(const ComInfoRecord& info)
{
    if (info.baudOrAddress > FastBaud) return FastGapMs;
    return static_cast<int>((BitsPerByte(info) * 3500 + info.baudOrAddress - 1) / info.baudOrAddress);
}

std::uint32_t WireMs(const ComInfoRecord& info, std::uint32_t bytes)
{
    return bytes * BitsPerByte(info) * 1000 / info.baudOrAddress + 1;
}
