// The one connection to the PLC: opened when a request needs it, closed whenever its stream can no longer be trusted.
#pragma once

#include <modbus.h>

#include <cstdint>

#include "mapping.h"

struct Connection {
    modbus_t* context;  // null until the first request
    Endpoint endpoint;  // what the context was made for
    bool open;
    std::uint64_t lastReportMs;  // 0 before the first message
    std::uint32_t unreported;    // messages held back since then
};

// Makes the connection ready for one request to a unit: drops one that leads elsewhere, was closed by the PLC or holds
// bytes nobody asked for, and connects. What connecting took is taken off the request's time. Returns a PLC_DRV_ code.
[[nodiscard]] int PrepareRequest(Connection& connection, const Endpoint& endpoint, std::uint8_t unit);

// Judges a failed request by errno: a refusal by the PLC leaves the connection open, anything else closes it. Returns
// PLC_DRV_TIMEOUT or PLC_DRV_ERROR.
[[nodiscard]] int RequestFailed(Connection& connection);

void ReleaseConnection(Connection& connection);
