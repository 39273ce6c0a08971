// What is shown of a range: its value as text, and the fields that every row about a range has.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "tools/rows.h"
#include "tools/selection.h"

using ImageBytes = std::span<const std::uint8_t>;

// The elements, scaled and with the unit behind them; as they lie when the options say so. At most `limit` elements.
std::string ShownText(const Selected& range, ImageBytes value, const OutputOptions& output,
                      std::size_t limit = static_cast<std::size_t>(-1));

// The elements as a cell: one alone, several as a list. `raw`: as they lie.
Cell ShownCell(const Selected& range, ImageBytes value, bool raw);

// The first element for a curve, not finite when it is no number.
double NumberOf(const Selected& range, ImageBytes value, bool raw);

struct RangeState {
    std::string state;                  // as StateName has it, or another word
    std::int64_t lookedAt = 0;          // microseconds
    std::optional<std::int64_t> stamp;  // of the last PLC access, microseconds
    std::optional<ImageBytes> value;    // when there is one
};

// time, name, port, station, expression, state, age_s, value, unit, raw.
Row RangeRow(const Selected& range, const RangeState& state);
