// Plain topics with JSON: docs/mqtt.md has both.
#pragma once

#include <string>
#include <string_view>

#include "upstream/mqtt/mode.h"

namespace voq::mqtt
{

class Plain : public Mode
{
public:
    // All of them must outlive it.
    Plain(const Settings& settings, const Catalogue& catalogue, const BoxState& box, Outlet& link);

    Message Will() override;
    void Up() override;
    void Down() override { up_ = false; }
    bool Ready() const override { return up_; }
    bool BirthsHoldValues() const override { return false; }
    std::optional<int> Tell(std::span<const Sample> samples, bool historical) override;
    std::optional<int> Probe() override;
    void PortChanged(std::uint32_t port) override;
    void DeviceChanged(std::uint32_t) override {}  // its registers say it
    std::vector<Command> Arrived(const Message& message) override;
    void Answered(const Command& command, bool written, const std::string& text) override;
    void Goodbye() override;

private:
    std::string BoxText(bool online) const;
    void Answer(std::string_view name, const std::string& id, bool written, const std::string& text);

    const Catalogue& catalogue_;
    const BoxState& box_;
    Outlet& link_;
    std::string top_;  // "voq/<box>/"
    bool up_ = false;
};

}  // namespace voq::mqtt
