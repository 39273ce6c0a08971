// A request's files, on any thread.
#include "list/rt_file.h"

#include <cstdio>

#include "arch/fs.h"
#include "arch/work_file.h"

RtPath::RtPath(const char* prefix, std::uint16_t fileno)
{
    std::snprintf(text_, sizeof text_, "%s%s%d", DataDir, prefix, fileno);
}

RtPath RtPath::Result(std::uint16_t fileno)
{
    return {"", fileno};
}

RtPath RtPath::Payload(std::uint16_t fileno)
{
    return {PayloadPrefix, fileno};
}

bool StorePayload(std::uint16_t fileno, const unsigned char* payload, std::uint32_t length)
{
    const RtPath path = RtPath::Payload(fileno);
    WorkFile file;
    if (!file.Create(path.Text())) return false;
    const bool stored = file.WriteAt(0, payload, length);
    file.Sync();
    if (stored) return true;
    std::printf("*VOQ*file %s: payload of %u bytes not written\r\n", path.Text(), length);
    RemoveFile(path.Text());
    return false;
}

void WriteResultFile(const RtItem& item, const void* tail, std::uint32_t tailBytes)
{
    const RtPath path = RtPath::Result(item.fileno);
    WorkFile file;
    if (!file.Create(path.Text())) return;
    if (!file.WriteRecord(0, item) || !file.WriteAt(sizeof item, tail, tailBytes)) {
        std::printf("*VOQ*result file %s not written\r\n", path.Text());
        static_cast<void>(file.Truncate(0));  // half an answer would be taken for a whole one
    }
    file.Sync();
}

void WriteBackRtDataWhenError(std::uint16_t fileno, int code, const RegRequest& request, std::uint16_t listcmd)
{
    RtItem item{};
    item.key = request.key;
    item.command = listcmd;
    item.result = static_cast<std::uint8_t>(code);
    item.inuse = 1;
    item.fileno = fileno;
    WriteResultFile(item, nullptr, 0);
}
