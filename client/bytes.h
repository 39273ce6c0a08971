// Records in byte buffers. All files and frames are little-endian and so is every machine the library runs on.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>
#include <vector>

namespace voq
{

static_assert(std::endian::native == std::endian::little, "records are copied as they lie");

using Bytes = std::vector<std::uint8_t>;

// The record at an offset, or nothing when it does not lie wholly inside the buffer.
template <typename Record>
std::optional<Record> RecordAt(std::span<const std::uint8_t> bytes, std::uint64_t offset)
{
    static_assert(std::is_trivially_copyable_v<Record>);
    if (offset > bytes.size() || bytes.size() - offset < sizeof(Record)) return std::nullopt;
    Record record;
    std::memcpy(&record, bytes.data() + offset, sizeof(Record));
    return record;
}

// Stores a record at an offset; the buffer grows with zeros as needed.
template <typename Record>
void PutRecord(Bytes& bytes, std::size_t offset, const Record& record)
{
    static_assert(std::is_trivially_copyable_v<Record>);
    if (bytes.size() < offset + sizeof(Record)) bytes.resize(offset + sizeof(Record));
    std::memcpy(bytes.data() + offset, &record, sizeof(Record));
}

}  // namespace voq
