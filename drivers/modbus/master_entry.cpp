// Entry of the Modbus master drivers, TCP and RTU: dispatch, the transfer of a range in requests of the protocol's
// size, and the judgement of failures. Runs on the service's threads, one command at a time; waits for the PLC.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "clock.h"
#include "exchange.h"
#include "mapping.h"
#include "voq/plc_driver.h"

namespace
{

// A part of the range: `count` coils or registers from `first`.
struct Part {
    std::uint16_t first;
    std::uint16_t count;
    std::uint32_t bytes;
    std::uint8_t* data;
};

std::uint8_t ReadFunction(std::uint16_t area)
{
    if (area == COILS) return MODBUS_FC_READ_COILS;
    if (area == DISCRETE_INPUTS) return MODBUS_FC_READ_DISCRETE_INPUTS;
    return area == INPUT_REGISTERS ? MODBUS_FC_READ_INPUT_REGISTERS : MODBUS_FC_READ_HOLDING_REGISTERS;
}

// One coil or register goes with the functions for one, which nearly every PLC knows, until the station says otherwise.
std::uint8_t WriteFunction(std::uint16_t area, bool one)
{
    if (area == COILS) return one ? MODBUS_FC_WRITE_SINGLE_COIL : MODBUS_FC_WRITE_MULTIPLE_COILS;
    return one ? MODBUS_FC_WRITE_SINGLE_REGISTER : MODBUS_FC_WRITE_MULTIPLE_REGISTERS;
}

void Announce(Connection& connection, std::uint8_t unit)
{
    const Notice notice = TakeNotice(connection.stations, unit, NowMs());
    const char* name = connection.reporter.name;
    if (notice == Notice::Lost)
        std::printf("*MODBUS*%s station %u lost: no answer to %u requests in a row\r\n", name, unit, LostAfter);
    if (notice == Notice::Found) std::printf("*MODBUS*%s station %u found again\r\n", name, unit);
}

// A gateway's word that the station gave it no answer is worth as much as the silence itself.
bool TimedOut(const Reply& reply)
{
    return reply.outcome == Outcome::NoAnswer || reply.outcome == Outcome::CutOff ||
           (reply.outcome == Outcome::Refused && reply.detail == MODBUS_EXCEPTION_GATEWAY_TARGET);
}

int Conclude(Connection& connection, const Question& question, const Reply& reply, std::uint64_t askedMs)
{
    StationTable& stations = connection.stations;
    const std::uint64_t now = NowMs();
    if (reply.outcome != Outcome::Done) ReportFailure(connection.messages, connection.reporter.name, question, reply);
    if (TimedOut(reply)) {
        NoteTimeout(stations, question.unit, askedMs, now);
        return PLC_DRV_TIMEOUT;
    }
    if (reply.outcome != Outcome::Done && reply.outcome != Outcome::Refused) {
        NoteFailure(stations, question.unit, askedMs, now);
        return PLC_DRV_ERROR;
    }
    NoteAnswer(stations, question.unit, askedMs, now);
    if (reply.outcome == Outcome::Done) return PLC_DRV_OK;
    const bool range =
        reply.detail == MODBUS_EXCEPTION_ILLEGAL_DATA_ADDRESS || reply.detail == MODBUS_EXCEPTION_ILLEGAL_DATA_VALUE;
    return range ? PLC_DRV_REFUSED : PLC_DRV_ERROR;
}

// One request, from making the connection ready to the judgement of what came.
int Exchange(Connection& connection, const ComInfoRecord& info, const Question& question, const Part& part,
             Reply& reply)
{
    StationTable& stations = connection.stations;
    const std::uint64_t begun = NowMs();
    std::uint32_t limitMs = AnswerLimitMs(stations, question.unit, RequestTimeoutMs(info));
    const int ready = PrepareRequest(connection, info, question.unit, part.bytes, limitMs);
    if (ready == PLC_DRV_TIMEOUT) NoteTimeout(stations, question.unit, begun, NowMs());
    if (ready != PLC_DRV_TIMEOUT && ready != PLC_DRV_OK) NoteFailure(stations, question.unit, begun, NowMs());
    if (ready != PLC_DRV_OK) return ready;
    const std::uint64_t asked = NowMs();
    reply = Ask(connection, info, question, part.data, limitMs);
    return Conclude(connection, question, reply, asked);
}

bool FunctionUnknown(const Reply& reply)
{
    return reply.outcome == Outcome::Refused && reply.detail == MODBUS_EXCEPTION_ILLEGAL_FUNCTION;
}

// A station that does not know the function for one is written with the one for many from now on, and the other way
// round; it is tried at once.
int WriteOne(Connection& connection, const ComInfoRecord& info, const RegKey& key, const Part& part)
{
    bool& asMany = connection.stations.stations[key.plcno].oneAsMany[key.regid == COILS ? 0 : 1];
    Question question = {key.plcno, WriteFunction(key.regid, !asMany), part.first, part.count};
    Reply reply = {};
    const int result = Exchange(connection, info, question, part, reply);
    if (!FunctionUnknown(reply)) return result;
    asMany = !asMany;
    const std::uint8_t unknown = question.function;
    question.function = WriteFunction(key.regid, !asMany);
    ReportSingleWrites(connection.messages, connection.reporter.name, key.plcno, unknown, question.function);
    return Exchange(connection, info, question, part, reply);
}

// A lost station is answered for without being asked, until its next probe is due.
int Request(Connection& connection, const ComInfoRecord& info, const RegKey& key, Direction direction, const Part& part)
{
    TakeLateAnswers(connection, info);
    if (!MayAsk(connection.stations, key.plcno, NowMs())) return PLC_DRV_TIMEOUT;
    if (direction == Direction::Write && part.count == 1) return WriteOne(connection, info, key, part);
    const bool read = direction == Direction::Read;
    const std::uint8_t function = read ? ReadFunction(key.regid) : WriteFunction(key.regid, false);
    Reply reply = {};
    return Exchange(connection, info, {key.plcno, function, part.first, part.count}, part, reply);
}

void FollowTarget(Connection& connection, const ComInfoRecord& info)
{
    if (connection.context == nullptr || SameTarget(connection.madeFor, info)) return;
    ReleaseConnection(connection);
    ForgetDevices(connection.stations);
}

// In order, up to the first request that fails.
std::int32_t Transfer(Connection& connection, const PlcRequest* request, const ComInfoRecord* info, Direction direction)
{
    if (request == nullptr || request->key == nullptr || request->data == nullptr || info == nullptr)
        return PLC_DRV_ERROR;
    FollowTarget(connection, *info);
    const RegKey& key = *request->key;
    Range range;
    const char* why = ServesUnit(key.plcno) ? MapRange(key, request->length, direction, range) : UnitsServed;
    if (why != nullptr) {
        NameTarget(connection, *info);
        ReportKey(connection.messages, connection.reporter.name, key, why);
        return PLC_DRV_REFUSED;
    }
    auto* data = static_cast<std::uint8_t*>(request->data);
    int result = PLC_DRV_OK;
    for (std::uint32_t done = 0; done < range.count && result == PLC_DRV_OK; done += range.step) {
        const std::uint32_t count = range.count - done < range.step ? range.count - done : range.step;
        const Part part = {static_cast<std::uint16_t>(range.first + done), static_cast<std::uint16_t>(count),
                           count * range.bytes, data + done * range.bytes};
        result = Request(connection, *info, key, direction, part);
        Announce(connection, key.plcno);
    }
    return result;
}

// The connection is made by the first request. An instance that is there already is kept: it follows the parameters.
std::int32_t Init(void** slot)
{
    if (*slot == nullptr) *slot = std::calloc(1, sizeof(Connection));
    return *slot != nullptr ? PLC_DRV_OK : PLC_DRV_ERROR;
}

std::int32_t Destroy(void** slot)
{
    if (*slot == nullptr) return PLC_DRV_OK;
    auto* connection = static_cast<Connection*>(*slot);
    ReleaseConnection(*connection);
    std::free(connection);
    *slot = nullptr;
    return PLC_DRV_OK;
}

}  // namespace

// "Loop" is for slave mode, which these drivers have not: refused, like any other command it does not know.
int32_t PlcDrvCmd(const char* command, void* target, void** args)
{
    if (command == nullptr || target == nullptr || args == nullptr) return PLC_DRV_ERROR;
    const bool read = std::strcmp(command, "RdOne") == 0;
    if (read || std::strcmp(command, "WrOne") == 0)
        return Transfer(*static_cast<Connection*>(target), static_cast<PlcRequest*>(args[0]),
                        static_cast<ComInfoRecord*>(args[1]), read ? Direction::Read : Direction::Write);
    if (std::strcmp(command, "Init") == 0) return Init(static_cast<void**>(target));
    if (std::strcmp(command, "Destroy") == 0) return Destroy(static_cast<void**>(target));
    return PLC_DRV_ERROR;
}
