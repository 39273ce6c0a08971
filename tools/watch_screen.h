// How watch draws on a terminal: lines over and over in place, or curves. Main thread; may wait for the terminal.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tools/plot.h"

// One range: its line, and where it is to be drawn the history of its value.
struct WatchLine {
    std::string text;  // printable
    const PlotHistory* history = nullptr;
};

class WatchScreen
{
public:
    // Cuts every line to the terminal's width, and draws curves below the lines that have a history, as high as there
    // is room.
    void Draw(const std::vector<WatchLine>& lines);

private:
    void DrawCurves(const std::vector<WatchLine>& lines);

    std::size_t drawn_ = 0;  // lines
};
