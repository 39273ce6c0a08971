// Connecting over TCP, and the time limit of a request. Runs inside "RdOne" and "WrOne". Waits for the PLC, never
// longer than the time limit; allocates only when the PLC's address or port has changed.
#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>

#include "clock.h"
#include "connection.h"
#include "mapping.h"
#include "voq/plc_driver.h"

namespace
{

// Between two requests nothing may arrive. A byte is the rest of something unasked; an end of file is a PLC that
// dropped an idle connection, which is better found out before the request than by losing it.
bool Idle(const Connection& connection)
{
    char byte;
    const ssize_t got = recv(modbus_get_socket(connection.context), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

bool MakeContext(Connection& connection, const ComInfoRecord& info, const Endpoint& endpoint)
{
    const std::uint32_t ip = endpoint.address;
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF);
    std::snprintf(connection.reporter.name, sizeof connection.reporter.name, "%s:%u", text, endpoint.port);
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

// What connecting took is taken off the request's time. The number of values is nothing to a network.
int PrepareRequest(Connection& connection, const ComInfoRecord& info, std::uint8_t unit, std::uint32_t)
{
    const std::uint64_t start = NowMs();
    const Endpoint endpoint = EndpointOf(info);
    if (endpoint.address == 0) return PLC_DRV_ERROR;
    if (connection.context == nullptr && !MakeContext(connection, info, endpoint)) return PLC_DRV_ERROR;
    if (modbus_set_slave(connection.context, unit) != 0) return PLC_DRV_ERROR;

    SetTimeLimit(connection, endpoint.timeoutMs);
    if (connection.open && !Idle(connection)) CloseConnection(connection);
    if (connection.open) return PLC_DRV_OK;
    if (const int result = Connect(connection); result != PLC_DRV_OK) return result;
    const std::uint64_t passed = NowMs() - start;
    SetTimeLimit(connection, endpoint.timeoutMs - std::min<std::uint64_t>(passed, endpoint.timeoutMs - 1u));
    return PLC_DRV_OK;
}

// The transaction number has said so, and the connection of a request that timed out is gone.
bool AnswerIsSure(Connection&, const ComInfoRecord&, std::uint8_t)
{
    return true;
}

// An answer that comes after its time-out must not be taken for the next request's. The transaction number alone would
// catch it but leave it in the stream ahead of the right answer; a new connection leaves it nowhere to arrive. The same
// holds for an answer that is malformed or carries a wrong number. What a gateway says of a station is a whole answer.
bool AbandonRequest(Connection& connection, Failure failure)
{
    if (failure == Failure::Refused || failure == Failure::GatewaySilent) return false;
    CloseConnection(connection);
    return true;
}
