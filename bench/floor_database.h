// The least that registering ranges takes: the writes and syncs of the same register database, behind the opens and
// locks that they need, with every place known beforehand and nothing searched. Only a log-on reads what it takes to
// find its place, its map and its offset. The bytes written are not meant to be read.
#pragma once

#include <array>
#include <vector>

#include "raw_file.h"
#include "voq/index_record.h"
#include "voq/org_record.h"

class FloorDatabase
{
public:
    // Of the files in the folder, which hold `records` records of one-word ranges.
    FloorDatabase(std::string folder, std::size_t records) : folder_(std::move(folder)), records_(records) {}

    // An empty database, without the service's marker of a first build.
    void Create()
    {
        static_cast<void>(RawFile(folder_ + "org", O_RDWR | O_CREAT | O_TRUNC));
        for (const char* name : {"data", "index"})
            static_cast<void>(RawFile(folder_ + name, O_RDWR | O_CREAT | O_TRUNC));
        records_ = 0;
        groups_ = 0;
    }

    // A range of a group that is not there yet.
    void AddGroup()
    {
        LookUp();
        AddRecord(records_ == 0 ? 1 : 2, true);
        ChangeEntry(groups_++);
    }

    // A range of an existing group: `records` are its own and its neighbours. Only an insertion in front of a record of
    // the same group is forced to the disk; one in front of the first moves the index entry.
    void AddRange(int records, bool inFront, bool first)
    {
        LookUp();
        AddRecord(records, inFront, 0, first);
    }

    // The same, of a range in the middle of a group of all records. The way to its place and to its offset leads
    // through half of them, its map through all.
    void LogOn()
    {
        LookUp();
        AddRecord(3, true, records_ / 2);
        const RawFile index(folder_ + "index", O_RDWR);
        WriteMap("map", records_);
        index.Put(Block, sizeof(IndexItem), 0);
        index.Sync();
        LookUp();
        ReadRecords(RawFile(folder_ + "org", O_RDONLY), records_ / 2);
    }

    // Between these two no range is forced to the disk.
    void BeginBuild() { syncs_ = false; }
    void EndBuild() { syncs_ = true; }

    // The map files of all groups, of equal size: new names, which the index then refers to.
    void WriteMaps()
    {
        const RawFile index(folder_ + "index", O_RDWR);
        char name[MapNameBytes];
        for (std::size_t i = 0; i < groups_; ++i) {
            std::snprintf(name, sizeof name, "map%zu", i);
            WriteMap(name, records_ / groups_);
            index.Put(Block, sizeof(IndexItem), sizeof(IndexItem) * i);
        }
        SyncFolder(folder_);
        index.Sync();
    }

private:
    static constexpr unsigned char Block[sizeof(OrgNode)] = {};

    void LookUp() const
    {
        IndexItem item;
        const RawFile index(folder_ + "index", O_RDONLY);
        if (groups_ > 0) index.Get(&item, sizeof item, 0);
    }

    void ChangeEntry(std::size_t group) const
    {
        const RawFile index(folder_ + "index", O_RDWR);
        index.Put(Block, sizeof(IndexItem), sizeof(IndexItem) * group);
        if (syncs_) index.Sync();
    }

    void ReadRecords(const RawFile& org, std::size_t records)
    {
        read_.resize(std::max(read_.size(), records * sizeof(OrgNode)));
        org.Get(read_.data(), records * sizeof(OrgNode), OrgFirstRecord);
    }

    void AddRecord(int changes, bool sync, std::size_t recordsRead = 0, bool updateIndex = false)
    {
        const RawFile org(folder_ + "org", O_RDWR);
        if (recordsRead > 0) ReadRecords(org, recordsRead);
        {
            const RawFile data(folder_ + "data", O_RDWR);
            data.Put(Block, 2, 2 * records_);
            if (syncs_) data.Sync();
        }
        for (int i = 0; i < changes; ++i) {
            org.Put(Block, sizeof(OrgNode), OrgFirstRecord + sizeof(OrgNode) * records_);
            if (i == 0 && records_ > 0 && syncs_) org.Sync();  // a new record is on the disk before anything names it
        }
        org.Put(Block, sizeof(OrgHeader), 0);
        if (updateIndex) ChangeEntry(0);
        if (sync && syncs_) org.Sync();
        ++records_;
    }

    void WriteMap(const char* name, std::size_t records)
    {
        const RawFile org(folder_ + "org", O_RDONLY);
        ReadRecords(org, records);
        const RawFile map(folder_ + name, O_RDWR | O_CREAT | O_TRUNC);
        for (std::size_t i = 0; i < records; ++i) {
            map.Put(Block, sizeof(MapItem), sizeof(MapItem) * i);
        }
        map.Sync();
    }

    std::string folder_;
    std::size_t records_;
    std::size_t groups_ = 1;
    bool syncs_ = true;
    std::vector<unsigned char> read_;
};
