// Entry of the Modbus master drivers, TCP and RTU: dispatch, the transfer of a range in requests of the protocol's
// size, and the judgement of failures. Runs on the service's threads, one command at a time; waits for the PLC.
#include <errno.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "clock.h"
#include "connection.h"
#include "mapping.h"
#include "voq/plc_driver.h"

namespace
{

// Registers arrive in host order from libmodbus; the service gets them as they lie on the wire, high byte first.
int ReadPart(modbus_t* context, std::uint16_t area, int first, int count, std::uint8_t* data)
{
    if (area == COILS) return modbus_read_bits(context, first, count, data);
    if (area == DISCRETE_INPUTS) return modbus_read_input_bits(context, first, count, data);

    std::uint16_t words[MaxReadRegisters];
    const int got = area == INPUT_REGISTERS ? modbus_read_input_registers(context, first, count, words)
                                            : modbus_read_registers(context, first, count, words);
    for (int i = 0; i < got; i++) {
        data[2 * i] = static_cast<std::uint8_t>(words[i] >> 8);
        data[2 * i + 1] = static_cast<std::uint8_t>(words[i]);
    }
    return got;
}

// One coil or register goes with the single-write functions, which every PLC knows; more with the multiple ones.
int WritePart(modbus_t* context, std::uint16_t area, int first, int count, const std::uint8_t* data)
{
    if (area == COILS) {
        if (count == 1) return modbus_write_bit(context, first, data[0] != 0);
        return modbus_write_bits(context, first, count, data);
    }
    std::uint16_t words[MaxWriteRegisters];
    for (int i = 0; i < count; i++) words[i] = static_cast<std::uint16_t>(data[2 * i] << 8 | data[2 * i + 1]);
    if (count == 1) return modbus_write_register(context, first, words[0]);
    return modbus_write_registers(context, first, count, words);
}

Failure Judge(int error)
{
    if (error == EMBXGTAR) return Failure::GatewaySilent;
    if (error >= EMBXILFUN && error < EMBXGTAR) return Failure::Refused;
    if (error > EMBXGTAR && error <= EMBBADSLAVE) return Failure::Garbled;
    return error == ETIMEDOUT ? Failure::Silent : Failure::Broken;
}

void Announce(Connection& connection, std::uint8_t unit)
{
    const Notice notice = TakeNotice(connection.stations, unit, NowMs());
    const char* name = connection.reporter.name;
    if (notice == Notice::Lost)
        std::printf("*MODBUS*%s station %u lost: no answer to %u requests in a row\r\n", name, unit, LostAfter);
    if (notice == Notice::Found) std::printf("*MODBUS*%s station %u found again\r\n", name, unit);
}

int RequestFailed(Connection& connection, std::uint8_t unit, int error)
{
    const Failure failure = Judge(error);
    const bool closed = AbandonRequest(connection, failure);
    Report(connection.reporter,
           failure == Failure::Refused ? "request refused"
           : closed                    ? "request failed, connection closed"
                                       : "request failed",
           error);
    if (failure == Failure::Refused) NoteAnswer(connection.stations, unit);
    if (failure == Failure::Garbled || failure == Failure::Broken) NoteFailure(connection.stations, unit, NowMs());
    if (failure != Failure::Silent && failure != Failure::GatewaySilent) return PLC_DRV_ERROR;
    NoteTimeout(connection.stations, unit, NowMs());
    return PLC_DRV_TIMEOUT;
}

// A part of the range: `count` coils or registers from `first`.
struct Part {
    int first;
    int count;
    std::uint32_t bytes;
    std::uint8_t* data;
};

// A lost station is answered for without being asked, until its next probe is due.
int Request(Connection& connection, const ComInfoRecord& info, const RegKey& key, Direction direction, const Part& part)
{
    StationTable& stations = connection.stations;
    if (!MayAsk(stations, key.plcno, NowMs())) return PLC_DRV_TIMEOUT;
    if (const int result = PrepareRequest(connection, info, key.plcno, part.bytes); result != PLC_DRV_OK) {
        if (result == PLC_DRV_TIMEOUT) NoteTimeout(stations, key.plcno, NowMs());
        if (result != PLC_DRV_TIMEOUT) NoteFailure(stations, key.plcno, NowMs());
        return result;
    }
    const int moved = direction == Direction::Read
                          ? ReadPart(connection.context, key.regid, part.first, part.count, part.data)
                          : WritePart(connection.context, key.regid, part.first, part.count, part.data);
    int error = errno;
    bool good = moved == part.count;
    if (good && !AnswerIsSure(connection, info, key.plcno)) {
        good = false;
        error = EMBBADDATA;
    }
    connection.lastMs = NowMs();
    if (!good) return RequestFailed(connection, key.plcno, error);
    NoteAnswer(stations, key.plcno);
    return PLC_DRV_OK;
}

// In order, up to the first request that fails.
std::int32_t Transfer(Connection& connection, const PlcRequest* request, const ComInfoRecord* info, Direction direction)
{
    if (request == nullptr || request->key == nullptr || request->data == nullptr || info == nullptr)
        return PLC_DRV_ERROR;
    const RegKey& key = *request->key;
    Range range;
    if (!MapRange(key, request->length, direction, range)) return PLC_DRV_ERROR;

    if (connection.context != nullptr && !SameTarget(connection.madeFor, *info)) {
        ReleaseConnection(connection);
        ProbeAll(connection.stations);
    }
    auto* data = static_cast<std::uint8_t*>(request->data);
    int result = PLC_DRV_OK;
    for (std::uint32_t done = 0; done < range.count && result == PLC_DRV_OK; done += range.step) {
        const std::uint32_t count = range.count - done < range.step ? range.count - done : range.step;
        const Part part = {static_cast<int>(range.first + done), static_cast<int>(count), count * range.bytes,
                           data + done * range.bytes};
        result = Request(connection, *info, key, direction, part);
        Announce(connection, key.plcno);
    }
    return result;
}

// The connection is made by the first request. An instance that is there already is kept: it follows the parameters.
std::int32_t Init(void** slot)
{
    if (slot == nullptr) return PLC_DRV_ERROR;
    if (*slot == nullptr) *slot = std::calloc(1, sizeof(Connection));
    return *slot != nullptr ? PLC_DRV_OK : PLC_DRV_ERROR;
}

std::int32_t Destroy(void** slot)
{
    if (slot == nullptr || *slot == nullptr) return PLC_DRV_OK;
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
