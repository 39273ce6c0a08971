// The JSON of ranges, ports and explanations: docs/web.md has the fields. Pure.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "client/explain.h"
#include "client/json.h"
#include "web/port_view.h"

namespace voq::web
{

void AppendRange(JsonWriter& json, const PortView& port, const RangeView& range, std::int64_t now);
// What is new of a range since it was told last, and notes it as told; false when nothing is. A stamp alone is told at
// most once a second.
bool AppendChange(JsonWriter& json, RangeView& range, std::int64_t now);
void AppendPort(JsonWriter& json, const PortView& port, const Description& description);
void AppendFloat(JsonWriter& json, float value);

using RangeNames = std::vector<std::pair<RegKey, std::string>>;
std::string ExplanationJson(const PortExplained& port, const RegKey& key, const RangeNames& names);

StationState StateOf(const PortView& port, std::uint8_t station);
const char* StationWord(StationState state);

}  // namespace voq::web
