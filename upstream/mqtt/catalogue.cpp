// Joins the description and the settings.
#include "upstream/mqtt/catalogue.h"

#include <algorithm>
#include <map>
#include <set>

#include "client/error.h"
#include "voq/reg_range.h"

namespace voq::mqtt
{

namespace
{

// "*" stands for any characters.
bool Fits(std::string_view pattern, std::string_view name)
{
    const std::size_t star = pattern.find('*');
    if (star == std::string_view::npos) return pattern == name;
    if (!name.starts_with(pattern.substr(0, star))) return false;
    pattern.remove_prefix(star + 1);
    name.remove_prefix(star);
    // Every part between two stars as early as it comes; the last one at the end.
    while (true) {
        const std::size_t next = pattern.find('*');
        if (next == std::string_view::npos) return name.ends_with(pattern) && name.size() >= pattern.size();
        const std::size_t at = name.find(pattern.substr(0, next));
        if (at == std::string_view::npos) return false;
        name.remove_prefix(at + next);
        pattern.remove_prefix(next + 1);
    }
}

std::string LowerCase(std::string name)
{
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return name;
}

std::string NameOf(const DescribedRegister& each)
{
    return each.name.empty() ? Expression(each.reg) : each.name;
}

class Maker
{
public:
    Maker(const Description& description, const Settings& settings, const std::string& userDirectory)
        : description_(description), settings_(settings)
    {
        for (const DescribedPort& port : description.ports) {
            const PortDir dir{userDirectory, LinkFromByte(port.record.linkType).value_or(LinkType::Ethernet),
                              port.record.portNo};
            made_.ports.push_back({dir, dir.Name(), {}});
        }
    }

    Catalogue Make()
    {
        for (const DescribedRegister& each : description_.registers) Add(each);
        for (const TellGroup& group : settings_.groups) {
            for (const Pattern& each : group.patterns) LookAtUse(each);
        }
        if (made_.metrics.empty())
            throw Error("no register is told: " + (made_.remarks.empty() ? "there is none" : made_.remarks[0]));
        return std::move(made_);
    }

private:
    void Remark(const std::string& text) { made_.remarks.push_back(text); }

    const TellGroup* GroupOf(const std::string& name)
    {
        for (const TellGroup& group : settings_.groups) {
            for (const Pattern& pattern : group.patterns) {
                if (!Fits(pattern.text, name)) continue;
                used_.insert(&pattern);
                return &group;
            }
        }
        return nullptr;
    }

    void LookAtUse(const Pattern& pattern)
    {
        if (used_.contains(&pattern)) return;
        const bool fits = std::any_of(description_.registers.begin(), description_.registers.end(),
                                      [&](const DescribedRegister& each) { return Fits(pattern.text, NameOf(each)); });
        Remark(settings_.file + (pattern.line == 0 ? "" : ":" + std::to_string(pattern.line)) + ": \"" + pattern.text +
               "\" fits " + (fits ? "only registers that a pattern before it has" : "no register"));
    }

    void LookAtCase(std::map<std::string, std::string>& known, const std::string& name)
    {
        const auto [alike, alone] = known.try_emplace(LowerCase(name), name);
        if (!alone && settings_.convention == Convention::Sparkplug) {
            Remark(name + " and " + alike->second + " differ in case alone: a host may take them for one");
        }
    }

    void Add(const DescribedRegister& each)
    {
        const RegKey& key = each.reg.key;
        const std::string name = NameOf(each);
        const TellGroup* group = GroupOf(name);
        if (group == nullptr) return;
        const auto port = std::find_if(made_.ports.begin(), made_.ports.end(),
                                       [&](const PortOf& other) { return other.dir.number == key.portno; });
        if (port == made_.ports.end()) return Remark(name + ": no register of a port of the description");
        const std::uint16_t order = description_.ByteOrderOf(key.portno);
        if (NeedsByteOrder(each.reg) && order == 0)
            return Remark(name + ": the description gives the port no byte order");
        if (!names_.insert(name).second) return Remark(name + ": is there twice");
        LookAtCase(metricsByCase_, name);
        const auto at = static_cast<std::uint32_t>(made_.metrics.size());
        const std::uint32_t device = DeviceOf(each, static_cast<std::uint32_t>(port - made_.ports.begin()));
        made_.metrics.push_back(
            {name, each, CodingOf(each.reg, order), made_.devices[device].port, device, group->rule});
        made_.devices[device].metrics.push_back(at);
    }

    std::uint32_t DeviceOf(const DescribedRegister& each, std::uint32_t port)
    {
        const std::uint8_t station = each.reg.key.plcno;
        const auto next = static_cast<std::uint32_t>(made_.devices.size());
        const auto [found, added] = devices_.try_emplace({port, station}, next);
        if (!added) return found->second;
        std::string name = each.station;
        for (char& c : name) {
            if (std::string_view("+#/").find(c) != std::string_view::npos) c = '_';  // they mean something in topics
        }
        if (name.empty() || deviceNames_.contains(name)) name = made_.ports[port].name + "_s" + std::to_string(station);
        while (!deviceNames_.insert(name).second) name += '_';
        LookAtCase(devicesByCase_, name);
        made_.devices.push_back({name, port, station, {}});
        made_.ports[port].devices.push_back(next);
        return next;
    }

    const Description& description_;
    const Settings& settings_;
    Catalogue made_;
    std::set<const Pattern*> used_;  // of the settings
    std::set<std::string> names_, deviceNames_;
    std::map<std::string, std::string> metricsByCase_, devicesByCase_;  // in lower case
    std::map<std::pair<std::uint32_t, std::uint8_t>, std::uint32_t> devices_;
};

}  // namespace

std::uint32_t Catalogue::Find(std::string_view name) const
{
    const auto found = byName.find(name);
    return found == byName.end() ? static_cast<std::uint32_t>(metrics.size()) : found->second;
}

Catalogue MakeCatalogue(const Description& description, const Settings& settings, const std::string& userDirectory)
{
    Catalogue made = Maker(description, settings, userDirectory).Make();
    for (std::uint32_t i = 0; i < made.metrics.size(); ++i) made.byName[made.metrics[i].name] = i;
    return made;
}

}  // namespace voq::mqtt
