// The one connection or line to the PLCs: opened when a request needs it, closed whenever it can no longer be trusted.
// Two libraries implement it, tcp_connection.cpp and rtu_connection.cpp; each driver links one.
#pragma once

#include <modbus.h>

#include <cstdint>

#include "report.h"
#include "stations.h"
#include "voq/com_info.h"

struct Connection {
    modbus_t* context;      // null until the first request
    ComInfoRecord madeFor;  // the parameters that the context was made from
    bool open;
    std::uint64_t lastMs;  // end of the last request
    Reporter reporter;
    StationTable stations;
};

// What became of a request that failed.
enum class Failure {
    Refused,        // the station answered with a refusal
    GatewaySilent,  // a gateway answered that the station gave it no answer
    Silent,         // no answer, or not all of it, in time
    Garbled,        // something other than the answer
    Broken          // the connection or the line failed
};

// Whether both records name the same PLC, or the same line with the same settings.
[[nodiscard]] bool SameTarget(const ComInfoRecord& a, const ComInfoRecord& b);

// Makes the connection ready for one request to a unit, of which `payload` bytes are values: opens it if need be,
// throws away what nobody asked for, sets the time limit. Returns a PLC_DRV_ code.
[[nodiscard]] int PrepareRequest(Connection& connection, const ComInfoRecord& info, std::uint8_t unit,
                                 std::uint32_t payload);

// Whether the answer that came was surely meant for the request, and not a late one for an earlier request to the unit.
[[nodiscard]] bool AnswerIsSure(Connection& connection, const ComInfoRecord& info, std::uint8_t unit);

// Closes the connection if a request that failed so leaves it unfit for the next. True when it did.
bool AbandonRequest(Connection& connection, Failure failure);

inline void CloseConnection(Connection& connection)
{
    if (connection.open) modbus_close(connection.context);
    connection.open = false;
}

inline void ReleaseConnection(Connection& connection)
{
    if (connection.context == nullptr) return;
    CloseConnection(connection);
    modbus_free(connection.context);
    connection.context = nullptr;
}

// With the byte time-out off, the response time-out bounds the whole answer: a PLC that trickles bytes gains nothing.
inline void SetTimeLimit(Connection& connection, std::uint64_t ms)
{
    modbus_set_byte_timeout(connection.context, 0, 0);
    modbus_set_response_timeout(connection.context, static_cast<std::uint32_t>(ms / 1000),
                                static_cast<std::uint32_t>(ms % 1000 * 1000));
}
