// Sends lines and curves to the terminal by the escape sequences that all of them know.
#include "tools/watch_screen.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstring>

#include "tools/printable.h"

namespace
{

constexpr std::size_t MostRows = 12, FewestRows = 2;  // of a curve

struct Size {
    std::size_t columns = 79, rows = 24;
};

// The last column stays free: some terminals wrap when it is written.
Size TerminalSize()
{
    Size size;
    winsize window = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &window) != 0) return size;
    if (window.ws_col > 1) size.columns = window.ws_col - 1u;
    if (window.ws_row > 1) size.rows = window.ws_row;
    return size;
}

bool KnowsBraille()
{
    std::setlocale(LC_CTYPE, "");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

// "-5 min" below the beginning of the curve, "now" below its end.
std::string TimeAxis(std::int64_t span, std::size_t columns)
{
    constexpr char Now[] = "now";
    char begin[32];
    std::snprintf(begin, sizeof begin, "-%.3g min", static_cast<double>(span) / 60e6);
    std::string axis = std::string(PlotScaleColumns, ' ') + begin;
    if (axis.size() + sizeof Now < columns) axis.resize(columns - std::strlen(Now), ' ');
    return axis + Now;
}

}  // namespace

void WatchScreen::Draw(const std::vector<WatchLine>& lines)
{
    if (!lines.empty() && lines[0].history != nullptr) return DrawCurves(lines);
    const std::size_t columns = TerminalSize().columns;
    if (drawn_ != 0) std::printf("\x1b[%zuA", drawn_);
    for (const WatchLine& line : lines) std::printf("\r%s\x1b[K\n", Cut(line.text, columns).c_str());
    drawn_ = lines.size();
}

void WatchScreen::DrawCurves(const std::vector<WatchLine>& lines)
{
    static const bool braille = KnowsBraille();
    const Size size = TerminalSize();
    const std::size_t around = lines.size() + 2;  // their own lines, the time axis, the one that the cursor is left on
    const std::size_t room = size.rows > around ? (size.rows - around) / lines.size() : 0;
    const std::size_t rows = std::clamp(room, FewestRows, MostRows);
    std::printf(drawn_ == 0 ? "\x1b[H\x1b[2J" : "\x1b[H");
    drawn_ = 1;
    for (const WatchLine& line : lines) {
        std::printf("%s\x1b[K\n", Cut(line.text, size.columns).c_str());
        for (const std::string& drawn : PlotLines(*line.history, size.columns, rows, braille)) {
            std::printf("%s\x1b[K\n", drawn.c_str());
        }
    }
    std::printf("%s\x1b[J\n", Cut(TimeAxis(lines[0].history->Span(), size.columns), size.columns).c_str());
}
