// Compares the copies of two databases place by place. Pure; time grows with the files' size only.
#include "client/compare.h"

#include <algorithm>
#include <set>

#include "client/register.h"

namespace voq
{

namespace
{

class Differences
{
public:
    void Expect(bool same, const std::string& where, const std::string& what, const std::string& a,
                const std::string& b)
    {
        if (!same && lines_.size() < MaxFindings) lines_.push_back(where + ": " + what + " " + a + " / " + b);
    }
    void Number(const std::string& where, const std::string& what, std::uint64_t a, std::uint64_t b)
    {
        Expect(a == b, where, what, std::to_string(a), std::to_string(b));
    }
    std::vector<std::string> Take() { return std::move(lines_); }

private:
    std::vector<std::string> lines_;
};

std::string RangeText(const RegKey& key)
{
    return Expression({key, TypeOfSize(RegElemSize(&key))});
}

void CompareHeaders(const OrgImage& a, const OrgImage& b, Differences& found)
{
    found.Number("org", "bytes", a.bytes.size(), b.bytes.size());
    found.Number("org", "count", a.Header().count, b.Header().count);
    found.Number("org", "head", a.Header().head, b.Header().head);
    found.Number("org", "tail", a.Header().tail, b.Header().tail);
}

void CompareRecords(const OrgImage& a, const OrgImage& b, Differences& found)
{
    const std::uint32_t records = std::min(a.RecordsInFile(), b.RecordsInFile());
    for (std::uint32_t i = 0; i < records; ++i) {
        const std::uint32_t offset = OrgRecordOffset(i);
        const OrgNode x = *a.Record(offset), y = *b.Record(offset);
        const std::string where = "org " + std::to_string(offset);
        found.Expect(std::memcmp(&x.key, &y.key, sizeof x.key) == 0, where, "range", RangeText(x.key),
                     RangeText(y.key));
        found.Number(where, "dataoffset", x.dataoffset, y.dataoffset);
        found.Number(where, "prev", x.prev, y.prev);
        found.Number(where, "next", x.next, y.next);
    }
}

template <typename Item, typename Text>
void CompareItems(const std::string& file, const std::vector<Item>& a, const std::vector<Item>& b, Text text,
                  Differences& found)
{
    found.Number(file, "entries", a.size(), b.size());
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        found.Expect(std::memcmp(&a[i], &b[i], sizeof(Item)) == 0, file + " " + std::to_string(i * sizeof(Item)),
                     "entry", text(a[i]), text(b[i]));
    }
}

std::string IndexText(const IndexItem& item)
{
    char name[MapNameBytes];
    return (MapFileName(item, name, sizeof name) ? std::string(name) : "?") + " first " + std::to_string(item.first) +
           " mapcount " + std::to_string(item.mapcount);
}

std::string MapText(const MapItem& item)
{
    return "addr " + std::to_string(item.addr) + " width " + std::to_string(item.width) + " subaddrhi " +
           std::to_string(item.subaddrhi) + " offset " + std::to_string(item.offset);
}

void CompareMaps(const Snapshot& a, const Snapshot& b, Differences& found)
{
    std::set<std::string> names;
    for (const Snapshot* each : {&a, &b}) {
        for (const auto& map : each->maps) names.insert(map.first);
    }
    for (const std::string& name : names) {
        const auto of = [&](const Snapshot& db) -> const Bytes* {
            const auto at = db.maps.find(name);
            return at == db.maps.end() || !at->second ? nullptr : &*at->second;
        };
        const Bytes *x = of(a), *y = of(b);
        const auto there = [](const Bytes* map) { return map == nullptr ? "missing" : "there"; };
        found.Expect((x == nullptr) == (y == nullptr), name, "file", there(x), there(y));
        if (x != nullptr && y != nullptr) CompareItems(name, ParseMap(*x), ParseMap(*y), MapText, found);
    }
}

}  // namespace

std::vector<std::string> CompareSnapshots(const Snapshot& a, const Snapshot& b)
{
    Differences found;
    CompareHeaders(a.org, b.org, found);
    CompareRecords(a.org, b.org, found);
    found.Number("data", "bytes", a.dataSize, b.dataSize);
    CompareItems("index", ParseIndex(a.index), ParseIndex(b.index), IndexText, found);
    CompareMaps(a, b, found);
    return found.Take();
}

}  // namespace voq
