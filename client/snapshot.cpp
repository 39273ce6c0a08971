// Copies the register database's files; may wait for the service.
#include "client/snapshot.h"

#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "client/error.h"
#include "client/locked_file.h"

namespace voq
{

namespace
{

// Everything but stamps, log-on counts and states, which change all the time.
bool SameStructure(const OrgImage& a, const OrgImage& b)
{
    if (a.bytes.size() != b.bytes.size()) return false;
    const OrgHeader ha = a.Header(), hb = b.Header();
    if (std::memcmp(&ha, &hb, sizeof ha) != 0) return false;
    for (std::uint32_t i = 0; i < a.RecordsInFile(); ++i) {
        const std::uint32_t offset = OrgRecordOffset(i);
        const OrgNode x = *a.Record(offset), y = *b.Record(offset);
        if (std::memcmp(&x.key, &y.key, sizeof x.key) != 0) return false;
        if (x.dataoffset != y.dataoffset || x.prev != y.prev || x.next != y.next) return false;
    }
    return true;
}

OrgImage ReadOrg(const PortDir& port)
{
    auto bytes = ReadLocked(port.Org());
    if (!bytes) throw Error(port.Org() + ": no such file");
    return OrgImage{std::move(*bytes)};
}

void ReadRest(const PortDir& port, Snapshot& snapshot, const Told& told)
{
    auto index = ReadLocked(port.Index());
    if (!index) throw Error(port.Index() + ": no such file");
    snapshot.index = std::move(*index);
    const auto items = ParseIndex(snapshot.index);
    for (const IndexItem& item : items) {
        if (told) told(snapshot.maps.size(), items.size());
        char name[MapNameBytes];
        if (!MapFileName(item, name, sizeof name) || snapshot.maps.contains(name)) continue;
        snapshot.maps[name] = ReadLocked(port.Dir() + name);
    }
    const auto size = FileSize(port.Data());
    if (!size) throw Error(port.Data() + ": no such file");
    snapshot.dataSize = *size;
}

}  // namespace

Snapshot TakeSnapshot(const PortDir& port, const Told& told)
{
    constexpr int attempts = 20;
    for (int i = 0; i < attempts; ++i) {
        Snapshot snapshot;
        snapshot.org = ReadOrg(port);
        ReadRest(port, snapshot, told);
        if (SameStructure(snapshot.org, ReadOrg(port))) return snapshot;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    throw Error(port.Org() + ": changed during each of " + std::to_string(attempts) + " readings");
}

}  // namespace voq
