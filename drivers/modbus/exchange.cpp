// One request and its answer.
#include "exchange.h"

#include <errno.h>
#include <poll.h>

#include <algorithm>
#include <iterator>

#include "clock.h"
#include "mapping.h"

namespace
{

constexpr std::uint64_t RestMs = 100;  // for the rest of a late answer whose beginning is there

bool BytesCome(const Connection& connection, std::uint64_t waitMs)
{
    pollfd socket = {modbus_get_socket(connection.context), POLLIN, 0};
    return poll(&socket, 1, static_cast<int>(waitMs)) > 0;
}

void KeepUnanswered(Connection& connection, const Question& question, std::uint64_t askedMs)
{
    connection.unanswered[connection.nextUnanswered++ % MaxUnanswered] = {question, connection.number, askedMs};
}

// The last request to the station with that number that may still be answered, and so, when a PDU is there; null when
// there is none.
Unanswered* FindUnanswered(Connection& connection, const Answer& answer)
{
    const std::uint64_t now = NowMs();
    for (unsigned i = 1; i <= MaxUnanswered; i++) {
        Unanswered& each = connection.unanswered[(connection.nextUnanswered - i) % MaxUnanswered];
        const bool fits = each.askedMs != 0 && now - each.askedMs < LateForMs && each.number == answer.number &&
                          each.question.unit == answer.unit;
        if (!fits) continue;
        if (answer.pdu == nullptr || JudgePdu(each.question, answer.pdu, answer.length) != Content::Other) return &each;
    }
    return nullptr;
}

void NameLate(Connection& connection, const ComInfoRecord& info, const Unanswered& late, std::uint64_t comeMs)
{
    const std::uint64_t took = comeMs - late.askedMs;
    if (took > RequestTimeoutMs(info))
        ReportSlow(connection.messages, connection.reporter.name, late.question, took, RequestTimeoutMs(info));
}

// A probe waits for less than the time-out: what comes within that shows a station that is there again.
bool TakeLate(Connection& connection, const ComInfoRecord& info, const Answer& answer)
{
    Unanswered* const late = FindUnanswered(connection, answer);
    if (late == nullptr) return false;
    const std::uint64_t now = NowMs();
    if (now - late->askedMs <= RequestTimeoutMs(info)) NoteAnswer(connection.stations, answer.unit, late->askedMs, now);
    NameLate(connection, info, *late, now);
    late->askedMs = 0;
    connection.timeouts = 0;
    return true;
}

Reply FromError(int error)
{
    if (error == ETIMEDOUT) return {Outcome::CutOff, 0, 0};
    if (error >= EMBXILFUN) return {Outcome::NotModbus, 0, 0};  // libmodbus's own: checksum, too long
    return {Outcome::Broken, 0, error};
}

// Waits for a frame until `endMs`. What it gives is Done when there is a frame at all, whosoever's.
Reply Receive(Connection& connection, std::uint64_t endMs, std::uint8_t* frame, Answer& answer)
{
    const std::uint64_t now = NowMs();
    if (!BytesCome(connection, now < endMs ? endMs - now : 0)) return {Outcome::NoAnswer, 0, 0};
    const std::uint64_t come = NowMs();
    SetTimeLimit(connection, come < endMs ? endMs - come : 1);
    const int got = modbus_receive_confirmation(connection.context, frame);
    if (got < 0) return FromError(errno);
    return {TakeApart(frame, got, answer) ? Outcome::Done : Outcome::NotModbus, 0, 0};
}

Reply Await(Connection& connection, const ComInfoRecord& info, const Question& question, std::uint8_t* data,
            std::uint64_t endMs)
{
    for (unsigned frames = 0; frames <= MaxUnanswered; frames++) {
        std::uint8_t frame[MODBUS_TCP_MAX_ADU_LENGTH] = {};
        Answer answer = {};
        if (const Reply reply = Receive(connection, endMs, frame, answer); reply.outcome != Outcome::Done) return reply;
        const bool ours = answer.number == connection.number && answer.unit == question.unit;
        const Content content = ours ? JudgePdu(question, answer.pdu, answer.length) : Content::Other;
        if (content == Content::Exception) return {Outcome::Refused, answer.pdu[1], 0};
        if (content == Content::Answer) {
            TakeValues(question, answer.pdu, data);
            return {Outcome::Done, 0, 0};
        }
        if (TakeLate(connection, info, answer)) continue;
        if (ours) return {Outcome::OtherAnswer, 0, 0};
        if (answer.number != connection.number) return {Outcome::WrongNumber, 0, 0};
        return {Outcome::WrongStation, answer.unit, 0};
    }
    return {Outcome::WrongNumber, 0, 0};
}

}  // namespace

Reply Ask(Connection& connection, const ComInfoRecord& info, const Question& question, std::uint8_t* data,
          std::uint32_t limitMs)
{
    std::uint8_t pdu[MaxPdu];
    const std::size_t length = BuildPdu(question, data, pdu);
    const std::uint64_t asked = NowMs();
    Reply reply = {Outcome::Broken, 0, 0};
    if (SendPdu(connection, question.unit, pdu, length))
        reply = Await(connection, info, question, data, asked + limitMs);
    else
        reply.error = errno;

    const bool answered = reply.outcome == Outcome::Done || reply.outcome == Outcome::Refused;
    const std::uint64_t come = NowMs();
    if (answered && !AnswerIsSure(connection, info, question.unit)) {
        reply = {Outcome::Unsure, 0, 0};
        const Unanswered* const late = FindUnanswered(connection, {connection.number, question.unit, nullptr, 0});
        if (late != nullptr) NameLate(connection, info, *late, come);
    }
    if (reply.outcome == Outcome::NoAnswer) {
        KeepUnanswered(connection, question, asked);
        connection.timeouts = static_cast<std::uint8_t>(std::min<unsigned>(connection.timeouts + 1u, MaxTimeouts));
    } else if (answered) {
        connection.timeouts = 0;
    }
    connection.lastMs = NowMs();
    AbandonRequest(connection, reply.outcome);
    return reply;
}

// What cannot be read so makes the connection unfit.
void TakeLateAnswers(Connection& connection, const ComInfoRecord& info)
{
    const bool awaited = std::any_of(std::begin(connection.unanswered), std::end(connection.unanswered),
                                     [](const Unanswered& each) { return each.askedMs != 0; });
    if (!connection.open || !awaited) return;
    for (unsigned frames = 0; frames < MaxUnanswered && BytesCome(connection, 0); frames++) {
        std::uint8_t frame[MODBUS_TCP_MAX_ADU_LENGTH] = {};
        Answer answer = {};
        const Reply reply = Receive(connection, NowMs() + RestMs, frame, answer);
        if (reply.outcome == Outcome::Done && TakeLate(connection, info, answer)) continue;
        AbandonRequest(connection, reply.outcome == Outcome::Done ? Outcome::WrongNumber : reply.outcome);
        return;
    }
}
