// All ports of a description and their ranges, as the browsers and the monitoring are told of them. The sampling thread
// looks, the server's thread asks: one mutex, never held while a file is read.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "client/explain.h"
#include "web/feed.h"
#include "web/port_view.h"

namespace voq::web
{

class Model
{
public:
    // A range more costs memory for good: so many of all ports are shown, the first ones of each.
    static constexpr std::size_t MaxRanges = 4096;
    // Curves are kept for so many, 2.4 KiB each.
    static constexpr std::size_t MaxHistories = 1024;
    // Elements of a range that are shown.
    static constexpr std::size_t ShownElements = 32;

    Model(Description description, const std::string& userDirectory);

    // Reads all ports and tells the readers what has changed. Sampling thread.
    void Look(Feed& feed);

    // JSON, see docs/web.md.
    std::string Ranges() const;
    std::string Ports() const;
    std::string Hello() const;
    // Empty for a number that is no range's.
    std::string HistoryOf(std::uint32_t id) const;
    std::string ExplanationOf(std::uint32_t id) const;

    // What a write of a range needs.
    struct Writing {
        PortDir dir;
        Register reg;
        Meaning meaning;
        ValueCoding coding;
        bool orderKnown = false;
        std::string name;
    };
    std::optional<Writing> WritingOf(std::uint32_t id) const;

    // Calls `use` with the ports while they stand still.
    template <typename Use>
    auto With(Use use) const
    {
        const std::lock_guard lock(mutex_);
        return use(ports_);
    }

private:
    void Take(PortView& port, PortLook look, std::int64_t now);
    void TakeRecords(PortView& port, const std::vector<OrgRecord>& records);
    void TakeValue(RangeView& range, const Bytes& value);
    void TakeStatistics(PortView& port);
    std::unique_ptr<RangeView> NewRange(const PortView& port, const OrgRecord& record);
    void NoteHistories(std::int64_t second);
    std::string Changes(std::int64_t now);
    std::string PortsJson() const;
    const RangeView* Find(std::uint32_t id) const;

    const Description description_;
    mutable std::mutex mutex_;
    std::vector<PortView> ports_;
    std::map<std::uint32_t, RangeView*> byId_;
    Gather gather_;
    std::uint32_t nextId_ = 1;
    std::size_t histories_ = 0;
    std::uint64_t sequence_ = 0;  // of the last message
    std::uint64_t generation_ =
        0;  // changes with the list of ranges; begins with the time, so that no two runs share one
    std::uint64_t toldGeneration_ = 0;
    std::int64_t second_ = 0;
    std::string toldPorts_;
};

}  // namespace voq::web
