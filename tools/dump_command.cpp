// "voqctl dump": the register database in readable form, sound or not. Main thread; only reads.
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <set>

#include "client/clock.h"
#include "client/database.h"
#include "client/locked_file.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/range_rows.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{

constexpr std::size_t ShortHexBytes = 32;
constexpr std::size_t ShortElements = 16;

std::string TimeText(const Stamp& stamp, bool iso)
{
    if (iso) return IsoTime(voq::StampMicroseconds(stamp), 6);
    const std::time_t seconds = stamp.seconds;
    std::tm parts = {};
    char text[48];
    localtime_r(&seconds, &parts);
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text + length, sizeof text - length, ".%06d", stamp.microseconds);
    return text;
}

// What is shown of the database, and how.
struct Shown {
    const Target& target;
    const voq::OrgImage& org;
    const voq::Bytes& data;
    bool full;
    const OutputOptions& output;
};

// The bytes of a record's region, as far as the data file goes.
std::span<const std::uint8_t> Region(const Shown& shown, const OrgNode& node)
{
    const std::uint64_t begin = std::min<std::uint64_t>(node.dataoffset, shown.data.size());
    const std::uint64_t there = std::min<std::uint64_t>(GetRegBuffLen(&node.key), shown.data.size() - begin);
    return {shown.data.data() + begin, static_cast<std::size_t>(there)};
}

std::optional<ImageBytes> ValueOf(const Shown& shown, const OrgNode& node)
{
    const auto region = Region(shown, node);
    if (node.state != PLC_SUCCESS || region.size() < GetRegBuffLen(&node.key)) return std::nullopt;
    return region;
}

void PrintRecord(const Shown& shown, const voq::OrgRecord& record)
{
    const OrgNode& node = record.node;
    const Selected range = SelectedOf(shown.target, node.key);
    std::printf("  %u: %s\n", record.offset, voq::Expression(range.reg).c_str());
    std::printf("      state %u (%s)  stamp %s  logtimes %u  dataoffset %u  prev %u  next %u\n", unsigned{node.state},
                voq::StateName(node.state).c_str(), TimeText(node.stamp, shown.output.iso).c_str(),
                unsigned{node.logtimes}, node.dataoffset, node.prev, node.next);
    const std::uint64_t length = GetRegBuffLen(&node.key);
    const auto there = Region(shown, node);
    const auto bytes = shown.full ? there : there.first(std::min(there.size(), ShortHexBytes));
    std::printf("      region %llu bytes: %s%s%s\n", static_cast<unsigned long long>(length), voq::Hex(bytes).c_str(),
                bytes.size() < there.size() ? " ..." : "", there.size() < length ? " (the data file ends)" : "");
    const auto value = ValueOf(shown, node);
    if (!value) return;
    const std::size_t limit = shown.full ? static_cast<std::size_t>(length) : ShortElements;
    std::printf("      value %s\n", ShownText(range, *value, shown.output, limit).c_str());
}

void WriteRecord(const Shown& shown, RowWriter& rows, const voq::OrgRecord& record, bool onChain)
{
    const OrgNode& node = record.node;
    RangeState state{voq::StateName(node.state), voq::NowMicroseconds(), {}, ValueOf(shown, node)};
    if (node.state != 0) state.stamp = voq::StampMicroseconds(node.stamp);
    Row row = RangeRow(SelectedOf(shown.target, node.key), state);
    row.emplace_back("offset", Cell::Number(record.offset));
    row.emplace_back("on_chain", Cell::Flag(onChain));
    row.emplace_back("logtimes", Cell::Number(node.logtimes));
    row.emplace_back("dataoffset", Cell::Number(node.dataoffset));
    row.emplace_back("prev", Cell::Number(node.prev));
    row.emplace_back("next", Cell::Number(node.next));
    row.emplace_back("bytes", Cell::Text(voq::Hex(Region(shown, node))));
    rows.Write(row);
}

bool PrintOrg(const Shown& shown)
{
    const voq::OrgImage& org = shown.org;
    const OrgHeader header = org.Header();
    const voq::Chain chain = voq::WalkChain(org);
    const bool text = shown.output.rows == RowForm::None;
    RowWriter rows(shown.output.rows);
    if (text) {
        std::printf("org: %zu bytes, count %u, head %u, tail %u, %u record(s) in the file\n", org.bytes.size(),
                    header.count, header.head, header.tail, org.RecordsInFile());
    }
    const auto show = [&](const voq::OrgRecord& record, bool onChain) {
        if (text) return PrintRecord(shown, record);
        WriteRecord(shown, rows, record, onChain);
    };
    std::set<std::uint32_t> visited;
    for (const voq::OrgRecord& record : chain.records) {
        show(record, true);
        visited.insert(record.offset);
    }
    if (chain.badLink && text) {
        std::printf("  the chain is damaged: the link at org offset %u %s\n", *chain.badLink,
                    chain.cycle ? "leads back into the chain" : "names no record");
    }
    if (visited.size() < org.RecordsInFile() && text) std::printf("  records that are not on the chain:\n");
    for (std::uint32_t i = 0; i < org.RecordsInFile(); ++i) {
        const std::uint32_t offset = OrgRecordOffset(i);
        if (!visited.contains(offset)) show({offset, *org.Record(offset)}, false);
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

int Dump(const PortOptions& options, bool full, const OutputOptions& output)
{
    const Target target = Resolve(options);
    const voq::PortDir& port = target.port;
    if (!ByteOrderKnown(target)) NoteByteOrder();
    const auto org = voq::ReadLocked(port.Org());
    if (!org) throw voq::Error(port.Org() + ": no such file");
    const auto data = voq::ReadLocked(port.Data());
    const voq::Bytes none;
    const bool sound = PrintOrg({target, voq::OrgImage{*org}, data ? *data : none, full, output});
    const auto index = voq::ReadLocked(port.Index());
    const bool whole = sound && data && index;
    if (output.rows != RowForm::None) return whole ? ExitOk : ExitNegative;
    if (!data) std::printf("data: no such file\n");
    if (index) PrintIndex(port, *index);
    if (!index) std::printf("index: no such file\n");
    return whole ? ExitOk : ExitNegative;
}
