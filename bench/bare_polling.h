// Polling without the service: reads one-word registers that lie side by side and makes the file changes of the
// service's write-back: the values, from the first to the last byte that differs from what is there, in one write, the
// records in another; each file is forced to the disk once, when it was changed.
#pragma once

#include <sys/time.h>

#include <cstring>
#include <memory>
#include <vector>

#include "raw_file.h"
#include "voq/org_record.h"

// Reads words from a PLC, high byte first.
class WordSource
{
public:
    virtual ~WordSource() = default;
    virtual void Read(std::uint32_t addr, std::uint16_t count, unsigned char* values) = 0;
};

class BarePolling
{
public:
    // The records of the org file in the folder are taken as they lie; record i is register i, and so is region i. With
    // `locks` clients are kept out as the service keeps them out: the org file is opened and locked for the plan and
    // for the write-back of a read, the data file for the latter. Else both files stay open and nobody is kept out.
    BarePolling(const std::string& folder, std::size_t ranges, bool locks)
        : org_(folder + "org"), data_(folder + "data"), records_(ranges)
    {
        RawFile(org_, O_RDONLY).Get(records_.data(), ranges * sizeof(OrgNode), OrgFirstRecord);
        if (locks) return;
        keptOrg_ = std::make_unique<RawFile>(org_, O_RDWR);
        keptData_ = std::make_unique<RawFile>(data_, O_RDWR);
    }

    void Pass(std::size_t first, std::uint16_t count, WordSource& source)
    {
        unsigned char values[2 * 125];
        if (keptOrg_ != nullptr) {
            source.Read(records_[first].key.addr, count, values);
            WriteBack(first, count, values, *keptOrg_);
        } else {
            static_cast<void>(RawFile(org_, O_RDONLY));
            source.Read(records_[first].key.addr, count, values);
            WriteBack(first, count, values, RawFile(org_, O_RDWR));
        }
    }

    void Refresh(std::uint16_t limit, WordSource& source)
    {
        for (std::size_t first = 0; first < records_.size(); first += limit) {
            Pass(first, static_cast<std::uint16_t>(std::min<std::size_t>(limit, records_.size() - first)), source);
        }
    }

private:
    void WriteBack(std::size_t first, std::uint16_t count, const unsigned char* values, const RawFile& org)
    {
        if (keptData_ != nullptr) {
            Store(first, count, values, org, *keptData_);
        } else {
            Store(first, count, values, org, RawFile(data_, O_RDWR));
        }
    }

    void Store(std::size_t first, std::uint16_t count, const unsigned char* values, const RawFile& org,
               const RawFile& data)
    {
        timeval now;
        gettimeofday(&now, nullptr);
        const std::size_t bytes = 2u * count, at = records_[first].dataoffset;
        data.Get(present_.data(), bytes, at);
        std::size_t from = 0, to = bytes;
        while (from < to && present_[from] == values[from]) ++from;
        while (from < to && present_[to - 1] == values[to - 1]) --to;
        if (from < to) data.Put(values + from, to - from, at + from);
        for (std::size_t i = first; i < first + count; ++i) {
            records_[i].stamp = {static_cast<std::int32_t>(now.tv_sec), static_cast<std::int32_t>(now.tv_usec)};
            records_[i].state = 1;
        }
        org.Put(&records_[first], count * sizeof(OrgNode), OrgFirstRecord + first * sizeof(OrgNode));
        if (from < to) data.Sync();
        org.Sync();
    }

    std::string org_, data_;
    std::vector<OrgNode> records_;
    std::vector<unsigned char> present_ = std::vector<unsigned char>(2 * 125);  // what the regions hold
    std::unique_ptr<RawFile> keptOrg_, keptData_;
};
