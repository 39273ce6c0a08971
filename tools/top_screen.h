// The screen of `voqctl top`. The library behind it, which also has the keys, sends only what changed, and restores the
// terminal when the screen goes out of scope. One at a time.
#pragma once

#define NCURSES_NOMACROS  // of its lower-case names
#include <ncurses.h>

#include <functional>
#include <string>
#include <vector>

#include "tools/top_model.h"

class TopScreen
{
public:
    // Throws UsageError when there is no terminal, or none that can place its cursor.
    TopScreen();
    ~TopScreen();
    TopScreen(const TopScreen&) = delete;
    TopScreen& operator=(const TopScreen&) = delete;

    // Shows the ports, the listed ranges around the selected one, and `note` on the last line. Reads the values of the
    // ranges it shows.
    void Draw(TopModel& model, const std::vector<TopRange*>& listed, std::size_t selected, const std::string& note);
    // The same with stations, and with what each service counts.
    void Draw(const TopModel& model, const std::vector<TopStation>& stations, std::size_t selected,
              const std::string& note);
    // Rows that fitted when it was last drawn.
    std::size_t Page() const { return page_; }

private:
    // A table of `count` rows under the lines of the ports.
    struct Table {
        std::string title, heading;
        std::function<std::string(const TopPort& port)> ofPort;  // its second line
        std::size_t count;
        std::function<std::string(std::size_t row, bool selected)> line;
    };
    void Draw(const TopModel& model, const Table& table, std::size_t selected, const std::string& note);

    std::size_t first_ = 0;  // of the rows on the screen
    std::size_t page_ = 1;
};
