// Status and statistics of a port, for C. Used by the port's thread.
#include "client/c/handles.h"
#include "client/locked_file.h"
#include "client/port_status.h"
#include "client/stats.h"
#include "voq/rt_item.h"

namespace
{

using voq::OnPort;

std::uint32_t CountOf(const voq::PortStatus& seen, std::uint8_t state)
{
    const auto found = seen.states.find(state);
    return found == seen.states.end() ? 0 : found->second;
}

voq::Statistics Read(const voq_port& port)
{
    auto statistics = voq::ReadStatistics(port.core.Directory().Stats());
    if (!statistics) throw voq::Failure(VOQ_NO_VALUE, port.directory + ": no statistics");
    return std::move(*statistics);
}

voq_calls CallsOf(const StatsCalls& calls)
{
    return {calls.calls,   calls.ok,         calls.timeouts, calls.errors,
            calls.refused, calls.answerTime, calls.lostTime, calls.longest};
}

}  // namespace

int voq_port_status(voq_port* port, voq_status* status, size_t size)
{
    return OnPort(port, [&] {
        const voq::LockPatience patience(port->core.Settings().lockPatience);
        const voq::PortStatus seen = voq::ReadPortStatus(port->core.Directory());
        const auto fifo = port->core.Settings().throughGui ? seen.gui : seen.mek;
        voq_status record = {};
        record.running = fifo == voq::FifoState::Read ? 1 : 0;
        record.timeout = seen.timeout ? 1 : 0;
        record.comerror = seen.comerror ? 1 : 0;
        record.waiting = seen.waiting;
        record.oldest_waiting_us = seen.waiting == 0 ? 0 : seen.oldestWaiting;
        record.records = seen.org ? static_cast<std::uint32_t>(seen.org->records.size()) : 0;
        record.never = CountOf(seen, 0);
        record.good = CountOf(seen, PLC_SUCCESS);
        record.timed_out = CountOf(seen, PLC_TIMEOUT);
        record.failed = record.records - record.never - record.good - record.timed_out;
        record.subscribed = static_cast<std::uint32_t>(port->core.Subscribed());
        record.under_way = static_cast<std::uint32_t>(port->core.UnderWay());
        record.restarts = port->core.Restarts();
        voq::StoreRecord(record, status, size);
        return VOQ_OK;
    });
}

int voq_port_statistics(voq_port* port, voq_statistics* statistics, size_t size)
{
    return OnPort(port, [&] {
        const voq::Statistics seen = Read(*port);
        voq_statistics record = {};
        record.started_us = seen.header.started;
        record.turns = seen.Thread(StatsThreadOf::Main).turns;
        record.reads = CallsOf(seen.driver.reads);
        record.writes = CallsOf(seen.driver.writes);
        record.rounds = seen.loop.round.rounds;
        record.round_us = seen.loop.round.length;
        record.round_reads = seen.loop.round.reads;
        record.round_ranges = seen.loop.round.ranges;
        record.answered = seen.loop.answeredOk;
        record.answered_timeout = seen.loop.answeredTimeout;
        record.answered_error = seen.loop.answeredError;
        for (const StatsIntake& intake : seen.intakes) record.refused += intake.refused + intake.refusedTimeout;
        record.listed = seen.loop.listed;
        record.subscribed = seen.loop.subscribed;
        voq::StoreRecord(record, statistics, size);
        return VOQ_OK;
    });
}

int voq_port_station(voq_port* port, unsigned station, voq_calls* calls, size_t size)
{
    return OnPort(port, [&] {
        voq::Require(station < StatsStations, "a station is 0 to 255");
        const StatsStation seen = Read(*port).stations.at(station);
        const voq_calls record = {seen.calls,   seen.ok,         seen.timeouts, seen.errors,
                                  seen.refused, seen.answerTime, seen.lostTime, seen.longest};
        voq::StoreRecord(record, calls, size);
        return VOQ_OK;
    });
}
