// Many small pieces of one file in few reads under one lock. One thread for each object.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "client/bytes.h"
#include "client/locked_file.h"

namespace voq
{

class Gather
{
public:
    void Clear() { wanted_.clear(); }
    // Pieces are numbered from 0 in the order of this call.
    void Add(std::uint64_t offset, std::size_t length) { wanted_.push_back({offset, length}); }
    // Pieces that lie close together are read at once. Throws LockHeld or Error; a missing file has no piece.
    void Read(const std::string& path);
    // Valid until the next Clear or Read; empty when it does not lie wholly inside the file.
    std::span<const std::uint8_t> operator[](std::size_t number) const;

private:
    struct Wanted {
        std::uint64_t offset;
        std::size_t length;
        std::size_t run = 0;  // that it lies in
    };
    struct Run {
        std::uint64_t offset;
        std::size_t length;
        std::size_t at;  // in the buffer
    };

    std::vector<Wanted> wanted_;
    std::vector<std::size_t> order_;
    std::vector<Run> runs_;
    std::vector<FilePiece> pieces_;
    Bytes buffer_;
};

}  // namespace voq
