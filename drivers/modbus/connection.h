// The one connection or line to the PLCs: opened when a request needs it, closed whenever it can no longer be trusted.
// Two libraries implement it, tcp_connection.cpp and rtu_connection.cpp; each driver links one.
#pragma once

#include <modbus.h>

#include <cstdint>

#include "messages.h"
#include "outcome.h"
#include "pdu.h"
#include "report.h"
#include "stations.h"
#include "voq/com_info.h"

inline constexpr unsigned MaxUnanswered = 8;       // late answers beyond are no longer told from wrong ones
inline constexpr unsigned MaxTimeouts = 2;         // in a row: then the connection itself may be the cause
inline constexpr std::uint64_t LateForMs = 10000;  // an answer later than this is none any more

// A request that timed out and may still be answered.
struct Unanswered {
    Question question;
    std::uint16_t number;
    std::uint64_t askedMs;  // 0: none
};

struct Connection {
    modbus_t* context;      // null until the first request
    ComInfoRecord madeFor;  // the parameters that the context was made from
    bool open;
    std::uint8_t timeouts;  // in a row, of whatever station, since the connection was made
    std::uint16_t number;   // of the last request; on a line always 0
    std::uint64_t lastMs;   // end of the last request
    unsigned nextUnanswered;
    Unanswered unanswered[MaxUnanswered];
    Reporter reporter;
    StationTable stations;
    MessageTable messages;
};

// An answer out of its frame.
struct Answer {
    std::uint16_t number;
    std::uint8_t unit;
    const std::uint8_t* pdu;
    std::size_t length;
};

// Whether both records name the same PLC, or the same line with the same settings.
[[nodiscard]] bool SameTarget(const ComInfoRecord& a, const ComInfoRecord& b);

// Names the reporter after the PLC or the device.
void NameTarget(Connection& connection, const ComInfoRecord& info);

// Whether a request to the unit can be answered at all.
[[nodiscard]] bool ServesUnit(std::uint8_t unit);
extern const char* const UnitsServed;  // in words

// Makes the connection ready for one request to a unit, of which `payload` bytes are values: opens it if need be and
// throws away what nobody asked for. `limitMs`, the station's time for its answer, becomes the time that is to be
// waited from now on. Returns a PLC_DRV_ code.
[[nodiscard]] int PrepareRequest(Connection& connection, const ComInfoRecord& info, std::uint8_t unit,
                                 std::uint32_t payload, std::uint32_t& limitMs);

// False with errno when the connection failed.
[[nodiscard]] bool SendPdu(Connection& connection, std::uint8_t unit, const std::uint8_t* pdu, std::size_t length);

// False when the frame is no Modbus. `got` is what libmodbus returned for it: 0 for another station's on a line.
[[nodiscard]] bool TakeApart(const std::uint8_t* frame, int got, Answer& answer);

// Whether the answer that came was surely meant for the request, and not a late one for an earlier request to the unit.
[[nodiscard]] bool AnswerIsSure(Connection& connection, const ComInfoRecord& info, std::uint8_t unit);

// Closes the connection if a request that ended so leaves it unfit for the next.
void AbandonRequest(Connection& connection, Outcome outcome);

inline void CloseConnection(Connection& connection)
{
    if (connection.open) modbus_close(connection.context);
    connection.open = false;
    connection.timeouts = 0;
    for (Unanswered& each : connection.unanswered) each.askedMs = 0;
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
