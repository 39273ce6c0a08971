// Paths of one port's files. Pure; any thread.
#include "client/port_dir.h"

namespace voq
{

const char* LinkName(LinkType link)
{
    switch (link) {
        case LinkType::Serial:
            return "serial";
        case LinkType::Can:
            return "can";
        case LinkType::Ethernet:
            break;
    }
    return "ethernet";
}

std::optional<LinkType> LinkFromName(std::string_view name)
{
    if (name == "serial") return LinkType::Serial;
    if (name == "can") return LinkType::Can;
    if (name == "ethernet") return LinkType::Ethernet;
    return std::nullopt;
}

std::optional<LinkType> LinkFromByte(std::uint8_t byte)
{
    if (byte > LINK_ETHERNET) return std::nullopt;
    return static_cast<LinkType>(byte);
}

std::string PortDir::Dir() const
{
    if (!own.empty()) return own + "/";
    const char* kind = link == LinkType::Serial ? "/com_" : link == LinkType::Can ? "/can_" : "/tcp_";
    return user + kind + std::to_string(number) + "/";
}

std::string PortDir::Map(const IndexItem& item) const
{
    char name[MapNameBytes];
    // The longest name, "imffff_ffff_ff_ffff_1", takes 22 bytes.
    return MapFileName(item, name, sizeof name) ? Dir() + name : std::string();
}

}  // namespace voq
