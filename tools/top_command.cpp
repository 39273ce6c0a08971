// "voqctl top": the ports and their ranges on a full screen. Main thread; reads the ports' files, one lock at a time,
// and writes nothing but a station's bit that the user has been asked about.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "client/clock.h"
#include "client/locked_file.h"
#include "client/station_off.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/range_rows.h"
#include "tools/stop.h"
#include "tools/top_model.h"
#include "tools/top_screen.h"

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr char Help[] = "q quit  p stations  s r sort  f filter  / find  Tab port  t off  + - interval";
constexpr char StationsHelp[] = "q quit  p ranges  Tab port  t station off or on  + - interval";
constexpr milliseconds ShortestInterval{100}, LongestInterval{60000};
constexpr milliseconds LongestWait{200};  // a signal can come just before the wait
constexpr milliseconds LongestLock{1000};
constexpr int Idle = 9;  // times as long as the last look took: the files belong to the service and its clients
constexpr int Redraw = 'L' - '@', Escape = 0x1B, Delete = 0x7F;

// What the keys do. The selected row stays selected while the order changes around it, except at the beginning of the
// list: there the beginning is what is looked at.
class Session
{
public:
    explicit Session(TopModel& model) : model_(model) {}

    bool ended = false;

    Clock::duration TimeLeft() const { return std::max(looked_ + model_.Interval(), rested_) - Clock::now(); }

    void Look()
    {
        looked_ = Clock::now();
        model_.Look();
        rested_ = Clock::now() + Idle * (Clock::now() - looked_);
        List();
    }

    void Draw(TopScreen& screen) const
    {
        const std::string note = asked_    ? "Switch " + StationText() + "? y/n"
                                 : typing_ ? "find: " + model_.find
                                           : note_;
        if (stationsShown_) {
            screen.Draw(model_, stations_, position_, note);
        } else {
            screen.Draw(model_, listed_, position_, note);
        }
    }

    void Handle(int key, std::size_t page)
    {
        if (key == KEY_RESIZE) return;
        note_ = stationsShown_ ? StationsHelp : Help;
        if (asked_) return Switch(key == 'y');
        if (typing_) return Type(key);
        if (key == KEY_UP) Move(1, 0);
        if (key == KEY_DOWN) Move(0, 1);
        if (key == KEY_PPAGE) Move(page, 0);
        if (key == KEY_NPAGE) Move(0, page);
        if (key == KEY_HOME) Move(Rows(), 0);
        if (key == KEY_END) Move(0, Rows());
        if (key == '+') model_.SetInterval(std::min(model_.Interval() * 2, LongestInterval));
        if (key == '-') model_.SetInterval(std::max(model_.Interval() / 2, ShortestInterval));
        if (key == Redraw) clearok(curscr, true);
        if (key == 't') Ask();
        if (key == '\t') NextPort();
        if (key == 'p') TurnPage();
        ended = key == 'q';
        if (stationsShown_) return;
        if (key == 's' || key == 'r' || key == 'f') Order(key);
        typing_ = key == '/';
    }

private:
    struct Switching {
        std::size_t port;
        std::uint8_t station;
        bool off;
    };

    std::size_t Rows() const { return stationsShown_ ? stations_.size() : listed_.size(); }

    void List()
    {
        listed_ = model_.Listed();
        stations_ = model_.Stations();
        position_ = position_ == 0 ? 0 : stationsShown_ ? FoundStation() : FoundRange();
        Move(0, 0);
    }

    std::size_t FoundRange() const
    {
        const auto at = std::find_if(listed_.begin(), listed_.end(), [this](const TopRange* range) {
            return std::pair(range->port, range->offset) == selected_;
        });
        return at == listed_.end() ? position_ : static_cast<std::size_t>(at - listed_.begin());
    }

    std::size_t FoundStation() const
    {
        const auto at = std::find_if(stations_.begin(), stations_.end(), [this](const TopStation& station) {
            return std::pair(station.port, std::uint32_t{station.number}) == selected_;
        });
        return at == stations_.end() ? position_ : static_cast<std::size_t>(at - stations_.begin());
    }

    void Move(std::size_t back, std::size_t ahead)
    {
        position_ -= std::min(position_, back);
        position_ = std::min(position_ + ahead, Rows() == 0 ? 0 : Rows() - 1);
        if (Rows() == 0) return;
        if (stationsShown_) {
            selected_ = {stations_[position_].port, stations_[position_].number};
        } else {
            selected_ = {listed_[position_]->port, listed_[position_]->offset};
        }
    }

    void TurnPage()
    {
        stationsShown_ = !stationsShown_;
        note_ = stationsShown_ ? StationsHelp : Help;
        position_ = 0;
        List();
    }

    void Order(int key)
    {
        if (key == 's') model_.sort = static_cast<TopSort>((static_cast<std::size_t>(model_.sort) + 1) % TopSorts);
        if (key == 'f')
            model_.filter = static_cast<TopFilter>((static_cast<std::size_t>(model_.filter) + 1) % TopFilters);
        if (key == 'r') model_.reversed = !model_.reversed;
        position_ = 0;
        List();
    }

    void NextPort()
    {
        const std::size_t next = model_.only ? *model_.only + 1 : 0;
        model_.only.reset();
        if (next < model_.ports.size()) model_.only = next;
        List();
    }

    void Type(int key)
    {
        if (key > ' ' && key < Delete) model_.find += static_cast<char>(key);
        const bool erase = key == KEY_BACKSPACE || key == '\b' || key == Delete;
        if (erase && !model_.find.empty()) model_.find.pop_back();
        if (key == Escape) model_.find.clear();
        typing_ = key != Escape && key != '\r' && key != KEY_ENTER;
        List();
    }

    void Ask()
    {
        if (Rows() == 0) return;
        const std::size_t port = selected_.first;
        const std::uint8_t station = stationsShown_ ? stations_[position_].number : listed_[position_]->node.key.plcno;
        asked_ = {port, station, !model_.ports[port].StationOff(station)};
    }

    std::string StationText() const
    {
        return "station " + std::to_string(asked_->station) + " of " + model_.ports[asked_->port].name +
               (asked_->off ? " off" : " on");
    }

    void Switch(bool yes)
    {
        try {
            if (yes) {
                voq::SwitchStation(model_.ports[asked_->port].target.port.number, asked_->station, asked_->off);
                note_ = "Switched " + StationText();
                looked_ = rested_ = {};  // to be seen at once
            }
        } catch (const voq::Error& error) {
            note_ = error.what();
        }
        asked_.reset();
    }

    TopModel& model_;
    Clock::time_point looked_ = {}, rested_ = {};
    std::vector<TopRange*> listed_;
    std::vector<TopStation> stations_;
    bool stationsShown_ = false;                      // in place of the ranges
    std::size_t position_ = 0;                        // of the selected row
    std::pair<std::size_t, std::uint32_t> selected_;  // its port, and the range's offset or the station's number
    std::optional<Switching> asked_;
    bool typing_ = false;
    std::string note_ = Help;
};

// False when the terminal is gone.
bool WaitForKey(milliseconds atMost)
{
    pollfd keyboard = {STDIN_FILENO, POLLIN, 0};
    const int ready = poll(&keyboard, 1, static_cast<int>(std::clamp(atMost, milliseconds(0), LongestWait).count()));
    return ready <= 0 || (keyboard.revents & ~POLLIN) == 0;
}

void WriteRow(const TopModel& model, const TopRange& range, RowWriter& rows)
{
    const TopPort& port = model.ports[range.port];
    RangeState state{voq::StateName(range.node.state), voq::NowMicroseconds(), {}, {}};
    if (range.node.state != 0) state.stamp = voq::StampMicroseconds(range.node.stamp);
    const auto value = model.Value(range);
    if (value) state.value = *value;
    Row row = RangeRow(SelectedOf(port.target, range.node.key), state);
    row.emplace_back("link", Cell::Text(std::string(voq::LinkName(port.target.port.link))));
    row.emplace_back("period_s", range.period == 0 ? Cell{} : Cell::Seconds(range.period));
    row.emplace_back("subscribed", Cell::Flag(range.subscribed));
    row.emplace_back("station_off", Cell::Flag(port.StationOff(range.node.key.plcno)));
    rows.Write(row);
}

// Two looks, since one alone tells no periods.
int WriteRows(TopModel& model, RowForm form)
{
    model.Look();
    poll(nullptr, 0, static_cast<int>(model.Interval().count()));  // unlike a sleep, ends with a signal
    model.Look();
    RowWriter rows(form);
    for (const TopRange* range : model.Listed()) WriteRow(model, *range, rows);
    int status = ExitOk;
    for (const TopPort& port : model.ports) {
        if (port.error.empty()) continue;
        Complain(port.name + ": " + port.error);
        status = ExitUsage;
    }
    return status;
}

}  // namespace

int Top(const PortOptions& options, const TopOptions& top, const OutputOptions& output)
{
    TopModel model(top.allPorts && !options.project.empty() ? ResolveAll(options) : std::vector{Resolve(options)},
                   milliseconds(top.intervalMs));
    CatchSignals();
    const voq::LockPatience patience(LongestLock);
    if (output.rows != RowForm::None) return WriteRows(model, output.rows);
    TopScreen screen;
    Session session(model);
    while (Stopped == 0 && !session.ended) {
        if (session.TimeLeft() <= Clock::duration::zero()) session.Look();
        session.Draw(screen);
        if (!WaitForKey(std::chrono::ceil<milliseconds>(session.TimeLeft()))) break;
        for (int key = getch(); key != ERR; key = getch()) session.Handle(key, screen.Page());
    }
    return ExitOk;
}
