// An edge node of Sparkplug 3.0: docs/sparkplug.md has its statements and how they are kept. The box is the edge node,
// a station a device, a register a metric.
#pragma once

#include <array>
#include <chrono>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "upstream/mqtt/mode.h"
#include "upstream/mqtt/payload.h"

namespace voq::mqtt
{

class Sparkplug : public Mode
{
public:
    // All of them must outlive it.
    Sparkplug(const Settings& settings, const Catalogue& catalogue, const BoxState& box, Outlet& outlet);

    Message Will() override;
    void Up() override;
    void Down() override;
    bool Ready() const override { return born_ && !rebirth_; }
    std::optional<int> Tell(std::span<const Sample> samples, bool historical) override;
    std::optional<int> Probe() override;
    void PortChanged(std::uint32_t port) override;
    void DeviceChanged(std::uint32_t device) override;
    std::vector<Command> Arrived(const Message& message) override;
    void Answered(const Command& command, bool written, const std::string& text) override;
    void EachSecond() override;
    void Goodbye() override;
    std::string HeldUp() const override;

    std::string Remark() override { return std::exchange(remark_, {}); }
    std::uint64_t Unfit() const override { return unfit_; }

private:
    std::string Topic(const char* type) const;
    std::string Topic(const char* type, std::uint32_t device) const;
    bool Send(const std::string& topic, sparkplug::Payload payload);

    sparkplug::Metric BdSeq() const;
    sparkplug::Metric PortMetric(std::uint32_t port) const;
    enum class As : std::uint8_t { Live, History, Birth };
    sparkplug::Metric MetricOf(const Sample& sample, As as);
    bool Alive(std::uint32_t device) const;
    void Birth();
    bool BirthOf(std::uint32_t device);
    bool DeathOf(std::uint32_t device);
    bool TellDevice(std::uint32_t device, std::span<const Sample> samples, bool historical);

    void HearHost(const std::string& payload);
    bool Repeated(const Message& message);
    std::optional<Command> CommandOf(std::uint32_t device, const sparkplug::Metric& metric) const;

    const Settings& settings_;
    const Catalogue& catalogue_;
    const BoxState& box_;
    Outlet& outlet_;

    std::uint8_t nextBdSeq_ = 0, bdSeq_ = 0;  // wrap, as the sequence does
    std::uint8_t seq_ = 0;
    bool connected_ = false, born_ = false;
    bool rebirth_ = false;      // is asked for
    std::uint64_t bornAt_ = 0;  // ms since 1970
    std::vector<bool> devicesBorn_;
    struct ToldQuality {
        int live, history;
    };
    std::vector<ToldQuality> toldQuality_;  // by metric
    bool hostOnline_ = false;
    std::int64_t hostTime_ = 0;  // of the host's last word, ms since 1970
    std::uint64_t unfit_ = 0;
    std::string remark_;

    struct Heard {
        std::size_t hash = 0;
        std::chrono::steady_clock::time_point at;
    };
    std::array<Heard, 64> heard_ = {};  // commands, the latest ones, in a ring
    std::size_t nextHeard_ = 0;
};

}  // namespace voq::mqtt
