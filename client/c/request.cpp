// One-shot requests, for C: begun, or waited for. Used by the port's thread.
#include <unistd.h>

#include <algorithm>

#include "client/c/handles.h"
#include "client/change.h"
#include "client/frame.h"
#include "client/numbers.h"
#include "voq/chg_desc.h"
#include "voq/reg_range.h"

namespace
{

using voq::Bytes;
using voq::Failure;
using voq::OnPort;
using voq::Require;
using Clock = voq::Port::Clock;
using std::chrono::milliseconds;

int CodeOf(const voq_request& request)
{
    switch (request.outcome) {
        case voq::Outcome::Pending:
            return VOQ_PENDING;
        case voq::Outcome::Done:
            return VOQ_OK;
        case voq::Outcome::PlcTimeout:
            return VOQ_PLC_TIMEOUT;
        case voq::Outcome::PlcError:
            return request.damage.empty() ? VOQ_PLC_ERROR : VOQ_DAMAGED;
        case voq::Outcome::Refused:
            return VOQ_REFUSED;
        case voq::Outcome::NoAnswer:
            return VOQ_NO_ANSWER;
        case voq::Outcome::NoService:
            break;
    }
    return VOQ_NO_SERVICE;
}

// What is asked, and what of the answer is of use.
struct What {
    voq::Requests::BuildFrame build;
    bool isRead = false;
    milliseconds longer{0};  // that the service takes by itself
};

What ReadOf(const voq_range& range)
{
    return {[&range](std::uint16_t fileno) { return voq::ReadFrame(range.key, fileno); }, true};
}

What WriteOf(const voq_range& range, std::span<const std::uint8_t> image)
{
    return {[&range, image](std::uint16_t fileno) { return voq::WriteFrame(range.key, fileno, image); }};
}

What ChangeOf(voq::ChangeRequest change, milliseconds longer = {})
{
    return {[change = std::move(change)](std::uint16_t fileno) {
                return voq::ReadChangeWriteFrame(change.key, change.subcmd, fileno, change.operand);
            },
            false, longer};
}

What ChangeOf(const voq_range& range, const char* change)
{
    return ChangeOf(voq::BuildChange(range.reg, voq::ByteOrderOf(range), voq::ParseChange(change)));
}

What PulseOf(const voq_range& range, int bit, int value, unsigned length)
{
    std::optional<std::uint32_t> which;
    if (bit >= 0) which = static_cast<std::uint32_t>(bit);
    return ChangeOf(voq::BuildPulse(range.reg, voq::ByteOrderOf(range), which, value != 0, length),
                    milliseconds(length));
}

Clock::time_point Deadline(int timeout, const What& what)
{
    Require(timeout > 0, "a time-out of 0 ms or less");
    return Clock::now() + milliseconds(timeout) + what.longer;
}

void Check(const voq_request& request)
{
    if (request.isRead && request.outcome == voq::Outcome::Done &&
        request.value.size() != GetRegBuffLen(&request.range->key)) {
        throw Failure(VOQ_DAMAGED, request.range->name + ": the answer is not as long as the value");
    }
}

void Begin(voq_range& range, const What& what, int timeout, voq_request** handle)
{
    auto request = std::make_unique<voq_request>();
    request->range = &range;
    request->isRead = what.isRead;
    voq_request* const begun = request.get();
    auto& requests = range.port->requests;
    requests.emplace(begun, std::move(request));
    try {
        range.port->core.Ask(*begun, what.build, {.deadline = Deadline(timeout, what)});
    } catch (...) {
        requests.erase(begun);
        throw;
    }
    *handle = begun;
}

// The answer to a request that is waited for.
voq_request AskAndWait(voq_range& range, const What& what, int timeout)
{
    voq_request request;
    request.range = &range;
    request.isRead = what.isRead;
    const auto deadline = Deadline(timeout, what);
    const auto patience = std::min(milliseconds(timeout), voq::FifoPatience);
    voq::Port& port = range.port->core;
    port.Ask(request, what.build, {deadline, patience, true});
    try {
        if (!port.WaitFor(request, deadline)) throw Failure(VOQ_INTERRUPTED, "interrupted by a signal");
    } catch (...) {
        port.GiveUp(request);
        throw;
    }
    port.GiveUp(request);
    const int code = CodeOf(request);
    if (code != VOQ_OK) {
        throw Failure(code, range.name + ": " + (request.damage.empty() ? voq_strerror(code) : request.damage));
    }
    Check(request);
    return request;
}

bool Reversed(const voq_request& request)
{
    const auto result = voq::RecordAt<std::uint16_t>(request.value, 0);
    return !request.isRead && result && (*result & CMD_REVERSED) != 0;
}

}  // namespace

int voq_read(voq_range* range, void* image, size_t size, int timeout_ms)
{
    return OnPort(range->port, [&] {
        Require(size >= voq_range_bytes(range), "the room is smaller than the value");
        return voq::StoreImage(AskAndWait(*range, ReadOf(*range), timeout_ms).value, image, size);
    });
}

int voq_write(voq_range* range, const void* image, size_t length, int timeout_ms)
{
    return OnPort(range->port, [&] {
        AskAndWait(*range, WriteOf(*range, voq::Span(image, length)), timeout_ms);
        return VOQ_OK;
    });
}

int voq_read_values(voq_range* range, double* values, size_t count, int timeout_ms)
{
    return OnPort(range->port, [&] {
        const voq::ValueCoding coding = voq::CodingOf(*range);
        const voq_request request = AskAndWait(*range, ReadOf(*range), timeout_ms);
        return static_cast<int>(voq::DecodeNumbers(coding, request.value, {values, count}));
    });
}

int voq_write_values(voq_range* range, const double* values, size_t count, int timeout_ms)
{
    return OnPort(range->port, [&] {
        const Bytes image = voq::EncodeNumbers(voq::CodingOf(*range), {values, count});
        AskAndWait(*range, WriteOf(*range, image), timeout_ms);
        return VOQ_OK;
    });
}

int voq_change(voq_range* range, const char* change, int* reversed, int timeout_ms)
{
    return OnPort(range->port, [&] {
        const voq_request request = AskAndWait(*range, ChangeOf(*range, change), timeout_ms);
        if (reversed != nullptr) *reversed = Reversed(request) ? 1 : 0;
        return VOQ_OK;
    });
}

int voq_pulse(voq_range* range, int bit, int value, unsigned length_ms, int timeout_ms)
{
    return OnPort(range->port, [&] {
        AskAndWait(*range, PulseOf(*range, bit, value, length_ms), timeout_ms);
        return VOQ_OK;
    });
}

int voq_begin_read(voq_range* range, int timeout_ms, voq_request** request)
{
    *request = nullptr;
    return OnPort(range->port, [&] {
        Begin(*range, ReadOf(*range), timeout_ms, request);
        return VOQ_OK;
    });
}

int voq_begin_write(voq_range* range, const void* image, size_t length, int timeout_ms, voq_request** request)
{
    *request = nullptr;
    return OnPort(range->port, [&] {
        Begin(*range, WriteOf(*range, voq::Span(image, length)), timeout_ms, request);
        return VOQ_OK;
    });
}

int voq_begin_change(voq_range* range, const char* change, int timeout_ms, voq_request** request)
{
    *request = nullptr;
    return OnPort(range->port, [&] {
        Begin(*range, ChangeOf(*range, change), timeout_ms, request);
        return VOQ_OK;
    });
}

int voq_begin_pulse(voq_range* range, int bit, int value, unsigned length_ms, int timeout_ms, voq_request** request)
{
    *request = nullptr;
    return OnPort(range->port, [&] {
        Begin(*range, PulseOf(*range, bit, value, length_ms), timeout_ms, request);
        return VOQ_OK;
    });
}

int voq_request_result(const voq_request* request)
{
    return OnPort(request->range->port, [&] {
        Check(*request);
        return CodeOf(*request);
    });
}

const void* voq_request_data(const voq_request* request, size_t* length)
{
    const bool there = request->isRead && request->outcome == voq::Outcome::Done && !request->value.empty();
    *length = there ? request->value.size() : 0;
    return there ? request->value.data() : nullptr;
}

int voq_request_reversed(const voq_request* request)
{
    return request->outcome == voq::Outcome::Done && Reversed(*request) ? 1 : 0;
}

voq_range* voq_request_range(const voq_request* request)
{
    return request->range;
}

void voq_request_set_user(voq_request* request, void* user)
{
    request->user = user;
}

void* voq_request_user(const voq_request* request)
{
    return request->user;
}

void voq_request_free(voq_request* request)
{
    if (request == nullptr) return;
    voq_port* const port = request->range->port;
    if (port->process != getpid()) return;
    port->core.GiveUp(*request);
    port->requests.erase(request);
}
