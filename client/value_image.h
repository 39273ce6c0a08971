// Values and the bytes they lie in: byte order, packed BCD, the place of every bit. Pure.
//
// The port's byte-order word says how 16-bit integers, 32-bit integers and floats lie; it says nothing about other
// types, whose bytes are taken as they lie. A register whose big-endian flag is set has the bytes of each element
// reversed, whatever the word says, and one with an order of its own (Register::order) goes by that alone; the service
// itself goes by the word alone.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "client/bytes.h"
#include "client/register.h"

namespace voq
{

// How the elements of a range lie in its image.
struct ValueCoding {
    ValueType type;
    int order = 0;  // an order of value/shuffle.h, applied to every element
    bool bcd = false;

    std::size_t ElemBytes() const { return type.elemSize == 0 ? 1 : type.elemSize; }
};

// True when the bytes of an element mean nothing before it is known how the PLC lays them out: a number of more than
// one byte without the big-endian flag or an order of its own.
bool NeedsByteOrder(const Register& reg);

ValueCoding CodingOf(const Register& reg, std::uint16_t byteOrder);

// True when the service, computing with an element, takes its bytes as the coding does.
bool ServiceAgrees(const Register& reg, std::uint16_t byteOrder);

// One element in host order and without BCD. `number` is exact for every type but raw.
struct HostValue {
    Bytes bytes;
    double number = 0;
};

// A number of the coding's type: decimal or 0x hexadecimal, a decimal fraction for floats, all its bytes in hexadecimal
// for raw. Throws Error when it is none or does not fit.
HostValue ParseValue(const ValueCoding& coding, const std::string& text);
HostValue LowestValue(const ValueCoding& coding);
HostValue HighestValue(const ValueCoding& coding);

// The element as it lies in an image.
Bytes EncodeHostValue(const ValueCoding& coding, const HostValue& value);

// The image of a range; one text an element. Throws Error.
Bytes EncodeValues(const ValueCoding& coding, std::span<const std::string> texts);

// The element of an image as a number, BCD left as it is; at most eight bytes.
std::uint64_t LoadElement(const ValueCoding& coding, std::span<const std::uint8_t> element);

// Where each host byte of an element lies in the image of that element.
std::array<std::uint8_t, 16> BytePlaces(const ValueCoding& coding);

}  // namespace voq
