// Register expressions. Pure; any thread.
#include "client/register.h"

#include <charconv>
#include <cstdio>
#include <vector>

#include "client/error.h"
#include "voq/reg_range.h"

namespace voq
{

namespace
{

struct NamedType {
    const char* name;
    ValueType type;
};
constexpr NamedType NamedTypes[] = {
    {"bit", {ValueKind::Bit, 0}},       {"u16", {ValueKind::U16, 2}}, {"s16", {ValueKind::S16, 2}},
    {"u32", {ValueKind::U32, 4}},       {"s32", {ValueKind::S32, 4}}, {"float", {ValueKind::Float, 4}},
    {"double", {ValueKind::Double, 8}},
};

std::string Quoted(std::string_view text)
{
    return "\"" + std::string(text) + "\"";
}

std::optional<std::uint32_t> Number(std::string_view text)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
        base = 16;
    }
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::uint32_t NumberOf(std::string_view key, std::string_view text)
{
    const auto value = Number(text);
    if (!value) throw Error(std::string(key) + ": " + Quoted(text) + " is not a number");
    return *value;
}

bool BoolOf(std::string_view key, std::string_view text)
{
    if (text == "true" || text == "1") return true;
    if (text == "false" || text == "0") return false;
    throw Error(std::string(key) + ": " + Quoted(text) + " is neither true nor false");
}

std::vector<std::string_view> Split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    while (true) {
        const std::size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return parts;
        text.remove_prefix(end + 1);
    }
}

void SetType(RegisterFields& fields, std::string_view name)
{
    fields.type = TypeFromName(name);
    if (!fields.type) {
        throw Error("type: " + Quoted(name) + " is none of bit, u16, s16, u32, s32, float, double, raw:1 to raw:15");
    }
}

void SetField(RegisterFields& fields, std::string_view key, std::string_view value)
{
    if (key == "type") return SetType(fields, value);
    if (key == "big_endian") return void(fields.bigEndian = BoolOf(key, value));
    if (key == "bcd") return void(fields.bcd = BoolOf(key, value));
    if (key == "priority" && value == "each") return void(fields.priority = 0);
    if (key == "port") return void(fields.port = NumberOf(key, value));
    if (key == "station") return void(fields.station = NumberOf(key, value));
    if (key == "area") return void(fields.area = NumberOf(key, value));
    if (key == "addr") return void(fields.addr = NumberOf(key, value));
    if (key == "count") return void(fields.count = NumberOf(key, value));
    if (key == "unit") return void(fields.unit = NumberOf(key, value));
    if (key == "subaddr") return void(fields.subaddr = NumberOf(key, value));
    if (key == "priority") return void(fields.priority = NumberOf(key, value));
    if (key == "flag") return void(fields.flag = NumberOf(key, value));
    if (key == "convpara") return void(fields.convpara = NumberOf(key, value));
    throw Error("unknown key " + Quoted(key));
}

void SetFields(RegisterFields& fields, const std::vector<std::string_view>& items, std::size_t from)
{
    for (std::size_t i = from; i < items.size(); ++i) {
        const std::size_t equals = items[i].find('=');
        if (equals != std::string_view::npos) {
            SetField(fields, items[i].substr(0, equals), items[i].substr(equals + 1));
        } else if (items[i] == "big_endian" || items[i] == "bcd") {
            SetField(fields, items[i], "true");
        } else {
            throw Error(Quoted(items[i]) + " is not a key=value pair");
        }
    }
}

// "p1:s1:a4:raw:8": the colon-separated part before "@".
void SetPlace(RegisterFields& fields, std::string_view place)
{
    while (true) {
        const std::size_t colon = place.find(':');
        const std::string_view part = place.substr(0, colon);
        // What is left begins with none of the one-letter fields: the type, which may hold a colon of its own.
        const bool field =
            part.size() > 1 && (part[0] == 'p' || part[0] == 's' || part[0] == 'a') && colon != std::string_view::npos;
        if (!field) return SetType(fields, place);
        SetField(fields, part[0] == 'p' ? "port" : part[0] == 's' ? "station" : "area", part.substr(1));
        place.remove_prefix(colon + 1);
    }
}

void ParseCompact(RegisterFields& fields, std::string_view text, std::size_t at)
{
    SetPlace(fields, text.substr(0, at));
    const auto items = Split(text.substr(at + 1), ',');
    const auto range = Split(items[0], '*');
    if (range.size() > 2) throw Error(Quoted(items[0]) + " is not an address with a count");
    SetField(fields, "addr", range[0]);
    if (range.size() == 2) SetField(fields, "count", range[1]);
    SetFields(fields, items, 1);
}

std::uint32_t Within(const char* name, std::optional<std::uint32_t> value, std::uint32_t low, std::uint32_t high)
{
    if (!value) throw Error(std::string(name) + " is missing");
    if (*value < low || *value > high) {
        throw Error(std::string(name) + " " + std::to_string(*value) + " is not within " + std::to_string(low) +
                    " to " + std::to_string(high));
    }
    return *value;
}

std::uint32_t Flags(const RegisterFields& fields)
{
    constexpr std::uint32_t priorityBits = REG_FLAG_PRIORITY_MASK << REG_FLAG_PRIORITY_SHIFT;
    std::uint32_t flag = fields.flag;
    if (fields.priority) {
        if (!ValidPriority(*fields.priority)) {
            throw Error("priority " + std::to_string(*fields.priority) + " is none of 0 (each), 1, 3, 10");
        }
        if ((flag & priorityBits) != 0) throw Error("flag holds priority bits beside the priority");
        flag |= *fields.priority << REG_FLAG_PRIORITY_SHIFT;
    }
    if (fields.bigEndian) flag |= REG_FLAG_BIG_ENDIAN;
    if (fields.bcd) flag |= REG_FLAG_BCD;
    return flag;
}

}  // namespace

std::optional<ValueType> TypeFromName(std::string_view name)
{
    for (const NamedType& named : NamedTypes) {
        if (name == named.name) return named.type;
    }
    if (!name.starts_with("raw:")) return std::nullopt;
    const auto size = Number(name.substr(4));
    if (!size || *size < 1 || *size > 15) return std::nullopt;
    return ValueType{ValueKind::Raw, static_cast<std::uint8_t>(*size)};
}

std::string TypeName(const ValueType& type)
{
    for (const NamedType& named : NamedTypes) {
        if (type.kind == named.type.kind) return named.name;
    }
    return "raw:" + std::to_string(type.elemSize);
}

ValueType TypeOfSize(unsigned elemSize)
{
    switch (elemSize) {
        case 0:
            return {ValueKind::Bit, 0};
        case 2:
            return {ValueKind::U16, 2};
        case 4:
            return {ValueKind::U32, 4};
        case 8:
            return {ValueKind::Double, 8};
        default:
            return {ValueKind::Raw, static_cast<std::uint8_t>(elemSize)};
    }
}

unsigned DefaultUnit(const ValueType& type)
{
    return type.elemSize < 2 ? type.elemSize : 2;
}

Register MakeRegister(const RegisterFields& fields, std::optional<std::uint16_t> port)
{
    Register reg;
    if (!fields.type) throw Error("type is missing");
    reg.type = *fields.type;
    RegKey& key = reg.key;
    if (!fields.port && !port) throw Error("port is missing");
    key.portno = static_cast<std::uint16_t>(Within("port", fields.port.value_or(port.value_or(0)), 0, 0xFFFF));
    key.plcno = static_cast<std::uint8_t>(Within("station", fields.station, 0, 0xFF));
    key.regid = static_cast<std::uint16_t>(Within("area", fields.area, 0, 0xFFFF));
    key.addr = Within("addr", fields.addr, 0, 0xFFFFFFFF);
    key.width = static_cast<std::uint16_t>(Within("count", fields.count, 1, 0xFFFF));
    const std::uint32_t unit = Within("unit", fields.unit.value_or(DefaultUnit(reg.type)), 0, 15);
    key.layout = static_cast<std::uint8_t>(unit << 4 | reg.type.elemSize);
    key.subaddr = fields.subaddr;
    key.convpara = fields.convpara;
    key.flag = Flags(fields);
    if (GetRegBuffLen(&key) > MaxRegionBytes) {
        throw Error("count " + std::to_string(key.width) + " makes a value of " + std::to_string(GetRegBuffLen(&key)) +
                    " bytes; the limit is " + std::to_string(MaxRegionBytes));
    }
    return reg;
}

Register ParseExpression(std::string_view text, std::optional<std::uint16_t> port)
{
    try {
        RegisterFields fields;
        const std::size_t at = text.find('@');
        if (at != std::string_view::npos) {
            ParseCompact(fields, text, at);
        } else {
            SetFields(fields, Split(text, ','), 0);
        }
        return MakeRegister(fields, port);
    } catch (const Error& error) {
        throw Error(Quoted(text) + ": " + error.what());
    }
}

bool LooksLikeExpression(std::string_view text)
{
    return text.find_first_of("@=") != std::string_view::npos;
}

std::string Expression(const Register& reg)
{
    const RegKey& key = reg.key;
    std::string text = "p" + std::to_string(key.portno) + ":s" + std::to_string(key.plcno) + ":a" +
                       std::to_string(key.regid) + ":" + TypeName(reg.type) + "@" + std::to_string(key.addr) + "*" +
                       std::to_string(key.width);
    if (RegAddrType(&key) != DefaultUnit(reg.type)) text += ",unit=" + std::to_string(RegAddrType(&key));
    char number[32];
    if (key.subaddr != 0) text += ",subaddr=" + std::to_string(key.subaddr);
    if (key.flag != 0) text += (std::snprintf(number, sizeof number, ",flag=0x%x", key.flag), number);
    if (key.convpara != 0) text += (std::snprintf(number, sizeof number, ",convpara=0x%x", key.convpara), number);
    return text;
}

bool ValidPriority(std::uint32_t value)
{
    return value == 0 || value == 1 || value == 3 || value == 10;
}

}  // namespace voq
