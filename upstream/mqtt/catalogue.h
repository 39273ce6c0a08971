// All that is told upstream, by the description and the settings: ports, stations, registers. Made once. Pure.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "client/description/description.h"
#include "client/port_dir.h"
#include "upstream/mqtt/settings.h"

namespace voq::mqtt
{

struct Metric {
    std::string name;  // unique: the description's, or the expression
    DescribedRegister described;
    ValueCoding coding;
    std::uint32_t port = 0;    // its place in Catalogue::ports
    std::uint32_t device = 0;  // its place in Catalogue::devices
    TellRule rule;
};

// A station with registers that are told.
struct Device {
    std::string name;  // unique: the description's, or "tcp_1_s2"
    std::uint32_t port = 0;
    std::uint8_t station = 0;
    std::vector<std::uint32_t> metrics;
};

struct PortOf {
    PortDir dir;
    std::string name;  // "tcp_1"
    std::vector<std::uint32_t> devices;
};

struct Catalogue {
    std::vector<PortOf> ports;
    std::vector<Device> devices;
    std::vector<Metric> metrics;
    std::vector<std::string> remarks;  // what is left out, and why
    std::map<std::string, std::uint32_t, std::less<>> byName;

    // Its place, or metrics.size().
    std::uint32_t Find(std::string_view name) const;
};

// Throws Error when nothing is left to be told.
Catalogue MakeCatalogue(const Description& description, const Settings& settings, const std::string& userDirectory);

}  // namespace voq::mqtt
