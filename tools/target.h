// Which port a command is about, from its options and the project's description.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/error.h"
#include "client/file_number.h"
#include "client/port_dir.h"
#include "tools/project_toml.h"

// Arguments that make no sense.
class UsageError : public voq::Error
{
public:
    using voq::Error::Error;
};

struct PortOptions {
    std::string dir;                      // user data directory
    std::string link = "ethernet";        // with number
    std::optional<std::uint16_t> number;  // port number
    std::string project;                  // TOML description
    std::uint16_t index = 0;              // place of the port in the project
    std::string fifo = "mek";
    voq::FileNumberRange numbers;
};

struct Target {
    voq::PortDir port;
    std::string fifo;
    std::uint16_t index = 0;
    std::optional<ProjectText> project;
};

// Throws UsageError.
Target Resolve(const PortOptions& options);
