// Everything joined: what the ports tell goes to the broker or to the spool, what the broker asks for goes to the
// ports. The main thread's; the link has one of its own.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>

#include "upstream/mqtt/catalogue.h"
#include "upstream/mqtt/commands.h"
#include "upstream/mqtt/link.h"
#include "upstream/mqtt/mode.h"
#include "upstream/mqtt/pacer.h"
#include "upstream/mqtt/source.h"
#include "upstream/mqtt/spool.h"
#include "upstream/mqtt/window.h"

namespace voq::mqtt
{

class Bridge
{
public:
    using Clock = std::chrono::steady_clock;

    // Both must outlive it. `stateFile`: docs/mqtt.md has its lines. Throws Error.
    Bridge(const Settings& settings, const Catalogue& catalogue, std::string stateFile);

    // Until `ending` (a signalfd) becomes readable; then says goodbye, within three seconds.
    void Run(int ending);

private:
    bool Telling() const { return connected_ && mode_->Ready(); }
    bool Sleep(int ending);
    void Handle(const LinkEvent& event, Clock::time_point now);
    void LostConnection(const std::string& reason);
    void Tell(Clock::time_point now);
    void TellHistory(Clock::time_point now);
    void Acknowledged(int number, Clock::time_point now);
    void Probe(Clock::time_point now);
    void EachSecond();
    void WriteState();
    void End();

    // One line for each reason: again only when another one was there in between.
    void Log(const std::string& subject, const std::string& text);

    const Settings& settings_;
    const Catalogue& catalogue_;
    const std::string stateFile_;
    Source source_;
    Spool spool_;
    Link link_;
    std::unique_ptr<Mode> mode_;
    Commands commands_;
    Pacer pacer_;
    Window window_;

    bool connected_ = false, telling_ = false;
    std::size_t chunk_;  // samples of history at once
    Clock::time_point nextSecond_ = {};
    std::int64_t since_;  // us since 1970: of the connection, or of its end
    std::map<std::string, std::string> logged_;
    std::string lastError_;
    std::int64_t lastErrorAt_ = 0;
};

}  // namespace voq::mqtt
