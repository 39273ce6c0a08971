// A project described in TOML: ports, and registers with their names and what their values mean. docs/description.md
// has the keys. Reading takes files only; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "client/description/driver_info.h"
#include "client/description/meaning.h"
#include "client/description/remarks.h"
#include "client/project.h"
#include "client/register.h"

namespace voq
{

struct DescribedPort {
    ComInfoRecord record = {};
    std::string driver;                   // "modbus_tcp"; empty: the description does not say
    const PlcDriverInfo* info = nullptr;  // what it says of itself; null: nobody knows
    std::string unknown;                  // why not
    bool namedOrder = false;              // its byte order was said by name: doubles lie so, too
    std::size_t line = 0;                 // of the file
};

struct DescribedRegister {
    std::string name;     // may be empty
    Register reg;         // port (key.portno), range, type, and its own byte order where it has one
    std::string station;  // name of its station; may be empty
    Meaning meaning;
    std::size_t line = 0;
};

struct Description {
    std::uint16_t byteOrder = 0;  // of the panel's own registers
    std::vector<DescribedPort> ports;
    std::vector<DescribedRegister> registers;  // in the order of the file, repeated ones one after the other

    // Null when there is none.
    const DescribedRegister* Find(std::string_view name) const;
    // The register of this range, whatever its name: the first in the file. Null when there is none.
    const DescribedRegister* Find(const RegKey& key) const;

    // The byte-order word that CodingOf takes for the registers of a port; of REG_PORT_LOCAL the panel's. Two ports of
    // different links may share a number: then the first one's unless `link` says. 0 for a port that is not there.
    std::uint16_t ByteOrderOf(std::uint16_t port, std::optional<std::uint8_t> link = std::nullopt) const;

    // What of it a project file holds.
    Project Built() const;
};

// A port's defaults are those of its driver, which is looked for in `drivers`. Both throw Error "<file>:<line>: <text>"
// for the first thing that is wrong.
Description ParseDescription(const std::string& text, const std::string& file,
                             const DriverDirs& drivers = StandardDriverDirs());
Description LoadDescription(const std::string& file, const DriverDirs& drivers = StandardDriverDirs());

// Everything that is wrong goes to `remarks`, which has the file's name; the result holds what could be read. Nothing
// is thrown for what the text says. `tell` (may be empty) hears how many registers were read.
Description ReadDescription(const std::string& text, const DriverDirs& drivers, Remarks& remarks,
                            const std::function<void(std::size_t)>& tell = {});
// The text of a description's file, or as much of it as is refused. Throws Error when it cannot be read.
std::string DescriptionText(const std::string& file);

}  // namespace voq
