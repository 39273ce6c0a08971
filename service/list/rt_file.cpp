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
    return {"rtData", fileno};
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
