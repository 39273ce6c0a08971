// Shows the same bytes under the orders of value/shuffle.h. Pure but for the printing.
#include "tools/orders.h"

#include <algorithm>
#include <cstdio>

#include "client/description/port_fields.h"
#include "client/value_text.h"
#include "tools/printable.h"
#include "value/shuffle.h"

namespace
{

constexpr int Orders = ORDER_REVERSE_BYTES + 1;
constexpr std::string_view FieldNames[Orders] = {"order_0", "order_1", "order_2", "order_3"};

bool IsText(const Selected& range)
{
    return range.meaning.text != 0;
}

Selected Under(Selected range, int order)
{
    range.coding.order = order;
    range.meaning.textSwapped = order % 2 == ORDER_SWAP_BYTES;
    return range;
}

// Two bytes make one word, and of a text only those of each word change places: the orders of words are those of bytes
// again.
int OrdersOf(const Selected& range)
{
    return IsText(range) || range.coding.ElemBytes() == 2 ? ORDER_SWAP_BYTES + 1 : Orders;
}

bool SameOrder(const Selected& a, const Selected& b)
{
    if (IsText(a)) return a.meaning.textSwapped == b.meaning.textSwapped;
    return voq::BytePlaces(a.coding) == voq::BytePlaces(b.coding);
}

// The name by which a description asks for the order, and a star at the one that the range is shown in without the
// option.
std::string Name(const Selected& range, int order)
{
    const bool oneWord = OrdersOf(range) != Orders;
    const std::string name = oneWord && order == ORDER_SWAP_BYTES ? "high-byte-first" : voq::ByteOrderNames[order];
    return name + (SameOrder(Under(range, order), range) ? " *" : "");
}

// "1 0 3 2": which byte of the value, 0 the lowest, lies where; of a text, the first two.
std::string Places(const Selected& range, int order)
{
    if (IsText(range)) return order == ORDER_KEEP ? "0 1" : "1 0";
    const auto places = voq::BytePlaces(Under(range, order).coding);
    std::string text;
    for (std::size_t i = 0; i < range.coding.ElemBytes(); ++i) text += (i == 0 ? "" : " ") + std::to_string(places[i]);
    return text;
}

std::vector<std::string> Line(const Selected& range, ImageBytes element)
{
    std::vector<std::string> line = {voq::Hex(element)};
    for (int order = 0; order < OrdersOf(range); ++order) {
        line.push_back(ShownText(Under(range, order), element, {}));
    }
    return line;
}

}  // namespace

void RequireOrders(const Selected& range)
{
    const voq::ValueKind kind = range.coding.type.kind;
    if (IsText(range)) return;
    if (kind != voq::ValueKind::Bit && kind != voq::ValueKind::Raw && range.coding.ElemBytes() > 1) return;
    throw UsageError(range.name + ": --orders: a " + voq::TypeName(range.reg.type) + " has no byte order");
}

void PrintOrders(const Selected& range, ImageBytes value)
{
    std::vector<std::vector<std::string>> lines = {{""}, {"bytes"}};
    for (int order = 0; order < OrdersOf(range); ++order) {
        lines[0].push_back(Name(range, order));
        lines[1].push_back(Places(range, order));
    }
    const std::size_t size = IsText(range) ? value.size() : range.coding.ElemBytes();
    for (std::size_t at = 0; at + size <= value.size(); at += size) {
        lines.push_back(Line(range, value.subspan(at, size)));
    }
    std::vector<std::size_t> widths(lines[0].size());
    for (const auto& line : lines) {
        for (std::size_t i = 0; i < line.size(); ++i) widths[i] = std::max(widths[i], line[i].size());
    }
    std::printf("%s\n", Printable(range.name).c_str());
    for (const auto& line : lines) {
        for (std::size_t i = 0; i < line.size(); ++i) {
            const int width = i + 1 < line.size() ? static_cast<int>(widths[i]) : 0;
            std::printf("  %-*s", width, line[i].c_str());
        }
        std::printf("\n");
    }
}

void AddOrders(Row& row, const Selected& range, const std::optional<ImageBytes>& value)
{
    for (int order = 0; order < Orders; ++order) {
        row.emplace_back(FieldNames[order], value ? ShownCell(Under(range, order), *value, false) : Cell{});
    }
}
