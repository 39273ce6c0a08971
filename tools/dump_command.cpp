// "voqctl dump": the register database in readable form, sound or not. Main thread; only reads.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>

#include "client/database.h"
#include "client/locked_file.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{

constexpr std::size_t ShortHexBytes = 32;
constexpr std::size_t ShortElements = 16;

std::string TimeText(const Stamp& stamp)
{
    const std::time_t seconds = stamp.seconds;
    std::tm parts = {};
    char text[48];
    localtime_r(&seconds, &parts);
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text + length, sizeof text - length, ".%06d", stamp.microseconds);
    return text;
}

void PrintRecord(const Target& target, const voq::OrgRecord& record, const voq::Bytes& data, bool full)
{
    const OrgNode& node = record.node;
    const RegKey& key = node.key;
    const voq::Register reg = Describe(target, key).reg;
    std::printf("  %u: %s\n", record.offset, voq::Expression(reg).c_str());
    std::printf("      state %u (%s)  stamp %s  logtimes %u  dataoffset %u  prev %u  next %u\n", unsigned{node.state},
                voq::StateName(node.state).c_str(), TimeText(node.stamp).c_str(), unsigned{node.logtimes},
                node.dataoffset, node.prev, node.next);
    const std::uint64_t length = GetRegBuffLen(&key);
    const std::uint64_t begin = std::min<std::uint64_t>(node.dataoffset, data.size());
    const std::uint64_t there = std::min<std::uint64_t>(length, data.size() - begin);
    const std::uint64_t shown = full ? there : std::min<std::uint64_t>(there, ShortHexBytes);
    const std::span<const std::uint8_t> bytes(data.data() + begin, static_cast<std::size_t>(shown));
    std::printf("      region %llu bytes: %s%s%s\n", static_cast<unsigned long long>(length), voq::Hex(bytes).c_str(),
                shown < there ? " ..." : "", there < length ? " (the data file ends)" : "");
    if (node.state != PLC_SUCCESS || there < length) return;
    const std::span<const std::uint8_t> value(data.data() + begin, static_cast<std::size_t>(length));
    const voq::ValueCoding coding = voq::CodingOf(reg, ByteOrderOf(target, key));
    std::printf("      value %s\n", voq::ValueText(coding, value, full ? length : ShortElements).c_str());
}

bool PrintOrg(const Target& target, const voq::OrgImage& org, const voq::Bytes& data, bool full)
{
    const OrgHeader header = org.Header();
    const voq::Chain chain = voq::WalkChain(org);
    std::printf("org: %zu bytes, count %u, head %u, tail %u, %u record(s) in the file\n", org.bytes.size(),
                header.count, header.head, header.tail, org.RecordsInFile());
    std::set<std::uint32_t> visited;
    for (const voq::OrgRecord& record : chain.records) {
        PrintRecord(target, record, data, full);
        visited.insert(record.offset);
    }
    if (chain.badLink) {
        std::printf("  the chain is damaged: the link at org offset %u %s\n", *chain.badLink,
                    chain.cycle ? "leads back into the chain" : "names no record");
    }
    if (visited.size() < org.RecordsInFile()) std::printf("  records that are not on the chain:\n");
    for (std::uint32_t i = 0; i < org.RecordsInFile(); ++i) {
        const std::uint32_t offset = OrgRecordOffset(i);
        if (!visited.contains(offset)) PrintRecord(target, {offset, *org.Record(offset)}, data, full);
    }
    return !chain.badLink && visited.size() == org.RecordsInFile() && org.bytes.size() >= sizeof(OrgHeader);
}

void PrintMap(const voq::PortDir& port, const IndexItem& item)
{
    char name[MapNameBytes];
    if (!MapFileName(item, name, sizeof name)) return;
    const auto bytes = voq::ReadLocked(port.Dir() + name);
    if (!bytes) {
        std::printf("      %s: no such file\n", name);
        return;
    }
    std::printf("      %s: %zu bytes\n", name, bytes->size());
    for (const MapItem& entry : voq::ParseMap(*bytes)) {
        std::printf("        addr %u width %u subaddrhi %u offset %u\n", entry.addr, unsigned{entry.width},
                    unsigned{entry.subaddrhi}, entry.offset);
    }
}

void PrintIndex(const voq::PortDir& port, const voq::Bytes& index)
{
    const auto items = voq::ParseIndex(index);
    std::printf("index: %zu bytes, %zu entries\n", index.size(), items.size());
    for (std::size_t i = 0; i < items.size(); ++i) {
        const IndexItem& item = items[i];
        std::printf("  %zu: plcno %u regid %u subaddr %u layout 0x%02x flagbit %u first %u mapcount %u\n",
                    i * sizeof(IndexItem), unsigned{item.plcno}, unsigned{item.regid}, unsigned{item.subaddr},
                    unsigned{item.layout}, unsigned{item.flagbit}, item.first, item.mapcount);
        PrintMap(port, item);
    }
}

}  // namespace

int Dump(const PortOptions& options, bool full)
{
    const Target target = Resolve(options);
    const voq::PortDir& port = target.port;
    if (!target.byteOrder && !target.project) NoteByteOrder();
    const auto org = voq::ReadLocked(port.Org());
    if (!org) throw voq::Error(port.Org() + ": no such file");
    const auto data = voq::ReadLocked(port.Data());
    const bool sound = PrintOrg(target, voq::OrgImage{*org}, data.value_or(voq::Bytes{}), full);
    if (!data) std::printf("data: no such file\n");
    const auto index = voq::ReadLocked(port.Index());
    if (index) PrintIndex(port, *index);
    if (!index) std::printf("index: no such file\n");
    return sound && data && index ? ExitOk : ExitNegative;
}
