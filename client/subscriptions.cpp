// Logs on and off, and reads records and values. Waits for locks as the thread's LockPatience says, for a FIFO as long
// as the caller does.
#include "client/subscriptions.h"

#include <limits.h>

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

#include "client/fifo.h"
#include "client/frame.h"
#include "voq/index_record.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace voq
{

namespace
{

constexpr int Attempts = 5;  // to see a record the same before and behind its value
constexpr std::size_t FramesAtOnce = PIPE_BUF / FrameMinBytes;

template <typename Record>
bool Same(const Record& a, const Record& b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

auto Place(const RegKey& key)
{
    return std::make_tuple(GroupNumber(key), key.addr, key.width);
}

RegRequest LogOnNote(const Followed& followed, bool gui, std::uint32_t sentTo)
{
    RegRequest note = {};
    note.key = followed.key;
    note.cmd = static_cast<std::uint8_t>(RequestCommand::LogOn);
    note.subcmd = gui ? ClaimThroughGui : 0;
    note.fileno = followed.fileno;
    note.orgoffset = sentTo;
    return note;
}

void Append(Bytes& frames, const Bytes& frame)
{
    frames.insert(frames.end(), frame.begin(), frame.end());
}

}  // namespace

Subscriptions::Subscriptions(const PortDir& port, FileNumbers& numbers, bool throughGui, Changed changed)
    : port_(port),
      numbers_(numbers),
      gui_(throughGui),
      fifo_(throughGui ? port.GuiFifo() : port.MekFifo()),
      changed_(std::move(changed))
{
}

void Subscriptions::Add(Range& range)
{
    if (range.followed != nullptr) return;
    for (const auto& each : followed_) {
        if (!SameRange(each->key, range.key)) continue;
        each->ranges.push_back(&range);
        range.followed = each.get();
        return;
    }
    auto followed = std::make_unique<Followed>();
    followed->key = range.key;
    followed->ranges.push_back(&range);
    followed_.reserve(followed_.size() + 1);
    followed->fileno = numbers_.Next();
    range.followed = followed.get();
    followed_.push_back(std::move(followed));
    toLogOn_ = true;
}

void Subscriptions::Remove(Range& range)
{
    Followed* const followed = std::exchange(range.followed, nullptr);
    if (followed == nullptr) return;
    std::erase(followed->ranges, &range);
    if (!followed->ranges.empty()) return;
    if (followed->loggedOn) {
        logOffs_.push_back({followed->key, followed->fileno, followed->loggedOnBy, followed->loggedOnTo});
    } else {
        numbers_.GiveBack(followed->fileno);
    }
    std::erase_if(followed_, [&](const auto& each) { return each.get() == followed; });
}

void Subscriptions::EndAll(std::chrono::milliseconds patience)
{
    while (!followed_.empty()) Remove(*followed_.back()->ranges.back());
    toLogOn_ = false;
    try {
        SendLogOffs(patience);
    } catch (const ServiceNotRunning&) {
        ServiceGone();
    }
}

void Subscriptions::ServiceGone()
{
    for (const LogOff& logOff : logOffs_) numbers_.GiveBack(logOff.fileno);
    logOffs_.clear();
    toLogOn_ = !followed_.empty();
    for (const auto& each : followed_) {
        each->loggedOn = false;
        if (std::exchange(each->live, false)) changed_(*each);
    }
}

void Subscriptions::Send(std::chrono::milliseconds patience)
{
    SendLogOffs(patience);
    if (!toLogOn_) return;
    PrepareLogOns();
    SendLogOns(patience);
    toLogOn_ = false;
}

void Subscriptions::SendLogOffs(std::chrono::milliseconds patience)
{
    if (logOffs_.empty()) return;
    const KeptNumbers kept(port_);
    while (!logOffs_.empty()) {
        const std::size_t count = std::min(logOffs_.size(), FramesAtOnce);
        Bytes frames;
        for (std::size_t i = 0; i < count; ++i) {
            const LogOff& each = logOffs_[i];
            const auto by = kept.LogOffBy(each.key, each.fileno, each.loggedOnTo);
            if (by) Append(frames, LogOffFrame(each.key, *by, each.loggedOnBy));
        }
        if (!frames.empty()) SendFrame(fifo_, frames, Writers::Several, patience);
        for (std::size_t i = 0; i < count; ++i) numbers_.GiveBack(logOffs_[i].fileno);
        logOffs_.erase(logOffs_.begin(), logOffs_.begin() + static_cast<std::ptrdiff_t>(count));
    }
}

// Finds the records, so that the service need not, and remembers what they say before the log-on.
void Subscriptions::PrepareLogOns()
{
    due_.clear();
    for (const auto& each : followed_) {
        if (!each->loggedOn && each->offset != 0) due_.push_back(each.get());
    }
    ReadRecords(due_, nodes_);
    for (std::size_t i = 0; i < due_.size(); ++i) {
        if (!SameRange(nodes_[i].key, due_[i]->key)) Forget(*due_[i]);
        due_[i]->before = nodes_[i].stamp;
    }
    compared_ = 0;
    LookUp();
}

void Subscriptions::SendLogOns(std::chrono::milliseconds patience)
{
    const KeptNumbers kept(port_);
    Some batch;
    Bytes frames;
    const auto send = [&] {
        SendFrame(fifo_, frames, Writers::Several, patience);
        for (Followed* each : batch) {
            each->loggedOn = true;
            each->loggedOnTo = kept.Service();
            numbers_.Note(each->fileno, LogOnNote(*each, gui_, each->loggedOnTo));
        }
        batch.clear();
        frames.clear();
    };
    for (const auto& each : followed_) {
        if (each->loggedOn) continue;
        each->loggedOnBy = each->offset;
        if (each->offset == 0) each->before = {};
        TakeFreeNumber(*each, kept);
        numbers_.Note(each->fileno, LogOnNote(*each, gui_, 0));
        Append(frames, LogOnFrame(each->key, each->fileno, each->offset));
        batch.push_back(each.get());
        if (batch.size() == FramesAtOnce) send();
    }
    if (!batch.empty()) send();
}

// A number that its client has given back is not free as long as the service keeps a range under it for other clients.
void Subscriptions::TakeFreeNumber(Followed& followed, const KeptNumbers& kept)
{
    for (std::uint32_t tries = 0; kept.UsesForOther(followed.fileno, followed.key); ++tries) {
        if (tries == StatsRanges) throw NoNumber("the service keeps a subscription under every request number");
        const std::uint16_t next = numbers_.Next();
        numbers_.GiveBack(followed.fileno);
        followed.fileno = next;
    }
}

// Compares the records that were not compared yet with everything that is not found. Records are only ever added behind
// the others.
void Subscriptions::LookUp()
{
    due_.clear();
    for (const auto& each : followed_) {
        if (each->offset == 0) due_.push_back(each.get());
    }
    if (due_.empty()) return;
    const std::uint64_t size = FileSize(port_.Org()).value_or(0);
    if (size < compared_ || compared_ == 0) compared_ = OrgFirstRecord;
    if (size > MaxFileBytes) throw Damaged(port_.Org() + ": larger than any");
    const std::uint64_t records = OrgRecordsIn(size) - OrgRecordsIn(compared_);
    if (size < compared_ || records == 0) return;
    const auto bytes = ReadLockedRange(port_.Org(), compared_, records * sizeof(OrgNode));
    if (!bytes) return;
    std::sort(due_.begin(), due_.end(),
              [](const Followed* a, const Followed* b) { return Place(a->key) < Place(b->key); });
    for (std::uint64_t at = 0; const auto node = RecordAt<OrgNode>(*bytes, at); at += sizeof(OrgNode)) {
        const auto place = Place(node->key);
        const auto found = std::lower_bound(due_.begin(), due_.end(), place,
                                            [](const Followed* a, const auto& b) { return Place(a->key) < b; });
        if (found == due_.end() || Place((*found)->key) != place || (*found)->offset != 0) continue;
        (*found)->offset = static_cast<std::uint32_t>(compared_ + at);
        if (!(*found)->loggedOn) (*found)->before = node->stamp;
    }
    compared_ += bytes->size() / sizeof(OrgNode) * sizeof(OrgNode);
}

void Subscriptions::ReadRecords(const Some& which, std::vector<OrgNode>& nodes)
{
    records_.Clear();
    for (const Followed* each : which) records_.Add(each->offset, sizeof(OrgNode));
    records_.Read(port_.Org());
    nodes.resize(which.size());
    // A record that is not there is all zeros, and that of no range: a range has elements.
    for (std::size_t i = 0; i < which.size(); ++i) nodes[i] = RecordAt<OrgNode>(records_[i], 0).value_or(OrgNode{});
}

void Subscriptions::ReadValues(const Some& which, const std::vector<OrgNode>& nodes)
{
    values_.Clear();
    for (std::size_t i = 0; i < which.size(); ++i) {
        values_.Add(nodes[i].dataoffset, nodes[i].state == PLC_SUCCESS ? GetRegBuffLen(&which[i]->key) : 0);
    }
    values_.Read(port_.Data());
}

void Subscriptions::Refresh()
{
    LookUp();
    due_.clear();
    for (const auto& each : followed_) {
        if (each->offset != 0) due_.push_back(each.get());
    }
    ReadRecords(due_, nodes_);
    std::size_t kept = 0;
    for (std::size_t i = 0; i < due_.size(); ++i) {
        if (Same(nodes_[i], due_[i]->node)) continue;
        due_[kept] = due_[i];
        nodes_[kept++] = nodes_[i];
    }
    // The record and the value lie in two files and the service may refresh both in between. A record that still reads
    // the same behind the value belongs to it; one that is refreshed faster than that is taken as it is at the end.
    for (int attempt = 1; kept != 0; ++attempt) {
        due_.resize(kept);
        nodes_.resize(kept);
        ReadValues(due_, nodes_);
        ReadRecords(due_, nodesAgain_);
        kept = 0;
        for (std::size_t i = 0; i < due_.size(); ++i) {
            if (attempt == Attempts || Same(nodes_[i], nodesAgain_[i])) {
                Accept(*due_[i], nodesAgain_[i], values_[i]);
            } else {
                due_[kept] = due_[i];
                nodes_[kept++] = nodesAgain_[i];
            }
        }
    }
}

void Subscriptions::Accept(Followed& followed, const OrgNode& node, std::span<const std::uint8_t> value)
{
    if (!SameRange(node.key, followed.key)) return Forget(followed);
    followed.node = node;
    followed.stamp = node.stamp;
    const bool good = node.state == PLC_SUCCESS && value.size() == GetRegBuffLen(&followed.key);
    const bool live = good && followed.loggedOn && !Same(node.stamp, followed.before);
    bool changed = live != followed.live || node.state != followed.state;
    followed.live = live;
    followed.state = node.state;
    if (good) followed.valueStamp = node.stamp;
    if (good && !std::equal(value.begin(), value.end(), followed.value.begin(), followed.value.end())) {
        followed.value.assign(value.begin(), value.end());
        changed = true;
    }
    if (changed) changed_(followed);
}

// The record is gone: the database was built anew, or is not what it seems.
void Subscriptions::Forget(Followed& followed)
{
    followed.offset = 0;
    followed.node = {};
    compared_ = 0;
    const bool changed = std::exchange(followed.state, StateUnknown) != StateUnknown || followed.live;
    followed.live = false;
    if (changed) changed_(followed);
}

}  // namespace voq
