// Writes that came from the broker, as one-shots of the service: within the limits of the description, several under
// way, none of them ever sent twice. One thread; the answers come with the ports' events.
#pragma once

#include <functional>
#include <list>
#include <string>

#include "upstream/mqtt/catalogue.h"
#include "upstream/mqtt/mode.h"
#include "upstream/mqtt/source.h"

namespace voq::mqtt
{

class Commands
{
public:
    using Answer = std::function<void(const Command&, bool written, const std::string& text)>;

    static constexpr std::size_t MaxUnderWay = 64;

    // All of them must outlive it.
    Commands(const Catalogue& catalogue, Source& source, Answer answer);

    void Begin(const Command& command);
    void Answered(const Asked& asked);
    // The program ends: what is under way is answered as not known, and its answers are removed when they come.
    void End();

    std::uint64_t Written() const { return written_; }
    std::uint64_t Refused() const { return refused_; }  // or failed

private:
    struct UnderWay {
        Command command;
        Asked asked;
    };
    void Finish(const Command& command, bool written, const std::string& text);
    void Send(UnderWay& write);

    const Catalogue& catalogue_;
    Source& source_;
    Answer answer_;
    std::list<UnderWay> underWay_;  // stays where it is
    std::uint64_t written_ = 0, refused_ = 0;
};

}  // namespace voq::mqtt
