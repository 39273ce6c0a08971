// Driver reads of one full refresh of 2,000 ranges, against the least that the port's limit and gap allow.
#include "layout.h"
#include "list/log_on_off.h"
#include "oper/fast_pass.h"
#include "oper/priority.h"
#include "report.h"

namespace
{
std::size_t CallsOfOneRefresh(const std::vector<Range>& ranges)
{
    Scratch::ResetDatabase();
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        CheckOrgList(&ranges[i].key);
        AddFastIndex(ranges[i].key, static_cast<std::uint16_t>(i), static_cast<std::uint32_t>(12 + 56 * i));
    }
    FakeDriver::Use();
    CurrentFastList = 0;
    do {
        OperFastList();
    } while (CurrentFastList != FastHead().head);
    return FakeDriver::Calls.size() - 1;  // the first is "Init"
}
}  // namespace

int main()
{
    const Report report;
    const Scratch scratch;
    InitPriRange();
    Random random(1);
    const struct {
        const char* name;
        Shape shape;
        Limits limits;
    } layouts[] = {
        {"sorted", {2000, false, false, true}, {120, 4, 256, 16}},
        {"gapped", {2000, true, false, true}, {120, 4, 256, 16}},
        {"mixed", {2000, true, true, true}, {120, 4, 256, 16}},
    };
    for (const auto& layout : layouts) {
        ComInfo.wordLimit = static_cast<std::uint16_t>(layout.limits.words);
        ComInfo.wordGap = static_cast<std::uint8_t>(layout.limits.wordGap);
        ComInfo.bitLimit = static_cast<std::uint16_t>(layout.limits.bits);
        ComInfo.bitGap = static_cast<std::uint8_t>(layout.limits.bitGap);
        const std::vector<Range> ranges = Layout(random, layout.shape, 8, 4);
        std::vector<Range> inOrder;
        for (const Range& range : ranges) Place(inOrder, range);
        const std::size_t calls = CallsOfOneRefresh(ranges), minimum = LeastCalls(inOrder, layout.limits);
        report.Figure(layout.name, static_cast<long>(ranges.size()), "", {static_cast<double>(calls)},
                      {static_cast<double>(minimum)});
    }
}
