// Keeps what is under way.
#include "upstream/mqtt/window.h"

#include <algorithm>

namespace voq::mqtt
{

void Window::Sent(std::vector<Sample> samples, bool historical, int number, Clock::time_point now)
{
    samples_ += samples.size();
    if (historical) historical_ += samples.size();
    pieces_.push_back({std::move(samples), historical, number, now});
}

void Window::Probed(int number)
{
    for (Piece& each : pieces_) {
        if (each.number == 0) each.number = number;
    }
}

std::optional<Window::Clock::time_point> Window::Unprobed() const
{
    const auto found = std::find_if(pieces_.begin(), pieces_.end(), [](const Piece& each) { return each.number == 0; });
    return found == pieces_.end() ? std::nullopt : std::optional(found->sent);
}

Window::Arrived Window::Acknowledged(int number)
{
    Arrived arrived;
    const auto last =
        std::find_if(pieces_.rbegin(), pieces_.rend(), [&](const Piece& each) { return each.number == number; });
    for (auto count = std::distance(last, pieces_.rend()); count > 0; --count) {
        const Piece& piece = pieces_.front();
        samples_ -= piece.samples.size();
        if (piece.historical) {
            historical_ -= piece.samples.size();
            arrived.historical += piece.samples.size();
            arrived.historicalSent = piece.sent;
        }
        pieces_.pop_front();
    }
    return arrived;
}

std::vector<Sample> Window::Lost()
{
    std::vector<Sample> live;
    for (Piece& each : pieces_) {
        if (!each.historical) std::move(each.samples.begin(), each.samples.end(), std::back_inserter(live));
    }
    pieces_.clear();
    samples_ = historical_ = 0;
    return live;
}

}  // namespace voq::mqtt
