// Reads registers: [[register]] tables and the rows of [[block]] tables. Pure.
#include <algorithm>

#include "client/description/reading.h"
#include "client/error.h"
#include "value/shuffle.h"
#include "voq/reg_range.h"

namespace voq
{

namespace
{

struct Area {
    const char* name;
    std::uint16_t number;
};
// As the Modbus drivers number them.
constexpr Area Areas[] = {{"coils", 0}, {"discrete", 1}, {"input", 3}, {"holding", 4}};

// One row, before it is repeated.
struct Row {
    std::string name;  // may hold "#"
    RegisterFields fields;
    std::optional<int> order;
    Meaning meaning;
    std::string station;
    std::size_t line = 0;
};

// How often the rows of a block come.
struct Repeat {
    std::uint32_t count = 1;
    std::uint32_t stride = 0;
    std::uint32_t stationStride = 0;
    std::uint32_t first = 1;
    bool numbered = false;
};

bool ValidName(const std::string& name)
{
    const auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    const auto inner = [&](char c) { return letter(c) || (c >= '0' && c <= '9') || c == '.' || c == '-'; };
    return !name.empty() && letter(name[0]) && std::all_of(name.begin(), name.end(), inner);
}

std::string Numbered(std::string text, std::uint32_t number)
{
    const std::string digits = std::to_string(number);
    for (std::size_t at = text.find('#'); at != std::string::npos; at = text.find('#', at + digits.size())) {
        text.replace(at, 1, digits);
    }
    return text;
}

std::optional<std::uint32_t> ReadArea(Table& table)
{
    const toml::node* value = table.Take("area");
    if (value == nullptr || !value->is_string()) return table.Number("area", 0, 0xFFFF);
    const std::string text = value->as_string()->get();
    for (const Area& area : Areas) {
        if (text == area.name) return area.number;
    }
    table.FailAt("area", "\"" + text + "\" is none of coils, discrete, input, holding, and no number");
    return std::nullopt;
}

std::optional<std::uint32_t> ReadPriority(Table& table)
{
    const toml::node* value = table.Take("priority");
    if (value != nullptr && value->is_string()) {
        if (table.Text("priority") != "each") table.FailAt("priority", "must be \"each\", 0, 1, 3 or 10");
        return 0;
    }
    const auto priority = table.Number("priority", 0, REG_FLAG_PRIORITY_MASK);
    if (priority && !ValidPriority(*priority)) {
        table.FailAt("priority", std::to_string(*priority) + " is none of 0 (each), 1, 3, 10");
    }
    return priority;
}

// "unit" is the bytes of an address where it is a number, else the unit of the value.
std::optional<std::uint32_t> ReadAddressBytes(Table& table)
{
    if (const auto bytes = table.Number("address_bytes", 0, 15)) return bytes;
    const toml::node* unit = table.Take("unit");
    return unit == nullptr || unit->is_string() ? std::nullopt : table.Number("unit", 0, 15);
}

std::optional<ValueType> ReadType(Table& table)
{
    // The words around may be of another type.
    if (table.HasOwn("text") && !table.HasOwn("type")) return ValueType{ValueKind::U16, 2};
    const auto text = table.Text("type");
    if (!text) return std::nullopt;
    const auto type = TypeFromName(*text);
    if (type) return type;
    table.FailAt("type", "\"" + *text + "\" is none of bit, u16, s16, u32, s32, float, double, raw:1 to raw:15");
    return std::nullopt;
}

// A text's elements follow from its characters.
std::uint32_t ReadCount(Table& table, const std::optional<ValueType>& type)
{
    const auto count = table.Number("count", 1, 0xFFFF);
    const auto text = table.Number("text", 1, 0xFFFF);
    if (!text || !type) return count.value_or(1);
    const std::uint32_t size = std::max<std::uint32_t>(1, type->elemSize);
    if (size > 2 || type->kind == ValueKind::Bit || type->kind == ValueKind::S16) {
        table.FailAt("text", "is made of u16 or raw:1, not of " + TypeName(*type));
    }
    const std::uint32_t needed = (*text + size - 1) / size;
    if (count && *count < needed) {
        table.FailAt("count", std::to_string(*count) + " holds no text of " + std::to_string(*text) + " characters");
    }
    return count.value_or(needed);
}

RegisterFields ReadFields(Table& table)
{
    RegisterFields fields;
    fields.area = ReadArea(table);
    fields.addr = table.Number("address", 0, 0xFFFFFFFF);
    fields.type = ReadType(table);
    fields.count = ReadCount(table, fields.type);
    fields.unit = ReadAddressBytes(table);
    fields.subaddr = table.Number("subaddr", 0, 0xFFFFFFFF).value_or(0);
    fields.flag = table.Number("flag", 0, 0xFFFFFFFF).value_or(0);
    fields.convpara = table.Number("convpara", 0, 0xFFFFFFFF).value_or(0);
    fields.bigEndian = table.Bool("big_endian").value_or(false);
    fields.bcd = table.Bool("bcd").value_or(false);
    fields.priority = ReadPriority(table);
    return fields;
}

// The register's own order of bytes, for types that have one.
std::optional<int> ReadOrder(Table& table, const RegisterFields& fields)
{
    const toml::node* value = table.Take("byte_order");
    const auto word = ReadByteOrder(table);
    if (!word || !fields.type) return std::nullopt;
    const ValueKind kind = fields.type->kind;
    if (kind == ValueKind::Bit || kind == ValueKind::Raw) {
        if (table.HasOwn("byte_order"))
            table.FailAt("byte_order", "a " + TypeName(*fields.type) + " is taken as it lies");
        return std::nullopt;
    }
    if (fields.bigEndian) table.FailAt("byte_order", "big_endian says it already");
    if (value->is_string()) return *word >> 8 & 3;
    if (kind == ValueKind::Double) {
        table.FailAt("byte_order", "a number says nothing about a double: give a name");
    }
    return CodingOf({{}, *fields.type}, *word).order;
}

Row ReadRow(Table& table, Reading& reading)
{
    Row row;
    row.line = table.Line();
    row.name = table.Text("name").value_or("");
    row.fields = ReadFields(table);
    row.order = ReadOrder(table, row.fields);
    Register reg;
    reg.type = row.fields.type.value_or(ValueType{});
    reg.key.flag = row.fields.bcd ? REG_FLAG_BCD : 0;
    row.meaning = ReadMeaning(table, reg, reading);
    return row;
}

// The station of that number, or of that name; null when there is no [[station]] of it.
const Station* FindStation(Table& table, Reading& reading, RegisterFields& fields)
{
    const toml::node* value = table.Take("station");
    if (value == nullptr || !value->is_string()) {
        fields.station = table.Number("station", 0, 0xFF);
        const auto port = fields.port ? static_cast<std::uint16_t>(*fields.port) : reading.OnlyPort();
        if (!fields.station || !port) return nullptr;
        const auto found = reading.stations.find({*port, static_cast<std::uint8_t>(*fields.station)});
        return found == reading.stations.end() ? nullptr : &found->second;
    }
    const auto [begin, end] = reading.stationNames.equal_range(value->as_string()->get());
    for (auto each = begin; each != end; ++each) {
        if (!fields.port || *fields.port == each->second->port) return each->second;
    }
    table.FailAt("station", "no [[station]] has the name \"" + value->as_string()->get() + "\"");
    return nullptr;
}

// Where the register is: its station by number or by name, and its port. Defaults come from there.
void ReadPlace(Table& table, Reading& reading, RegisterFields& fields, std::string& name)
{
    fields.port = table.Number("port", 0, 0xFFFF);
    if (const Station* station = FindStation(table, reading, fields)) {
        name = station->name;
        fields.station = station->number;
        fields.port = station->port;
        return table.Within(station->table);
    }
    if (!fields.port) fields.port = reading.OnlyPort();
    if (!fields.port) return;
    const auto found = reading.ports.find(static_cast<std::uint16_t>(*fields.port));
    if (found != reading.ports.end()) return table.Within(found->second.table);
    if (*fields.port != REG_PORT_LOCAL) table.FailAt("port", "no port has the number " + std::to_string(*fields.port));
}

// A port whose order was said by name has its doubles in it, too; the service never looks at one.
std::optional<int> OrderOf(const Row& row, const Register& reg, const Reading& reading)
{
    if (row.order || reg.type.kind != ValueKind::Double || row.fields.bigEndian) return row.order;
    const auto found = reading.ports.find(reg.key.portno);
    if (found == reading.ports.end()) return std::nullopt;
    const DescribedPort& port = reading.text.ports[found->second.index];
    return port.namedOrder ? std::optional<int>(port.record.byteOrder >> 8 & 3) : std::nullopt;
}

void ClaimName(Table& table, const std::string& name, Reading& reading)
{
    if (!ValidName(name)) {
        table.FailAt("name", "\"" + name + "\" must begin with a letter and hold letters, digits, \"_\", \".\", \"-\"");
    } else if (!reading.names.insert(name).second) {
        table.FailAt("name", "there is a register \"" + name + "\" already");
    }
}

void Add(Table& table, const Row& row, std::string name, Reading& reading)
{
    auto& registers = reading.text.registers;
    if (registers.size() == MaxRegisters) {
        return table.FailHere("more than " + std::to_string(MaxRegisters) + " registers");
    }
    DescribedRegister described{std::move(name), {}, row.station, row.meaning, row.line};
    try {
        described.reg = MakeRegister(row.fields, reading.OnlyPort());
    } catch (const Error& error) {
        return table.FailHere(error.what());
    }
    described.reg.order = OrderOf(row, described.reg, reading);
    registers.push_back(std::move(described));
    if (reading.tell) reading.tell(registers.size());
}

void AddCopy(Table& table, const Row& row, const Repeat& repeat, std::uint32_t copy, Reading& reading)
{
    Row moved = row;
    const std::uint64_t address = std::uint64_t{row.fields.addr.value_or(0)} + std::uint64_t{copy} * repeat.stride;
    const std::uint32_t station = row.fields.station.value_or(0) + copy * repeat.stationStride;
    if (address > 0xFFFFFFFF) table.FailHere("copy " + std::to_string(copy + 1) + " is behind the last address");
    if (station > 0xFF) table.FailHere("copy " + std::to_string(copy + 1) + " is at a station behind 255");
    if (row.fields.addr) moved.fields.addr = static_cast<std::uint32_t>(address);
    if (row.fields.station) moved.fields.station = station;
    if (repeat.stationStride != 0) moved.station = Numbered(row.station, repeat.first + copy);
    if (repeat.numbered) moved.meaning.comment = Numbered(row.meaning.comment, repeat.first + copy);
    std::string name = repeat.numbered ? Numbered(row.name, repeat.first + copy) : row.name;
    if (table.HasOwn("name")) ClaimName(table, name, reading);
    if (table.Good()) Add(table, moved, std::move(name), reading);
}

Repeat ReadRepeat(Table& table)
{
    Repeat repeat;
    const auto count = table.Number("count", 1, MaxCopies);
    repeat.numbered = count.has_value();
    repeat.count = count.value_or(1);
    repeat.stride = table.Number("stride", 0, 0xFFFFFFFF).value_or(0);
    repeat.stationStride = table.Number("station_stride", 0, 0xFF).value_or(0);
    repeat.first = table.Number("first", 0, 0xFFFF).value_or(1);
    if (repeat.count > 1 && repeat.stride == 0 && repeat.stationStride == 0) {
        table.FailAt("count", "copies need a stride, or a station_stride");
    }
    return repeat;
}

void ReadRows(Table& block, const toml::array& rows, const Repeat& repeat, const Row& place, const std::string& prefix,
              Reading& reading)
{
    std::deque<Table> tables;
    std::vector<Row> read;
    for (const toml::node& node : rows) {
        Table& table = tables.emplace_back(node, reading.remarks, "register");
        table.Within(&block);
        Row row = ReadRow(table, reading);
        row.fields.port = place.fields.port;
        row.fields.station = place.fields.station;
        row.station = place.station;
        if (!row.fields.addr && table.Good()) table.FailHere("address is missing");
        if (!row.name.empty()) row.name = prefix + row.name;
        if (repeat.count > 1 && !row.name.empty() && row.name.find('#') == std::string::npos) {
            table.FailAt("name", "\"" + row.name + "\" needs a \"#\" for the number of the copy");
        }
        table.Finish();
        read.push_back(std::move(row));
    }
    for (std::uint32_t copy = 0; copy < repeat.count; ++copy) {
        for (std::size_t i = 0; i < read.size(); ++i) {
            if (tables[i].Good()) AddCopy(tables[i], read[i], repeat, copy, reading);
        }
    }
}

}  // namespace

std::optional<std::uint16_t> Reading::OnlyPort() const
{
    if (text.ports.size() != 1) return std::nullopt;
    return text.ports[0].record.portNo;
}

void ReadStation(const toml::node& node, Reading& reading)
{
    Table& table = reading.tables.emplace_back(node, reading.remarks, "station");
    Station station;
    station.table = &table;
    station.name = table.Text("name").value_or("");
    const auto number = table.Number("number", 0, 0xFF);
    auto port = table.Number("port", 0, 0xFFFF);
    station.number = static_cast<std::uint8_t>(number.value_or(0));
    station.port = static_cast<std::uint16_t>(port.value_or(reading.OnlyPort().value_or(0)));
    const auto found = reading.ports.find(station.port);
    if (found != reading.ports.end()) table.Within(found->second.table);
    table.Finish(true);
    if (!number && table.Good()) table.FailHere("number is missing");
    if (!port && !reading.OnlyPort() && table.Good()) table.FailHere("port is missing");
    if (found == reading.ports.end() && table.Good()) {
        table.FailAt("port", "no port has the number " + std::to_string(station.port));
    }
    if (!table.Good()) return;
    const auto [begin, end] = reading.stationNames.equal_range(station.name);
    const bool named = std::any_of(begin, end, [&](const auto& each) { return each.second->port == station.port; });
    if (named && !station.name.empty()) return table.FailHere("there is a station \"" + station.name + "\" already");
    const auto [place, added] = reading.stations.try_emplace({station.port, station.number}, station);
    if (!added) return table.FailHere("there is a station of this number already");
    reading.stationNames.emplace(station.name, &place->second);
}

void ReadBlock(const toml::node& node, Reading& reading)
{
    Table table(node, reading.remarks, "block");
    Row place;
    ReadPlace(table, reading, place.fields, place.station);
    const std::string prefix = table.Text("prefix").value_or("");
    const Repeat repeat = ReadRepeat(table);
    const toml::node* rows = table.Take("registers");
    table.Finish(true);
    if (!table.Good()) return;
    if (rows == nullptr) return table.FailHere("registers is missing");
    if (!rows->is_array())
        return table.FailAt("registers", "must be a list: registers = [ { name = ..., address = ... }, ... ]");
    ReadRows(table, *rows->as_array(), repeat, place, prefix, reading);
}

void ReadRegister(const toml::node& node, Reading& reading)
{
    Table table(node, reading.remarks, "register");
    RegisterFields place;
    std::string station;
    ReadPlace(table, reading, place, station);
    Row row = ReadRow(table, reading);
    row.fields.port = place.port;
    row.fields.station = place.station;
    row.station = station;
    table.Finish();
    if (table.HasOwn("name")) ClaimName(table, row.name, reading);
    if (!row.fields.addr && table.Good()) table.FailHere("address is missing");
    if (table.Good()) Add(table, row, row.name, reading);
}

}  // namespace voq
