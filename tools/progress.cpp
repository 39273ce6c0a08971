// One line on standard error, which is not buffered, drawn over again. Main thread; may wait for the terminal.
#include "tools/progress.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

#include "tools/printable.h"

namespace
{

constexpr std::chrono::milliseconds Silent{1000}, Apart{200};

}  // namespace

Progress::Progress(std::string what)
    : what_(std::move(what)), terminal_(isatty(STDERR_FILENO) == 1), next_(Clock::now() + Silent)
{
}

Progress::~Progress()
{
    if (shown_) std::fputs("\r\x1b[K", stderr);
}

void Progress::At(std::size_t done, std::size_t of)
{
    if (!terminal_ || Clock::now() < next_) return;
    std::string text = Printable(what_) + " " + std::to_string(done);
    if (of != 0) text += " of " + std::to_string(of) + " (" + std::to_string(done * 100 / of) + " %)";
    std::fprintf(stderr, "\r%s\x1b[K", text.c_str());
    shown_ = true;
    next_ = Clock::now() + Apart;
}

std::function<void(std::size_t, std::size_t)> Progress::Teller()
{
    return [this](std::size_t done, std::size_t of) { At(done, of); };
}
