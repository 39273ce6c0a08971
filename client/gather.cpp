// Plans and makes the reads. What it keeps from round to round is memory only.
#include "client/gather.h"

#include <algorithm>
#include <numeric>

namespace voq
{

namespace
{

// A gap of so many bytes is read over: less work than another read.
constexpr std::uint64_t SmallGap = 512;

}  // namespace

void Gather::Read(const std::string& path)
{
    order_.resize(wanted_.size());
    std::iota(order_.begin(), order_.end(), std::size_t{0});
    std::sort(order_.begin(), order_.end(),
              [this](std::size_t a, std::size_t b) { return wanted_[a].offset < wanted_[b].offset; });
    runs_.clear();
    std::size_t bytes = 0;
    for (const std::size_t number : order_) {
        Wanted& wanted = wanted_[number];
        const std::uint64_t end = wanted.offset + wanted.length;
        if (runs_.empty() || wanted.offset > runs_.back().offset + runs_.back().length + SmallGap) {
            runs_.push_back({wanted.offset, 0, bytes});
        }
        Run& run = runs_.back();
        const std::size_t length = std::max(run.length, static_cast<std::size_t>(end - run.offset));
        bytes += length - run.length;
        run.length = length;
        wanted.run = runs_.size() - 1;
    }
    if (buffer_.size() < bytes) buffer_.resize(bytes);
    pieces_.clear();
    for (const Run& run : runs_) pieces_.push_back({run.offset, {buffer_.data() + run.at, run.length}});
    if (!runs_.empty()) ReadLockedPieces(path, pieces_);
}

std::span<const std::uint8_t> Gather::operator[](std::size_t number) const
{
    const Wanted& wanted = wanted_[number];
    const FilePiece& piece = pieces_[wanted.run];
    const std::size_t at = static_cast<std::size_t>(wanted.offset - piece.offset);
    if (at + wanted.length > piece.have) return {};
    return std::span<const std::uint8_t>(piece.into).subspan(at, wanted.length);
}

}  // namespace voq
