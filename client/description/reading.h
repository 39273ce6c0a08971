// A description while it is read, and the readers of its tables. Used inside this library only.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "client/description/description.h"
#include "client/description/table.h"

namespace voq
{

inline constexpr std::size_t MaxRegisters = 200000;  // repeated ones counted each: some 100 MiB of memory
inline constexpr std::uint32_t MaxCopies = 1000;     // of a block
inline constexpr std::size_t MaxNames = 256;         // of the numbers or bits of a register

// A [[port]] that was read.
struct PortPlace {
    std::size_t index;  // in the description
    const Table* table;
};

// A [[station]]: what its registers have in common.
struct Station {
    std::string name;
    std::uint8_t number;
    std::uint16_t port;
    const Table* table;
};

struct Reading {
    Description text;
    Remarks& remarks;
    const DriverDirs& drivers;
    const std::function<void(std::size_t)>& tell;                 // registers so far; may be empty
    std::set<std::string, std::less<>> names = {};                // of registers
    std::map<std::uint16_t, PortPlace> ports = {};                // by number
    std::set<std::pair<std::uint8_t, std::uint16_t>> links = {};  // link and number
    std::deque<Table> tables = {};                                // of ports and stations: registers ask them
    std::map<std::pair<std::uint16_t, std::uint8_t>, Station> stations = {};  // by port and number
    std::multimap<std::string, const Station*> stationNames = {};
    std::map<const toml::node*, std::shared_ptr<const NamedNumbers>> numbers = {};  // "enum" and "bits", read once

    // The only port's number; nothing when there are several.
    std::optional<std::uint16_t> OnlyPort() const;
};

// A byte-order word, by name or number; "high-word-first" is what the number 0x331 says.
std::optional<std::uint16_t> ReadByteOrder(Table& table);

void ReadPort(const toml::node& node, Reading& reading);
void ReadStation(const toml::node& node, Reading& reading);
void ReadBlock(const toml::node& node, Reading& reading);
void ReadRegister(const toml::node& node, Reading& reading);

Meaning ReadMeaning(Table& table, const Register& reg, Reading& reading);

}  // namespace voq
