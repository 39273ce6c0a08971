// Writes project descriptions. Main thread; pure.
#include <cstdio>
#include <cstring>
#include <sstream>

#include "client/description/description.h"
#include "client/description/port_fields.h"
#include "client/error.h"
#include "client/port_dir.h"
#include "client/value_text.h"
#include "tools/project_toml.h"
#include "voq/reg_range.h"

namespace
{

constexpr std::uint32_t PriorityBits = REG_FLAG_PRIORITY_MASK << REG_FLAG_PRIORITY_SHIFT;

std::string AddressText(std::uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xFF) + "." +
           std::to_string(address >> 8 & 0xFF) + "." + std::to_string(address & 0xFF);
}

std::uint16_t ParaWord(const ComInfoRecord& port, std::size_t offset)
{
    return static_cast<std::uint16_t>(port.driverPara[offset] | port.driverPara[offset + 1] << 8);
}

std::string Line(const char* key, std::uint64_t value)
{
    return std::string(key) + " = " + std::to_string(value) + "\n";
}

std::string Line(const char* key, const std::string& value)
{
    return std::string(key) + " = \"" + value + "\"\n";
}

std::string HexLine(const char* key, std::uint32_t value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%s = 0x%x\n", key, value);
    return text;
}

// The keys that say what a record holds. A byte that no key can say is left out.
std::string PortKeys(const ComInfoRecord& port)
{
    std::string text = "[[port]]\n";
    if (const auto link = voq::LinkFromByte(port.linkType)) text += Line("link", std::string(voq::LinkName(*link)));
    text += Line("number", port.portNo);
    if (port.linkType == LINK_ETHERNET) {
        text += Line("address", AddressText(port.baudOrAddress)) + Line("tcp_port", ParaWord(port, 0));
    } else {
        text += Line("baud", port.baudOrAddress);
    }
    text += Line("response_timeout_ms", ParaWord(port, 2));
    const bool serial = port.linkType == LINK_SERIAL;
    const auto within = [](std::uint32_t value, std::uint32_t low, std::uint32_t high) {
        return value >= low && value <= high;
    };
    if ((serial || port.dataBits != 0) &&
        within(port.dataBits, voq::DataBitsLow(port.linkType), voq::DataBitsHigh(port.linkType))) {
        text += Line("data_bits", port.dataBits);
    }
    if ((serial || port.parity != 0) && port.parity < 3)
        text += Line("parity", std::string(voq::ParityNames[port.parity]));
    if ((serial || port.stopBits != 0) &&
        within(port.stopBits, voq::StopBitsLow(port.linkType), voq::StopBitsHigh(port.linkType))) {
        text += Line("stop_bits", port.stopBits);
    }
    if ((serial || port.lineMode != 0) && port.lineMode < 3) text += Line("line_mode", port.lineMode);
    if (port.masterSlaveMode < 2) text += Line("mode", std::string(voq::ModeNames[port.masterSlaveMode]));
    if (port.slaveNo != 0) text += Line("slave_no", port.slaveNo);
    text +=
        HexLine("byte_order", port.byteOrder) + Line("word_limit", port.wordLimit) + Line("bit_limit", port.bitLimit);
    text += Line("word_gap", port.wordGap) + Line("bit_gap", port.bitGap) + Line("pause_ms", port.pause);
    const std::uint32_t packing = port.flags & voq::PackingBits;
    if (packing == 0 || packing == voq::PackingOff) text += packing == 0 ? "packing = true\n" : "packing = false\n";
    return text;
}

std::string PortText(const ComInfoRecord& port)
{
    std::string text = PortKeys(port);
    try {
        const voq::Description again = voq::ParseDescription(text, "port");
        if (std::memcmp(&again.ports.at(0).record, &port, sizeof port) == 0) return text;
    } catch (const voq::Error&) {
        // A link that has no name: the record says it.
    }
    voq::Bytes bytes;
    voq::PutRecord(bytes, 0, port);
    return text + "# The record holds bytes that no key says.\n" + Line("record", voq::Hex(bytes));
}

std::string RegisterText(const RegKey& key, std::size_t number)
{
    const voq::ValueType type = voq::TypeOfSize(RegElemSize(&key));
    std::string text = "[[register]]\n" + Line("name", "r" + std::to_string(number)) + Line("port", key.portno);
    text += Line("station", key.plcno) + Line("area", key.regid) + Line("type", voq::TypeName(type));
    if (RegAddrType(&key) != voq::DefaultUnit(type)) text += Line("unit", RegAddrType(&key));
    text += Line("address", key.addr) + Line("count", key.width);
    if (key.subaddr != 0) text += Line("subaddr", key.subaddr);
    if ((key.flag & REG_FLAG_BIG_ENDIAN) != 0) text += "big_endian = true\n";
    if ((key.flag & REG_FLAG_BCD) != 0) text += "bcd = true\n";
    std::uint32_t extra = key.flag & ~(REG_FLAG_BIG_ENDIAN | REG_FLAG_BCD);
    const std::uint32_t priority = (key.flag & PriorityBits) >> REG_FLAG_PRIORITY_SHIFT;
    if (voq::ValidPriority(priority)) {
        if (priority != 0) text += Line("priority", priority);
        extra &= ~PriorityBits;
    }
    if (extra != 0) text += HexLine("flag", extra);
    if (key.convpara != 0) text += HexLine("convpara", key.convpara);
    return text;
}

std::string Commented(const std::string& text)
{
    std::string result = "# Not to be built:\n";
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) result += "# " + line + "\n";
    return result;
}

}  // namespace

std::string WritePortToml(const ComInfoRecord& port)
{
    return PortText(port);
}

std::string WriteProjectToml(const voq::Project& project, std::size_t& skipped)
{
    std::string text = HexLine("byte_order", project.byteOrder);
    for (const ComInfoRecord& port : project.ports) text += "\n" + PortText(port);
    skipped = 0;
    for (std::size_t i = 0; i < project.registers.size(); ++i) {
        const RegKey& key = project.registers[i];
        const bool builds =
            key.width != 0 && GetRegBuffLen(&key) <= MaxRegionBytes && voq::KnownPort(project.ports, key.portno);
        const std::string reg = RegisterText(key, i);
        text += "\n" + (builds ? reg : Commented(reg));
        if (!builds) ++skipped;
    }
    return text;
}
