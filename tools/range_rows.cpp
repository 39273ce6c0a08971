// Shows values. Pure.
#include "tools/range_rows.h"

#include <algorithm>
#include <cmath>

#include "client/value_text.h"
#include "tools/printable.h"

namespace
{

const voq::Meaning& MeaningOf(const Selected& range, bool raw)
{
    static const voq::Meaning plain;
    return raw ? plain : range.meaning;
}

// JSON has no number that is not finite.
Cell ElementCell(const voq::ShownElement& element, voq::ValueKind kind)
{
    if (element.isNumber) return {Cell::Kind::Literal, element.text};
    return voq::IsFloating(kind) && !element.number ? Cell{} : Cell::Text(element.text);
}

}  // namespace

std::string ShownText(const Selected& range, ImageBytes value, const OutputOptions& output, std::size_t limit)
{
    const voq::Meaning& meaning = MeaningOf(range, output.raw);
    const std::string unit = meaning.unit.empty() ? "" : " " + meaning.unit;
    return Printable(voq::ScaledText(meaning, range.coding, value, limit) + unit);
}

Cell ShownCell(const Selected& range, ImageBytes value, bool raw)
{
    std::vector<Cell> elements;
    for (const voq::ShownElement& element : voq::ShowElements(MeaningOf(range, raw), range.coding, value)) {
        elements.push_back(ElementCell(element, range.coding.type.kind));
    }
    return elements.size() == 1 ? elements[0] : Cell::List(std::move(elements));
}

double NumberOf(const Selected& range, ImageBytes value, bool raw)
{
    const auto first = value.first(std::min(value.size(), range.coding.ElemBytes()));
    const auto elements = voq::ShowElements(MeaningOf(range, raw), range.coding, first);
    return elements.empty() ? NAN : elements[0].number.value_or(NAN);
}

Row RangeRow(const Selected& range, const RangeState& state)
{
    Row row;
    row.emplace_back("time", Cell::Text(IsoTime(state.lookedAt)));
    row.emplace_back("name", Cell::Text(range.name));
    row.emplace_back("port", Cell::Number(range.reg.key.portno));
    row.emplace_back("station", Cell::Number(range.reg.key.plcno));
    row.emplace_back("expression", Cell::Text(voq::Expression(range.reg)));
    row.emplace_back("state", Cell::Text(state.state));
    const bool aged = state.stamp.has_value();
    row.emplace_back("age_s", aged ? Cell::Seconds(std::max<std::int64_t>(0, state.lookedAt - *state.stamp)) : Cell{});
    row.emplace_back("value", state.value ? ShownCell(range, *state.value, false) : Cell{});
    row.emplace_back("unit", range.meaning.unit.empty() ? Cell{} : Cell::Text(range.meaning.unit));
    row.emplace_back("raw", state.value ? ShownCell(range, *state.value, true) : Cell{});
    return row;
}
