// The panel's words lie low byte first in their files and travel high byte first. libmodbus makes up the answer, from a
// mapping that holds nothing but the values of this one request.
#include "slave_serve.h"

#include "mapping.h"
#include "slave_request.h"

namespace
{

constexpr int Done = 1;

struct Values {
    std::uint8_t bits[MaxReadBits];
    std::uint16_t words[MaxReadRegisters];
};

// A call-back may leave the buffer as it is where a file ends: zeros are read there.
Refusal ReadPanel(const SlaveRequest& request, const UserOper& oper, Values& values)
{
    std::uint8_t bytes[MaxReadBits] = {};
    if (oper.read(request.name, request.addr, request.count, bytes, 0) != Done) return Refusal::Failure;
    for (std::size_t i = 0; i < request.count && request.bits; i++) values.bits[i] = bytes[i] != 0;
    for (std::size_t i = 0; i < request.count && !request.bits; i++)
        values.words[i] = static_cast<std::uint16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
    return Refusal::None;
}

Refusal WritePanel(const SlaveRequest& request, const std::uint8_t* pdu, const UserOper& oper)
{
    std::uint8_t bytes[MaxWriteBits];
    const bool one = pdu[0] == MODBUS_FC_WRITE_SINGLE_COIL || pdu[0] == MODBUS_FC_WRITE_SINGLE_REGISTER;
    const std::uint8_t* data = pdu + (one ? 3 : 6);
    for (std::size_t i = 0; i < request.count && request.bits; i++)
        bytes[i] = one ? data[0] != 0 : data[i / 8] >> i % 8 & 1;
    for (std::size_t i = 0; i < request.count && !request.bits; i++) {
        bytes[2 * i] = data[2 * i + 1];
        bytes[2 * i + 1] = data[2 * i];
    }
    return oper.write(request.name, request.addr, request.count, bytes, 0) == Done ? Refusal::None : Refusal::Failure;
}

bool Answer(modbus_t* context, const Indication& indication, const SlaveRequest& request, Values& values)
{
    const int first = request.first, count = request.count;
    const int bits = request.bits ? count : 0, words = request.bits ? 0 : count;
    modbus_mapping_t mapping = {bits,  first, bits,        first,       words,        first,
                                words, first, values.bits, values.bits, values.words, values.words};
    return modbus_reply(context, indication.bytes, indication.length, &mapping) > 0;
}

}  // namespace

bool ServeRequest(modbus_t* context, const Indication& indication, const UserOper& oper, bool broadcast)
{
    const std::uint8_t* pdu = indication.bytes + indication.header;
    const auto length = static_cast<std::size_t>(indication.length - indication.header - indication.trailer);
    SlaveRequest request;
    Values values;
    Refusal refusal = ParseRequest(pdu, length, request);
    if (broadcast && (refusal != Refusal::None || !request.write)) return true;
    if (refusal == Refusal::None)
        refusal = request.write ? WritePanel(request, pdu, oper) : ReadPanel(request, oper, values);
    if (broadcast) return true;
    if (refusal == Refusal::None) return Answer(context, indication, request, values);
    return modbus_reply_exception(context, indication.bytes, static_cast<unsigned>(refusal)) > 0;
}
