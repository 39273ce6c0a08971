// Plans what is told.
#include "upstream/mqtt/pacer.h"

#include <cmath>

namespace voq::mqtt
{

namespace
{

std::optional<double> NumberOf(const Element& element)
{
    if (const auto* whole = std::get_if<std::int64_t>(&element)) return static_cast<double>(*whole);
    if (const auto* real = std::get_if<double>(&element)) return *real;
    return std::nullopt;
}

}  // namespace

bool Beyond(double deadband, const Value& value, const Value& told)
{
    if (value.size() != told.size()) return true;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (value[i] == told[i]) continue;
        const auto number = NumberOf(value[i]), before = NumberOf(told[i]);
        if (!number || !before || std::abs(*number - *before) > deadband) return true;
    }
    return false;
}

Pacer::Pacer(const Catalogue& catalogue) : catalogue_(catalogue), entries_(catalogue.metrics.size()) {}

void Pacer::Plan(std::uint32_t metric, std::optional<Clock::time_point> due)
{
    Entry& entry = entries_[metric];
    if (entry.due) due_.erase({*entry.due, metric});
    if (due) due_.emplace(*due, metric);
    entry.due = due;
}

void Pacer::Changed(const Sample& sample, Clock::time_point now)
{
    Entry& entry = entries_[sample.metric];
    const TellRule& rule = catalogue_.metrics[sample.metric].rule;
    const bool changed = !entry.ever || sample.state != entry.state || Beyond(rule.deadband, sample.value, entry.value);
    if (changed == entry.changed) return;
    entry.changed = changed;
    if (changed) {
        Plan(sample.metric, entry.ever ? std::max(now, entry.told + rule.least) : now);
    } else {
        Plan(sample.metric, rule.most.count() == 0 ? std::nullopt : std::optional(entry.told + rule.most));
    }
}

void Pacer::All(Clock::time_point now)
{
    for (std::uint32_t i = 0; i < entries_.size(); ++i) {
        if (!entries_[i].changed) Plan(i, now);
    }
}

void Pacer::Told(const Sample& sample, Clock::time_point now)
{
    Entry& entry = entries_[sample.metric];
    const TellRule& rule = catalogue_.metrics[sample.metric].rule;
    entry.state = sample.state;
    entry.value = sample.value;
    entry.told = now;
    entry.ever = true;
    entry.changed = false;
    Plan(sample.metric, rule.most.count() == 0 ? std::nullopt : std::optional(now + rule.most));
}

std::vector<Pacer::Due> Pacer::DueAt(Clock::time_point now, std::size_t most) const
{
    std::vector<Due> due;
    for (const auto& [when, metric] : due_) {
        if (when > now || due.size() == most) break;
        due.push_back({metric, entries_[metric].changed ? Why::Change : Why::Refresh});
    }
    return due;
}

std::optional<Pacer::Clock::time_point> Pacer::Next() const
{
    return due_.empty() ? std::nullopt : std::optional(due_.begin()->first);
}

}  // namespace voq::mqtt
