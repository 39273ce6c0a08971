// The org file of one operation, on any thread under the register database lock.
#include "database/org_file.h"

#include <algorithm>
#include <cstdio>

#include "state/paths.h"

namespace
{
// The records read since the file was opened, in pages of records that lie side by side in the file. One org file is
// open at a time, under the register database lock, so one set of pages serves all.
// Place 0 holds the page read first, then each page that follows the page read last: a walk in the order of the file
// uses this place alone, and stays within bytes that the processor has at hand. Every other page is kept in a place
// that its number gives: a chain in the order of the ranges may come back to each part of the file many times.
constexpr std::uint32_t PageRecords = 256;
constexpr std::uint32_t KeptPages = 64;  // for 16384 records; the pages of a longer file share the places
constexpr std::uint32_t NoPage = 0xFFFFFFFF;

struct Page {
    std::uint32_t number = NoPage;
    std::uint32_t records = 0;  // whole ones, as many as the file had there
};

Page Pages[1 + KeptPages];
OrgNode Records[1 + KeptPages][PageRecords];
std::uint32_t LastRead;  // number of a page, NoPage when none has been read

std::uint32_t KeptPlace(std::uint32_t page)
{
    return 1 + page % KeptPages;
}

// The record as the page in `place` holds it; nullptr when another page is there.
OrgNode* InPlace(std::uint32_t place, std::uint32_t record)
{
    const Page& page = Pages[place];
    const bool there = page.number == record / PageRecords && record % PageRecords < page.records;
    return there ? &Records[place][record % PageRecords] : nullptr;
}

// The record as it was read; nullptr when no page holds it.
const OrgNode* InPage(std::uint32_t record)
{
    const OrgNode* found = InPlace(0, record);
    return found != nullptr ? found : InPlace(KeptPlace(record / PageRecords), record);
}

// Reads the page that holds the record. `size`: bytes in the file, the record among them.
void ReadPage(const WorkFile& file, std::uint32_t size, std::uint32_t record)
{
    const std::uint32_t number = record / PageRecords;
    const bool inOrder = LastRead == NoPage || number == LastRead + 1;
    const std::uint32_t place = inOrder ? 0 : KeptPlace(number);
    LastRead = number;
    const std::uint32_t start = OrgRecordOffset(number * PageRecords);
    const std::size_t got =
        file.ReadSome(start, Records[place], std::min<std::size_t>(sizeof Records[0], size - start));
    Pages[place] = {number, static_cast<std::uint32_t>(got / sizeof(OrgNode))};
}

// Brings the pages that hold the record up to what has just been written to the file.
void Renew(std::uint32_t offset, const OrgNode& node)
{
    const std::uint32_t number = OrgRecordNumber(offset);
    for (const std::uint32_t place : {0u, KeptPlace(number / PageRecords)}) {
        if (OrgNode* record = InPlace(place, number)) *record = node;
    }
}

// Drops the pages that hold the record: after a failed write nobody knows what the file holds there.
void Forget(std::uint32_t offset)
{
    for (const std::uint32_t place : {0u, KeptPlace(OrgRecordNumber(offset) / PageRecords)}) Pages[place] = {};
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
    LastRead = NoPage;
}

bool OrgFile::ReadNode(std::uint32_t offset, OrgNode& node)
{
    if (Holds(offset)) {
        const std::uint32_t number = OrgRecordNumber(offset);
        const OrgNode* record = InPage(number);
        if (record == nullptr) {
            ReadPage(file_, size_, number);
            record = InPage(number);
        }
        if (record != nullptr) {
            node = *record;
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

bool OrgFile::WriteNodes(std::uint32_t offset, std::span<const OrgNode> nodes)
{
    changed_ = true;
    const bool written =
        offset <= MostOrgBytes - nodes.size_bytes() && file_.WriteAt(offset, nodes.data(), nodes.size_bytes());
    if (!written) std::printf("*VOQ*org file %s: record at offset %u not written\r\n", OrgFileName, offset);
    std::uint32_t at = offset;
    for (const OrgNode& node : nodes) {
        if (written) {
            Renew(at, node);
        } else {
            Forget(at);
        }
        at += sizeof node;
    }
    if (written) size_ = std::max(size_, at);
    return written;
}

std::uint32_t OrgFile::AppendOffset() const
{
    return OrgRecordOffset(OrgRecordsIn(size_));
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
