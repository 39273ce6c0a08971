// "voqctl read": ranges from the PLC now, as text, as rows, or under every byte order. Main thread.
#include <algorithm>
#include <cstdio>

#include "client/frame.h"
#include "tools/ask.h"
#include "tools/commands.h"
#include "tools/orders.h"
#include "tools/printable.h"
#include "tools/range_rows.h"
#include "tools/stop.h"
#include "voq/reg_range.h"

namespace
{

void PrintRow(RowWriter& rows, const Selected& range, const Answer& answer, bool orders)
{
    RangeState state{answer.failure ? answer.failure->state : "ok", answer.at, {}, {}};
    if (!answer.failure) {
        state.stamp = answer.at;
        state.value = answer.value;
    }
    Row row = RangeRow(range, state);
    if (orders) AddOrders(row, range, state.value);
    rows.Write(row);
}

void PrintText(const Selected& range, const Answer& answer, const OutputOptions& output, bool named)
{
    if (answer.failure) return;
    if (output.iso) std::printf("%s\t", IsoTime(answer.at).c_str());
    if (named) std::printf("%s\t", Printable(range.name).c_str());
    std::printf("%s\n", ShownText(range, answer.value, output).c_str());
}

std::vector<Answer> ReadAll(const Target& target, const PortOptions& port, const RequestTimes& times,
                            const std::vector<Selected>& ranges)
{
    std::vector<voq::Requests::BuildFrame> reads;
    for (const Selected& range : ranges) {
        reads.emplace_back([&range](std::uint16_t fileno) { return voq::ReadFrame(range.reg.key, fileno); });
    }
    std::vector<Answer> answers = Ask(target, port, {.times = times, .progress = "read: ranges"}, reads);
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        const std::uint32_t length = GetRegBuffLen(&ranges[i].reg.key);
        if (answers[i].failure || answers[i].value.size() == length) continue;
        answers[i].failure = {
            ExitNegative, "error",
            "the answer holds " + std::to_string(answers[i].value.size()) + " bytes of " + std::to_string(length)};
    }
    return answers;
}

}  // namespace

int Read(const PortOptions& port, const ReadOptions& read, const OutputOptions& output)
{
    const Target target = Resolve(port);
    const std::vector<Selected> ranges = Select(target, read.select);
    const auto missing = [&](const Selected& range) { return ByteOrderMissing(target, range.reg); };
    if (read.orders) {
        for (const Selected& range : ranges) RequireOrders(range);
    } else if (std::any_of(ranges.begin(), ranges.end(), missing)) {
        NoteByteOrder();
    }
    CatchSignals();
    const std::vector<Answer> answers = ReadAll(target, port, read.times, ranges);
    RowWriter rows(output.rows);
    int status = ExitOk;
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        if (output.rows != RowForm::None) {
            PrintRow(rows, ranges[i], answers[i], read.orders);
        } else if (read.orders && !answers[i].failure) {
            PrintOrders(ranges[i], answers[i].value);
        } else {
            PrintText(ranges[i], answers[i], output, !NamesOne(read.select));
        }
        if (!answers[i].failure) continue;
        Complain(ranges[i].name + ": " + answers[i].failure->sentence);
        if (status == ExitOk) status = answers[i].failure->status;
    }
    return status;
}
