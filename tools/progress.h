// Tells on standard error how far something is, when it takes more than a second and somebody looks: nothing is said
// unless standard error is a terminal. One at a time; main thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

class Progress
{
public:
    // "import: lines": what the figures are of.
    explicit Progress(std::string what);
    // Clears the line, if there is one.
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // To be called as often as it goes on: draws a few times a second at most. `of` 0: nobody knows how much there is.
    void At(std::size_t done, std::size_t of = 0);
    // The same as a function, for as long as this lives.
    std::function<void(std::size_t, std::size_t)> Teller();

private:
    using Clock = std::chrono::steady_clock;

    std::string what_;
    bool terminal_;
    Clock::time_point next_;  // time of the next line
    bool shown_ = false;
};
