// The messages about stations and keys. Runs inside the driver's commands.
#include "messages.h"

#include <modbus.h>

#include <algorithm>
#include <cstdio>
#include <span>

#include "clock.h"

namespace
{

constexpr std::uint32_t FirstIntervalS = 10;
constexpr std::uint8_t LastLevel = 6;  // 640 seconds
constexpr unsigned SlowReason = Reasons - 2, WritesReason = Reasons - 1;

constexpr const char* Texts[Outcomes] = {"",
                                         "",
                                         "no answer in time",
                                         "the answer did not end in time",
                                         "answer with a wrong transaction number",
                                         "answer of station",
                                         "answer to another request",
                                         "two answers, the first one late",
                                         "not Modbus, or a wrong checksum",
                                         "connection failed"};

// Whether the line is due, and how often it has been held back. A reason that has not come up for long begins anew.
bool Due(Repeats& repeats, unsigned& held)
{
    const auto now = static_cast<std::uint32_t>(NowMs() / 1000 + 1);
    const std::uint32_t interval = FirstIntervalS << repeats.level, silent = now - repeats.saidAt;
    if (repeats.saidAt != 0 && silent < interval) {
        if (repeats.held < UINT16_MAX) repeats.held++;
        return false;
    }
    held = repeats.held;
    const bool again = repeats.saidAt != 0 && silent < 2 * interval;
    repeats.level = again ? std::min<std::uint8_t>(static_cast<std::uint8_t>(repeats.level + 1), LastLevel) : 0;
    repeats.saidAt = now;
    repeats.held = 0;
    return true;
}

bool SameRange(const RegKey& a, const RegKey& b)
{
    return a.plcno == b.plcno && a.regid == b.regid && a.layout == b.layout && a.addr == b.addr && a.width == b.width;
}

}  // namespace

void ReportFailure(MessageTable& table, const char* name, const Question& question, const Reply& reply)
{
    const bool exception = reply.outcome == Outcome::Refused;
    const unsigned reason = exception ? reply.detail % Exceptions : Exceptions + static_cast<unsigned>(reply.outcome);
    unsigned held;
    if (!Due(table.repeats[question.unit][reason], held)) return;
    char what[96];
    const char* text = Texts[static_cast<unsigned>(reply.outcome)];
    std::snprintf(what, sizeof what, "%s", text);
    if (exception) {
        const int code = MODBUS_ENOBASE + reply.detail;
        const bool known = reply.detail > 0 && reply.detail < MODBUS_EXCEPTION_MAX;
        std::snprintf(what, sizeof what, "exception %u, %s", reply.detail, known ? modbus_strerror(code) : "unknown");
    } else if (reply.outcome == Outcome::WrongStation) {
        std::snprintf(what, sizeof what, "%s %u", text, reply.detail);
    } else if (reply.outcome == Outcome::Broken) {
        std::snprintf(what, sizeof what, "%s, %s", text, modbus_strerror(reply.error));
    }
    std::printf("*MODBUS*%s station %u function %u address %u count %u: %s (%u more since the last message)\r\n", name,
                question.unit, question.function, question.first, question.count, what, held);
}

void ReportSlow(MessageTable& table, const char* name, const Question& question, std::uint64_t afterMs,
                std::uint32_t timeoutMs)
{
    unsigned held;
    if (!Due(table.repeats[question.unit][SlowReason], held)) return;
    std::printf(
        "*MODBUS*%s station %u is slow: function %u address %u count %u answered after %u ms, time-out %u ms (%u more "
        "since the last message)\r\n",
        name, question.unit, question.function, question.first, question.count, static_cast<unsigned>(afterMs),
        timeoutMs, held);
}

void ReportSingleWrites(MessageTable& table, const char* name, std::uint8_t unit, std::uint8_t unknown,
                        std::uint8_t instead)
{
    unsigned held;
    if (!Due(table.repeats[unit][WritesReason], held)) return;
    std::printf(
        "*MODBUS*%s station %u does not know function %u, single writes go with function %u (%u more since the last "
        "message)\r\n",
        name, unit, unknown, instead, held);
}

void ReportKey(MessageTable& table, const char* name, const RegKey& key, const char* why)
{
    const std::span named(table.named, table.namedCount);
    if (std::any_of(named.begin(), named.end(), [&](const RegKey& each) { return SameRange(each, key); })) return;
    if (table.namedCount == MaxNamedKeys) return;
    table.named[table.namedCount++] = key;
    std::printf("*MODBUS*%s cannot serve station %u area %u layout 0x%02x address %u count %u: %s\r\n", name, key.plcno,
                key.regid, key.layout, key.addr, key.width, why);
    if (table.namedCount == MaxNamedKeys)
        std::printf("*MODBUS*%s names no further keys that it cannot serve\r\n", name);
}
