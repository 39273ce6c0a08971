// Compares descriptions with what runs. Pure.
#include "tools/project_diff.h"

#include <cstring>
#include <map>
#include <sstream>
#include <tuple>

#include "tools/project_toml.h"

namespace
{

// Equal for equal ranges of a port.
using RangeId = std::tuple<std::uint64_t, std::uint32_t, std::uint16_t>;

RangeId IdOf(const RegKey& key)
{
    return {GroupNumber(key), key.addr, key.width};
}

bool Registers(const RegKey& key, std::uint16_t port)
{
    return key.portno == port && key.convpara >> 16 == 0;
}

std::map<std::string, std::string> SettingsOf(const ComInfoRecord& port)
{
    std::map<std::string, std::string> settings;
    std::istringstream lines(WritePortToml(port));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t equals = line.find(" = ");
        if (line[0] != '#' && equals != std::string::npos) settings[line.substr(0, equals)] = line.substr(equals + 3);
    }
    return settings;
}

}  // namespace

ProjectDifference CompareWithDatabase(const voq::Description& description, std::uint16_t port, const voq::OrgImage& org)
{
    ProjectDifference difference;
    std::map<RangeId, RegKey> registered;
    for (const voq::OrgRecord& record : voq::WalkChain(org).records) {
        registered.emplace(IdOf(record.node.key), record.node.key);
    }
    std::map<RangeId, const voq::DescribedRegister*> described;
    for (const voq::DescribedRegister& each : description.registers) {
        const RegKey& key = each.reg.key;
        if (!Registers(key, port) || !described.emplace(IdOf(key), &each).second) continue;
        const auto found = registered.find(IdOf(key));
        if (found == registered.end()) {
            difference.added.push_back(&each);
        } else if (std::memcmp(&found->second, &key, sizeof key) != 0) {
            difference.changed.push_back({&each, found->second});
        }
    }
    for (const auto& [id, key] : registered) {
        if (!described.contains(id)) difference.gone.push_back(key);
    }
    return difference;
}

std::vector<std::string> ComparePorts(const ComInfoRecord& running, const ComInfoRecord& described)
{
    const auto before = SettingsOf(running), after = SettingsOf(described);
    std::map<std::string, bool> keys;
    for (const auto& [key, value] : before) keys[key] = true;
    for (const auto& [key, value] : after) keys[key] = true;
    std::vector<std::string> lines;
    const auto text = [](const auto& settings, const std::string& key) {
        const auto found = settings.find(key);
        return found == settings.end() ? std::string("not set") : found->second;
    };
    for (const auto& [key, there] : keys) {
        const std::string x = text(before, key), y = text(after, key);
        if (x != y) lines.push_back(key + ": " + x + ", described " + y);
    }
    return lines;
}
