// Look-ups in a description. Pure; any thread.
#include "client/description/description.h"

#include <algorithm>

#include "voq/reg_range.h"

namespace voq
{

const DescribedRegister* Description::Find(std::string_view name) const
{
    const auto found = std::find_if(registers.begin(), registers.end(),
                                    [&](const DescribedRegister& each) { return each.name == name; });
    return name.empty() || found == registers.end() ? nullptr : &*found;
}

const DescribedRegister* Description::Find(const RegKey& key) const
{
    const auto found = std::find_if(registers.begin(), registers.end(), [&](const DescribedRegister& each) {
        return each.reg.key.portno == key.portno && SameRange(each.reg.key, key);
    });
    return found == registers.end() ? nullptr : &*found;
}

std::uint16_t Description::ByteOrderOf(std::uint16_t port, std::optional<std::uint8_t> link) const
{
    if (port == REG_PORT_LOCAL) return byteOrder;
    for (const DescribedPort& each : ports) {
        if (each.record.portNo == port && each.record.linkType == link.value_or(each.record.linkType)) {
            return each.record.byteOrder;
        }
    }
    return 0;
}

Project Description::Built() const
{
    Project project;
    project.byteOrder = byteOrder;
    for (const DescribedPort& port : ports) project.ports.push_back(port.record);
    for (const DescribedRegister& each : registers) project.registers.push_back(each.reg.key);
    return project;
}

}  // namespace voq
