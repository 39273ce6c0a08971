// Connecting over TCP, and the time limit of a request. Runs inside "RdOne" and "WrOne". Waits for the PLC, never
// longer than the time limit; allocates only when the PLC's address or port has changed.
#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "clock.h"
#include "connection.h"
#include "mapping.h"
#include "voq/plc_driver.h"

namespace
{

constexpr std::size_t HeaderBytes = 7;
constexpr std::uint8_t LastUnit = 247;

// Between two requests nothing may arrive. A byte is the rest of something unasked; an end of file is a PLC that
// dropped an idle connection, which is better found out before the request than by losing it.
bool Idle(const Connection& connection)
{
    char byte;
    const ssize_t got = recv(modbus_get_socket(connection.context), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

void Dotted(std::uint32_t ip, char (&text)[16])
{
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF);
}

bool MakeContext(Connection& connection, const ComInfoRecord& info, const Endpoint& endpoint)
{
    char text[16];
    Dotted(endpoint.address, text);
    NameTarget(connection, info);
    connection.context = modbus_new_tcp(text, endpoint.port);
    connection.madeFor = info;
    return connection.context != nullptr;
}

int Connect(Connection& connection)
{
    if (modbus_connect(connection.context) == 0) {
        connection.open = true;
        return PLC_DRV_OK;
    }
    // libmodbus up to 3.1.6 leaves EINPROGRESS behind when nobody answered.
    const int error = errno == EINPROGRESS ? ETIMEDOUT : errno;
    Report(connection.reporter, "cannot connect", error);
    return error == ETIMEDOUT ? PLC_DRV_TIMEOUT : PLC_DRV_ERROR;
}

}  // namespace

bool SameTarget(const ComInfoRecord& a, const ComInfoRecord& b)
{
    const Endpoint one = EndpointOf(a), other = EndpointOf(b);
    return one.address == other.address && one.port == other.port;
}

void NameTarget(Connection& connection, const ComInfoRecord& info)
{
    const Endpoint endpoint = EndpointOf(info);
    char text[16];
    Dotted(endpoint.address, text);
    std::snprintf(connection.reporter.name, sizeof connection.reporter.name, "%s:%u", text, endpoint.port);
}

const char* const UnitsServed = "stations are 0 to 247, and 255";

bool ServesUnit(std::uint8_t unit)
{
    return unit <= LastUnit || unit == MODBUS_TCP_SLAVE;
}

// What connecting took is taken off the request's time. The number of values is nothing to a network.
int PrepareRequest(Connection& connection, const ComInfoRecord& info, std::uint8_t unit, std::uint32_t,
                   std::uint32_t& limitMs)
{
    const std::uint64_t start = NowMs();
    const Endpoint endpoint = EndpointOf(info);
    if (endpoint.address == 0) return PLC_DRV_ERROR;
    if (connection.context == nullptr && !MakeContext(connection, info, endpoint)) return PLC_DRV_ERROR;
    if (modbus_set_slave(connection.context, unit) != 0) return PLC_DRV_ERROR;

    if (connection.open && (connection.timeouts >= MaxTimeouts || !Idle(connection))) CloseConnection(connection);
    if (connection.open) return PLC_DRV_OK;
    SetTimeLimit(connection, limitMs);
    if (const int result = Connect(connection); result != PLC_DRV_OK) return result;
    const std::uint64_t passed = NowMs() - start;
    limitMs -= static_cast<std::uint32_t>(std::min<std::uint64_t>(passed, limitMs - 1u));
    return PLC_DRV_OK;
}

// The header is made here: libmodbus numbers only the requests that it makes itself, and those it does not let anybody
// see the number of.
bool SendPdu(Connection& connection, std::uint8_t unit, const std::uint8_t* pdu, std::size_t length)
{
    const std::uint16_t number = ++connection.number;
    const auto behind = static_cast<std::uint16_t>(length + 1);
    std::uint8_t frame[MODBUS_TCP_MAX_ADU_LENGTH] = {
        static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number), 0,   0,
        static_cast<std::uint8_t>(behind >> 8), static_cast<std::uint8_t>(behind), unit};
    std::memcpy(frame + HeaderBytes, pdu, length);
    const std::size_t size = HeaderBytes + length;
    const ssize_t sent = send(modbus_get_socket(connection.context), frame, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0 && static_cast<std::size_t>(sent) != size) errno = EAGAIN;
    return sent >= 0 && static_cast<std::size_t>(sent) == size;
}

// The length in the header is not compared: devices count it in ways of their own, and the function says it too.
bool TakeApart(const std::uint8_t* frame, int got, Answer& answer)
{
    const bool modbus = got > static_cast<int>(HeaderBytes) && frame[2] == 0 && frame[3] == 0 && frame[4] <= 1;
    if (!modbus) return false;
    const auto length = static_cast<std::size_t>(got) - HeaderBytes;
    answer = {static_cast<std::uint16_t>(frame[0] << 8 | frame[1]), frame[6], frame + HeaderBytes, length};
    return true;
}

// The transaction number has said so.
bool AnswerIsSure(Connection&, const ComInfoRecord&, std::uint8_t)
{
    return true;
}

// After a time-out the connection stays: the transaction number tells a late answer from the right one. Only when one
// request after the other times out may the connection be what is broken; the next one begins with a new connection.
// Where something else came than the answer, nobody knows any more where the next one begins.
void AbandonRequest(Connection& connection, Outcome outcome)
{
    const bool whole = outcome == Outcome::Done || outcome == Outcome::Refused || outcome == Outcome::NoAnswer;
    if (!whole) CloseConnection(connection);
}
