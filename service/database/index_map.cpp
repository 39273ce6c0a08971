// The index map files, on any thread under the register database lock.
#include "database/index_map.h"

#include <cstdio>

#include "arch/work_file.h"
#include "database/org_file.h"

MapPath::MapPath(const IndexItem& item)
{
    char name[MapNameBytes];
    fits_ = MapFileName(item, name, sizeof name);
    std::snprintf(text_, sizeof text_, "%s%s", DataDir, fits_ ? name : "");
}

std::uint32_t RefrashIndexMap(IndexItem item)
{
    const MapPath path(item);
    if (!path.Fits()) return 0;
    OrgFile org;
    if (!org.OpenRO()) {
        std::printf("*VOQ*open file %s error!!!\r\n", OrgFileName);
        return 0;
    }
    WorkFile map;
    if (!map.Create(path.Text())) return 0;
    std::uint32_t written = 0;
    for (OrgWalk at(org, item.first); at.Valid() && IndexMatches(item, at.Node().key); at.Next()) {
        const MapItem entry = MapEntryOf(at.Node().key, at.Offset());
        if (!map.WriteRecord(written * sizeof entry, entry)) {
            std::printf("*VOQ*index map %s: record %u not written\r\n", path.Text(), written);
            return 0;
        }
        ++written;
    }
    map.Sync();
    return written;
}
