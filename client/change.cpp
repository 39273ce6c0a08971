// Builds change descriptors. Pure; any thread.
#include "client/change.h"

#include <algorithm>
#include <limits>
#include <sstream>

#include "client/error.h"
#include "client/value_image.h"
#include "value/decimal.h"
#include "voq/chg_desc.h"
#include "voq/reg_range.h"

namespace voq
{

namespace
{

constexpr std::uint8_t SubcmdOf(std::uint32_t cmdFlags)
{
    return static_cast<std::uint8_t>(cmdFlags >> 8);
}

// Everything that a descriptor is made from.
struct Subject {
    const Register& reg;
    std::uint16_t byteOrder;
    ValueCoding coding;
    const ChangeText& change;

    // Bits of one element; a bit register's element has one, whatever takes its byte.
    std::uint32_t ElementBits() const
    {
        return coding.type.kind == ValueKind::Bit ? 1 : static_cast<std::uint32_t>(8 * coding.ElemBytes());
    }
};

std::string Str(std::uint64_t value)
{
    return std::to_string(value);
}

Bytes Descriptor(ChangeOp operation, std::uint32_t bit, std::uint32_t format, std::uint32_t size)
{
    Bytes bytes;
    PutRecord(bytes, 0,
              ChgDesc{static_cast<std::uint16_t>(operation), static_cast<std::uint8_t>(bit), 0,
                      static_cast<std::uint16_t>(format), static_cast<std::uint16_t>(size)});
    return bytes;
}

void Append(Bytes& bytes, const Bytes& more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

std::uint32_t Whole(const std::string& text, const char* what)
{
    const ValueCoding number{{ValueKind::U32, 4}, 0, false};
    try {
        return static_cast<std::uint32_t>(ParseValue(number, text).number);
    } catch (const Error& error) {
        throw Error(std::string(what) + ": " + error.what());
    }
}

// The elements `first` to `first + count - 1` of a range, as a range of their own.
RegKey Elements(const RegKey& key, std::uint32_t first, std::uint32_t count)
{
    if (std::uint64_t{first} * ElemBytes(key) % UnitBytes(key) != 0) {
        throw Error("element " + Str(first) + " does not begin at an address: name its register itself");
    }
    RegKey part = key;
    part.addr += static_cast<std::uint32_t>(AddressSpan(first, key));
    part.width = static_cast<std::uint16_t>(count);
    return part;
}

void RequireBits(const Subject& on)
{
    if (IsFloating(on.coding.type.kind)) throw Error("a " + TypeName(on.coding.type) + " has no bits to change");
}

// The service computes with the first element only, and by the port's byte-order word only.
void RequireNumber(const Subject& on, bool fractions)
{
    const ValueKind kind = on.coding.type.kind;
    if (kind == ValueKind::Bit || kind == ValueKind::Raw || (IsFloating(kind) && !fractions)) {
        throw Error("not for a register of type " + TypeName(on.coding.type));
    }
    if (on.reg.key.width != 1) {
        throw Error("takes one element, the range has " + Str(on.reg.key.width));
    }
    if (ServiceAgrees(on.reg, on.byteOrder)) return;
    if (on.reg.order)
        throw Error("the service computes in the byte order of the port, the register has its own: write it");
    throw Error(
        "the service takes the register's bytes as the port's byte-order word says, not as big_endian does; the word "
        "must say the same (--project, --byte-order)");
}

ValueType BitType(const ValueType& type)
{
    if (type.kind == ValueKind::S16) return {ValueKind::U16, type.elemSize};
    if (type.kind == ValueKind::S32) return {ValueKind::U32, type.elemSize};
    return type;
}

int FormatType(const ValueCoding& coding)
{
    if (coding.type.kind == ValueKind::Float) return static_cast<int>(OperandType::Float);
    if (coding.type.kind == ValueKind::Double) return static_cast<int>(OperandType::Double);
    const bool sign = !coding.bcd && (coding.type.kind == ValueKind::S16 || coding.type.kind == ValueKind::S32);
    return static_cast<int>(sign ? OperandType::Signed : OperandType::Unsigned);
}

ChangeRequest Changed(const RegKey& key, std::uint32_t cmdFlags, Bytes operand)
{
    if (GetRegBuffLen(&key) > MaxChangeBytes) {
        throw Error("a value of " + Str(GetRegBuffLen(&key)) + " bytes; at most " + Str(MaxChangeBytes) +
                    " can be changed");
    }
    return {key, SubcmdOf(cmdFlags), std::move(operand)};
}

ChangeRequest Arithmetic(const Subject& on, ChangeOp operation)
{
    RequireNumber(on, true);
    const auto limit = [&](const std::optional<std::string>& text, const HostValue& otherwise) {
        return text ? ParseValue(on.coding, *text) : otherwise;
    };
    const HostValue step = ParseValue(on.coding, on.change.operands[0]);
    const HostValue low = limit(on.change.minimum, LowestValue(on.coding));
    const HostValue high = limit(on.change.maximum, HighestValue(on.coding));
    if (step.number < 0) throw Error("the step is negative: use the other of add and sub");
    if (low.number > high.number) throw Error("the minimum is above the maximum");
    if (on.change.wrap && on.change.bounce) throw Error("either wrap or bounce");
    const std::uint32_t limits = (on.change.wrap ? CHG_WRAP : 0u) | (on.change.bounce ? CHG_BOUNCE : 0u);
    Bytes operand = Descriptor(operation, 0, static_cast<std::uint32_t>(FormatType(on.coding)) | limits,
                               static_cast<std::uint32_t>(step.bytes.size()));
    for (const HostValue* value : {&step, &low, &high}) Append(operand, value->bytes);
    return Changed(on.reg.key, CMD_CHANGE | (on.change.reversed ? CMD_REVERSED : 0), std::move(operand));
}

ChangeRequest Digit(const Subject& on, ChangeOp operation)
{
    RequireNumber(on, false);
    if (FormatType(on.coding) != static_cast<int>(OperandType::Unsigned)) {
        throw Error("digits are those of an unsigned number, not of " + TypeName(on.coding.type));
    }
    const std::uint32_t size = on.coding.type.elemSize;
    const std::uint32_t digits = on.coding.bcd ? 2 * size : static_cast<std::uint32_t>(maxPos[size]);
    std::uint32_t position = Whole(on.change.operands[0], "position");
    if (position < 1 || position > digits) {
        throw Error("position " + Str(position) + " is not within 1 to " + Str(digits));
    }
    Bytes operand = Descriptor(operation, 0, static_cast<std::uint32_t>(OperandType::Unsigned), size);
    for (std::uint32_t i = 0; i < size; ++i, position >>= 8) operand.push_back(static_cast<std::uint8_t>(position));
    return Changed(on.reg.key, CMD_CHANGE, std::move(operand));
}

// The mask of one element, laid over every element.
ChangeRequest Masked(const Subject& on, ChangeOp operation, const std::string& mask)
{
    RequireBits(on);
    const ValueCoding bits{BitType(on.coding.type), on.coding.order, false};
    const std::vector<std::string> all(on.reg.key.width, mask);
    const Bytes image = EncodeValues(bits, all);
    Bytes operand = Descriptor(operation, 0, static_cast<std::uint32_t>(OperandType::Unsigned),
                               static_cast<std::uint32_t>(image.size()));
    Append(operand, image);
    return Changed(on.reg.key, CMD_CHANGE, std::move(operand));
}

ChangeRequest Inverted(const Subject& on)
{
    RequireBits(on);
    // All eight bits of a bit register's byte would turn.
    if (on.coding.type.kind == ValueKind::Bit) return Masked(on, ChangeOp::Xor, "1");
    return Changed(on.reg.key, CMD_CHANGE,
                   Descriptor(ChangeOp::Not, 0, static_cast<std::uint32_t>(OperandType::Unsigned),
                              static_cast<std::uint32_t>(on.coding.ElemBytes())));
}

// Bit number in the image of its element.
std::uint32_t ImageBit(const ValueCoding& coding, std::uint32_t bit)
{
    return BytePlaces(coding)[bit / 8] * 8u + bit % 8;
}

struct BitPlace {
    RegKey key;  // of the element that holds the bit
    std::uint32_t bit;
};

BitPlace FindBit(const Subject& on, std::uint32_t bit, std::uint32_t mostBytes)
{
    RequireBits(on);
    const std::uint64_t bits = std::uint64_t{on.ElementBits()} * on.reg.key.width;
    if (bit >= bits) throw Error("bit " + Str(bit) + " is not within 0 to " + Str(bits - 1));
    const BitPlace place{Elements(on.reg.key, bit / on.ElementBits(), 1), ImageBit(on.coding, bit % on.ElementBits())};
    if (place.bit >= 32 || on.coding.ElemBytes() > mostBytes) {
        throw Error("a bit of an element of " + Str(on.coding.ElemBytes()) + " bytes cannot be changed like this");
    }
    return place;
}

ChangeRequest Toggled(const Subject& on)
{
    const BitPlace place = FindBit(on, Whole(on.change.operands[0], "bit"), MaxChangeBytes);
    return Changed(place.key, CMD_CHANGE, Descriptor(ChangeOp::ToggleBit, place.bit, 0, 0));
}

ChangeRequest BitSet(const Subject& on, bool value)
{
    const BitPlace place = FindBit(on, Whole(on.change.operands[0], "bit"), MaxPulseBytes);
    return Changed(place.key, CMD_PULSE, Descriptor(ChangeOp::SetBit, place.bit, value ? 1 : 0, 0));
}

// The bits of a field by their places in the image. The service writes one run of bits, so the places must be one.
std::vector<bool> FieldRun(const Subject& on, std::uint32_t first, std::uint32_t count, std::uint64_t value,
                           std::uint32_t& begin)
{
    std::vector<std::pair<std::uint32_t, bool>> places;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t bit = first + i, element = bit / on.ElementBits();
        places.emplace_back(element * on.ElementBits() + ImageBit(on.coding, bit % on.ElementBits()),
                            (value >> i & 1) != 0);
    }
    std::sort(places.begin(), places.end());
    begin = places.front().first;
    if (places.back().first - begin + 1 != count) {
        throw Error("the field is no single run of bits in the PLC's byte order: use and, or, xor");
    }
    std::vector<bool> run;
    for (const auto& place : places) run.push_back(place.second);
    return run;
}

ChangeRequest Field(const Subject& on)
{
    RequireBits(on);
    if (on.coding.type.kind == ValueKind::Bit) throw Error("a range of bits is written with write");
    const std::uint32_t first = Whole(on.change.operands[0], "first bit");
    const std::uint32_t count = Whole(on.change.operands[1], "count");
    const std::uint32_t value = Whole(on.change.operands[2], "value");
    const std::uint64_t bits = std::uint64_t{on.ElementBits()} * on.reg.key.width;
    if (count < 1 || count > 32) throw Error("count " + Str(count) + " is not within 1 to 32");
    if (std::uint64_t{first} + count > bits) throw Error("the field ends beyond the range's " + Str(bits) + " bits");
    if (std::uint64_t{value} >> count != 0)
        throw Error("value " + Str(value) + " does not fit " + Str(count) + " bits");
    // Exactly the elements that the field touches: the service reads no more of them than it has to.
    const std::uint32_t element = first / on.ElementBits();
    const std::uint32_t elements = (first + count - 1) / on.ElementBits() - element + 1;
    std::uint32_t begin = 0;
    const std::vector<bool> run = FieldRun(on, first - element * on.ElementBits(), count, value, begin);
    Bytes operand = Descriptor(ChangeOp::BitField, 0, static_cast<std::uint32_t>(OperandType::Unsigned),
                               static_cast<std::uint32_t>(on.coding.ElemBytes()));
    PutRecord(operand, operand.size(), static_cast<std::uint16_t>(begin));
    PutRecord(operand, operand.size(), static_cast<std::uint16_t>(count));
    std::uint32_t packed = 0;
    for (std::uint32_t i = 0; i < count; ++i) packed |= (run[i] ? 1u : 0u) << i;
    PutRecord(operand, operand.size(), packed);
    return Changed(Elements(on.reg.key, element, elements), CMD_CHANGE, std::move(operand));
}

struct NamedOperation {
    const char* name;
    std::size_t operands;
    bool limits;
    ChangeRequest (*build)(const Subject& on);
};
constexpr NamedOperation Operations[] = {
    {"add", 1, true, [](const Subject& on) { return Arithmetic(on, ChangeOp::Add); }},
    {"sub", 1, true, [](const Subject& on) { return Arithmetic(on, ChangeOp::Subtract); }},
    {"and", 1, false, [](const Subject& on) { return Masked(on, ChangeOp::And, on.change.operands[0]); }},
    {"or", 1, false, [](const Subject& on) { return Masked(on, ChangeOp::Or, on.change.operands[0]); }},
    {"xor", 1, false, [](const Subject& on) { return Masked(on, ChangeOp::Xor, on.change.operands[0]); }},
    {"not", 0, false, Inverted},
    {"toggle", 1, false, Toggled},
    {"set", 1, false, [](const Subject& on) { return BitSet(on, true); }},
    {"clear", 1, false, [](const Subject& on) { return BitSet(on, false); }},
    {"digit-up", 1, false, [](const Subject& on) { return Digit(on, ChangeOp::DigitUp); }},
    {"digit-down", 1, false, [](const Subject& on) { return Digit(on, ChangeOp::DigitDown); }},
    {"field", 3, false, Field},
};

}  // namespace

ChangeText ParseChange(std::string_view text)
{
    ChangeText change;
    std::istringstream words{std::string(text)};
    words >> change.operation;
    for (std::string word; words >> word;) {
        std::string value;
        if (word == "wrap") {
            change.wrap = true;
        } else if (word == "bounce") {
            change.bounce = true;
        } else if (word == "reversed") {
            change.reversed = true;
        } else if (word != "min" && word != "max") {
            change.operands.push_back(word);
        } else if (words >> value) {
            (word == "min" ? change.minimum : change.maximum) = value;
        } else {
            throw Error("\"" + word + "\" without a value");
        }
    }
    return change;
}

ChangeRequest BuildChange(const Register& reg, std::uint16_t byteOrder, const ChangeText& change)
{
    const auto* const end = std::end(Operations);
    const auto* const named = std::find_if(std::begin(Operations), end,
                                           [&](const NamedOperation& each) { return change.operation == each.name; });
    if (named == end) {
        std::string names;
        for (const NamedOperation& each : Operations) names += (names.empty() ? "" : ", ") + std::string(each.name);
        throw Error("\"" + change.operation + "\" is none of " + names);
    }
    try {
        if (change.operands.size() != named->operands) {
            throw Error("takes " + Str(named->operands) + " operand(s), not " + Str(change.operands.size()));
        }
        const bool limits = change.minimum || change.maximum || change.wrap || change.bounce || change.reversed;
        if (limits && !named->limits) throw Error("minimum, maximum, wrap, bounce and reversed are for add and sub");
        return named->build({reg, byteOrder, CodingOf(reg, byteOrder), change});
    } catch (const Error& error) {
        throw Error(change.operation + ": " + error.what());
    }
}

ChangeRequest BuildPulse(const Register& reg, std::uint16_t byteOrder, std::optional<std::uint32_t> bit, bool value,
                         std::uint32_t milliseconds)
{
    if (milliseconds < PulseStepMs || milliseconds > MaxPulseMs || milliseconds % PulseStepMs != 0) {
        throw Error("a pulse takes " + Str(PulseStepMs) + " to " + Str(MaxPulseMs) + " ms in steps of " +
                    Str(PulseStepMs) + ", not " + Str(milliseconds));
    }
    if (!bit && (reg.type.kind != ValueKind::Bit || reg.key.width != 1)) throw Error("which bit of the range?");
    const ChangeText none;
    const BitPlace place = FindBit({reg, byteOrder, CodingOf(reg, byteOrder), none}, bit.value_or(0), MaxPulseBytes);
    return Changed(place.key, CMD_PULSE,
                   Descriptor(ChangeOp::Pulse, place.bit, value ? 1 : 0, milliseconds / PulseStepMs));
}

}  // namespace voq
