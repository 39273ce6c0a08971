// Requests and answers without what frames them; no state, no I/O.
#include "pdu.h"

#include <modbus.h>

#include <algorithm>
#include <cstring>

namespace
{

constexpr std::uint8_t ExceptionBit = 0x80;

void PutWord(std::uint8_t* at, std::uint16_t word)
{
    at[0] = static_cast<std::uint8_t>(word >> 8);
    at[1] = static_cast<std::uint8_t>(word);
}

bool Reads(std::uint8_t function)
{
    return function <= MODBUS_FC_READ_INPUT_REGISTERS;
}

bool OfBits(std::uint8_t function)
{
    return function <= MODBUS_FC_READ_DISCRETE_INPUTS || function == MODBUS_FC_WRITE_MULTIPLE_COILS;
}

std::size_t ValueBytes(const Question& question)
{
    return OfBits(question.function) ? (question.count + 7u) / 8 : 2u * question.count;
}

}  // namespace

std::size_t BuildPdu(const Question& question, const std::uint8_t* data, std::uint8_t* pdu)
{
    pdu[0] = question.function;
    PutWord(pdu + 1, question.first);
    PutWord(pdu + 3, question.count);
    if (Reads(question.function)) return 5;
    if (question.function == MODBUS_FC_WRITE_SINGLE_COIL) PutWord(pdu + 3, data[0] != 0 ? 0xFF00 : 0);
    if (question.function == MODBUS_FC_WRITE_SINGLE_REGISTER) std::memcpy(pdu + 3, data, 2);
    if (question.function < MODBUS_FC_WRITE_MULTIPLE_COILS) return 5;

    const std::size_t bytes = ValueBytes(question);
    pdu[5] = static_cast<std::uint8_t>(bytes);
    std::memset(pdu + 6, 0, bytes);
    if (!OfBits(question.function)) std::memcpy(pdu + 6, data, bytes);
    for (unsigned i = 0; OfBits(question.function) && i < question.count; i++)
        if (data[i] != 0) pdu[6 + i / 8] = static_cast<std::uint8_t>(pdu[6 + i / 8] | 1u << i % 8);
    return 6 + bytes;
}

// A write's answer repeats where and how much; devices differ in how they repeat a single value.
Content JudgePdu(const Question& question, const std::uint8_t* pdu, std::size_t length)
{
    if (length == 2 && pdu[0] == (question.function | ExceptionBit)) return Content::Exception;
    if (length < 2 || pdu[0] != question.function) return Content::Other;
    if (Reads(question.function)) {
        const std::size_t bytes = ValueBytes(question);
        return pdu[1] == bytes && length == 2 + bytes ? Content::Answer : Content::Other;
    }
    std::uint8_t place[4];
    PutWord(place, question.first);
    PutWord(place + 2, question.count);
    const std::size_t repeated = question.function < MODBUS_FC_WRITE_MULTIPLE_COILS ? 2 : 4;
    return length == 5 && std::equal(place, place + repeated, pdu + 1) ? Content::Answer : Content::Other;
}

void TakeValues(const Question& question, const std::uint8_t* pdu, std::uint8_t* data)
{
    if (!Reads(question.function)) return;
    if (!OfBits(question.function)) std::memcpy(data, pdu + 2, 2u * question.count);
    for (unsigned i = 0; OfBits(question.function) && i < question.count; i++)
        data[i] = static_cast<std::uint8_t>(pdu[2 + i / 8] >> i % 8 & 1);
}
