// Connecting, the time limit of a request, and the judgement of failures. Runs inside "RdOne" and "WrOne". Waits for
// the PLC, never longer than the time limit; allocates only when the PLC's address or port has changed.
#include "connection.h"

#include <errno.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <cstdio>

#include "voq/plc_driver.h"

namespace
{

constexpr std::uint64_t ReportIntervalMs = 10000;

std::uint64_t NowMs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

// One line in ten seconds at most: a PLC that is switched off fails several times a second.
void Report(Connection& connection, const char* what, int error)
{
    const std::uint64_t now = NowMs();
    if (connection.lastReportMs != 0 && now - connection.lastReportMs < ReportIntervalMs) {
        connection.unreported++;
        return;
    }
    const std::uint32_t ip = connection.endpoint.address;
    std::printf("*MODBUS*%u.%u.%u.%u:%u %s: %s (%u more since the last message)\r\n", ip >> 24, ip >> 16 & 0xFF,
                ip >> 8 & 0xFF, ip & 0xFF, connection.endpoint.port, what, modbus_strerror(error),
                connection.unreported);
    connection.lastReportMs = now;
    connection.unreported = 0;
}

void Close(Connection& connection)
{
    if (connection.open) modbus_close(connection.context);
    connection.open = false;
}

// Between two requests nothing may arrive. A byte is the rest of something unasked; an end of file is a PLC that
// dropped an idle connection, which is better found out before the request than by losing it.
bool Idle(const Connection& connection)
{
    char byte;
    const ssize_t got = recv(modbus_get_socket(connection.context), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

// With the byte time-out off, the response time-out bounds the whole answer: a PLC that trickles bytes gains nothing.
bool MakeContext(Connection& connection, const Endpoint& endpoint)
{
    const std::uint32_t ip = endpoint.address;
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF);
    connection.context = modbus_new_tcp(text, endpoint.port);
    connection.endpoint = endpoint;
    return connection.context != nullptr && modbus_set_byte_timeout(connection.context, 0, 0) == 0;
}

void SetTimeLimit(Connection& connection, std::uint64_t ms)
{
    modbus_set_response_timeout(connection.context, static_cast<std::uint32_t>(ms / 1000),
                                static_cast<std::uint32_t>(ms % 1000 * 1000));
}

int Connect(Connection& connection)
{
    if (modbus_connect(connection.context) == 0) {
        connection.open = true;
        return PLC_DRV_OK;
    }
    // libmodbus up to 3.1.6 leaves EINPROGRESS behind when nobody answered.
    const int error = errno == EINPROGRESS ? ETIMEDOUT : errno;
    Report(connection, "cannot connect", error);
    return error == ETIMEDOUT ? PLC_DRV_TIMEOUT : PLC_DRV_ERROR;
}

}  // namespace

int PrepareRequest(Connection& connection, const Endpoint& endpoint, std::uint8_t unit)
{
    const std::uint64_t start = NowMs();
    if (endpoint.address == 0) return PLC_DRV_ERROR;
    const bool moved = connection.endpoint.address != endpoint.address || connection.endpoint.port != endpoint.port;
    if (connection.context != nullptr && moved) ReleaseConnection(connection);
    if (connection.context == nullptr && !MakeContext(connection, endpoint)) return PLC_DRV_ERROR;
    if (modbus_set_slave(connection.context, unit) != 0) return PLC_DRV_ERROR;

    SetTimeLimit(connection, endpoint.timeoutMs);
    if (connection.open && !Idle(connection)) Close(connection);
    if (connection.open) return PLC_DRV_OK;
    if (const int result = Connect(connection); result != PLC_DRV_OK) return result;
    const std::uint64_t passed = NowMs() - start;
    SetTimeLimit(connection, endpoint.timeoutMs - std::min<std::uint64_t>(passed, endpoint.timeoutMs - 1u));
    return PLC_DRV_OK;
}

// An answer that comes after its time-out must not be taken for the next request's. The transaction number alone would
// catch it but leave it in the stream ahead of the right answer; a new connection leaves it nowhere to arrive. The same
// holds for an answer that is malformed or carries a wrong number.
int RequestFailed(Connection& connection)
{
    const int error = errno;
    if (error >= EMBXILFUN && error <= EMBXGTAR) {
        Report(connection, "request refused", error);
        return PLC_DRV_ERROR;
    }
    Close(connection);
    Report(connection, "request failed, connection closed", error);
    return error == ETIMEDOUT ? PLC_DRV_TIMEOUT : PLC_DRV_ERROR;
}

void ReleaseConnection(Connection& connection)
{
    if (connection.context == nullptr) return;
    Close(connection);
    modbus_free(connection.context);
    connection.context = nullptr;
}
