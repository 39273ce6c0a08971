// Reads project descriptions. Main thread.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "client/description/description.h"

// The only file that sees the parser: compiled in as a whole, so that nothing is to be linked.
#define TOML_HEADER_ONLY 1
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

#include "client/description/limits.h"
#include "client/description/port_fields.h"
#include "client/error.h"

namespace voq
{

namespace
{

constexpr const char* LinkNames[] = {"serial", "can", "ethernet"};  // in the order of the link type's values

[[noreturn]] void FailAtLine(const std::string& file, std::size_t line, const std::string& text)
{
    throw Error(file + ":" + std::to_string(line) + ": " + text);
}

std::size_t LineOf(const toml::node& node)
{
    return node.source().begin.line;
}

[[noreturn]] void Fail(const std::string& file, const toml::node& at, const std::string& text)
{
    FailAtLine(file, LineOf(at), text);
}

// One table of the file. Takes its keys one by one; Finish refuses those that nobody took.
class Table
{
public:
    Table(const toml::node& node, const std::string& file, const char* what) : table_(node.as_table()), file_(file)
    {
        if (table_ == nullptr) Fail(file, node, std::string(what) + " must be a table");
    }

    const toml::node* Take(const char* key)
    {
        taken_.insert(key);
        return table_->get(key);
    }

    std::optional<std::uint32_t> Number(const char* key, std::uint32_t low, std::uint32_t high)
    {
        const toml::node* value = Take(key);
        if (value == nullptr) return std::nullopt;
        if (!value->is_integer()) Fail(file_, *value, std::string(key) + " must be an integer");
        const std::int64_t number = value->as_integer()->get();
        if (number < low || number > high) {
            Fail(file_, *value,
                 std::string(key) + " " + std::to_string(number) + " is not within " + std::to_string(low) + " to " +
                     std::to_string(high));
        }
        return static_cast<std::uint32_t>(number);
    }

    std::optional<std::string> Text(const char* key)
    {
        const toml::node* value = Take(key);
        if (value == nullptr) return std::nullopt;
        if (!value->is_string()) Fail(file_, *value, std::string(key) + " must be a string");
        return value->as_string()->get();
    }

    std::optional<bool> Bool(const char* key)
    {
        const toml::node* value = Take(key);
        if (value == nullptr) return std::nullopt;
        if (!value->is_boolean()) Fail(file_, *value, std::string(key) + " must be true or false");
        return value->as_boolean()->get();
    }

    // The place of a string key's value in a list of names.
    template <std::size_t N>
    std::optional<std::uint8_t> Choice(const char* key, const char* const (&names)[N])
    {
        const auto text = Text(key);
        if (!text) return std::nullopt;
        std::string all;
        for (std::size_t i = 0; i < N; ++i) {
            if (*text == names[i]) return static_cast<std::uint8_t>(i);
            all += (i == 0 ? "" : ", ") + std::string(names[i]);
        }
        FailAt(key, "\"" + *text + "\" is none of " + all);
    }

    [[noreturn]] void FailAt(const char* key, const std::string& text)
    {
        const toml::node* value = Take(key);
        Fail(file_, value == nullptr ? *table_ : *value, std::string(key) + ": " + text);
    }
    [[noreturn]] void FailHere(const std::string& text) const { Fail(file_, *table_, text); }

    void Finish() const
    {
        std::map<std::size_t, std::string> unknown;  // by line: the first one is reported
        for (const auto& [key, value] : *table_) {
            if (!taken_.contains(key.str())) unknown.emplace(LineOf(value), key.str());
        }
        if (unknown.empty()) return;
        FailAtLine(file_, unknown.begin()->first, "unknown key \"" + unknown.begin()->second + "\"");
    }

private:
    const toml::table* table_;
    const std::string& file_;
    std::set<std::string_view> taken_;  // of constant texts
};

// The elements of an array of tables; none when the key is absent.
std::vector<const toml::node*> Tables(Table& root, const std::string& file, const char* key)
{
    std::vector<const toml::node*> tables;
    const toml::node* value = root.Take(key);
    if (value == nullptr) return tables;
    if (!value->is_array()) Fail(file, *value, std::string(key) + " must be written as [[" + key + "]]");
    for (const toml::node& element : *value->as_array()) tables.push_back(&element);
    return tables;
}

std::optional<std::uint32_t> ParseAddress(const std::string& text)
{
    unsigned a = 0, b = 0, c = 0, d = 0;
    char rest = 0;
    if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos || text.size() > 15)
        return std::nullopt;
    if (std::sscanf(text.c_str(), "%3u.%3u.%3u.%3u%c", &a, &b, &c, &d, &rest) != 4) return std::nullopt;
    if (a > 255 || b > 255 || c > 255 || d > 255) return std::nullopt;
    return a << 24 | b << 16 | c << 8 | d;
}

// The record's bytes as they lie, for what the named keys cannot say.
ComInfoRecord ParseRecord(Table& table, const std::string& text)
{
    Bytes bytes(sizeof(ComInfoRecord));
    if (text.size() != 2 * bytes.size() || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        table.FailAt("record", "must be " + std::to_string(2 * bytes.size()) + " hexadecimal digits");
    }
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(std::stoul(text.substr(2 * i, 2), nullptr, 16));
    }
    return *RecordAt<ComInfoRecord>(bytes, 0);
}

ComInfoRecord DefaultPort(std::uint8_t link)
{
    ComInfoRecord port = {};
    port.linkType = link;
    port.wordLimit = 64;
    port.bitLimit = 128;
    port.pause = 5;
    if (link != LINK_SERIAL) return port;
    port.dataBits = 8;
    port.stopBits = 1;
    port.baudOrAddress = 9600;
    return port;
}

void SetParaWord(ComInfoRecord& port, std::size_t offset, std::uint32_t value)
{
    port.driverPara[offset] = static_cast<std::uint8_t>(value);
    port.driverPara[offset + 1] = static_cast<std::uint8_t>(value >> 8);
}

template <typename Field>
void Store(Field& field, std::optional<std::uint32_t> value)
{
    if (value) field = static_cast<Field>(*value);
}

void ReadLine(Table& table, ComInfoRecord& port)
{
    Store(port.lineMode, table.Number("line_mode", 0, 2));
    Store(port.dataBits, table.Number("data_bits", DataBitsLow(port.linkType), DataBitsHigh(port.linkType)));
    Store(port.stopBits, table.Number("stop_bits", StopBitsLow(port.linkType), StopBitsHigh(port.linkType)));
    if (const auto parity = table.Choice("parity", ParityNames)) port.parity = *parity;
    if (port.linkType != LINK_ETHERNET) {
        Store(port.baudOrAddress, table.Number("baud", 0, 0xFFFFFFFF));
        return;
    }
    if (const auto text = table.Text("address")) {
        const auto address = ParseAddress(*text);
        if (!address) table.FailAt("address", "\"" + *text + "\" is not an IPv4 address");
        port.baudOrAddress = *address;
    }
    if (const auto value = table.Number("tcp_port", 0, 0xFFFF)) SetParaWord(port, 0, *value);
}

// A project in the making, and what of it must not come twice.
struct Reading {
    Description text;
    std::set<std::string, std::less<>> names;
    std::set<std::uint32_t> numbers;                         // of ports
    std::set<std::pair<std::uint8_t, std::uint16_t>> ports;  // link and number
};

ComInfoRecord ReadPort(const toml::node& node, const std::string& file)
{
    Table table(node, file, "port");
    const auto record = table.Text("record");
    const auto link = table.Choice("link", LinkNames);
    if (!link && !record) table.FailHere("link is missing");
    ComInfoRecord port = record ? ParseRecord(table, *record) : DefaultPort(link.value_or(LINK_SERIAL));
    Store(port.linkType, link);

    const auto number = table.Number("number", 0, 0xFFFF);
    if (!number && !record) table.FailHere("number is missing");
    Store(port.portNo, number);
    ReadLine(table, port);
    if (const auto ms = table.Number("response_timeout_ms", 0, 0xFFFF)) SetParaWord(port, 2, *ms);
    if (const auto mode = table.Choice("mode", ModeNames)) port.masterSlaveMode = *mode;
    Store(port.byteOrder, table.Number("byte_order", 0, 0xFFFF));
    Store(port.wordLimit, table.Number("word_limit", 0, 0xFFFF));
    Store(port.bitLimit, table.Number("bit_limit", 0, 0xFFFF));
    Store(port.wordGap, table.Number("word_gap", 0, 0xFF));
    Store(port.bitGap, table.Number("bit_gap", 0, 0xFF));
    Store(port.pause, table.Number("pause_ms", 0, 0xFF));
    Store(port.slaveNo, table.Number("slave_no", 0, 0xFFFF));
    if (const auto packing = table.Bool("packing")) {
        port.flags = (port.flags & ~PackingBits) | (*packing ? 0 : PackingOff);
    }
    table.Finish();
    return port;
}

bool ValidName(const std::string& name)
{
    const auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    const auto inner = [&](char c) { return letter(c) || (c >= '0' && c <= '9') || c == '.' || c == '-'; };
    return !name.empty() && letter(name[0]) && std::all_of(name.begin(), name.end(), inner);
}

RegisterFields ReadFields(Table& table)
{
    RegisterFields fields;
    fields.port = table.Number("port", 0, 0xFFFF);
    fields.station = table.Number("station", 0, 0xFF);
    fields.area = table.Number("area", 0, 0xFFFF);
    fields.addr = table.Number("address", 0, 0xFFFFFFFF);
    fields.count = table.Number("count", 1, 0xFFFF).value_or(1);
    fields.unit = table.Number("unit", 0, 15);
    fields.subaddr = table.Number("subaddr", 0, 0xFFFFFFFF).value_or(0);
    fields.flag = table.Number("flag", 0, 0xFFFFFFFF).value_or(0);
    fields.convpara = table.Number("convpara", 0, 0xFFFFFFFF).value_or(0);
    fields.bigEndian = table.Bool("big_endian").value_or(false);
    fields.bcd = table.Bool("bcd").value_or(false);
    const toml::node* priority = table.Take("priority");
    if (priority != nullptr && priority->is_string()) {
        if (table.Text("priority") != "each") table.FailAt("priority", "must be \"each\", 0, 1, 3 or 10");
        fields.priority = 0;
    } else {
        fields.priority = table.Number("priority", 0, REG_FLAG_PRIORITY_MASK);
        if (fields.priority && !ValidPriority(*fields.priority)) {
            table.FailAt("priority", std::to_string(*fields.priority) + " is none of 0 (each), 1, 3, 10");
        }
    }
    if (const auto type = table.Text("type")) {
        fields.type = TypeFromName(*type);
        if (!fields.type) {
            table.FailAt("type",
                         "\"" + *type + "\" is none of bit, u16, s16, u32, s32, float, double, raw:1 to raw:15");
        }
    }
    return fields;
}

void ReadRegister(const toml::node& node, const std::string& file, Reading& reading)
{
    Table table(node, file, "register");
    const auto name = table.Text("name");
    if (name && !ValidName(*name)) {
        table.FailAt("name",
                     "\"" + *name + "\" must begin with a letter and hold letters, digits, \"_\", \".\", \"-\"");
    }
    if (name && !name->empty() && !reading.names.insert(*name).second)
        table.FailAt("name", "there is a register \"" + *name + "\" already");
    const RegisterFields fields = ReadFields(table);
    table.Finish();
    const auto& ports = reading.text.ports;
    if (fields.port && *fields.port != REG_PORT_LOCAL && !reading.numbers.contains(*fields.port)) {
        table.FailAt("port", "no port has the number " + std::to_string(*fields.port));
    }
    if (!fields.addr) table.FailHere("address is missing");
    std::optional<std::uint16_t> only;
    if (ports.size() == 1) only = ports[0].record.portNo;
    DescribedRegister described;
    described.name = name.value_or("");
    described.line = LineOf(node);
    try {
        described.reg = MakeRegister(fields, only);
    } catch (const Error& error) {
        table.FailHere(error.what());
    }
    reading.text.registers.push_back(std::move(described));
}

Description ReadProject(const toml::node& node, const std::string& file)
{
    Reading reading;
    Description& project = reading.text;
    Table root(node, file, "the file");
    project.byteOrder = static_cast<std::uint16_t>(root.Number("byte_order", 0, 0xFFFF).value_or(0));
    for (const toml::node* port : Tables(root, file, "port")) {
        const ComInfoRecord record = ReadPort(*port, file);
        if (!reading.ports.emplace(record.linkType, record.portNo).second) {
            Fail(file, *port, "there is a port of this link and number already");
        }
        reading.numbers.insert(record.portNo);
        project.ports.push_back({record, "", LineOf(*port)});
    }
    if (project.ports.empty()) throw Error(file + ": there is no [[port]]");
    for (const toml::node* reg : Tables(root, file, "register")) ReadRegister(*reg, file, reading);
    root.Finish();
    return std::move(reading.text);
}

}  // namespace

Description ParseDescription(const std::string& text, const std::string& file)
{
    CheckDescriptionLimits(text, file);
    try {
        return ReadProject(toml::parse(text, file), file);
    } catch (const toml::parse_error& error) {
        FailAtLine(file, error.source().begin.line, error.what());
    }
}

Description LoadDescription(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    std::string text;
    for (char block[16384]; stream.read(block, sizeof block), stream.gcount() > 0;) {
        text.append(block, static_cast<std::size_t>(stream.gcount()));
        if (text.size() > MaxDescriptionBytes) break;
    }
    if (!stream.eof() && text.size() <= MaxDescriptionBytes) throw Error(file + ": cannot be read");
    return ParseDescription(text, file);
}

}  // namespace voq
