// Names of a request's two files in the data directory, and the payload file. Any thread; may wait for the disk.
#pragma once

#include <cstdint>

#include "state/paths.h"

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
