// Draws with ncurses. Main thread; may wait for the terminal. No colours, few attributes, and texts that stay as long
// as what they say does: the terminal may be a slow serial line.
#include "tools/top_screen.h"

#include <term.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "client/explain.h"
#include "client/value_text.h"
#include "tools/printable.h"

namespace
{

template <typename... Args>
std::string Format(const char* format, Args... args)
{
    char text[256];
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

const char* LinkText(const voq::PortStatus& status)
{
    if (!status.directory) return "-";
    if (status.timeout && status.comerror) return "TIME-OUT, ERROR";
    return status.timeout ? "TIME-OUT" : status.comerror ? "ERROR" : "ok";
}

const char* FifosText(const voq::PortStatus& status)
{
    const bool gui = status.gui == voq::FifoState::Read, mek = status.mek == voq::FifoState::Read;
    return gui && mek ? "gui mek" : gui ? "gui" : mek ? "mek" : "none read";
}

std::string PortLine(const TopModel& model, const TopPort& port)
{
    static constexpr const char* Watchdogs[] = {"none", "%u waiting", "%u moving", "%u NOT MOVING"};
    const voq::PortStatus& status = port.status;
    const std::string waiting = status.directory ? std::to_string(status.waiting) : "-";
    std::string text = Format("%-7s link %s  one-shots %s", port.name.c_str(), LinkText(status), waiting.c_str());
    if (status.waiting != 0) text += ", " + model.AgeText(std::max<std::int64_t>(status.oldestWaiting, 1));
    text += "  watchdog " + Format(Watchdogs[static_cast<int>(port.watchdog)], port.counter);
    return text + "  fifos " + FifosText(status);
}

std::string RangesLine(const TopModel& model, const TopPort& port)
{
    if (!port.error.empty()) return "        " + port.error;
    if (!port.status.org) return "        no org file";
    std::int64_t slowest = 0, oldest = 0;
    std::size_t subscribed = 0;
    for (const auto& [offset, range] : port.ranges) {
        if (!range.subscribed) continue;
        ++subscribed;
        slowest = std::max(slowest, range.period);
        oldest = std::max(oldest, range.age);
    }
    std::string text = "        " + voq::StatesText(port.status.states);
    if (port.status.org->badLink) text += ", CHAIN DAMAGED";
    text += Format("  subscribed %zu: slowest %s, oldest %s", subscribed, model.AgeText(slowest).c_str(),
                   model.AgeText(oldest).c_str());
    if (!port.status.stationsOff) return text + "  stations unknown";
    if (!port.status.stationsOff->empty()) text += "  off:";
    for (const std::uint8_t station : *port.status.stationsOff) text += Format(" %u", unsigned{station});
    return text;
}

std::string Clock(const TopModel& model)
{
    std::tm parts = {};
    const std::time_t lookedAt = model.LookedAt();
    localtime_r(&lookedAt, &parts);
    char clock[16];
    std::strftime(clock, sizeof clock, "%H:%M:%S", &parts);
    return clock;
}

std::string Every(const TopModel& model)
{
    return "  every " + voq::AgeText(model.Interval().count() * 1000);
}

std::string Title(const TopModel& model, std::size_t listed)
{
    std::string text = Format("%s  %zu ranges  sort %s%s  filter %s", Clock(model).c_str(), listed,
                              TopSortNames[static_cast<int>(model.sort)], model.reversed ? " reversed" : "",
                              TopFilterNames[static_cast<int>(model.filter)]) +
                       Every(model);
    if (!model.find.empty()) text += "  find " + model.find;
    return text;
}

// What the service of a port counts.
std::string CountersLine(const TopPort& port)
{
    if (!port.error.empty()) return "        " + port.error;
    if (!port.counters) return "        no statistics: no service runs";
    const TopCounters& counters = *port.counters;
    const StatsLoop& loop = counters.statistics.loop;
    std::uint64_t refused = 0;
    for (const StatsIntake& intake : counters.statistics.intakes) refused += intake.refused + intake.refusedTimeout;
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    return Format("        %.0f turns/s  %.0f reads/s  round %s: %u reads  one-shots %llu ok, %llu bad",
                  counters.turnRate, counters.readRate, voq::DurationText(loop.round.length).c_str(), loop.round.reads,
                  number(loop.answeredOk), number(loop.answeredTimeout + loop.answeredError + refused));
}

std::string StationLine(const TopModel& model, const TopStation& station, bool selected)
{
    const TopPort& port = model.ports[station.port];
    const StatsStation& counts = station.counts;
    const std::uint64_t answers = counts.ok + counts.refused;
    const std::string mean = answers == 0 ? "-" : voq::DurationText(counts.answerTime / answers);
    const std::string longest = answers == 0 ? "-" : voq::DurationText(counts.longest);
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long long>(value); };
    return Format("%c%-7.7s %3u%-4s %7llu %5.0f %5llu %5llu %5llu %7s %7s %7s %7s", selected ? '>' : ' ',
                  port.name.c_str(), unsigned{station.number}, port.StationOff(station.number) ? " off" : "",
                  number(counts.calls), station.rate, number(counts.timeouts), number(counts.errors),
                  number(counts.refused), mean.c_str(), longest.c_str(), model.AgeText(station.good).c_str(),
                  model.AgeText(station.bad).c_str());
}

int NameWidth()
{
    return std::clamp(COLS / 4, 12, 40);
}

std::string RangeLine(const TopModel& model, const TopRange& range, bool selected)
{
    const TopPort& port = model.ports[range.port];
    const std::uint8_t station = range.node.key.plcno;
    return Format("%c%-7.7s %3u%-4s %-*.*s %-10s %6s %7s  ", selected ? '>' : ' ', port.name.c_str(), unsigned{station},
                  port.StationOff(station) ? " off" : "", NameWidth(), NameWidth(), range.name.c_str(),
                  voq::StateName(range.node.state).c_str(), model.AgeText(range.age).c_str(),
                  model.AgeText(range.period).c_str()) +
           range.value;
}

void PutLine(int row, const std::string& text)
{
    if (row < LINES) mvaddnstr(row, 0, Printable(text).c_str(), COLS);
}

}  // namespace

TopScreen::TopScreen()
{
    const bool terminal = isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
    if (!terminal) throw UsageError("top needs a terminal; status and dump do not");
    int error = 0;
    bool usable = setupterm(nullptr, STDOUT_FILENO, &error) == OK && tigetstr("cup") != nullptr;
    del_curterm(cur_term);
    usable = usable && newterm(nullptr, stdout, stdin) != nullptr;
    if (!usable) throw UsageError("TERM names no terminal that can place its cursor");
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, true);
    nodelay(stdscr, true);
    idlok(stdscr, true);
    leaveok(stdscr, true);
    curs_set(0);
}

TopScreen::~TopScreen()
{
    endwin();
}

void TopScreen::Draw(TopModel& model, const std::vector<TopRange*>& listed, std::size_t selected,
                     const std::string& note)
{
    const std::string heading = Format(" %-7s %3s%-4s %-*s %-10s %6s %7s  VALUE", "PORT", "PLC", "", NameWidth(),
                                       "RANGE", "STATE", "AGE", "PERIOD");
    const auto line = [&](std::size_t row, bool chosen) {
        model.ReadValue(*listed[row]);
        return RangeLine(model, *listed[row], chosen);
    };
    Draw(model,
         {Title(model, listed.size()), heading, [&](const TopPort& port) { return RangesLine(model, port); },
          listed.size(), line},
         selected, note);
}

void TopScreen::Draw(const TopModel& model, const std::vector<TopStation>& stations, std::size_t selected,
                     const std::string& note)
{
    const std::string heading = Format(" %-7s %3s%-4s %7s %5s %5s %5s %5s %7s %7s %7s %7s", "PORT", "PLC", "", "CALLS",
                                       "/S", "T-OUT", "ERROR", "REFUS", "MEAN", "LONGEST", "GOOD", "BAD");
    const auto line = [&](std::size_t row, bool chosen) { return StationLine(model, stations[row], chosen); };
    Draw(model,
         {Clock(model) + Format("  %zu stations", stations.size()) + Every(model), heading, CountersLine,
          stations.size(), line},
         selected, note);
}

void TopScreen::Draw(const TopModel& model, const Table& table, std::size_t selected, const std::string& note)
{
    const std::size_t height = static_cast<std::size_t>(std::max(LINES, 6));
    // Not all ports, so that some rows are seen too.
    const std::size_t from = model.only.value_or(0);
    const std::size_t ports = model.only ? 1 : std::min(model.ports.size(), (height - 4) / 2);
    page_ = std::max<std::size_t>(height - 2 * ports, 4) - 3;
    first_ = std::min(first_, selected);
    first_ = std::max(first_ + page_, selected + 1) - page_;
    if (first_ + page_ > table.count) first_ = table.count - std::min(page_, table.count);
    const std::size_t end = std::min(first_ + page_, table.count);
    std::vector<std::string> shown;  // first of all: they may say something of their port
    for (std::size_t i = first_; i < end; ++i) shown.push_back(table.line(i, i == selected));

    erase();
    int row = 0;
    const bool hidden = !model.only && ports < model.ports.size();
    PutLine(row++, table.title + (hidden ? "  more ports: Tab" : ""));
    for (std::size_t i = from; i < from + ports; ++i) {
        PutLine(row++, PortLine(model, model.ports[i]));
        PutLine(row++, table.ofPort(model.ports[i]));
    }
    attron(A_REVERSE);
    PutLine(row++, table.heading);
    attroff(A_REVERSE);
    for (const std::string& line : shown) PutLine(row++, line);
    // Last, over whatever a small screen left there.
    move(LINES - 1, 0);
    clrtoeol();
    PutLine(LINES - 1, note);
    refresh();
}
