// Paths of one port's files. Pure; any thread.
#include "client/port_dir.h"

#include <charconv>

namespace voq
{

namespace
{

std::string Prefix(LinkType link)
{
    return link == LinkType::Serial ? "com_" : link == LinkType::Can ? "can_" : "tcp_";
}

}  // namespace

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

std::string PortDir::Name() const
{
    return Prefix(link) + std::to_string(number);
}

std::string PortDir::Dir() const
{
    if (!own.empty()) return own + "/";
    return user + "/" + Name() + "/";
}

std::optional<PortDir> PortOfDirectory(std::string_view path)
{
    while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
    const std::size_t slash = path.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    PortDir port;
    port.user = slash == std::string_view::npos ? "." : slash == 0 ? "" : path.substr(0, slash);
    for (const LinkType link : {LinkType::Serial, LinkType::Can, LinkType::Ethernet}) {
        const std::string prefix = Prefix(link);
        if (!name.starts_with(prefix)) continue;
        port.link = link;
        const auto [end, error] = std::from_chars(name.data() + prefix.size(), name.data() + name.size(), port.number);
        if (error == std::errc() && end == name.data() + name.size() && port.Name() == name) return port;
    }
    return std::nullopt;
}

std::string PortDir::Map(const IndexItem& item) const
{
    char name[MapNameBytes];
    // The longest name, "imffff_ffff_ff_ffff_1", takes 22 bytes.
    return MapFileName(item, name, sizeof name) ? Dir() + name : std::string();
}

}  // namespace voq
