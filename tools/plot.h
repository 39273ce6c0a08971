// Curves of characters: the last minutes of a value. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

struct PlotPoint {
    std::int64_t at;  // microseconds
    double value;     // not finite: there was none
};

// What is kept of a value: the points of the last `span` microseconds and the one before them.
class PlotHistory
{
public:
    explicit PlotHistory(std::int64_t span) : span_(span) {}
    void Add(const PlotPoint& point);
    const std::deque<PlotPoint>& Points() const { return points_; }
    std::int64_t Span() const { return span_; }

private:
    std::int64_t span_;
    std::deque<PlotPoint> points_;
};

// `rows` lines of `columns` columns that end at the time of the last point: the curve behind a scale. A value holds
// until the next point. With `braille` a character has two by four dots, else it is a star.
std::vector<std::string> PlotLines(const PlotHistory& history, std::size_t columns, std::size_t rows, bool braille);

// Columns that the scale takes of them.
inline constexpr std::size_t PlotScaleColumns = 12;
