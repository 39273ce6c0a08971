// Entry of the Modbus TCP master driver: dispatch, and the transfer of a range in requests of the protocol's size.
// Runs on the service's threads, one command at a time; waits for the PLC.
#include <cstdlib>
#include <cstring>

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

// In order, up to the first request that fails.
std::int32_t Transfer(Connection& connection, const PlcRequest* request, const ComInfoRecord* info, Direction direction)
{
    if (request == nullptr || request->key == nullptr || request->data == nullptr || info == nullptr)
        return PLC_DRV_ERROR;
    const RegKey& key = *request->key;
    Range range;
    if (!MapRange(key, request->length, direction, range)) return PLC_DRV_ERROR;

    const Endpoint endpoint = EndpointOf(*info);
    auto* data = static_cast<std::uint8_t*>(request->data);
    for (std::uint32_t done = 0; done < range.count; done += range.step) {
        if (const int result = PrepareRequest(connection, endpoint, key.plcno); result != PLC_DRV_OK) return result;
        const int first = static_cast<int>(range.first + done);
        const int count = static_cast<int>(range.count - done < range.step ? range.count - done : range.step);
        std::uint8_t* part = data + done * range.bytes;
        const int moved = direction == Direction::Read ? ReadPart(connection.context, key.regid, first, count, part)
                                                       : WritePart(connection.context, key.regid, first, count, part);
        if (moved != count) return RequestFailed(connection);
    }
    return PLC_DRV_OK;
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

// "Loop" is for slave mode, which this driver has not: refused, like any other command it does not know.
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
