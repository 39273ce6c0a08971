// Samples as compact bytes, of a row each stands behind the one before: names by number, times by their distance.
// Pure; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "upstream/mqtt/sample.h"

namespace voq::mqtt
{

// Appends to a row. One for each row.
class RowWriter
{
public:
    // `name`: what stands for the metric in the row.
    void Add(const Sample& sample, std::uint64_t name);
    const std::string& Bytes() const { return bytes_; }
    std::uint32_t Count() const { return count_; }

private:
    std::string bytes_;
    std::uint32_t count_ = 0;
    std::int64_t time_ = 0;  // of the last one
};

// Reads a row from its begin. Any bytes may be given.
class RowReader
{
public:
    RowReader() = default;
    explicit RowReader(std::string bytes) : bytes_(std::move(bytes)) {}

    struct Read {
        Sample sample;  // without its metric
        std::uint64_t name;
    };
    // Nothing at the end, or where the bytes are none of a row.
    std::optional<Read> Next();

private:
    std::string bytes_;
    std::size_t at_ = 0;
    std::int64_t time_ = 0;
};

// Tells damaged bytes from those written (FNV-1a).
std::uint32_t Checksum(std::string_view bytes);

}  // namespace voq::mqtt
