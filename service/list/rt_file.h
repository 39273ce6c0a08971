// A request's two files in the data directory: the payload that the client sent, and the result file that answers it.
// Any thread; may wait for the disk.
#pragma once

#include <cstdint>

#include "state/paths.h"
#include "voq/request.h"
#include "voq/rt_item.h"

inline constexpr char PayloadPrefix[] = "rtData";

// Path of a file named after a request number.
class RtPath
{
public:
    [[nodiscard]] static RtPath Result(std::uint16_t fileno);   // answer for the client
    [[nodiscard]] static RtPath Payload(std::uint16_t fileno);  // "rtData", what the client sent
    [[nodiscard]] const char* Text() const { return text_; }

private:
    RtPath(const char* prefix, std::uint16_t fileno);
    static constexpr int NameBytes = 12;  // "rtData65535" and its end
    char text_[PathBytes + NameBytes];
};

// Stores a payload in its file and forces it to disk; false after a message when that fails, and the file is gone.
[[nodiscard]] bool StorePayload(std::uint16_t fileno, const unsigned char* payload, std::uint32_t length);

// Writes the result file: the item, then `tailBytes` bytes of `tail`; empty after a message when that fails.
void WriteResultFile(const RtItem& item, const void* tail, std::uint32_t tailBytes);

// Answers a request that is not listed. Any thread.
void WriteBackRtDataWhenError(std::uint16_t fileno, int code, const RegRequest& request, std::uint16_t listcmd);
