// The org file of one operation, on any thread under the register database lock.
#include "list/org_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "state/paths.h"

namespace
{
// Records read since the file was opened, a page at a time: a chain follows the order of the ranges, not that of the
// file, and comes back to each part of it many times. One org file is open at a time, under the register database lock.
constexpr std::uint32_t PageBytes = 64 * sizeof(OrgNode);
constexpr std::uint32_t PageCount = 128;  // 8192 records; a longer file shares the places
constexpr std::uint32_t NoPage = 0xFFFFFFFF;

struct Page {
    std::uint32_t start = NoPage;  // file offset
    std::uint32_t bytes = 0;       // as many as the file had there
};

Page Pages[PageCount];
unsigned char PageRecords[PageCount][PageBytes];

std::uint32_t PlaceOf(std::uint32_t offset)
{
    return (offset - OrgFirstRecord) / PageBytes % PageCount;
}

// The bytes of a record, nullptr when they have not been read.
unsigned char* InPage(std::uint32_t offset)
{
    const std::uint32_t place = PlaceOf(offset);
    const Page& page = Pages[place];
    const std::uint32_t within = (offset - OrgFirstRecord) % PageBytes;
    if (page.start != offset - within || within + sizeof(OrgNode) > page.bytes) return nullptr;
    return PageRecords[place] + within;
}

void ReadPage(const WorkFile& file, std::uint32_t offset)
{
    const std::uint32_t place = PlaceOf(offset);
    Page& page = Pages[place];
    page.start = offset - (offset - OrgFirstRecord) % PageBytes;
    page.bytes = static_cast<std::uint32_t>(file.ReadSome(page.start, PageRecords[place], PageBytes));
}
}  // namespace

bool OrgFile::OpenRO()
{
    if (!file_.OpenRO(OrgFileName)) return false;
    Measure();
    return true;
}

bool OrgFile::OpenRW()
{
    if (!file_.OpenRW(OrgFileName)) return false;
    Measure();
    return true;
}

void OrgFile::Measure()
{
    size_ = file_.Size();
    for (Page& page : Pages) page = {};
}

bool OrgFile::ReadNode(std::uint32_t offset, OrgNode& node)
{
    if (Holds(offset)) {
        if (InPage(offset) == nullptr) ReadPage(file_, offset);
        if (const unsigned char* record = InPage(offset)) {
            std::memcpy(&node, record, sizeof node);
            return true;
        }
    }
    std::printf("*VOQ*org file %s damaged: no record at offset %u\r\n", OrgFileName, offset);
    return false;
}

bool OrgFile::ReadHeader(OrgHeader& header) const
{
    if (file_.ReadRecord(0, header)) return true;
    std::printf("*VOQ*org file %s damaged: no header\r\n", OrgFileName);
    return false;
}

bool OrgFile::WriteHeader(const OrgHeader& header) const
{
    if (file_.WriteRecord(0, header)) return true;
    std::printf("*VOQ*org file %s: header not written\r\n", OrgFileName);
    return false;
}

bool OrgFile::WriteNode(std::uint32_t offset, const OrgNode& node)
{
    if (offset > MostOrgBytes - sizeof node || !file_.WriteRecord(offset, node)) {
        std::printf("*VOQ*org file %s: record at offset %u not written\r\n", OrgFileName, offset);
        Pages[PlaceOf(offset)] = {};
        return false;
    }
    if (unsigned char* record = InPage(offset)) {
        std::memcpy(record, &node, sizeof node);
    } else {
        Pages[PlaceOf(offset)] = {};
    }
    size_ = std::max<std::uint32_t>(size_, offset + sizeof node);
    return true;
}

std::uint32_t OrgFile::AppendOffset() const
{
    if (size_ < OrgFirstRecord) return OrgFirstRecord;
    return size_ - (size_ - OrgFirstRecord) % sizeof(OrgNode);
}

OrgWalk::OrgWalk(OrgFile& file, std::uint32_t first) : file_(file), stepsLeft_(file.MostRecords())
{
    if (first != 0) Load(first);
}

void OrgWalk::Next()
{
    const std::uint32_t next = node_.next;
    valid_ = false;
    if (next == 0) return;
    if (stepsLeft_ == 0) {
        std::printf("*VOQ*org file %s damaged: the chain returns to offset %u\r\n", OrgFileName, next);
        damaged_ = true;
        return;
    }
    Load(next);
}

void OrgWalk::Load(std::uint32_t offset)
{
    if (stepsLeft_ > 0) --stepsLeft_;
    offset_ = offset;
    valid_ = file_.ReadNode(offset, node_);
    damaged_ = !valid_;
}
