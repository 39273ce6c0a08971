// What a bridge upstream says of itself: a text file in the user data directory, a line "<name> <value>" each, replaced
// as a whole once a second. docs/mqtt.md lists the names.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace voq
{

using BridgeState = std::map<std::string, std::string>;

inline constexpr const char* MqttStateFile = "mqtt.state";

// Throws Error when it cannot be written.
void WriteBridgeState(const std::string& file, const std::vector<std::pair<std::string, std::string>>& lines);
// Empty when there is none, or none that can be read.
BridgeState ReadBridgeState(const std::string& file);

}  // namespace voq
