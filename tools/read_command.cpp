// "voqctl read": ranges from the PLC now, as text, as rows, or under every byte order. Main thread.
#include <algorithm>
#include <cstdio>

#include "tools/commands.h"
#include "tools/orders.h"
#include "tools/printable.h"
#include "tools/range_rows.h"
#include "tools/read_batch.h"
#include "tools/stop.h"

namespace
{

void PrintRow(RowWriter& rows, const Selected& range, const ReadAnswer& answer, bool orders)
{
    RangeState state{answer.failure ? answer.failure->state : "ok", answer.at, {}, {}};
    if (answer.value) {
        state.stamp = answer.at;
        state.value = *answer.value;
    }
    Row row = RangeRow(range, state);
    if (orders) AddOrders(row, range, state.value);
    rows.Write(row);
}

void PrintText(const Selected& range, const ReadAnswer& answer, const OutputOptions& output, bool named)
{
    if (!answer.value) return;
    if (output.iso) std::printf("%s\t", IsoTime(answer.at).c_str());
    if (named) std::printf("%s\t", Printable(range.name).c_str());
    std::printf("%s\n", ShownText(range, *answer.value, output).c_str());
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
    const std::vector<ReadAnswer> answers = ReadTogether(target, port.numbers, read.times, ranges);
    RowWriter rows(output.rows);
    int status = ExitOk;
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        if (output.rows != RowForm::None) {
            PrintRow(rows, ranges[i], answers[i], read.orders);
        } else if (read.orders && answers[i].value) {
            PrintOrders(ranges[i], *answers[i].value);
        } else {
            PrintText(ranges[i], answers[i], output, !NamesOne(read.select));
        }
        if (!answers[i].failure) continue;
        Complain(ranges[i].name + ": " + answers[i].failure->sentence);
        if (status == ExitOk) status = answers[i].failure->status;
    }
    return status;
}
