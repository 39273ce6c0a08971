// Samples that wait for the broker: in memory until the next write, then in a file, both bounded; the oldest go first
// when there is no room. One thread. Waits for the disk in Tick, Flush and Take; errors of the disk are told by Remark,
// and what cannot be written waits in memory.
//
// Bounds: the file and its log together take `bytes` at most (64 KiB at least; while it is made smaller for new
// settings, once at a start, twice that). In memory a sixteenth of it waits, 1 MiB at most, encoded (a sample of a
// number takes about 12 bytes); a write is made early when half of that is reached, so that the oldest are always those
// in the file. Only when the disk fails do the oldest in memory go. A sample of more than a quarter of memory's share
// is dropped.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "upstream/mqtt/sample.h"
#include "upstream/mqtt/settings.h"

namespace voq::mqtt
{

class Spool
{
public:
    using Clock = std::chrono::steady_clock;

    // `names` of the metrics by their place in the catalogue: the file knows a metric by its name. Samples of names
    // that are no more are dropped and counted when it is their turn. A file that is none of a spool, of a newer
    // version, or damaged, is moved aside as "<file>.bad" (an older one of that name is replaced) and a new one is
    // begun; Remark says so. Throws Error when the file can neither be opened nor made, or another program uses it.
    Spool(const SpoolSettings& settings, const std::vector<std::string>& names);
    ~Spool();  // as Flush

    void Add(const Sample& sample);
    // Writes what waits in memory, and strikes off what is done, in one transaction, when a write is due: a minute
    // divided by the writes that it may have, after something began to wait. What is done before that is never written.
    void Tick(Clock::time_point now);
    // When Tick has something to do; nothing: never.
    std::optional<Clock::time_point> Due() const;
    // Writes now, whatever the bound: for the end of the program.
    void Flush();

    // The oldest samples that have not been taken, at most `most`, in the order of Add. After a restart of the program
    // those come again that were not struck off. None although not Empty: the file cannot be read just now.
    std::vector<Sample> Take(std::size_t most);
    // The first `count` of those taken need not be kept any longer.
    void Done(std::size_t count);
    // What was taken and is not done is to be taken again.
    void Rewind();
    // Nothing is left to be taken.
    bool Empty() const;

    struct Figures {
        std::uint64_t samples = 0;  // kept, in memory and in the file
        std::uint64_t memory = 0;   // of them in memory alone
        std::uint64_t bytes = 0;    // of the file
        std::uint64_t dropped = 0;  // since the program started
        std::uint64_t writes = 0;   // transactions since then
    };
    Figures Counted() const;
    // What a person should know, once; empty when there is nothing new ("no space left on the device: ...").
    std::string Remark();

private:
    struct Inner;
    std::unique_ptr<Inner> inner_;
};

}  // namespace voq::mqtt
