// Reads [[port]] tables. Pure but for the driver that is asked.
#include <algorithm>
#include <cstdio>

#include "client/bytes.h"
#include "client/description/port_fields.h"
#include "client/description/reading.h"

namespace voq
{

namespace
{

constexpr const char* LinkNames[] = {"serial", "can", "ethernet"};  // in the order of the link type's values

constexpr std::uint32_t NoAddress = 0xFFFFFFFF;  // of one that cannot be read: it is not missing as well

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
std::optional<ComInfoRecord> ParseRecord(Table& table, const std::string& text)
{
    Bytes bytes(sizeof(ComInfoRecord));
    if (text.size() != 2 * bytes.size() || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        table.FailAt("record", "must be " + std::to_string(2 * bytes.size()) + " hexadecimal digits");
        return std::nullopt;
    }
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(std::stoul(text.substr(2 * i, 2), nullptr, 16));
    }
    return RecordAt<ComInfoRecord>(bytes, 0);
}

void SetParaWord(ComInfoRecord& port, std::size_t offset, std::uint32_t value)
{
    port.driverPara[offset] = static_cast<std::uint8_t>(value);
    port.driverPara[offset + 1] = static_cast<std::uint8_t>(value >> 8);
}

template <typename Field, typename Value>
void Store(Field& field, std::optional<Value> value)
{
    if (value) field = static_cast<Field>(*value);
}

// Asks the port's driver. One that nobody can ask leaves what suits it to the description.
void ReadDriver(Table& table, Reading& reading, DescribedPort& port)
{
    port.driver = table.Text("driver").value_or("");
    if (port.driver.empty()) return;
    const auto inner = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    };
    if (!std::all_of(port.driver.begin(), port.driver.end(), inner)) {
        return table.FailAt("driver", "\"" + port.driver + "\" is not the name of a driver's library without \".so\"");
    }
    const DriverAnswer answer = AskDriver(port.driver, reading.drivers);
    port.info = answer.info;
    port.unknown = answer.why;
    if (port.info != nullptr || table.HasOwn("record")) return;
    for (const char* key : {"link", "byte_order", "word_limit", "bit_limit", "word_gap", "bit_gap"}) {
        if (table.HasOwn(key)) continue;
        return table.FailAt("driver",
                            port.unknown + ": say where it is (--drivers, VOQ_DRIVERS), or give " + key + " here");
    }
}

ComInfoRecord DefaultPort(std::uint8_t link, const PlcDriverInfo* info)
{
    ComInfoRecord port = {};
    port.linkType = link;
    port.wordLimit = 64;
    port.bitLimit = 128;
    port.pause = 1;
    if (info != nullptr) {
        port.byteOrder = info->byteOrder;
        port.wordLimit = info->wordLimit;
        port.bitLimit = info->bitLimit;
        port.wordGap = info->wordGap;
        port.bitGap = info->bitGap;
    }
    if (link != LINK_SERIAL) return port;
    port.dataBits = 8;
    port.stopBits = 1;
    port.baudOrAddress = 9600;
    return port;
}

// Keys that the port's link has no use for.
void RefuseOthers(Table& table, std::uint8_t link)
{
    const auto refuse = [&](const char* key, const char* links) {
        if (table.HasOwn(key))
            table.FailAt(key, std::string("is for ") + links + " ports, this one is " + LinkNames[link]);
    };
    if (link == LINK_ETHERNET) return refuse("baud", "serial and can");
    refuse("address", "ethernet");
    refuse("tcp_port", "ethernet");
}

// `linkKnown`: else which keys a port has is not known either.
void ReadLine(Table& table, ComInfoRecord& port, bool linkKnown)
{
    if (!linkKnown) {
        for (const char* key : {"baud", "address", "tcp_port"}) table.Take(key);
        return;
    }
    RefuseOthers(table, port.linkType);
    Store(port.lineMode, table.Number("line_mode", 0, 2));
    Store(port.dataBits, table.Number("data_bits", DataBitsLow(port.linkType), DataBitsHigh(port.linkType)));
    Store(port.stopBits, table.Number("stop_bits", StopBitsLow(port.linkType), StopBitsHigh(port.linkType)));
    Store(port.parity, table.Choice("parity", ParityNames));
    if (port.linkType != LINK_ETHERNET) {
        Store(port.baudOrAddress, table.Number("baud", 0, 0xFFFFFFFF));
        return;
    }
    if (const auto text = table.Text("address")) {
        const auto address = ParseAddress(*text);
        if (!address) table.FailAt("address", "\"" + *text + "\" is not an IPv4 address");
        port.baudOrAddress = address.value_or(NoAddress);
    }
    if (const auto value = table.Number("tcp_port", 0, 0xFFFF)) SetParaWord(port, 0, *value);
}

void ReadLimits(Table& table, ComInfoRecord& port)
{
    if (const auto ms = table.Number("response_timeout_ms", 0, 0xFFFF)) SetParaWord(port, 2, *ms);
    Store(port.masterSlaveMode, table.Choice("mode", ModeNames));
    Store(port.wordLimit, table.Number("word_limit", 0, 0xFFFF));
    Store(port.bitLimit, table.Number("bit_limit", 0, 0xFFFF));
    Store(port.wordGap, table.Number("word_gap", 0, 0xFF));
    Store(port.bitGap, table.Number("bit_gap", 0, 0xFF));
    Store(port.pause, table.Number("pause_ms", 0, 0xFF));
    Store(port.slaveNo, table.Number("slave_no", 0, 0xFFFF));
    if (const auto packing = table.Bool("packing")) {
        port.flags = (port.flags & ~PackingBits) | (*packing ? 0 : PackingOff);
    }
}

}  // namespace

std::optional<std::uint16_t> ReadByteOrder(Table& table)
{
    const toml::node* value = table.Take("byte_order");
    if (value == nullptr) return std::nullopt;
    if (!value->is_string()) return table.Number("byte_order", 0, 0xFFFF);
    const auto order = table.Choice("byte_order", ByteOrderNames);
    if (!order) return std::nullopt;
    return static_cast<std::uint16_t>(*order * 0x110 + (*order % 2));
}

void ReadPort(const toml::node& node, Reading& reading)
{
    Table& table = reading.tables.emplace_back(node, reading.remarks, "port");
    DescribedPort port;
    port.line = LineOf(node);
    ReadDriver(table, reading, port);
    const auto text = table.Text("record");
    const auto link = table.Choice("link", LinkNames);
    const std::uint8_t byDriver = port.info == nullptr ? std::uint8_t{LINK_SERIAL} : port.info->linkType;
    const auto record = text ? ParseRecord(table, *text) : std::nullopt;
    port.record = record ? *record : DefaultPort(link.value_or(byDriver), port.info);
    Store(port.record.linkType, link);

    const auto number = table.Number("number", 0, 0xFFFF);
    Store(port.record.portNo, number);
    ReadLine(table, port.record, link || text || port.info != nullptr);
    ReadLimits(table, port.record);
    port.namedOrder =
        table.HasOwn("byte_order") ? table.Take("byte_order")->is_string() : port.info != nullptr && !text;
    Store(port.record.byteOrder, ReadByteOrder(table));
    table.Finish(true);
    if (!link && !text && port.info == nullptr && table.Good()) table.FailHere("link is missing");
    if (!number && !text && table.Good()) table.FailHere("number is missing");
    if (!reading.links.emplace(port.record.linkType, port.record.portNo).second && table.Good()) {
        table.FailHere("there is a port of this link and number already");
    }
    reading.ports.emplace(port.record.portNo, PortPlace{reading.text.ports.size(), &table});
    reading.text.ports.push_back(std::move(port));
}

}  // namespace voq
