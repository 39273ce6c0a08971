// What a register is as a metric of Sparkplug 3.0: its data type, and its values as such. Pure; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "upstream/mqtt/catalogue.h"
#include "upstream/mqtt/payload.h"
#include "upstream/mqtt/sample.h"

namespace voq::mqtt
{

// Texts are strings, raw bytes too (in hexadecimal), scaled numbers doubles, all others what they are; several elements
// the array of it.
sparkplug::DataType DataTypeOf(const Metric& metric);

// Null for an empty value. Nothing when it does not fit the type.
std::optional<sparkplug::Carried> CarriedOf(const Metric& metric, const Value& value);

// The elements of what was received for a metric, as a person would type them. Throws Error.
std::vector<std::string> TextsOf(const Metric& metric, const sparkplug::Carried& value);

}  // namespace voq::mqtt
