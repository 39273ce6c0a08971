// Draws curves into lines of text. Pure.
#include "tools/plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace
{

// Dots of a character, by column and row: those of the block at U+2800.
constexpr unsigned BrailleDots[2][4] = {{0x01, 0x02, 0x04, 0x40}, {0x08, 0x10, 0x20, 0x80}};

std::string Braille(unsigned dots)
{
    return {static_cast<char>(0xE2), static_cast<char>(0xA0 + (dots >> 6)), static_cast<char>(0x80 + (dots & 0x3F))};
}

struct Span {
    double low = NAN, high = NAN;

    bool Empty() const { return std::isnan(low); }
    void Add(double value)
    {
        if (!std::isfinite(value)) return;
        low = Empty() ? value : std::min(low, value);
        high = std::isnan(high) ? value : std::max(high, value);
    }
};

// What the value did in each of `count` equal times, the last of which holds the last point. Whole multiples of a time
// begin them, so that the curve moves on without changing its shape.
std::vector<Span> Buckets(const PlotHistory& history, std::size_t count)
{
    std::vector<Span> buckets(count);
    const auto& points = history.Points();
    if (points.empty()) return buckets;
    const std::int64_t length = std::max<std::int64_t>(1, history.Span() / static_cast<std::int64_t>(count));
    const std::int64_t begin = points.back().at / length - static_cast<std::int64_t>(count) + 1;
    double held = NAN;
    std::size_t next = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::int64_t end = (begin + static_cast<std::int64_t>(i) + 1) * length;
        buckets[i].Add(held);
        for (; next < points.size() && points[next].at < end; ++next) {
            held = points[next].value;
            if (points[next].at >= end - length) buckets[i].Add(held);
            if (i == 0) buckets[i].Add(held);
        }
    }
    return buckets;
}

Span Whole(const std::vector<Span>& buckets)
{
    Span whole;
    for (const Span& bucket : buckets) {
        whole.Add(bucket.low);
        whole.Add(bucket.high);
    }
    if (whole.low == whole.high) return {whole.low - 1, whole.high + 1};
    return whole;
}

// The dots of the curve, row by row from the top.
std::vector<std::vector<bool>> Dots(const std::vector<Span>& buckets, const Span& scale, std::size_t height)
{
    std::vector<std::vector<bool>> dots(height, std::vector<bool>(buckets.size()));
    const auto row = [&](double value) {
        // Halves, since the scale of two large values overflows.
        const double part = (value / 2 - scale.low / 2) / (scale.high / 2 - scale.low / 2);
        return static_cast<std::size_t>(std::lround((1 - part) * static_cast<double>(height - 1)));
    };
    for (std::size_t x = 0; x < buckets.size(); ++x) {
        if (buckets[x].Empty()) continue;
        for (std::size_t y = row(buckets[x].high); y <= row(buckets[x].low); ++y) dots[y][x] = true;
    }
    return dots;
}

std::string Scale(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%10.6g |", value);
    return std::string(text).substr(0, PlotScaleColumns);
}

}  // namespace

void PlotHistory::Add(const PlotPoint& point)
{
    points_.push_back(point);
    while (points_.size() > 1 && points_[1].at <= point.at - span_) points_.pop_front();
}

std::vector<std::string> PlotLines(const PlotHistory& history, std::size_t columns, std::size_t rows, bool braille)
{
    const std::size_t cellWidth = braille ? 2 : 1, cellHeight = braille ? 4 : 1;
    columns = std::max(columns, PlotScaleColumns + 1) - PlotScaleColumns;
    const std::vector<Span> buckets = Buckets(history, columns * cellWidth);
    const Span scale = Whole(buckets);
    const auto dots = Dots(buckets, scale, rows * cellHeight);
    std::vector<std::string> lines;
    for (std::size_t row = 0; row < rows; ++row) {
        const bool known = !scale.Empty() && (row == 0 || row + 1 == rows);
        std::string line = known ? Scale(row == 0 ? scale.high : scale.low) : std::string(11, ' ') + "|";
        for (std::size_t column = 0; column < columns; ++column) {
            unsigned cell = 0;
            for (std::size_t x = 0; x < cellWidth; ++x) {
                for (std::size_t y = 0; y < cellHeight; ++y) {
                    if (dots[row * cellHeight + y][column * cellWidth + x]) cell |= BrailleDots[x][y];
                }
            }
            line += cell == 0 ? " " : braille ? Braille(cell) : "*";
        }
        lines.push_back(line);
    }
    return lines;
}
