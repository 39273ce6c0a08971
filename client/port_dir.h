// Where the files of one port lie, given the user data directory, the port's link type and its number. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "voq/com_info.h"
#include "voq/index_record.h"

namespace voq
{

enum class LinkType : std::uint8_t { Serial = LINK_SERIAL, Can = LINK_CAN, Ethernet = LINK_ETHERNET };

// "serial", "can" or "ethernet".
const char* LinkName(LinkType link);
std::optional<LinkType> LinkFromName(std::string_view name);
std::optional<LinkType> LinkFromByte(std::uint8_t byte);

struct PortDir {
    std::string user;  // user data directory
    LinkType link = LinkType::Ethernet;
    std::uint16_t number = 0;
    std::string own = {};  // the directory itself, where it is none below a user data directory

    std::string Name() const;  // "tcp_1", when it lies below a user data directory
    std::string Dir() const;   // ends with "/"
    std::string Org() const { return Dir() + "org"; }
    std::string Data() const { return Dir() + "data"; }
    std::string Index() const { return Dir() + "index"; }
    std::string GuiFifo() const { return Dir() + "guififo"; }
    std::string MekFifo() const { return Dir() + "mekfifo"; }
    std::string Lock() const { return Dir() + "lock"; }
    std::string Claims() const { return Dir() + "claims"; }
    std::string Timeout() const { return Dir() + "timeout"; }
    std::string ComError() const { return Dir() + "comerror"; }
    std::string Stats() const { return Dir() + "stats"; }
    std::string Map(const IndexItem& item) const;
    std::string Result(std::uint16_t fileno) const { return Dir() + std::to_string(fileno); }
    std::string RtData(std::uint16_t fileno) const { return Dir() + "rtData" + std::to_string(fileno); }
    std::string Srw() const { return user + "/srw0.dat"; }
};

// The port whose files lie in a directory: a path that ends in "tcp_N", "com_N" or "can_N". Nothing for any other.
std::optional<PortDir> PortOfDirectory(std::string_view path);

// Byte offset of the watchdog's two words in the SRW file, for the port at `index` of the project.
constexpr std::uint64_t WatchdogOffset(std::uint16_t index)
{
    return (std::uint64_t{index} + 515) * 4;
}

}  // namespace voq
