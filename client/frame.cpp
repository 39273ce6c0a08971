// Builds request frames. Any thread.
#include "client/frame.h"

#include <algorithm>

#include "client/error.h"
#include "voq/reg_range.h"

namespace voq
{

namespace
{

Bytes BuildFrame(const RegRequest& request, std::span<const std::uint8_t> payload)
{
    const std::size_t total = FrameMinBytes + payload.size();
    if (total > 0xFFFF) throw Error("a frame of " + std::to_string(total) + " bytes is longer than a frame can be");
    Bytes frame(total);
    frame[0] = FrameMarker;
    frame[1] = static_cast<std::uint8_t>(total);
    frame[2] = static_cast<std::uint8_t>(total >> 8);
    PutRecord(frame, FrameHeaderBytes, request);
    std::copy(payload.begin(), payload.end(), frame.begin() + FrameMinBytes);
    return frame;
}

RegRequest MakeRequest(const RegKey& key, RequestCommand command, std::uint16_t fileno)
{
    RegRequest request = {};
    request.key = key;
    request.cmd = static_cast<std::uint8_t>(command);
    request.fileno = fileno;
    return request;
}

Bytes SubscriptionFrame(const RegKey& key, RequestCommand command, std::uint16_t fileno, std::uint32_t orgoffset)
{
    RegRequest request = MakeRequest(key, command, fileno);
    request.orgoffset = orgoffset;
    return BuildFrame(request, {});
}

}  // namespace

Bytes LogOnFrame(const RegKey& key, std::uint16_t fileno, std::uint32_t orgoffset)
{
    return SubscriptionFrame(key, RequestCommand::LogOn, fileno, orgoffset);
}

Bytes LogOffFrame(const RegKey& key, std::uint16_t fileno, std::uint32_t orgoffset)
{
    return SubscriptionFrame(key, RequestCommand::LogOff, fileno, orgoffset);
}

Bytes ReadFrame(const RegKey& key, std::uint16_t fileno)
{
    return BuildFrame(MakeRequest(key, RequestCommand::Read, fileno), {});
}

Bytes WriteFrame(const RegKey& key, std::uint16_t fileno, std::span<const std::uint8_t> value)
{
    if (value.size() != GetRegBuffLen(&key)) {
        throw Error("a value of " + std::to_string(value.size()) + " bytes for a range of " +
                    std::to_string(GetRegBuffLen(&key)));
    }
    return BuildFrame(MakeRequest(key, RequestCommand::Write, fileno), value);
}

Bytes ReadChangeWriteFrame(const RegKey& key, std::uint8_t subcmd, std::uint16_t fileno,
                           std::span<const std::uint8_t> operand)
{
    RegRequest request = MakeRequest(key, RequestCommand::ReadChangeWrite, fileno);
    request.subcmd = subcmd;
    Bytes payload(ChangeHeadBytes + operand.size());
    payload[0] = static_cast<std::uint8_t>(operand.size());
    payload[1] = static_cast<std::uint8_t>(operand.size() >> 8);
    std::copy(operand.begin(), operand.end(), payload.begin() + ChangeHeadBytes);
    return BuildFrame(request, payload);
}

}  // namespace voq
